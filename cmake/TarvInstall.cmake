# What is installed, by component: runtime (the library), dev (headers, CMake and pkg-config files, the
# layers above the library), host (the workstation's embedder and runtime manager, with their
# headers), tools (tarvctl), doc. The headers are those of the header file sets, so a new library is taken in by
# having one; a static library that links tarv::tarv is a layer.
include(CMakePackageConfigHelpers)
include(TarvHeaders)

# The library's file has no version in its name, because plug-ins find it by that name in the
# application's folder; so it and what goes with it have a folder of their own.
set(TARV_LIBRARY_FOLDER "${CMAKE_INSTALL_LIBDIR}/tarv")
set(TARV_INCLUDE_FOLDER "${CMAKE_INSTALL_INCLUDEDIR}/tarv")
set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/tarv")
set(made "${PROJECT_BINARY_DIR}/install-files")
set(host_targets veltra_host runtimemanager runtimemanager_headers)

tarv_targets_with_headers(targets_with_headers)
foreach(target ${targets_with_headers})
  set(component dev)
  if(target IN_LIST host_targets)
    set(component host)
  endif()
  tarv_header_folders(folders ${target})
  tarv_header_names(names ${target})
  foreach(name ${names})
    foreach(folder ${folders})
      if(EXISTS "${folder}/${name}")
        cmake_path(GET name PARENT_PATH below)
        install(FILES "${folder}/${name}" DESTINATION "${TARV_INCLUDE_FOLDER}/${below}"
          COMPONENT ${component})
      endif()
    endforeach()
  endforeach()
endforeach()

set_target_properties(tarv PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tarv LIBRARY DESTINATION "${TARV_LIBRARY_FOLDER}" COMPONENT runtime)
if(TARGET runtimemanager)
  set_target_properties(veltra_host runtimemanager PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS veltra_host runtimemanager
    LIBRARY DESTINATION "${TARV_LIBRARY_FOLDER}" COMPONENT host)
endif()

# The layers: what each links stands in tarvLayers.cmake.
set(layers "# The layers above the library; part of tarvConfig.cmake.\n")
foreach(target ${targets_with_headers})
  get_target_property(type ${target} TYPE)
  get_target_property(links ${target} INTERFACE_LINK_LIBRARIES)
  list(FILTER links INCLUDE REGEX "^(tarv|veltra|RuntimeManager|Qt5|Threads)::")
  if(type STREQUAL "STATIC_LIBRARY" AND "tarv::tarv" IN_LIST links)
    install(FILES $<TARGET_FILE:${target}> DESTINATION "${TARV_LIBRARY_FOLDER}"
      RENAME "libtarv_${target}.a" COMPONENT dev)
    # What strips the installed programs leaves files alone.
    install(CODE "if(CMAKE_INSTALL_DO_STRIP)
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${TARV_LIBRARY_FOLDER}/libtarv_${target}.a\")
    endif()" COMPONENT dev)
    string(APPEND layers "
find_dependency(Qt5 5.15 COMPONENTS Core)
if(NOT TARGET tarv::${target})
  add_library(tarv::${target} STATIC IMPORTED)
  set_target_properties(tarv::${target} PROPERTIES
    IMPORTED_LOCATION \"\${_tarv_libraries}/libtarv_${target}.a\"
    INTERFACE_LINK_LIBRARIES \"${links}\")
endif()
")
  endif()
endforeach()
file(CONFIGURE OUTPUT "${made}/tarvLayers.cmake" CONTENT "${layers}" @ONLY)

# Both kinds of package file find everything from their own place.
configure_package_config_file(cmake/tarvConfig.cmake.in "${made}/tarvConfig.cmake"
  INSTALL_DESTINATION "${package_folder}" PATH_VARS TARV_INCLUDE_FOLDER TARV_LIBRARY_FOLDER)
# Until 1.0 a minor version may break programs.
write_basic_package_version_file("${made}/tarvConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" OUTPUT_VARIABLE TARV_PREFIX_FROM_PKGCONFIG)
configure_file(cmake/tarvHost.cmake.in "${made}/tarvHost.cmake" COPYONLY)
foreach(file tarv tarv-host)
  configure_file(cmake/${file}.pc.in "${made}/${file}.pc" @ONLY)
endforeach()
install(FILES "${made}/tarvConfig.cmake" "${made}/tarvConfigVersion.cmake"
  "${made}/tarvLayers.cmake" cmake/TarvApplication.cmake
  DESTINATION "${package_folder}" COMPONENT dev)
install(FILES "${made}/tarv.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)
if(TARGET runtimemanager)
  install(FILES "${made}/tarvHost.cmake" DESTINATION "${package_folder}" COMPONENT host)
  install(FILES "${made}/tarv-host.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT host)
endif()

set(documents "${CMAKE_INSTALL_DATADIR}/doc")
install(FILES README.md DESTINATION "${documents}/tarv-doc" COMPONENT doc)
install(DIRECTORY docs DESTINATION "${documents}/tarv-doc" COMPONENT doc
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
if(TARV_SITE)
  install(DIRECTORY "${TARV_SITE}" DESTINATION "${documents}/tarv-doc" COMPONENT doc OPTIONAL)
endif()
# tarv-new, and the project that it makes.
set(TARV_NEW_VERSION "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
set(template_folder "${CMAKE_INSTALL_FULL_DATADIR}/tarv/template")
cmake_path(RELATIVE_PATH template_folder BASE_DIRECTORY "${CMAKE_INSTALL_FULL_BINDIR}"
  OUTPUT_VARIABLE TARV_TEMPLATE_FROM_TOOL)
configure_file(cmake/tarv-new.in "${made}/tarv-new" @ONLY)
install(PROGRAMS "${made}/tarv-new" TYPE BIN COMPONENT dev)
install(DIRECTORY template/ DESTINATION "${CMAKE_INSTALL_DATADIR}/tarv/template" COMPONENT dev
  USE_SOURCE_PERMISSIONS)

if(TARGET tarvctl)
  # It runs on the libraries' own folder, and is there wherever they are.
  file(RELATIVE_PATH libraries_from_bin "${CMAKE_INSTALL_FULL_BINDIR}"
    "${CMAKE_INSTALL_FULL_LIBDIR}/tarv")
  set_target_properties(tarvctl PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries_from_bin}")
  install(TARGETS tarvctl RUNTIME COMPONENT tools)
  install(FILES "${TARVCTL_GENERATED}/tarvctl.bash" RENAME tarvctl COMPONENT tools
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
  install(DIRECTORY "${TARVCTL_GENERATED}/man/" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT tools)
endif()

configure_file(cmake/uninstall.cmake.in "${made}/uninstall.cmake" @ONLY)
include(TarvPackages)
