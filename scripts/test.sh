#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every test: the README's first command (scripts/demo.sh), the plain
# build, then the same tests under
# AddressSanitizer+UndefinedBehaviorSanitizer, then under ThreadSanitizer,
# then the project built for i386 with its demo run under qemu-i386
# (and the 64-bit client against its 32-bit server and relay), then the
# library, linxd, the demo and the LINX suite built for arm64 and run
# under qemu-aarch64 beside x86-64 processes, then every test case under
# valgrind memcheck, then a short run of each fuzz harness.  Stops at the
# first failing stage.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" test
jobs=$(nproc)

run_stage() { # name dir cmake-args...
  local name=$1 dir=$2; shift 2
  echo "== $name"
  "$root/scripts/build.sh" "$dir" "$@" >/dev/null
  (cd "$root/$dir" && ctest --output-on-failure -j"$jobs")
}

echo "== the README's first command: scripts/demo.sh"
"$root/scripts/demo.sh" >/dev/null
all=(-DORVANE_TESTS=ON -DORVANE_BENCH=ON)
run_stage "tests" build "${all[@]}"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_stage "tests under ASan+UBSan" build-asan -DORVANE_SANITIZE=address "${all[@]}"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  run_stage "tests under TSan" build-tsan -DORVANE_SANITIZE=thread "${all[@]}"
echo "== the whole project for i386"
"$root/scripts/i386.sh"
echo "== the library, linxd, the demo and the LINX suite for arm64"
"$root/scripts/arm64.sh"
echo "== tests under valgrind memcheck"
"$root/scripts/memcheck.sh"
echo "== fuzz harnesses, a few seconds each"
"$root/scripts/fuzz.sh"
