#!/usr/bin/env bash
# What a user of the installed project gets, checked from outside the tree.
#   install_check.sh install BUILD SOURCE: cmake --install into a temporary
#     prefix; a small C program built against it with pkg-config and with
#     find_package(orvane); both run, on the installed linxd.
#   install_check.sh package BUILD SOURCE: the Debian package CPack makes of
#     the same install: its contents and fields by dpkg-deb, then installed
#     and purged in a private dpkg root, leaving nothing behind.
set -euo pipefail
mode=$1 build=$2 source=$3
work=$(mktemp -d)
instance="install-check-$$"
cleanup() {
  pkill -f "linxd --instance $instance" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install_check: $*" >&2; exit 1; }

check_install() {
  local prefix="$work/prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null
  # Output is taken whole before grep -q reads it: grep leaving early must
  # not fail the writer of a pipe under pipefail.
  grep -q 'SONAME.*liborvane.so.0' <<<"$(readelf -d "$prefix/lib/liborvane.so.0")" || fail "no SONAME liborvane.so.0"
  export LINXD_INSTANCE=$instance

  PKG_CONFIG_PATH="$prefix/lib/pkgconfig" cc -std=c99 -Wall -Werror "$source/tests/install/hello.c" \
    $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs orvane) \
    -Wl,-rpath,"$prefix/lib" -o "$work/hello-pkg-config"
  cmake -S "$source/tests/install" -B "$work/hello-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/hello-cmake" >/dev/null

  for program in "$work/hello-pkg-config" "$work/hello-cmake/hello"; do
    grep -q "$prefix/lib/liborvane.so.0" <<<"$(ldd "$program")" || fail "$program does not use the installed library"
    grep -q "a round trip through liborvane" <<<"$("$program")" || fail "$program failed"
  done
  local linxd
  linxd=$(pgrep -f "linxd --instance $instance" | head -n 1)
  [ "$(readlink "/proc/$linxd/exe")" = "$prefix/bin/linxd" ] || fail "the library did not start the installed linxd"
  grep -q '^[0-9]' <<<"$("$prefix/bin/orvane" --version)" || fail "the installed orvane does not run"
  [ "$(PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$prefix/lib/python3/dist-packages" LD_LIBRARY_PATH="$prefix/lib" \
       /usr/bin/python3 -c 'import orvane; e = orvane.Endpoint("py"); print(e.fileno() > 0); e.close()')" = True ] ||
    fail "the installed Python package does not open an endpoint"
  echo "install_check: installed, built both ways and run"
}

check_package() {
  (cd "$work" && cpack --config "$build/CPackConfig.cmake" -B "$work/package" >/dev/null)
  local deb
  deb=$(ls "$work"/package/*.deb)
  local prefix
  prefix=$(dpkg-deb -c "$deb" | sed -n 's|.* \./\(.*\)/bin/orvane$|\1|p')
  [ -n "$prefix" ] || fail "no bin/orvane in the package"
  local listing
  listing=$(dpkg-deb -c "$deb")
  for file in bin/linxd bin/orvane-collector include/orvane.h include/linx.h liborvane.so.0 orvane.pc \
      orvaneConfig.cmake wireshark/plugins/orvane.lua bash-completion/completions/orvane; do
    grep -q "$file" <<<"$listing" || fail "$file is missing from the package"
  done
  [ "$(dpkg-deb -f "$deb" Package)" = orvane ] || fail "package name"
  grep -q libprotobuf-lite <<<"$(dpkg-deb -f "$deb" Depends)" || fail "no dependency on the protobuf runtime"

  local root="$work/root"
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status"
  local dpkg=(dpkg --root="$root" --force-not-root --force-script-chrootless --force-depends)
  "${dpkg[@]}" -i "$deb" >/dev/null
  [ -x "$root/$prefix/bin/orvane" ] || fail "the package did not install bin/orvane"
  "${dpkg[@]}" --purge orvane >/dev/null
  [ -z "$(find "$root/$prefix" -type f 2>/dev/null)" ] || fail "files left after the purge"
  echo "install_check: package built, checked, installed and purged"
}

case $mode in
  install) check_install ;;
  package) check_package ;;
  *) fail "usage: install_check.sh install|package BUILD SOURCE" ;;
esac
