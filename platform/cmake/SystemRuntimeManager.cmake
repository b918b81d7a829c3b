# RuntimeManager::RuntimeManager from the system: a CMake package, else a pkg-config module.
if(NOT TARV_RUNTIME_MANAGER STREQUAL "system")
  message(FATAL_ERROR "TARV_RUNTIME_MANAGER is '${TARV_RUNTIME_MANAGER}'; it must be 'host' (the "
    "bundled library) or 'system' (an installed one).")
endif()

find_package(RuntimeManager CONFIG QUIET GLOBAL)
if(NOT TARGET RuntimeManager::RuntimeManager)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(RuntimeManager QUIET IMPORTED_TARGET GLOBAL RuntimeManager)
  endif()
  if(TARGET PkgConfig::RuntimeManager)
    add_library(RuntimeManager::RuntimeManager ALIAS PkgConfig::RuntimeManager)
  endif()
endif()

if(NOT TARGET RuntimeManager::RuntimeManager)
  message(FATAL_ERROR "TARV_RUNTIME_MANAGER=system, but this system has no runtime-manager client "
    "library: there is neither a CMake package RuntimeManager with a target "
    "RuntimeManager::RuntimeManager (add its prefix to CMAKE_PREFIX_PATH) nor a pkg-config module "
    "RuntimeManager (add its folder to PKG_CONFIG_PATH). Install it, or configure with "
    "-DTARV_RUNTIME_MANAGER=host to use the bundled one.")
endif()
