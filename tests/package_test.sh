#!/usr/bin/env bash
# Builds the Debian packages, installs them with dpkg into a scratch root and
# builds the small C host program against what they installed.
set -euo pipefail
build=$1 host=$2 cflags=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$build" && cpack -G DEB -B "$work/out" >/dev/null)
runtime=$(ls "$work"/out/libkavro-rt1_*.deb)
dev=$(ls "$work"/out/libkavro-rt-dev_*.deb)

root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The scratch root holds no C library: its dependencies are the real system's.
dpkg --root="$root" --force-depends --force-not-root --force-architecture -i "$runtime" "$dev" >/dev/null
dpkg --root="$root" -l libkavro-rt1 libkavro-rt-dev | grep -q '^ii  libkavro-rt-dev'

lib=$(dirname "$(find "$root/usr" -name 'libkavro_rt.so.1' | head -1)")
inc=$root/usr/include
# shellcheck disable=SC2086
cc $cflags "$host/host.c" -I"$inc" -L"$lib" -lkavro_rt -o "$work/host"
LD_LIBRARY_PATH=$lib "$work/host" | grep -q "host: ok"
pc=$(find "$root/usr" -name kavro_rt.pc)
[ -n "$pc" ] && PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --exists kavro_rt
echo "packages install and a host builds against them"
