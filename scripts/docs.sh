#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the API reference (build/docs/api/html/index.html) and the man
# pages of orvane and linxd (build/docs/man); `man build/docs/man/orvane.1`
# shows one.  cmake --install installs the man pages once they are built.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" build >/dev/null
cmake --build "$root/build" --target docs # part of the build; named for a tree configured earlier
echo "API reference: $root/build/docs/api/html/index.html"
