# Debian packages, one for each installed component, and a tarball of the same tree for devices without
# dpkg: `./dev package`. What they depend on is written out, because a cross-build has no dpkg to ask;
# the tests compare it with what the programs need.
set(CPACK_PACKAGE_NAME tarv)
set(CPACK_PACKAGE_VENDOR "the tarv authors")
set(CPACK_PACKAGE_CONTACT "the tarv authors <authors@tarv.dev.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "background tasks for plug-ins, by JSON-RPC")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev host doc)
if(TARGET tarvctl)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(libraries "libc6 (>= 2.36), libgcc-s1 (>= 3.0), libqt5core5a (>= 5.15.1), libstdc++6 (>= 12)")
set(same "= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(about "tarv lets a Flutter plug-in on a small Linux platform do work in background\ntask processes, and speak JSON-RPC 2.0 with them.\n.\n")

# tarv_package(COMPONENT NAME SECTION DEPENDS TEXT): the first line is the same for all.
macro(tarv_package component name section depends text)
  string(TOUPPER "${component}" upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${about}${text}")
endmacro()
tarv_package(runtime tarv libs "${libraries}, tarv-host (${same}) | tarv-platform"
  "This package holds the library.")
tarv_package(dev tarv-dev libdevel "tarv (${same}), qtbase5-dev (>= 5.15.1)"
  "This package holds the headers, and what CMake and pkg-config need.")
tarv_package(host tarv-host libs "${libraries}"
  "This package holds the runtime manager and the embedder of a workstation, with\ntheir headers.")
tarv_package(tools tarv-tools devel
  "${libraries}, libedit2 (>= 3.1), tarv (${same}), tarv-host (${same})"
  "This package holds tarvctl, which talks to tasks by hand, and shows records of\nwhat was said.")
tarv_package(doc tarv-doc doc ""
  "This package holds the documentation.")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS "tarv-dev")
# For the matchers of tarv::testing, and for the tests of a project that tarv-new makes.
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libgmock-dev")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  # The workstation's part is for workstations.
  set(CPACK_COMPONENTS_ALL runtime dev)
endif()

# Debian's copyright and changelog files.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(CONFIGURE OUTPUT "${made}/copyright" CONTENT
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: tarv

Files: *
Copyright: 2026 the tarv authors
License: Apache-2.0
 The text of the licence is in /usr/share/common-licenses/Apache-2.0.
")
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER "${component}" upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(CONFIGURE OUTPUT "${made}/${package}/changelog" CONTENT
"${package} (${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * See CHANGELOG.md, which tarv-doc holds.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  execute_process(COMMAND gzip -9nc "${made}/${package}/changelog"
    OUTPUT_FILE "${made}/${package}/changelog.Debian.gz" COMMAND_ERROR_IS_FATAL ANY)
  install(FILES LICENSE "${made}/copyright" "${made}/${package}/changelog.Debian.gz"
    DESTINATION "${documents}/${package}" COMPONENT ${component})
  if(EXISTS "${PROJECT_SOURCE_DIR}/cmake/lintian/${package}")
    install(FILES "cmake/lintian/${package}" DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides"
      COMPONENT ${component})
  endif()
endforeach()
execute_process(COMMAND gzip -9nc "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
  OUTPUT_FILE "${made}/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND gzip -9nc "${PROJECT_SOURCE_DIR}/docs/tarv-new.1"
  OUTPUT_FILE "${made}/tarv-new.1.gz" COMMAND_ERROR_IS_FATAL ANY)
install(FILES "${made}/tarv-new.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT dev)
install(FILES "${made}/changelog.gz" DESTINATION "${documents}/tarv-doc" COMPONENT doc)
include(CPack)
