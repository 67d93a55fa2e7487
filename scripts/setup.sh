#!/usr/bin/env bash
# Installs the Debian packages that are missing, by default those the libraries, the zoproject
# tool and its demo need to build (the demo preset). Options add to them:
#   --tests  the tests, the benchmarks, the examples' checks and the manual (the default preset)
#   --docs   Doxygen, for the manual of the release presets
#   --qt6    Qt 6, for the qt6 and release-qt6 presets (with --tests for its tests)
#   --fuzz   clang and its sanitizer and libFuzzer runtimes, for the fuzz preset
set -euo pipefail

packages=(
  g++ cmake ninja-build
  qtbase5-dev libboost-filesystem-dev libarchive-dev
  # the content hash that tells a torn swap file
  libxxhash-dev
  # the edit script of zoproject diff
  libdtl-dev
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  # the consumer test builds through the installed .pc file too
  pkg-config
  # the reference manual, whose warnings fail the build
  doxygen
  # the formatting check
  clang-format
  # the crash test kills a committing process at each system call through it
  strace
  # tools the archive interoperability tests compare against
  libarchive-tools unzip zip p7zip-full
  # the zoproject test applies what diff prints
  patch
  # the archive benchmark writes its deep tar with Python's tarfile
  python3
)
for option in "$@"; do
  case $option in
    --tests) packages+=("${test_packages[@]}") ;;
    --docs) packages+=(doxygen) ;;
    --qt6) packages+=(qt6-base-dev) ;;
    --fuzz) packages+=(clang libclang-rt-dev) ;;
    *) echo "usage: scripts/setup.sh [--tests] [--docs] [--qt6] [--fuzz]" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ $status == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

run_as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  run_as_root=(sudo)
fi
echo "setup: installing ${missing[*]}"
"${run_as_root[@]}" apt-get update -q
"${run_as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
