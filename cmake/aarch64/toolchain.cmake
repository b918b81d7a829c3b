# Cross-builds for AArch64 Linux with Debian's compiler and the sysroot in AARCH64_SYSROOT, which
# make_sysroot.sh makes; programs of the target run through the sysroot's runner.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT EXISTS "${AARCH64_SYSROOT}/aarch64-run")
  message(FATAL_ERROR "There is no arm64 sysroot at '${AARCH64_SYSROOT}': run `./dev aarch64`, or "
    "cmake/aarch64/make_sysroot.sh and give its folder as -DAARCH64_SYSROOT=")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AARCH64_SYSROOT)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_SYSROOT "${AARCH64_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Code generators come from the host; headers, libraries and packages only from the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR "${AARCH64_SYSROOT}/aarch64-run")
