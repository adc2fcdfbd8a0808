#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds the C consumer against it twice:
# through find_package(ozrdc) and through pkg-config.
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
lib=$(ls -d "$tmp"/prefix/lib*/ | head -1)
test -f "$lib/libozrdcm7.so.10" && test -L "$lib/libozrdcm7.so" && test -f "$tmp/prefix/include/ozrdc.h"
cmake -S "$src/tests/install" -B "$tmp/cm" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/cm" >/dev/null
LD_LIBRARY_PATH="$lib" "$tmp/cm/consumer"
PKG_CONFIG_PATH="$lib/pkgconfig" cc -std=c99 -o "$tmp/pc" "$src/tests/c_consumer.c" \
  $(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs ozrdc)
LD_LIBRARY_PATH="$lib" "$tmp/pc"
echo "install: find_package and pkg-config consumers build and run"
