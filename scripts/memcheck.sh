#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every test case of the plain build under valgrind memcheck, one case
# per process as ctest runs them (and the demo, which is a case of its
# own), the processes they fork and exec included
# (but linxd, which outlives them: its fuzz harness checks it for leaks, and
# tshark, which is not ours).  Fails
# when a case fails, when any process lost memory for good, or when one
# used or sent uninitialised bytes.  Prints the totals.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" build >/dev/null
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

cd "$root/build/tests"
cases=()
for program in test_*; do
  [ -x "$program" ] && [ -f "$program" ] || continue
  suite=
  while IFS= read -r line; do
    case "$line" in
      " "*) cases+=("$program ${suite}${line#  }") ;;
      *) suite=$line ;;
    esac
  done < <("./$program" --gtest_list_tests | sed 's/ *#.*//')
done
cases+=("../examples/orvane_demo -")

run_case() { # program case logdir (case "-": the program is a test case of its own)
  local name=${1##*/}.${2//\//_} filter=(--gtest_filter="$2")
  [ "$2" = - ] && filter=() && export LINXD_INSTANCE="memcheck-${1##*/}"
  if ! valgrind --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
      --trace-children=yes --trace-children-skip='*/linxd,*/tshark' \
      --log-file="$3/$name.%p.vg" "./$1" "${filter[@]}" >"$3/$name.out" 2>&1; then
    echo "memcheck: $1 $2 failed under valgrind"
    tail -20 "$3/$name.out"
  fi
}
export -f run_case
printf '%s\n' "${cases[@]}" | xargs -P"$(nproc)" -I{} bash -c 'run_case $1 $2 "$3"' _ {} "$logs" | tee "$logs/failures"

processes=$(ls "$logs"/*.vg | wc -l)
lost=$(grep -ho "definitely lost: [0-9,]* bytes" "$logs"/*.vg | tr -d , | awk '{s += $3} END {print s + 0}')
errors=$(grep -ho "ERROR SUMMARY: [0-9]*" "$logs"/*.vg | awk '{s += $3} END {print s + 0}')
echo "memcheck: ${#cases[@]} test cases, $processes processes: $lost bytes definitely lost, $errors errors"
if [ "$lost" -ne 0 ] || [ "$errors" -ne 0 ]; then
  grep -l "ERROR SUMMARY: [1-9]" "$logs"/*.vg | head -5 | xargs -r sed -n '/^==[0-9]*== [A-Z0-9].*\(uninitialised\|definitely lost in\|Invalid\)/,/^==[0-9]*== $/p'
  exit 1
fi
[ ! -s "$logs/failures" ]
