#!/usr/bin/env bash
# The tarn commands against tarn-sim and against broken servers on
# 127.0.0.1:6868: exit statuses, what they print, and how long they take.
# Every other recv() of tarn's answers "nothing yet" (the shim of
# tests/support/stutter_recv.cpp, preloaded; an ASan runtime then does not
# come first, which is fine here): no acknowledgement or progress report may
# be missed for it.
#   cli-e2e.sh <tarn> <tarn-sim> <python3> <work dir> <shim>
set -uo pipefail
sim=$2 python=$3 work=$4 peer=$(dirname "$0")/../support/peer.py
tarn=(env "LD_PRELOAD=$5" "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0" "$1")
rm -rf "$work" && mkdir -p "$work"
source "$(dirname "$0")/../support/lib.sh"
slow_if_sanitized "$1"

# Checked before any connection is made.
run 2 1000 "${tarn[@]}" turn 4 && has_lines err "tarn: turn: 4 is out of range (-pi to pi rad)"
run 0 1000 "${tarn[@]}" speed --help && has_lines out "Usage: tarn [OPTIONS] speed V"

# Without periodic reports, status asks for one. A fresh connection finds
# the robot offline; it stays online between invocations once initialised.
start_sim --rate 0
run 0 2000 "${tarn[@]}" status && has_lines out "robot         R-0" "state         free"
grep -qxE "online +(unknown|no)" "$work/out" || fail "online state before init"
run 5 2000 "${tarn[@]}" goto 100 100
grep -qF "; bring it online first: tarn init X Y Z" "$work/err" || fail "no refusal hint"
run 0 2000 "${tarn[@]}" init 0 0 0
run 0 2000 "${tarn[@]}" status && grep -qxE "online +(unknown|yes)" "$work/out" || fail "online state"
run 0 5000 "${tarn[@]}" goto 500 0 && has_lines out "goal 500 0 mm reached"
stop "$sim_pid"

start_sim
run 0 20000 "${tarn[@]}" init 1000 500 0 then speed 1000 then accel 800 then goto 1500 500 \
  then path 1500 1000 1000 1000 then turn 1.5 then status then kill --timeout 20
has_lines out "robot online at 1000 500 mm, z 0" "velocity limit 1000 mm/s sent" \
  "acceleration limit 800 mm/s^2 sent" "passed way-point 1 of 1" "goal 1500 500 mm reached" \
  "passed way-point 1 of 2" "passed way-point 2 of 2" "path of 2 way-points done" \
  "heading 1.5 rad reached" "position      1000 1000 mm" "orientation   1.5 rad" "robot offline"
[[ ! -s $work/err ]] || fail "unexpected errors"

# --no-wait returns while the robot drives off (100 m: it outlasts the test
# until the kill). A further goal on the same connection is refused before
# anything is sent, and a fresh connection's first report shows the work.
run 5 5000 "${tarn[@]}" init 0 0 0 then goto 100000 0 --no-wait then goto 0 0
has_lines out "goal 100000 0 mm sent"
has_lines err "tarn: robot is busy (working); wait or run 'tarn kill'"
run 0 5000 "${tarn[@]}" watch --count 1
grep -qE '^R-0 (online )?working  at ' "$work/out" || fail "no report of work"
run 0 5000 "${tarn[@]}" kill

# A watch prints every progress report of the action the simulator sent
# (it waits for the last, 30 s at most); a lost server ends it.
stop "$sim_pid" && start_sim
start "$work/watch" "R-0" "${tarn[@]}" init 0 0 0 then path 300 0 300 300 0 300 --no-wait then watch
for _ in $(seq 600); do grep -qx "action finished" "$work/watch" && break || sleep 0.05; done
[[ $(grep -c 'T-0 KEY_ACTION int=1 "path"' "$work/sim.log") -eq 3 &&
  $(grep -c "^passed a way-point$" "$work/watch") -eq 3 ]] || fail "progress: $(cat "$work/watch")"
stop "$sim_pid" && ends 5 6 && has_lines watch.err "tarn: connection to the control server lost"
run 3 1000 "${tarn[@]}" kill && has_lines out "Can Not Connect Server !"
has_lines err "tarn: cannot reach the control server at 127.0.0.1:6868"

# Broken servers: --timeout ends the invocation (plus 0.1 s) whether the
# library is blocked connecting or a flood never brings the answer; a signal
# ends it at once; a malformed frame, or one announcing more than it holds,
# is refused before the library decodes it.
for mode in flood backlog badlen liar; do
  start "$work/peer" ready "$python" "$peer" $mode
  case $mode in
    flood) run 4 2300 "${tarn[@]}" --timeout 2 init 0 0 0 &&
      has_lines err "tarn: no acknowledgement of the initialisation within 2 s" ;;
    backlog) run 4 2300 "${tarn[@]}" --timeout 2 status &&
      has_lines err "tarn: could not connect to the control server at 127.0.0.1:6868 within 2 s" ;;
    badlen) run 7 1000 "${tarn[@]}" status &&
      grep -q "^tarn: unreadable data from the control server (.*)$" "$work/err" || fail "badlen" ;;
    liar) run 7 1000 "${tarn[@]}" status && has_lines err \
      "tarn: unreadable data from the control server (a message announcing 2147483647 actions in 1 bytes)" ;;
  esac
  stop "$bg"
done
start "$work/peer" ready "$python" "$peer" flood
start "$work/watch" "R-0" "${tarn[@]}" watch --timeout 30
kill -TERM "$bg" && ends 1 130 && has_lines watch.err "tarn: interrupted"

echo "tarn end to end: ok"
