#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the whole project for i386 (-m32 with Debian's g++-12-multilib) into
# build-i386 and runs the 32-bit demo under qemu-i386 against a 64-bit
# linxd: 32-bit processes of one device on a 64-bit service; then the
# 64-bit Python client against the 32-bit demo's server and relay.
# Debian's i386 protobuf packages, of the version of the installed protoc,
# are unpacked into build-i386/sysroot (foreign.sh); when they cannot be
# fetched, this says so and skips.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-i386"
sysroot="$build/sysroot"
lib="$sysroot/usr/lib/i386-linux-gnu"
instance="i386-$$"
source "$root/scripts/foreign.sh"

version=$(installed_version libprotobuf-dev)
if ! fetch_sysroot i386 "$sysroot" "libprotobuf-dev=$version" "libprotobuf-lite32=$version"; then
  echo "i386: Debian's i386 protobuf packages could not be fetched: the 32-bit build is skipped"
  exit 0
fi
"$root/scripts/build.sh" build >/dev/null # the 64-bit linxd
# The kernel's headers are the machine's: they serve both ABIs (gcc-multilib,
# which Debian's cross compilers conflict with, would only point at them).
m32="-m32 -idirafter /usr/include/$(gcc -print-multiarch)"
"$root/scripts/build.sh" build-i386 -DCMAKE_C_FLAGS="$m32" -DCMAKE_CXX_FLAGS="$m32" \
  -DORVANE_TESTS=OFF -DORVANE_BENCH=OFF -DORVANE_CLI=OFF -DORVANE_LINXD=OFF -DProtobuf_PROTOC_EXECUTABLE=/usr/bin/protoc \
  -DProtobuf_INCLUDE_DIR="$sysroot/usr/include" -DProtobuf_LIBRARY="$lib/libprotobuf-lite.so" \
  -DProtobuf_LITE_LIBRARY="$lib/libprotobuf-lite.so" >/dev/null

start_linxd "$instance" "$build/linxd.log" "$root/build/linxd"
# qemu-i386 -L: the guest's libraries are looked up in the sysroot first.
LINXD_INSTANCE="$instance" run_logged i386 "$build/demo.log" qemu-i386 -L "$sysroot" "$build/examples/orvane_demo"
# The 64-bit Python client against the 32-bit server and relay: 32- and
# 64-bit processes of one device hunt and attach each other, exchange the
# 56-byte header (answers come back through the 32-bit relay's sender
# stack) and publish to each other.
peers32="$build/orvane_demo_qemu"
printf '#!/bin/sh\nexec qemu-i386 -L "%s" "%s" "$@"\n' "$sysroot" "$build/examples/orvane_demo" >"$peers32"
chmod +x "$peers32"
check_mixed_client i386 "$peers32"
echo "i386: the whole project built for i386 in build-i386; its demo ran under qemu-i386 on a 64-bit linxd," \
  "and the 64-bit Python client talked to its 32-bit server and relay"
