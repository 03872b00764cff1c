#!/usr/bin/env bash
# The tarn commands against tarn-sim on 127.0.0.1:6868: exit statuses and
# what they print, for success, refusal, timeout and a lost server.
#   cli-e2e.sh <tarn> <tarn-sim> <work dir>
set -uo pipefail
tarn=$1 sim=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
sim_pid=

fail() {
  echo "FAIL: $*" >&2
  [[ -f $work/out ]] && { echo "--- stdout"; cat "$work/out"; } >&2
  [[ -f $work/err ]] && { echo "--- stderr"; cat "$work/err"; } >&2
  exit 1
}

stop_sim() {
  if [[ -n $sim_pid ]]; then
    kill "$sim_pid" 2>/dev/null
    wait "$sim_pid" 2>/dev/null
    sim_pid=
  fi
}
trap stop_sim EXIT

start_sim() {
  # Another program may still be releasing the port (outside this CTest run,
  # which serialises everything on 6868): retry for a while.
  for _ in $(seq 40); do
    "$sim" --quiet "$@" >"$work/sim.log" 2>&1 &
    sim_pid=$!
    for _ in $(seq 100); do
      grep -q 'listen at 127.0.0.1:6868' "$work/sim.log" && return
      kill -0 "$sim_pid" 2>/dev/null || break
      sleep 0.05
    done
    stop_sim
    grep -q 'Could not bind' "$work/sim.log" || fail "tarn-sim did not start: $(cat "$work/sim.log")"
    sleep 0.5
  done
  fail "port 6868 stayed busy"
}

# run <expected status> <tarn arguments...>: stdout in $work/out, stderr in $work/err.
run() {
  local want=$1 status
  shift
  timeout 60 "$tarn" "$@" >"$work/out" 2>"$work/err"
  status=$?
  [[ $status -eq $want ]] || fail "tarn $* exited with $status, expected $want"
}

has_line() {
  grep -qxF -- "$2" "$work/$1" || fail "no line '$2' in $1"
}

# Checked before any connection is made.
run 2 turn 4
has_line err "tarn: turn: 4 is out of range (-pi to pi rad)"
run 0 speed --help
has_line out "Usage: tarn [OPTIONS] speed V"

start_sim

run 0 status
has_line out "robot         R-0"
has_line out "state         free"
has_line out "position      0 0 mm"

# A new connection finds the robot offline: the simulator refuses to move it.
run 5 goto 100 100
grep -qF "tarn: robot refused the command: error 2 (not online)" "$work/err" || fail "no refusal message"

run 0 init 1000 500 0 then speed 1000 then accel 800 then goto 1500 500 \
  then path 1500 1000 1000 1000 then turn 1.5 then status then kill
for line in "robot online at 1000 500 mm, z 0" "velocity limit 1000 mm/s sent" \
  "acceleration limit 800 mm/s^2 sent" "passed way-point 1 of 1" "goal 1500 500 mm reached" \
  "passed way-point 1 of 2" "passed way-point 2 of 2" "path of 2 way-points done" \
  "heading 1.5 rad reached" "position      1000 1000 mm" "orientation   1.5 rad" "robot offline"; do
  has_line out "$line"
done
[[ ! -s $work/err ]] || fail "unexpected errors"

# The robot stays online between connections, so separate invocations work.
run 0 init 0 0 0
run 0 goto 500 0
has_line out "goal 500 0 mm reached"

# --no-wait returns while the robot drives off; the reports that follow show
# it working, and a further goal is refused before anything is sent.
run 5 init 0 0 0 then goto 3000 0 --no-wait then watch --count 2 then goto 0 0
has_line out "goal 3000 0 mm sent"
grep -q '^R-0 working  at ' "$work/out" || fail "no report of the robot working"
has_line err "tarn: robot is busy (working); wait or run 'tarn kill'"

run 0 watch --count 2
[[ $(grep -c '^R-0 ' "$work/out") -eq 2 ]] || fail "watch did not print 2 report lines"

# Lost server in the middle of a watch.
"$tarn" watch >"$work/out" 2>"$work/err" &
watch_pid=$!
sleep 0.5
stop_sim
timeout 10 tail --pid="$watch_pid" -f /dev/null || fail "watch did not end after the server left"
wait "$watch_pid"
status=$?
[[ $status -eq 3 ]] || fail "watch exited with $status after the server left, expected 3"
has_line err "tarn: connection to the control server lost"

run 3 kill
has_line out "Can Not Connect Server !"
has_line err "tarn: cannot reach the control server at 127.0.0.1:6868"

# A server that never reports: the wait is bounded.
start_sim --rate 0
run 4 status --timeout 0.5
has_line err "tarn: no status report within 0.5 s"
stop_sim

echo "tarn end to end: ok"
