#!/usr/bin/env bash
# check_packages.sh FOLDER: looks at the Debian packages in FOLDER as a user of them does: what lintian
# says, whether what they need is what they say, whether unpacked into an empty root they can be built
# upon, and whether removing them leaves nothing. Packages of another architecture are only looked at.
set -euo pipefail
folder=$(realpath "$1")
here=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  printf 'check_packages.sh: %s\n' "$*" >&2
  exit 1
}

packages=("$folder"/*.deb)
[ -f "${packages[0]}" ] || fail "there is no package in $folder"

# The overrides, each with its reason, are in the packages.
lintian --allow-root --fail-on error,warning --no-cfg "${packages[@]}" || fail "lintian is not content"

mkdir "$work/root"
for package in "${packages[@]}"; do dpkg-deb -x "$package" "$work/root"; done
source=$(realpath "$here/../..")
! grep -rlF -- "$source/" "$work/root" || fail "these packed files name the folder $source"
architecture=$(dpkg-deb -f "$(ls "$folder"/tarv_*.deb)" Architecture)
[ "$architecture" = "$(dpkg --print-architecture)" ] || exit 0

# Whether the text of dependencies names one of the packages.
names_one() {
  local owner
  for owner in $2; do
    case " $1" in *" $owner "*) return 0 ;; esac
  done
  return 1
}

# Of each library that a file needs: the package that has it must be among the dependencies.
check_dependencies() {
  local package=$1 depends file needed owners
  depends=$(dpkg-deb -f "$package" Depends)
  mkdir -p "$work/one"
  dpkg-deb -x "$package" "$work/one"
  while IFS= read -r file; do
    for needed in $(readelf -d "$file" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p'); do
      [ -z "$(find "$work/root" -name "$needed")" ] || continue
      # A cross compiler's packages have files of the same name.
      owners=$(dpkg -S "*/$needed" | grep -v '^diversion' | cut -d: -f1 | sort -u)
      names_one "$depends" "$owners" ||
        fail "$(basename "$package") needs $needed of one of" $owners ", and says: $depends"
    done
  done < <(find "$work/one" -name '*.so' -o -path '*/usr/bin/*' -type f)
  rm -rf "$work/one"
}
for package in "${packages[@]}"; do check_dependencies "$package"; done

"$source/cmake/docs/check_site.py" "$work/root/usr/share/doc/tarv-doc/html" ||
  fail "tarv-doc does not hold the whole site"

cd "$work"
for use in "cmake 20" "pkgconfig 17" c new; do
  begin=$SECONDS
  # shellcheck disable=SC2086
  "$here/../outside/outside.sh" $use "$work/root/usr" > log 2>&1 ||
    { cat log >&2; fail "the unpacked packages cannot be built upon: $use"; }
done
# From the packages to a task of one's own: the last of them is the template.
took=$((SECONDS - begin))
echo "check_packages.sh: a new project was made, built and tested in $took s"
[ "$took" -le 180 ] || fail "it may take 180 s: what do the headers include that they need not?"

# Installed by dpkg into a root of their own, and removed.
own="$work/own"
mkdir -p "$own/var/lib/dpkg/"{info,updates,triggers}
touch "$own/var/lib/dpkg/"{status,available}
our_dpkg() { dpkg --root="$own" --force-depends --force-not-root --log=/dev/null "$@" > log 2>&1 || { cat log >&2; fail "dpkg $*"; }; }
our_dpkg --install "${packages[@]}"
[ -n "$(find "$own/usr" -name libtarv.so)" ] || fail "dpkg installed no library"
our_dpkg --purge tarv-tools tarv tarv-dev tarv-host tarv-doc
[ -z "$(find "$own" -path "$own/var" -prune -o \( -type f -o -type l \) -print)" ] ||
  fail "this is left after the packages are removed: $(find "$own/usr" | head)"
