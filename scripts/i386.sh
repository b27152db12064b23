#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the whole project for i386 (-m32 with Debian's g++-multilib) into
# build-i386 and runs the 32-bit demo under qemu-i386 against a 64-bit
# linxd: 32-bit processes of one device on a 64-bit service; then the
# 64-bit Python client against the 32-bit demo's server and relay.
# Debian's i386 protobuf packages, of the version of the installed protoc,
# are fetched with a private apt state and unpacked into build-i386/sysroot:
# nothing is installed on the machine, so a multiarch index out of sync
# with the 64-bit one does not matter.  When they cannot be fetched, this
# says so and skips.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-i386"
sysroot="$build/sysroot"
lib="$sysroot/usr/lib/i386-linux-gnu"

fetch_protobuf() {
  [ -e "$lib/libprotobuf-lite.so" ] && return 0
  local apt="$build/apt" version
  version=$(dpkg-query -W -f='${Version}' libprotobuf-dev)
  mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$sysroot"
  touch "$apt/status"
  local opts=(-o APT::Architecture=i386 -o APT::Architectures::=i386 -o Debug::NoLocking=1
              -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt")
  # One suite's index out of sync fails the update but leaves the others.
  apt-get "${opts[@]}" update -qq >"$apt/update.log" 2>&1 || true
  (cd "$apt/archives" &&
    apt-get "${opts[@]}" download "libprotobuf-dev=$version" "libprotobuf-lite32=$version") \
    >"$apt/download.log" 2>&1 || { tail -3 "$apt/download.log"; return 1; }
  for deb in "$apt/archives"/*.deb; do dpkg -x "$deb" "$sysroot"; done
}

if ! fetch_protobuf; then
  echo "i386: Debian's i386 protobuf packages could not be fetched: the 32-bit build is skipped"
  exit 0
fi
"$root/scripts/build.sh" build >/dev/null # the 64-bit linxd
"$root/scripts/build.sh" build-i386 -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 \
  -DORVANE_TESTS=OFF -DORVANE_BENCH=OFF -DORVANE_CLI=OFF -DORVANE_LINXD=OFF -DProtobuf_PROTOC_EXECUTABLE=/usr/bin/protoc \
  -DProtobuf_INCLUDE_DIR="$sysroot/usr/include" -DProtobuf_LIBRARY="$lib/libprotobuf-lite.so" \
  -DProtobuf_LITE_LIBRARY="$lib/libprotobuf-lite.so" >/dev/null

instance="i386-$$"
"$root/build/linxd" --foreground --instance "$instance" --idle-exit 0 2>"$build/linxd.log" &
linxd=$!
trap 'kill "$linxd" 2>/dev/null' EXIT
for _ in $(seq 100); do grep -q serving "$build/linxd.log" && break; sleep 0.05; done
# qemu-i386 -L: the guest's libraries are looked up in the sysroot first.
if ! LINXD_INSTANCE="$instance" qemu-i386 -L "$sysroot" "$build/examples/orvane_demo" >"$build/demo.log" 2>&1; then
  cat "$build/demo.log"
  echo "i386: the 32-bit demo failed"
  exit 1
fi
# The 64-bit Python client against the 32-bit server and relay: 32- and
# 64-bit processes of one device hunt and attach each other, exchange the
# 56-byte header (answers come back through the 32-bit relay's sender
# stack) and publish to each other.
peers32="$build/orvane_demo_qemu"
printf '#!/bin/sh\nexec qemu-i386 -L "%s" "%s" "$@"\n' "$sysroot" "$build/examples/orvane_demo" >"$peers32"
chmod +x "$peers32"
LINXD_INSTANCE="$instance" PYTHONPATH="$root/build/python" /usr/bin/python3 "$root/examples/weather_client.py" \
  "$peers32" >"$build/mixed.log" 2>&1 || true
if [ "$(grep -c "'sunny, 21 C'" "$build/mixed.log")" != 2 ] || ! grep -q "client   update 3: " "$build/mixed.log" ||
  ! grep -q "relay (0x.*) is gone" "$build/mixed.log"; then
  cat "$build/mixed.log"
  echo "i386: the 64-bit client and the 32-bit server and relay did not get along"
  exit 1
fi
echo "i386: the whole project built for i386 in build-i386; its demo ran under qemu-i386 on a 64-bit linxd," \
  "and the 64-bit Python client talked to its 32-bit server and relay"
