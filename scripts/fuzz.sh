#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer harnesses with clang (ASan+UBSan) into build-fuzz and
# runs each one, starting from its seed corpus in fuzz/corpus/NAME:
#   scripts/fuzz.sh              a short bounded run of each (part of the tests)
#   scripts/fuzz.sh 1000000      a long run: that many executions of each
# New inputs go to a scratch directory; a finding is saved as
# build-fuzz/crash-* (or leak-*) and fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-}
build="$root/build-fuzz"
harnesses=(fuzz_msg_recv fuzz_msg_config fuzz_linxd_requests fuzz_linxd_links)
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANE_FUZZ=ON \
  -DORVANE_SANITIZE=address -DORVANE_TESTS=OFF -DORVANE_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target linxd "${harnesses[@]}" >/dev/null
for harness in "${harnesses[@]}"; do
  scratch=$(mktemp -d)
  limit=(-max_total_time=5)
  [ -n "$runs" ] && limit=(-runs="$runs")
  status=0
  (cd "$build" && UBSAN_OPTIONS=halt_on_error=1 "./$harness" "${limit[@]}" -print_final_stats=1 \
      "$scratch" "$root/fuzz/corpus/$harness" >"$scratch.log" 2>&1) || status=$?
  executed=$(grep -o "number_of_executed_units: [0-9]*" "$scratch.log" | grep -o "[0-9]*$" || echo 0)
  echo "fuzz: $harness: $executed executions"
  if [ "$status" -ne 0 ]; then
    grep -E "ERROR|SUMMARY|Test unit written" "$scratch.log" || tail -20 "$scratch.log"
    echo "fuzz: $harness found a fault (the input is in build-fuzz)"
    exit 1
  fi
  rm -rf "$scratch" "$scratch.log"
done
