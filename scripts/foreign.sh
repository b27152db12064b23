# SPDX-License-Identifier: Apache-2.0
# What the stages for other processor architectures share (sourced by
# i386.sh and arm64.sh): Debian's packages of the architecture, unpacked
# into a sysroot of the stage's build with a private apt state (nothing is
# installed on the machine, so a multiarch index out of sync with the
# machine's own does not matter); a linxd serving the stage's instance;
# and the 64-bit Python example client against another ABI's server and
# relay.  The caller sets root, build and instance.

# fetch_sysroot ARCH SYSROOT PACKAGE...: each PACKAGE (name or
# name=version) of ARCH unpacked into SYSROOT, once; returns 1, with the
# tail of apt's words, when they cannot be fetched.
fetch_sysroot() {
  local arch=$1 sysroot=$2; shift 2
  [ -e "$sysroot/.fetched" ] && return 0
  local apt="$build/apt"
  mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$sysroot"
  touch "$apt/status"
  local opts=(-o APT::Architecture="$arch" -o APT::Architectures::="$arch" -o Debug::NoLocking=1
              -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt")
  # One suite's index out of sync fails the update but leaves the others.
  apt-get "${opts[@]}" update -qq >"$apt/update.log" 2>&1 || true
  (cd "$apt/archives" && apt-get "${opts[@]}" download "$@") >"$apt/download.log" 2>&1 ||
    { tail -3 "$apt/download.log"; return 1; }
  for deb in "$apt/archives"/*.deb; do dpkg -x "$deb" "$sysroot"; done
  touch "$sysroot/.fetched"
}

# The version of a package installed on the machine: the other
# architecture's must match where generated code meets its library.
installed_version() {
  dpkg-query -W -f='${Version}' "$1"
}

# start_linxd INSTANCE LOG PROGRAM [WRAPPER...]: a linxd (PROGRAM, run
# through the WRAPPER words before it) serving INSTANCE in the background
# until this script ends; returns once it serves.
linxd_pids=()
start_linxd() {
  local serves=$1 log=$2 program=$3; shift 3
  "$@" "$program" --foreground --instance "$serves" --idle-exit 0 2>"$log" &
  linxd_pids+=($!)
  trap 'kill "${linxd_pids[@]}" 2>/dev/null' EXIT
  for _ in $(seq 200); do grep -q serving "$log" && return 0; sleep 0.05; done
  cat "$log"
  return 1
}

# check_mixed_client NAME PEERS: the 64-bit Python example client against
# the server and relay of the program PEERS (a script that runs the other
# ABI's demo): both answers must say "sunny, 21 C", the third update must
# come and the relay's death must reach the client.
check_mixed_client() {
  local name=$1 peers=$2 log="$build/mixed.log"
  LINXD_INSTANCE="$instance" PYTHONPATH="$root/build/python" /usr/bin/python3 "$root/examples/weather_client.py" \
    "$peers" >"$log" 2>&1 || true
  if [ "$(grep -c "'sunny, 21 C'" "$log")" != 2 ] || ! grep -q "client   update 3: " "$log" ||
    ! grep -q "relay (0x.*) is gone" "$log"; then
    cat "$log"
    echo "$name: the 64-bit client and the $name server and relay did not get along"
    return 1
  fi
}

# run_logged NAME LOG COMMAND...: runs COMMAND with its output in LOG;
# shows the log and fails when it fails.
run_logged() {
  local name=$1 log=$2; shift 2
  if ! "$@" >"$log" 2>&1; then
    cat "$log"
    echo "$name: $* failed"
    return 1
  fi
}
