#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What a user of the installed project gets, checked from outside the tree.
#   install_check.sh install BUILD SOURCE: cmake --install into a temporary
#     prefix; a small C program built against it with pkg-config and with
#     find_package(orvane); both run, on the installed linxd; the installed
#     Python package opens an endpoint; the systemd user unit passes
#     systemd-analyze verify, and the command line it runs serves a node
#     that stays without clients and stops cleanly.
#   install_check.sh package BUILD SOURCE: the Debian packages
#     scripts/package.sh builds (lintian must find no error or warning),
#     installed in a private dpkg root: the same program built and run
#     against liborvane-dev and linxd, `orvane stat` from orvane-tools;
#     purging them all leaves nothing behind.
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
export LINXD_INSTANCE=$instance

# The hello program built with pkg-config and with find_package against the
# library in LIBDIR of PREFIX; both must run on PREFIX's linxd.
check_hello() { # prefix libdir
  local prefix=$1 libdir=$2
  PKG_CONFIG_PATH="$libdir/pkgconfig" cc -std=c99 -Wall -Werror "$source/tests/install/hello.c" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs orvane) \
    -Wl,-rpath,"$libdir" -o "$work/hello-pkg-config"
  cmake -S "$source/tests/install" -B "$work/hello-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/hello-cmake" >/dev/null
  # Output is taken whole before grep -q reads it: grep leaving early must
  # not fail the writer of a pipe under pipefail.
  for program in "$work/hello-pkg-config" "$work/hello-cmake/hello"; do
    grep -q "$libdir/liborvane.so.0" <<<"$(ldd "$program")" || fail "$program does not use the installed library"
    grep -q "a round trip through liborvane" <<<"$("$program")" || fail "$program failed"
  done
  local linxd
  linxd=$(pgrep -f "linxd --instance $instance" | head -n 1)
  [ "$(readlink "/proc/$linxd/exe")" = "$prefix/bin/linxd" ] || fail "the library did not start the installed linxd"
  pkill -f "linxd --instance $instance" || true
}

# The unit as systemd reads it, and the command line it runs (no systemd
# manager runs the tests, so the unit itself is not started here).
check_unit() { # unit prefix
  local prefix=$2 unit="$work/linxd@$instance.service" orvane="$2/bin/orvane"
  # The unit names linxd where it was configured to be installed.
  sed "s|^ExecStart=[^ ]*/linxd|ExecStart=$prefix/bin/linxd|" "$1" >"$unit"
  if command -v systemd-analyze >/dev/null; then
    local said
    said=$(systemd-analyze verify --man=no "$unit" 2>&1) || fail "systemd-analyze: $said"
    [ -z "$said" ] || fail "systemd-analyze: $said"
  fi
  # A configuration that would end an idle node after a second: the unit's
  # own --idle-exit 0 must win and keep it.
  echo "idle-exit 1" >"$work/node.conf"
  local command
  command=$(sed -n "s/^ExecStart=//p" "$unit" | sed "s/%i/$instance/g")
  $command --config "$work/node.conf" 2>"$work/unit.log" &
  local node=$!
  for _ in $(seq 200); do grep -q "serving instance" "$work/unit.log" && break; sleep 0.05; done
  grep -q "sockets" <<<"$("$orvane" stat 2>&1)" || fail "orvane stat did not reach the unit's linxd"
  sleep 1.5
  kill -0 "$node" 2>/dev/null || fail "the unit's linxd did not stay: $(cat "$work/unit.log")"
  [ "$(pgrep -fc "linxd --instance $instance")" = 1 ] || fail "a second linxd was started beside the unit's"
  # systemctl stop sends SIGTERM, and takes an end by it as a clean stop.
  kill -TERM "$node"
  local status=0
  wait "$node" || status=$?
  [ "$status" = 0 ] || [ "$status" = 143 ] || fail "the unit's linxd ended with $status on SIGTERM"
}

check_install() {
  local prefix="$work/prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null
  grep -q 'SONAME.*liborvane.so.0' <<<"$(readelf -d "$prefix/lib/liborvane.so.0")" || fail "no SONAME liborvane.so.0"
  check_hello "$prefix" "$prefix/lib"
  grep -q '^[0-9]' <<<"$("$prefix/bin/orvane" --version)" || fail "the installed orvane does not run"
  [ "$(PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$prefix/lib/python3/dist-packages" LD_LIBRARY_PATH="$prefix/lib" \
       /usr/bin/python3 -c 'import orvane; e = orvane.Endpoint("py"); print(e.fileno() > 0); e.close()')" = True ] ||
    fail "the installed Python package does not open an endpoint"
  pkill -f "linxd --instance $instance" || true
  check_unit "$prefix/lib/systemd/user/linxd@.service" "$prefix"
  echo "install_check: installed, built both ways and run; the unit checked"
}

check_package() {
  "$source/scripts/package.sh" "$work/deb" >"$work/package.log" 2>&1 || fail "packages: $(tail -30 "$work/package.log")"
  local root="$work/root" multiarch
  multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status"
  local dpkg=(dpkg --root="$root" --force-not-root --force-script-chrootless --force-depends)
  # python3-orvane is looked at, not installed: its maintainer scripts
  # byte-compile under /usr, outside the private root.
  grep -q "dist-packages/orvane/endpoint.py" <<<"$(dpkg-deb -c "$work"/deb/python3-orvane_*.deb)" ||
    fail "python3-orvane lacks the package"
  local packages=(liborvane0 liborvane-dev linxd orvane-tools)
  for package in "${packages[@]}"; do
    "${dpkg[@]}" -i "$work"/deb/"${package}"_*.deb >/dev/null
  done
  check_hello "$root/usr" "$root/usr/lib/$multiarch"
  # stat does not start an instance; a hunt does (the packaged linxd).
  LD_LIBRARY_PATH="$root/usr/lib/$multiarch" "$root/usr/bin/orvane" hunt nobody --timeout 0 >/dev/null 2>&1 || true
  grep -q "sockets" <<<"$(LD_LIBRARY_PATH="$root/usr/lib/$multiarch" "$root/usr/bin/orvane" stat 2>&1)" ||
    fail "orvane stat of orvane-tools does not run: $(LD_LIBRARY_PATH="$root/usr/lib/$multiarch" "$root/usr/bin/orvane" stat 2>&1)"
  pkill -f "linxd --instance $instance" || true
  "${dpkg[@]}" --purge "${packages[@]}" >/dev/null
  [ -z "$(find "$root" -mindepth 1 -not -path "$root/var/lib/dpkg*" -type f)" ] || fail "files left after the purge"
  echo "install_check: packages built, lintian clean, installed, used and purged"
}

case $mode in
  install) check_install ;;
  package) check_package ;;
  *) fail "usage: install_check.sh install|package BUILD SOURCE" ;;
esac
