#!/usr/bin/env bash
# Installs the Debian packages that are missing, and nothing else. Quiet when all are there.
# Usage: scripts/ensure-packages.sh build|test|bench|ci|package|docs|fuzz|coverage
set -euo pipefail

build_packages=(cmake ninja-build g++ pkgconf libace-dev libboost-dev libunwind-dev libdw-dev)
test_packages=(libgtest-dev libgmock-dev libxml2-utils binutils libbenchmark-dev libboost-dev libboost-thread-dev libabsl-dev libicu-dev libssl-dev uuid-dev libboost-stacktrace-dev libcpu-features-dev libcpuinfo-dev gdb)
ci_packages=(clang clang-tidy clang-format)
package_packages=(dpkg-dev file lintian)
docs_packages=(doxygen)
fuzz_packages=(clang-14 libclang-rt-14-dev)
coverage_packages=(gcovr)
bench_packages=(libbenchmark-dev libboost-dev libboost-thread-dev libabsl-dev libicu-dev libssl-dev uuid-dev libboost-stacktrace-dev libcpu-features-dev libcpuinfo-dev)

case "${1:-build}" in
  build) wanted=("${build_packages[@]}") ;;
  test) wanted=("${build_packages[@]}" "${test_packages[@]}") ;;
  bench) wanted=("${build_packages[@]}" "${bench_packages[@]}") ;;
  ci) wanted=("${build_packages[@]}" "${ci_packages[@]}") ;;
  package) wanted=("${build_packages[@]}" "${package_packages[@]}") ;;
  docs) wanted=("${docs_packages[@]}") ;;
  fuzz) wanted=("${build_packages[@]}" "${fuzz_packages[@]}") ;;
  coverage) wanted=("${build_packages[@]}" "${test_packages[@]}" "${coverage_packages[@]}") ;;
  *) echo "usage: $0 build|test|bench|ci|package|docs|fuzz|coverage" >&2; exit 2 ;;
esac

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
