#!/usr/bin/env bash
# Builds the Debian packages, checks their metadata, installs the three of
# them with dpkg into a scratch root and uses them there as a user would:
# `kavro --version`, `man kavro`, a host program linked through pkg-config.
set -euo pipefail
build=$1 host=$2 cflags=$3 multiarch=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL $*" >&2; exit 1; }
(cd "$build" && cpack -G DEB -B "$work/out" >/dev/null)
cd "$work/out"
rt=$(ls libkavro-rt1_*.deb) dev=$(ls libkavro-rt-dev_*.deb) tools=$(ls kavro-tools_*.deb)
ls libkavro-rt1-dbgsym_*.ddeb kavro-tools-dbgsym_*.ddeb >/dev/null

# Every package: a summary, its Multi-Arch field, copyright and changelog.
for p in "$rt:same" "$dev:same" "$tools:foreign"; do
  deb=${p%:*} name=${p%%_*}
  [ "$(dpkg-deb -f "$deb" Multi-Arch)" = "${p#*:}" ] || fail "$deb: Multi-Arch"
  [ -n "$(dpkg-deb -f "$deb" Description | head -1)" ] || fail "$deb: no summary"
  files=$(dpkg-deb -c "$deb")
  grep -q "/usr/share/doc/$name/copyright$" <<<"$files" || fail "$deb: no copyright"
  grep -q "/usr/share/doc/$name/changelog.gz$" <<<"$files" || fail "$deb: no changelog"
done

# The library: multiarch directory, shlibs, symbols, ldconfig trigger,
# computed dependencies without the C++ runtime, stripped, debug symbols apart.
grep -q "/usr/lib/$multiarch/libkavro_rt.so.1.0.0$" <<<"$(dpkg-deb -c "$rt")" || fail "library not in /usr/lib/$multiarch"
dpkg-deb -e "$rt" ctl
grep -qx "libkavro_rt 1 libkavro-rt1 (>= 1.0.0)" ctl/shlibs || fail shlibs
grep -qx " KAVRO_StatusText@Base 1.0.0" ctl/symbols || fail symbols
grep -qx "activate-noawait ldconfig" ctl/triggers || fail triggers
[[ $(dpkg-deb -f "$rt" Depends) == "libc6 (>= "* ]] || fail "library Depends: $(dpkg-deb -f "$rt" Depends)"
[[ $(dpkg-deb -f "$tools" Depends) == "libkavro-rt1 (= 1.0.0), libc6"* ]] || fail "tools Depends"
dpkg-deb -x "$rt" rt
lib=rt/usr/lib/$multiarch/libkavro_rt.so.1.0.0
! readelf -d "$lib" | grep -E "NEEDED.*(libstdc\+\+|libgcc_s)" || fail "the library needs the C++ runtime"
! nm -D --defined-only "$lib" | grep -E " _Z|__cxa" || fail "the library exports C++ runtime symbols"
[[ $(readelf -S "$lib") != *debug_info* ]] || fail "library not stripped"
[ "$(stat -c %s "$lib")" -lt 200000 ] || fail "library larger than 200 KB"
id=$(readelf -n "$lib" | sed -n 's/.*Build ID: \(..\)\(.*\)/\1\/\2/p')
grep -q "/usr/lib/debug/.build-id/$id.debug$" <<<"$(dpkg-deb -c libkavro-rt1-dbgsym_*.ddeb)" || fail "no debug file for $id"

# Installed into a scratch root (its C library is the real system's).
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends --force-not-root --force-architecture --force-script-chrootless \
     -i "$rt" "$dev" "$tools" >/dev/null
[ "$(dpkg --root="$root" -l | grep -c '^ii ')" = 3 ] || fail "not all three packages installed"
[ "$("$root/usr/bin/kavro" --version | head -1)" = "libkavro_rt 1.00  Build: 060" ] || fail "kavro --version"
grep -q "kavro - the operator's tool" <<<"$(MANPATH=$root/usr/share/man man -P cat kavro 2>/dev/null)" || fail "man kavro"
grep -q "STATUSES" <<<"$(MANPATH=$root/usr/share/man man -P cat 7 libkavro_rt 2>/dev/null)" || fail "man libkavro_rt"
export PKG_CONFIG_LIBDIR=$root/usr/lib/$multiarch/pkgconfig
# shellcheck disable=SC2046,SC2086
cc $cflags "$host/host.c" -o host $(pkg-config --cflags --libs kavro_rt)
[ "$(LD_LIBRARY_PATH=$root/usr/lib/$multiarch ./host)" = "host: ok 1.0.0 (a wait timed out)" ] || fail "host program"
echo "three packages install and work: kavro --version, man kavro, a pkg-config host ($multiarch)"
