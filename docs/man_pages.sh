#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the man pages of orvane, linxd and orvane-collector with help2man from their --help,
# so that they say what the programs say: orvane's page gets a section with
# the --help of every subcommand.
#   man_pages.sh ORVANE LINXD COLLECTOR OUTDIR
set -euo pipefail
orvane=$1 linxd=$2 collector=$3 out=$4
mkdir -p "$out"
include=$(mktemp)
trap 'rm -f "$include"' EXIT

subcommand_help() {
  echo ".SS \"orvane $*\""
  echo ".nf"
  "$orvane" "$@" --help | sed -e '/^Exit status:/,$d' -e 's/\\/\\e/g' -e "s/^[.']/\\\\\&&/"
  echo ".fi"
}

{
  echo "[SUBCOMMANDS]"
  for sub in list hunt watch stat send subscribe capture userlog "config compile" "config show"; do
    subcommand_help $sub
  done
  cat <<'TEXT'
[EXAMPLES]
.nf
orvane list
orvane hunt weather-server --timeout 2s
orvane watch weather-server relay --json
orvane send weather-server 0x100 --payload 01:02 --wait-response 1s
orvane subscribe weather-server 0x200 0x2ff --json
orvane capture - | wireshark -k -i -
orvane config compile orvane.txt orvane.pb
.fi
[SEE ALSO]
.BR linxd (1),
.BR orvane-collector (1),
.BR wireshark (1)
TEXT
} >"$include"

help2man --no-info --section 1 --name "look at and talk to the LINX endpoints of this host" \
  --include "$include" --output "$out/orvane.1" "$orvane"
help2man --no-info --section 1 --name "the LINX stand-in service for hosts without the LINX kernel module" \
  --output "$out/linxd.1" "$linxd"
help2man --no-info --section 1 --name "collect the telemetry of liborvane programs into a pcap capture" \
  --include <(printf '[SEE ALSO]\n.BR orvane (1),\n.BR wireshark (1)\n') --output "$out/orvane-collector.1" "$collector"
echo "man pages: $out/orvane.1 $out/linxd.1 $out/orvane-collector.1"
