#!/usr/bin/env bash
# make_sysroot.sh DIR
#
# Makes a private arm64 sysroot in DIR, for cross-building the project with Debian's cross compiler:
# Qt 5 Core and Network, GoogleTest, what they depend on, and the runner of runner.c. The packages are
# downloaded with apt (which checks signatures and hashes) and only unpacked: nothing is installed,
# no maintainer script runs, and the host's dpkg database, apt lists and apt cache are not touched.
# Needs neither root nor `dpkg --add-architecture`.
#
# Downloads are kept in DIR.apt, so another run is quick.
set -euo pipefail

architecture=arm64
triplet=aarch64-linux-gnu
# Taken with everything that they depend on.
packages=(libqt5core5a libqt5network5 libgtest-dev libgmock-dev)
# Taken alone, for their headers and CMake files: they depend on a graphics stack and host tools.
packages_alone=(qtbase5-dev qt5-qmake)

[ $# -eq 1 ] || { echo "usage: make_sysroot.sh DIR" >&2; exit 2; }
here=$(dirname "$(readlink -f "$0")")
sysroot=$(realpath -m -- "$1")
work=$sysroot.apt
archives=$work/cache/archives
new=$sysroot.new.$$
trap 'rm -rf "$new"' EXIT

give_up() {
  printf 'make_sysroot.sh: %s\n' "$*" >&2
  exit 1
}

check_tools() {
  local tool
  for tool in apt-get dpkg-deb tar cc aarch64-linux-gnu-g++ qemu-aarch64-static; do
    command -v "$tool" > /dev/null || give_up "the program '$tool' is missing"
  done
  for tool in moc rcc qmake; do
    [ -x "/usr/lib/qt5/bin/$tool" ] || give_up "the host's /usr/lib/qt5/bin/$tool is missing"
  done
}

# An apt of our own: own lists, own cache, an empty "installed" database, one architecture.
write_apt_configuration() {
  mkdir -p "$work/lists/partial" "$archives/partial"
  : > "$work/status"
  cat > "$work/apt.conf" <<EOT
#clear APT::Architectures;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear DPkg::Post-Invoke;
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Install-Recommends "false";
APT::Sandbox::User "";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::State "$work";
Dir::State::status "$work/status";
Dir::State::lists "$work/lists";
Dir::State::extended_states "$work/extended_states";
Dir::Cache "$work/cache";
Dir::Cache::archives "$archives";
Dir::Cache::pkgcache "pkgcache.bin";
Dir::Cache::srcpkgcache "srcpkgcache.bin";
Dir::Log "$work";
Binary::apt-get::APT::Keep-Downloaded-Packages "true";
EOT
}

our_apt() { apt-get -q -c "$work/apt.conf" "$@"; }

# logged NAME COMMAND...: the command's output is shown only when it fails.
logged() {
  local log=$work/$1.log
  shift
  "$@" > "$log" 2>&1 || { cat "$log" >&2; give_up "'$*' failed"; }
}

# The file names of all packages wanted. apt leaves out what is downloaded already, hence the empty
# archive folder.
resolve() {
  local empty=$work/empty
  rm -rf "$empty"
  mkdir -p "$empty/partial"
  cd "$empty"
  our_apt -o Dir::Cache::archives="$empty" --print-uris -y install "${packages[@]}"
  our_apt --print-uris download "${packages_alone[@]}"
}

download() {
  cd "$archives"
  our_apt --download-only -y install "${packages[@]}"
  our_apt download "${packages_alone[@]}"
}

unpack() {
  local file=$archives/$1
  [ -f "$file" ] || give_up "$1 was not downloaded"
  case $(dpkg-deb -f "$file" Architecture) in
    "$architecture" | all) ;;
    *) give_up "$1 is of another architecture" ;;
  esac
  dpkg-deb --fsys-tarfile "$file" | tar -x -C "$new" --no-same-owner --keep-directory-symlink \
    --exclude='./usr/lib/qt5/bin' --exclude='./usr/share/doc' --exclude='./usr/share/man' \
    --exclude='./usr/share/locale' --exclude='./usr/share/lintian' --exclude='./usr/src'
}

# Absolute links, such as libfoo.so -> /lib/TRIPLET/libfoo.so.1, would lead to the host.
make_links_relative() {
  local link target
  find "$new" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    if [ -e "$new$target" ]; then ln -sfnr "$new$target" "$link"; else rm -f "$link"; fi
  done
}

# What turns a folder of packages into something that CMake can build with and the host can run:
# Qt's CMake files look for moc below the same prefix; the interpreter (which the runner registers
# as binfmt_misc's, with flag P: FILE ARGV0 ARG...) finds the sysroot from its own place, so that
# children with an empty environment run as well.
add_host_side() {
  mkdir -p "$new/usr/lib/qt5"
  ln -s /usr/lib/qt5/bin "$new/usr/lib/qt5/bin"
  cat > "$new/qemu-interpreter" <<'EOT'
#!/bin/sh
file=$1
name=$2
shift 2
exec /usr/bin/qemu-aarch64-static -L "${0%/*}" -0 "$name" "$file" "$@"
EOT
  chmod 755 "$new/qemu-interpreter"
  cc -O2 -Wall -o "$new/aarch64-run" "$here/runner.c"
}

check() {
  local file folder
  for file in lib/ld-linux-aarch64.so.1 "usr/lib/$triplet/libQt5Core.so" \
    "usr/lib/$triplet/libQt5Network.so" "usr/lib/$triplet/cmake/Qt5Core/Qt5CoreConfig.cmake" \
    "usr/lib/$triplet/cmake/GTest/GTestConfig.cmake" usr/lib/qt5/bin/moc; do
    [ -e "$new/$file" ] || give_up "the sysroot lacks $file"
  done
  for folder in bin sbin lib; do
    [ -L "$new/$folder" ] || give_up "/$folder stopped being a link"
  done
}

check_tools
write_apt_configuration
logged update our_apt update
resolve > "$work/uris" 2> "$work/resolve.log" || { cat "$work/resolve.log" >&2; give_up "no such packages"; }
mapfile -t files < <(sed -n "s/^'[^']*' \([^ ]*\.deb\) .*/\1/p" "$work/uris" | sort -u)
[ ${#files[@]} -gt 10 ] || give_up "implausibly few packages: ${files[*]}"
logged download download

mkdir -p "$new"/usr/{bin,sbin,lib}
for folder in bin sbin lib; do ln -s "usr/$folder" "$new/$folder"; done
for file in "${files[@]}"; do unpack "$file"; done
make_links_relative
add_host_side
check
printf '%s\n' "${files[@]}" > "$new/MANIFEST"
rm -rf "$sysroot"
mv "$new" "$sysroot"
echo "$sysroot: ${#files[@]} packages"
