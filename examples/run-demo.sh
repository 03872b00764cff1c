#!/bin/bash
# Runs the simulator and the demo application together:
#   run-demo.sh <tarn-sim> <tarn-demo> <simulator log> [WRAPPER...] [-- DEMO ARGS...]
# Starts tarn-sim on 127.0.0.1:6868 in the background, waits until it listens,
# shows the address of its live view, runs tarn-demo (behind WRAPPER, e.g.
# valgrind, when given), stops the simulator and exits with the demo's status.
# With TARN_DEMO_LINGER=1 the simulator keeps running after the demo until
# Enter is pressed.
set -u

SIM=$1 DEMO=$2 LOG=$3
shift 3
wrapper=()
while (($#)) && [[ $1 != -- ]]; do
  wrapper+=("$1")
  shift
done
(($#)) && shift # the "--"

"$SIM" --address 127.0.0.1 --port 6868 >"$LOG" 2>&1 &
SIM_PID=$!
# Whatever happens to this script, the simulator does not outlive it.
trap 'kill -TERM "$SIM_PID" 2>/dev/null' EXIT

# Follows the log as it grows (tail -F waits on the file, not on a timer)
# until the simulator announces that it listens, for at most 10 s.
url=""
listening=0
exec {follow}< <(exec tail -n +1 -F --pid="$SIM_PID" "$LOG" 2>/dev/null)
deadline=$((SECONDS + 10))
while ((SECONDS < deadline)) && IFS= read -r -t $((deadline - SECONDS)) line <&"$follow"; do
  [[ $line == *"live view: "* ]] && url=${line##*live view: }
  if [[ $line == *"listen at"* ]]; then
    listening=1
    # The live view's line, if any, is printed right before or after.
    IFS= read -r -t 1 line <&"$follow" && [[ $line == *"live view: "* ]] && url=${line##*live view: }
    break
  fi
done
exec {follow}<&-
if ((!listening)); then
  echo "run-demo: tarn-sim did not start listening within 10 s:" >&2
  cat "$LOG" >&2
  exit 1
fi
[[ -n $url ]] && echo "Live view of the simulated robot: $url  (open it in a browser)"

timeout 300 "${wrapper[@]}" "$DEMO" "$@"
STATUS=$?

if [[ ${TARN_DEMO_LINGER:-0} == 1 && -n $url ]]; then
  echo
  echo "The simulator is still running, so the live view stays up: $url"
  read -r -p "Press Enter to stop it. " _ || true
fi
kill -TERM "$SIM_PID" 2>/dev/null
wait "$SIM_PID"
trap - EXIT
((STATUS != 0)) && echo "run-demo: tarn-demo failed with status $STATUS; simulator log: $LOG" >&2
exit $STATUS
