#!/usr/bin/env bash
# Builds the Debian package: a release build for the /usr prefix, its man
# pages, then CPack.  The .deb lands in build-deb/; install it with
# `sudo apt install ./build-deb/orvane_*.deb`, remove it with
# `sudo apt remove orvane`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" build-deb -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DORVANE_TESTS=OFF -DORVANE_BENCH=OFF >/dev/null
cmake --build "$root/build-deb" --target docs >/dev/null
(cd "$root/build-deb" && cpack >/dev/null)
ls "$root"/build-deb/orvane_*.deb
