#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need; only what is missing.
# With --fuzz, also clang and its sanitizer and libFuzzer runtimes for the fuzz preset.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  qtbase5-dev libboost-filesystem-dev libarchive-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # the formatting check
  clang-format
  # the crash test kills a committing process at each system call through it
  strace
  # tools the archive interoperability tests compare against
  libarchive-tools unzip zip p7zip-full
)
[[ ${1:-} == --fuzz ]] && packages+=(clang libclang-rt-dev)

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
