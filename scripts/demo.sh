#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what building and the demo need when it is missing, builds, and
# runs the demo; then runs it again with telemetry on, captured by the
# collector, and shows the capture as the Wireshark dissector decodes it;
# last, the demo's client in Python.  The test command runs it too.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
"$root/scripts/setup.sh" demo
echo "== Building into build/"
"$root/scripts/build.sh" build
echo
echo "== The demo (examples/orvane_demo.c)"
"$build/examples/orvane_demo"

echo
echo "== The same run with telemetry on, captured by orvane-collector"
capture="$build/demo-telemetry.pcap"
log="$build/demo-collector.log"
"$build/orvane-collector" -w "$capture" -t 30 2>"$log" &
collector=$!
for _ in $(seq 100); do grep -q collecting "$log" && break; sleep 0.05; done
"$build/examples/orvane_demo" --telemetry >/dev/null
sleep 0.2 # the last copies reach the collector
kill -INT "$collector"
wait "$collector"
cat "$log"
echo
echo "== The capture through tools/orvane.lua (first 12 records)"
tshark -X lua_script:"$root/tools/orvane.lua" -r "$capture" -c 12 2>/dev/null
echo "   ... every field: tshark -X lua_script:tools/orvane.lua -r build/demo-telemetry.pcap -V"

echo
echo "== The client again, in Python (examples/weather_client.py), against the C server and relay"
PYTHONPATH="$build/python" /usr/bin/python3 "$root/examples/weather_client.py" "$build/examples/orvane_demo"
