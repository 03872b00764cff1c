# Helpers of the end-to-end scripts, sourced with $work set: programs on
# 127.0.0.1:6868, their exit statuses, output and durations.
pids=()
fail() { echo "FAIL: $*" >&2 && tail -n 40 "$work"/{out,err,sim.log} >&2 2>/dev/null; exit 1; }
trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null; done; wait 2>/dev/null' EXIT

# start <log> <ready text> <command...>: in the background (pid in $bg),
# stdout in <log>, stderr in <log>.err; returns once <ready> is in <log>.
start() {
  local log=$1 ready=$2 && shift 2
  # Emptied here, not only by the background job's redirection, which may
  # come after the first look: a log reused from an earlier start still
  # holds its ready text.
  : >"$log"
  "$@" >"$log" 2>"$log.err" & bg=$! && pids+=("$bg")
  for _ in $(seq 200); do
    grep -qF -- "$ready" "$log" && return
    kill -0 "$bg" 2>/dev/null && sleep 0.05 || break
  done
  fail "$* did not start: $(cat "$log" "$log.err")"
}
start_sim() { start "$work/sim.log" "listen at 127.0.0.1:6868" "$sim" "$@" && sim_pid=$bg; }
stop() { kill "$1" 2>/dev/null && wait "$1" 2>/dev/null; }
# ends <seconds> <status>: the program last started ($bg) exits with <status> within <seconds>.
ends() {
  timeout "$1" tail -s 0.05 --pid="$bg" -f /dev/null || fail "${bg} still running after $1 s"
  wait "$bg"
  local status=$? && ((status == $2)) || fail "${bg} exited with $status, expected $2"
}

# run <status> <ms> <command...>: stdout in $work/out, stderr in $work/err;
# fails unless it exits with <status> within <ms> milliseconds (times $slack).
run() {
  local want=$1 limit=$(($2 * slack)) status t0=$(date +%s%N) && shift 2
  timeout 60 "$@" >"$work/out" 2>"$work/err"
  status=$? t0=$((($(date +%s%N) - t0) / 1000000))
  ((status == want)) || fail "$* exited with $status, expected $want"
  ((t0 <= limit)) || fail "$* took $t0 ms, more than $limit"
}
# slow_if_sanitized <program>: a program built with AddressSanitizer runs
# several times slower and takes a while to exit (leak check, release of its
# quarantine): its time limits are doubled.
slack=1
slow_if_sanitized() { ldd "$1" 2>/dev/null | grep -q libasan && slack=2 || true; }
# has_lines <file> <line>...: each line whole; in_log <text>...: each in the simulator's log.
has_lines() { for l in "${@:2}"; do grep -qxF -- "$l" "$work/$1" || fail "no line '$l' in $1"; done; }
in_log() { for t; do grep -qF -- "$t" "$work/sim.log" || fail "no '$t' in the simulator's log"; done; }
