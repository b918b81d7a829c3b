#!/usr/bin/env bash
# outside.sh COMMAND ARGUMENT...: uses the library as somebody does who has only what is installed.
#
#   install BUILD SOURCE PREFIX   installs, uninstalls, which leaves nothing, installs again, and moves
#                                 the tree to PREFIX, where the other commands use it
#   cmake STANDARD PREFIX         a project of CMake alone, as C++STANDARD
#   pkgconfig STANDARD PREFIX     programs built with pkg-config alone
#   c PREFIX                      a C11 project, with CMake and with pkg-config
#   new PREFIX                    the project that tarv-new makes, built and tested
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
# Nothing may come from the surroundings.
unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH RUNTIME_MANAGER_TASK_PATH
unset CXXFLAGS CFLAGS CMAKE_CXX_COMPILER_LAUNCHER CMAKE_C_COMPILER_LAUNCHER

fail() {
  printf 'outside.sh: %s\n' "$*" >&2
  exit 1
}

no_path_inside() {
  local path
  for path in "$@"; do
    ! grep -rlF -- "$path" "$prefix" || fail "these installed files name the path $path"
  done
}

install_tree() {
  local build=$1 source=$2 first
  prefix=$3
  first=$(mktemp -d)/first
  rm -rf "$prefix"
  cmake --install "$build" --prefix "$first" > install.log
  cmake -P "$build/install-files/uninstall.cmake"
  [ ! -e "$first" ] || fail "this is left after uninstalling: $(find "$first" | head)"
  cmake --install "$build" --prefix "$first" > install.log
  mkdir -p "$(dirname "$prefix")"
  mv "$first" "$prefix"
  rmdir "$(dirname "$first")"
  no_path_inside "$build" "$source/" "$first"
}

expect_sum() {
  local said
  said=$(timeout 60 "$1") || fail "$1 failed: $said"
  [ "$said" = "sum 42, mapped 1, version $version" ] || fail "$1 says: $said"
}

find_version() { version=$(sed -n 's/^#define TARV_VERSION "\(.*\)"/\1/p' "$prefix/include/tarv/tarv/version.h"); }

with_cmake() {
  local standard=$1
  prefix=$2
  find_version
  cmake --fresh -S "$here/consumer" -B "cmake$standard" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_STANDARD="$standard" -DCMAKE_CXX_EXTENSIONS=OFF -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
  cmake --build "cmake$standard"
  expect_sum "cmake$standard/adder/bin/adder"
}

with_pkgconfig() {
  local standard=$1 flags
  prefix=$2
  find_version
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tarv.pc)")
  export PKG_CONFIG_PATH
  [ "$(pkg-config --modversion tarv-host)" = "$version" ] || fail "tarv-host.pc tells another version"
  read -r -a flags <<< "$(pkg-config --cflags --libs tarv-host)"
  mkdir -p "pc$standard/bin/tasks" "pc$standard/lib"
  ln -sf "$(pkg-config --variable=libdir tarv)/libtarv.so" "pc$standard/lib/"
  g++ -std="c++$standard" -fPIC "$here/consumer/application.cpp" -o "pc$standard/bin/adder" "${flags[@]}"
  g++ -std="c++$standard" -fPIC "$here/consumer/task.cpp" -o "pc$standard/bin/tasks/sum" "${flags[@]}"
  expect_sum "pc$standard/bin/adder"
}

expect_version() { [ "$("$1")" = "version $version" ] || fail "$1 says: $("$1")"; }

with_c() {
  local flags
  prefix=$1
  find_version
  cmake --fresh -S "$here/c_consumer" -B c -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
  cmake --build c
  expect_version c/loads
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tarv.pc)")
  export PKG_CONFIG_PATH
  read -r -a flags <<< "$(pkg-config --cflags --libs tarv)"
  gcc -std=c11 -Wall -Wextra -Wpedantic -Werror "$here/c_consumer/loads.c" -o c/by_pkgconfig "${flags[@]}"
  expect_version c/by_pkgconfig
}

with_template() {
  prefix=$1
  find_version
  rm -rf new
  [ "$("$prefix/bin/tarv-new" --version)" = "tarv-new $version" ] || fail "tarv-new tells no version"
  "$prefix/bin/tarv-new" adder new/adder
  ! "$prefix/bin/tarv-new" adder new/adder || fail "tarv-new overwrites"
  ! "$prefix/bin/tarv-new" 'my app' new/other || fail "tarv-new takes a name that C++ does not"
  ! grep -rnE '%VERSION%|my_app|MY_APP' new/adder || fail "this is left in the template"
  cmake -S new/adder -B new/build -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS=-Werror
  cmake --build new/build
  ctest --test-dir new/build --output-on-failure --no-tests=error
}

command=$1
shift
case $command in
  install) install_tree "$@" ;;
  cmake) with_cmake "$@" ;;
  pkgconfig) with_pkgconfig "$@" ;;
  c) with_c "$@" ;;
  new) with_template "$@" ;;
  *) fail "there is no command $command" ;;
esac
