#!/usr/bin/env bash
# tarn and tarn-demo against tarn-sim with every other recv() answering
# "nothing yet" (tests/support/stutter_recv.cpp preloaded into them): every
# acknowledgement and every progress report the simulator sends must still
# reach them.
#   nothing-yet.sh <tarn-sim> <tarn> <tarn-demo> <shim> <work dir>
set -uo pipefail
sim=$1 tarn=$2 demo=$3 work=$5
rm -rf "$work" && mkdir -p "$work"
source "$(dirname "$0")/lib.sh"
# The shim comes before an ASan runtime in sanitizer builds; that is fine here.
stutter=(env "LD_PRELOAD=$4" "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0")
# Nothing on standard error, the loader's complaint about the shim included.
quiet() { [[ ! -s $work/err ]] || fail "errors: $(cat "$work/err")"; }

start_sim
run 0 10000 "${stutter[@]}" "$tarn" init 0 0 0 && quiet && has_lines out "robot online at 0 0 mm, z 0"
run 0 10000 "${stutter[@]}" "$tarn" kill && quiet && has_lines out "robot offline"
run 0 30000 "${stutter[@]}" "$tarn" init 0 0 0 then goto 500 0 then path 500 500 0 500 then kill \
  --timeout 30 && quiet
has_lines out "robot online at 0 0 mm, z 0" "passed way-point 1 of 1" "goal 500 0 mm reached" \
  "passed way-point 1 of 2" "passed way-point 2 of 2" "path of 2 way-points done" "robot offline"

# A watch prints each progress report a fresh simulator sent, up to the end
# of the action, which it waits for (30 s at most).
stop "$sim_pid" && start_sim
start "$work/watch" "R-0" "${stutter[@]}" "$tarn" init 0 0 0 then path 300 0 300 300 0 300 --no-wait \
  then watch
for _ in $(seq 600); do grep -qx "action finished" "$work/watch" && break || sleep 0.05; done
kill -INT "$bg" && ends 5 0
[[ $(grep -c "send R-0 -> T-0 KEY_ACTION int=1 \"path\"" "$work/sim.log") -eq 3 &&
  $(sed -n '/^action finished$/q;/^passed a way-point$/p' "$work/watch" | wc -l) -eq 3 ]] ||
  fail "way-points sent and seen: $(grep -c '"path"' "$work/sim.log"), $(cat "$work/watch")"

run 0 60000 "${stutter[@]}" "$demo" && quiet
has_lines out "robot online" "way-point 1/4 reached (800, 0) mm" "way-point 4/4 reached (0, 0) mm" \
  "way-point 1/1 reached (400, 300) mm" "robot offline" "  way-points       5 passed"
echo "nothing yet: ok"
