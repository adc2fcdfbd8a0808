#!/usr/bin/env bash
# Installs what building, testing, fuzzing and benchmarking need on a fresh Debian
# machine: the toolchain, GoogleTest, CLI11, and the peer libraries and command-line
# tools that the tests and benchmarks compare against. Safe to run again.
set -euo pipefail
pkgs=(
  build-essential cmake pkg-config python3 binutils unzip
  clang libclang-rt-14-dev
  libgtest-dev libcli11-dev
  zlib1g-dev libdeflate-dev libisal-dev liblz4-dev liblzo2-dev libbz2-dev libzfp-dev libxxhash-dev
  lz4 lzop zfp gzip pigz bzip2 lbzip2 pbzip2 libdivsufsort-dev
  qemu-user
)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
