#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Two LINX nodes on one host and a MSG_ client and server talking across
# the link between them, without root:
#
#   node "ep1"  runs the weather server and relay of the demo
#   node "ep0"  runs the client: `orvane send`, a MSG_ program, which finds
#               "weather-server" through an endpoint configuration of its
#               own (--config; a C program calls MSG_SetConfigFile, Python
#               orvane.set_config_file) that names the link "ep1" for it
#
#   examples/two_nodes.sh [BUILD_DIR]      (default: build)
# Exits 0 when the answer came back across the link and both nodes stopped.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
work=$(mktemp -d)
prefix="two-nodes-$$" # instance names of this run, apart from any other
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT

# The nodes: ep1 alone, ep0 dialling it under the link name "ep1".
"$build/linxd" --foreground --instance "$prefix-ep1" --node ep1 2>"$work/ep1.log" &
"$build/linxd" --foreground --instance "$prefix-ep0" --node ep0 --link "ep1=unix:$prefix-ep1" 2>"$work/ep0.log" &

# The server and relay on node ep1.
LINXD_INSTANCE="$prefix-ep1" "$build/examples/orvane_demo" --serve &
server=$!

# The client's configuration: weather-server and relay are behind link ep1.
cat >"$work/orvane.txt" <<'TEXT'
endpoint { name: "weather-server" link: "ep1" }
endpoint { name: "relay" link: "ep1" }
TEXT
"$build/orvane" config compile "$work/orvane.txt" "$work/orvane.pb"

# The client on node ep0: a request and its answer, straight and through the relay.
export LINXD_INSTANCE="$prefix-ep0"
for peer in weather-server relay; do
  "$build/orvane" --config "$work/orvane.pb" send "$peer" 0x100 --payload 00:00:00:00:00:00:00:00:00:00:00:00 \
    --timeout 5s --wait-response 5s
done
# Done: the quit request stops each of them.
for peer in weather-server relay; do
  "$build/orvane" --config "$work/orvane.pb" send "$peer" 0x7f0 --timeout 5s
done
wait "$server"
echo "two nodes: answered across the link, server and relay stopped"
