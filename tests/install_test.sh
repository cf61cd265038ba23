#!/usr/bin/env bash
# An install into any prefix is usable: its programs run from there, and a
# small C host program builds against it through pkg-config, find_package
# and, from the sources, add_subdirectory (with no GoogleTest needed).
set -euo pipefail
build=$1 src=$2 cflags=$3 arch=$4
host=$src/examples/host want="host: ok 1.0.0 (a wait timed out)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
check() { [ "$2" = "$3" ] || { echo "FAIL $1: got '$2', want '$3'" >&2; exit 1; }; }
cmake --install "$build" --prefix "$work/prefix" >/dev/null

# The programs find the library through their RUNPATH, $ORIGIN/../<libdir>.
check "kavro --version" "$("$work/prefix/bin/kavro" --version | head -1)" "libkavro_rt 1.00  Build: 060"
[[ $("$work/prefix/bin/kavro-demo" --help) == "usage: kavro-demo "* ]] || { echo "FAIL kavro-demo --help" >&2; exit 1; }

pc=$(find "$work/prefix" -name kavro_rt.pc)
case $pc in */lib/*-linux-gnu/pkgconfig/kavro_rt.pc) ;; *) echo "FAIL .pc not in the multiarch libdir: $pc" >&2; exit 1 ;; esac
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046,SC2086
cc $cflags "$host/host.c" -o "$work/host-pc" $(pkg-config --cflags --libs kavro_rt)
check pkg-config "$(LD_LIBRARY_PATH=$(pkg-config --variable=libdir kavro_rt) "$work/host-pc")" "$want"

cmake -S "$host" -B "$work/cm" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_FLAGS="$cflags" \
      -DCMAKE_EXE_LINKER_FLAGS="$cflags" >/dev/null
cmake --build "$work/cm" >/dev/null
check find_package "$("$work/cm/host")" "$want"

cmake -S "$host" -B "$work/sub" -DKAVRO_RT_SOURCE="$src" -DKAVRO_ARCH="$arch" -DCMAKE_BUILD_TYPE= \
      -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_C_FLAGS="$cflags" -DCMAKE_CXX_FLAGS="$cflags" \
      -DCMAKE_EXE_LINKER_FLAGS="$cflags" -DCMAKE_SHARED_LINKER_FLAGS="$cflags" >/dev/null
cmake --build "$work/sub" -j2 >/dev/null
check add_subdirectory "$("$work/sub/host")" "$want"
! ls "$work/sub/kavro_rt/tests" >/dev/null 2>&1 || { echo "FAIL a subproject build has tests" >&2; exit 1; }
echo "install into a prefix, pkg-config, find_package and add_subdirectory: ok ($arch)"
