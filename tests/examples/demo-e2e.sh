#!/usr/bin/env bash
# tarn-demo against tarn-sim as separate processes on 127.0.0.1:6868: the
# mission, and the exit statuses when its server dies, sends garbage, floods
# or never accepts. Every other recv() of the demo's answers "nothing yet"
# (tests/support/stutter_recv.cpp): it must miss nothing.
#   demo-e2e.sh <tarn-sim> <tarn-demo> <python3> <work dir> <shim>
set -uo pipefail
sim=$1 python=$3 work=$4 peer=$(dirname "$0")/../support/peer.py
demo=(env "LD_PRELOAD=$5" "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0" "$2")
rm -rf "$work" && mkdir -p "$work"
source "$(dirname "$0")/../support/lib.sh"
slow_if_sanitized "$2"

start_sim
start "$work/demo" "way-point 1/4 reached" "${demo[@]}"
{ kill -9 "$sim_pid" && wait "$sim_pid"; } 2>/dev/null
ends 10 6 && has_lines demo.err "tarn-demo: connection to the control server lost"

# A fresh simulator on the same port: a full mission, both directions logged.
start_sim
run 0 40000 "${demo[@]}" --plot "$work/mission.svg"
has_lines out "robot online" "way-point 1/4 reached (800, 0) mm" "way-point 4/4 reached (0, 0) mm" \
  "way-point 1/1 reached (400, 300) mm" "robot offline" "  way-points       5 passed" \
  "  final state      R-0 Free Offline"
[[ $(tail -n 1 "$work/out") == "tarn-demo: mission complete" && ! -s $work/err ]] || fail "end"
grep -q "<polyline" "$work/mission.svg" || fail "no trajectory in the plot"
in_log "recv T-0 -> SV-0 KEY_SET_PARAM int=1000 \"Speed\"" \
  "send R-0 -> T-0 KEY_ACTION int=1 \"path\" \"3\"" "client dropped: client closed the connection"

stop "$sim_pid"

# Broken servers: a length word of -10 is unreadable data; a flood that
# never acknowledges and a full accept queue end at --timeout (plus 0.5 s).
for mode in badlen flood backlog; do
  start "$work/peer" ready "$python" "$peer" $mode
  case $mode in
    badlen) run 7 2000 "${demo[@]}" &&
      grep -q "^tarn-demo: unreadable data from the control server (.*)$" "$work/err" || fail "badlen" ;;
    flood) run 4 2500 "${demo[@]}" --timeout 2 &&
      has_lines err "tarn-demo: no acknowledgement of the initialisation within 2 s" ;;
    backlog) run 4 2500 "${demo[@]}" --timeout 2 &&
      has_lines err "tarn-demo: could not connect to the control server at 127.0.0.1:6868 within 2 s" ;;
  esac
  stop "$bg"
done

echo "demo end to end: ok"
