#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the library, linxd, the demo and the LINX suite for arm64, the
# devices' own architecture (Debian's cross compiler g++-aarch64-linux-gnu),
# into build-arm64, and runs them under qemu-aarch64 beside x86-64
# processes:
#   - the arm64 demo and the LINX suite on the machine's x86-64 linxd (the
#     linxd beside the arm64 library is a script that runs the x86-64 one:
#     a process under qemu-aarch64 cannot start an arm64 program itself);
#   - the x86-64 demo on the arm64 linxd;
#   - the x86-64 Python client against the arm64 demo's server and relay.
# Debian's arm64 packages (protobuf of the version of the installed protoc,
# OpenSSL, GoogleTest and the C and C++ runtimes) are unpacked into
# build-arm64/sysroot (foreign.sh); when they cannot be fetched, this says
# so and skips.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-arm64"
sysroot="$build/sysroot"
instance="arm64-$$"
source "$root/scripts/foreign.sh"

protobuf=$(installed_version libprotobuf-dev)
if ! fetch_sysroot arm64 "$sysroot" "libprotobuf-dev=$protobuf" "libprotobuf-lite32=$protobuf" libssl-dev libssl3 \
  "libgtest-dev=$(installed_version libgtest-dev)" libc6 libstdc++6 libgcc-s1; then
  echo "arm64: Debian's arm64 packages could not be fetched: the arm64 build is skipped"
  exit 0
fi
"$root/scripts/build.sh" build >/dev/null # the x86-64 linxd and Python package
qemu=(qemu-aarch64 -L "$sysroot")
multiarch="-isystem $sysroot/usr/include/aarch64-linux-gnu"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_SYSTEM_NAME=Linux \
  -DCMAKE_SYSTEM_PROCESSOR=aarch64 -DCMAKE_C_COMPILER=aarch64-linux-gnu-gcc -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++ \
  -DCMAKE_C_FLAGS="$multiarch" -DCMAKE_CXX_FLAGS="$multiarch" -DCMAKE_FIND_ROOT_PATH="$sysroot" \
  -DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=NEVER -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY \
  -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$(IFS=';'; echo "${qemu[*]}")" -DProtobuf_PROTOC_EXECUTABLE=/usr/bin/protoc \
  -DProtobuf_LIBRARY="$sysroot/usr/lib/aarch64-linux-gnu/libprotobuf-lite.so" -DORVANE_TESTS=ON -DORVANE_BENCH=OFF -DORVANE_CLI=OFF \
  >/dev/null
rm -f "$build/linxd" # the script of an earlier run, which would pass for the program
cmake --build "$build" -j"$(nproc)" --target orvane linxd orvane_demo test_linx_processes test_linx_buffers >/dev/null
mv "$build/linxd" "$build/linxd-arm64"
printf '#!/bin/sh\nexec "%s" "$@"\n' "$root/build/linxd" >"$build/linxd"
chmod +x "$build/linxd"

start_linxd "$instance" "$build/linxd.log" "$root/build/linxd"
LINXD_INSTANCE="$instance" run_logged arm64 "$build/demo.log" "${qemu[@]}" "$build/examples/orvane_demo"
(cd "$build" && run_logged arm64 "$build/linx-suite.log" ctest -j"$(nproc)" -R "^Linx(Processes|Buffers|Start)\.")
peers="$build/orvane_demo_qemu"
printf '#!/bin/sh\nexec qemu-aarch64 -L "%s" "%s" "$@"\n' "$sysroot" "$build/examples/orvane_demo" >"$peers"
chmod +x "$peers"
check_mixed_client arm64 "$peers"
start_linxd "$instance-linxd" "$build/linxd-arm64.log" "$build/linxd-arm64" "${qemu[@]}"
LINXD_INSTANCE="$instance-linxd" run_logged arm64 "$build/demo-x86-64.log" "$root/build/examples/orvane_demo"
echo "arm64: the library, linxd, the demo and the LINX suite built for arm64 in build-arm64; under qemu-aarch64" \
  "the demo and the LINX suite ran on an x86-64 linxd, the x86-64 Python client talked to the arm64 server and" \
  "relay, and the x86-64 demo ran on the arm64 linxd"
