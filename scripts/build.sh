#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# build.sh DIR [cmake options...]: configures and builds the project in DIR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$root/$dir" -j"$(nproc)"
