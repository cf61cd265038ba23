#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a small C host program
# against it twice: through pkg-config and through find_package.
set -euo pipefail
build=$1 host=$2 cflags=$3 arch=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null

pc=$(find "$work/prefix" -name kavro_rt.pc)
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046,SC2086
cc $cflags "$host/host.c" -o "$work/host-pc" $(pkg-config --cflags --libs kavro_rt)
libdir=$(pkg-config --variable=libdir kavro_rt)
LD_LIBRARY_PATH=$libdir "$work/host-pc" | grep -q "host: ok"
echo "pkg-config host: ok"

cmake -S "$host" -B "$work/cm" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_FLAGS="$cflags" \
      -DCMAKE_EXE_LINKER_FLAGS="$cflags" >/dev/null
cmake --build "$work/cm" >/dev/null
"$work/cm/host" | grep -q "host: ok"
echo "find_package host: ok ($arch)"
