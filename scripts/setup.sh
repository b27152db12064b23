#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# setup.sh [demo|test]: installs the Debian packages the project needs,
# when they are missing, with one line saying which.  "demo" (the default)
# is what building the library, its tools and running the demo takes;
# "test" adds the test toolchain (sanitizer, cross and fuzz compilers,
# qemu, valgrind, the packaging checks, the benchmarks' peers: ZeroMQ and
# iceoryx).
set -euo pipefail

demo=(g++ cmake make libprotobuf-dev protobuf-compiler libssl-dev libcli11-dev nlohmann-json3-dev pkgconf
      tshark python3 doxygen help2man)
test=(libgtest-dev libgmock-dev libbenchmark-dev libzmq3-dev clang libclang-rt-14-dev g++-12-multilib
      g++-aarch64-linux-gnu qemu-user valgrind dpkg-dev python3-pytest debhelper dh-python lintian
      libiceoryx-posh-dev iceoryx)
packages=("${demo[@]}")
case "${1:-demo}" in
  demo) ;;
  test) packages+=("${test[@]}") ;;
  *) echo "usage: setup.sh [demo|test]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]} (apt, quietly)"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq >/dev/null
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
