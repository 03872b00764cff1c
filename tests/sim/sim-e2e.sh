#!/usr/bin/env bash
# tarn-sim as a separate process on 127.0.0.1:6868 facing a second simulator
# on its port, competing clients and broken ones (tests/support/peer.py), and
# stopping cleanly on SIGINT.
#   sim-e2e.sh <tarn-sim> <python3> <work dir>
set -uo pipefail
sim=$1 python=$2 work=$3 peer=$(dirname "$0")/../support/peer.py
rm -rf "$work" && mkdir -p "$work"
source "$(dirname "$0")/../support/lib.sh"

start_sim
# The port is taken: a second simulator says so.
run 1 5000 "$sim" && has_lines err "tarn-sim: cannot listen on 127.0.0.1:6868: Server Could not bind to port."
# One client holds the robot while a second is closed at once; then broken
# clients one after another (see peer.py), each dropped before the next.
run 0 40000 "$python" "$peer" sessions "$work/sim.log"
[[ $(echo $(cat "$work/out")) == "report closed report report closed closed closed report" ]] ||
  fail "client sessions"
in_log "refused a second client" "malformed input: discarded" \
  "client dropped: no message readable from" "client dropped: malformed input ("
kill -INT "$sim_pid" && wait "$sim_pid" && in_log "] stopped" || fail "no clean stop on SIGINT"

echo "simulator end to end: ok"
