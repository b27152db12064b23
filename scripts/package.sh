#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages (liborvane0, liborvane-dev, linxd,
# orvane-tools, python3-orvane) with debhelper from a copy of the tree, and
# checks them with lintian, which must find no error and no warning.  The
# .deb files land in OUTDIR (default build-deb/); install them with
# `sudo apt install ./build-deb/*.deb`.
#   package.sh [OUTDIR]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$(mkdir -p "${1:-$root/build-deb}" && cd "${1:-$root/build-deb}" && pwd)
"$root/scripts/setup.sh" test
version=$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)
tree="$out/orvane-$version"
rm -rf "$tree" "$out"/*.deb "$out"/*.ddeb "$out"/*.buildinfo "$out"/*.changes
mkdir -p "$tree"
(cd "$root" && git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$tree")
(cd "$tree" && DEB_BUILD_OPTIONS="parallel=$(nproc) nocheck" dpkg-buildpackage -us -uc -b >"$out/build.log" 2>&1) ||
  { tail -40 "$out/build.log"; exit 1; }
rm -rf "$tree"
ls "$out"/*.deb
if command -v lintian >/dev/null; then
  # Pedantic and informational tags are shown, only errors and warnings fail.
  lintian --fail-on error,warning --info --no-tag-display-limit "$out"/*.changes
fi
