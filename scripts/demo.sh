#!/usr/bin/env bash
# Sets up what is missing, builds, and runs the demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" build >/dev/null
"$root/build/examples/orvane_demo"
