#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the project builds with, when they are missing.
set -euo pipefail

packages=(g++ cmake make libgtest-dev libgmock-dev libbenchmark-dev libzmq3-dev libprotobuf-dev protobuf-compiler tshark clang libclang-rt-14-dev g++-12-multilib g++-aarch64-linux-gnu qemu-user valgrind libcli11-dev nlohmann-json3-dev pkgconf libssl-dev dpkg-dev doxygen help2man python3 python3-pytest debhelper dh-python lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
