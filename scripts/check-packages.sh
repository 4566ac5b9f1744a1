#!/usr/bin/env bash
# Checks the Debian packages in DIR: each one's control fields and contents, lintian (no
# errors), then unpacks all three into a throw-away root and builds and runs the consumer
# project and the examples against it, and the installed tool from there.
# Usage: scripts/check-packages.sh DIR
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
version=$(sed -n 's/^project(tqcore VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
fail() { echo "check-packages: $*" >&2; exit 1; }

deb_of() { echo "$dir/$1_${version}_${arch}.deb"; }
field() { dpkg-deb -f "$(deb_of "$1")" "$2"; }
contents() { dpkg-deb -c "$(deb_of "$1")" | awk '{print $6}' | sed 's|^\./|/|'; }

# field PACKAGE NAME must contain each of the remaining words
expect_field() {
  local package=$1 name=$2 value
  shift 2
  value=$(field "$package" "$name")
  for want in "$@"; do
    [[ "$value" == *"$want"* ]] || fail "$package: $name is '$value', lacks '$want'"
  done
}
# has PACKAGE PATH... / lacks PACKAGE PATTERN
has() {
  local package=$1 list
  shift
  list=$(contents "$package")
  for path in "$@"; do
    grep -qxF "$path" <<<"$list" || fail "$package lacks $path"
  done
}
lacks() {
  if contents "$1" | grep -qE "$2"; then fail "$1 should not hold $2"; fi
}

for package in libtqcore0 libtqcore-dev tqcore-tools; do
  [[ -f $(deb_of $package) ]] || fail "missing $(deb_of $package)"
  expect_field $package Package $package
  expect_field $package Version "$version"
  expect_field $package Architecture "$arch"
  has $package /usr/share/doc/$package/copyright /usr/share/doc/$package/changelog.gz
done
lib=/usr/lib/$multiarch
expect_field libtqcore0 Section libs
expect_field libtqcore0 Depends "libc6 (>=" "libstdc++6" "libunwind8" "libdw1" "libace-"
has libtqcore0 $lib/libtqcore.so.0 $lib/libtqcore.so.0.1 $lib/libtqmoduleregistry.so.0
lacks libtqcore0 '^/usr/include/|\.so$'
expect_field libtqcore-dev Section libdevel
expect_field libtqcore-dev Depends "libtqcore0 (= $version)" libace-dev libboost-dev
has libtqcore-dev /usr/include/tqcore/tqcore.h /usr/include/tqcore/tqcore_export.h \
  /usr/include/tqcore/version.h /usr/include/tqcore/testing/matchers.h \
  /usr/include/tqmoduleregistry/module_registry.h \
  $lib/libtqcore.so $lib/libtqmoduleregistry.so $lib/pkgconfig/tqcore.pc \
  $lib/cmake/tqcore/tqcoreConfig.cmake $lib/cmake/tqcore/tqcoreTargets.cmake
lacks libtqcore-dev '\.so\.[0-9]'
expect_field tqcore-tools Section utils
expect_field tqcore-tools Depends "libtqcore0 (= $version)" "libc6"
has tqcore-tools /usr/bin/tqcore /usr/share/man/man1/tqcore.1.gz
lacks tqcore-tools '^/usr/(include|lib)/'
# The libraries' shlibs let packages built against them depend on them in turn.
dpkg-deb --ctrl-tarfile "$(deb_of libtqcore0)" | tar -xO ./shlibs | grep -q "^libtqcore 0 libtqcore0" ||
  fail "libtqcore0 has no shlibs entry for libtqcore.so.0"

# lintian: errors fail, warnings are shown.
lintian_status=0
report=$(lintian --fail-on error "$dir"/*.deb 2>&1) || lintian_status=$?
grep -v 'running with root privileges' <<<"$report" || true
[[ $lintian_status -eq 0 ]] || fail "lintian reports errors"

# A throw-away root holding the three packages, as dpkg would lay them out.
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for package in libtqcore0 libtqcore-dev tqcore-tools; do
  dpkg-deb -x "$(deb_of $package)" "$root"
done
cmake -DPREFIX="$root/usr" -DLIBDIR="lib/$multiarch" -DSOURCE_DIR="$PWD/int/test/consumer" \
  -DEXAMPLES_DIR="$PWD/examples" -DWORK_DIR="$root/work" -P int/test/consumer/check_packaging.cmake
echo "packages checked: $(cd "$dir" && ls ./*.deb | tr '\n' ' ')"
