#!/bin/bash
# Runs the simulator and the demo application together:
#   run-demo.sh <tarn-sim> <tarn-demo> [<simulator log file> [<wrapper command...>]]
# Starts tarn-sim on 127.0.0.1:6868 in the background, waits until it listens,
# runs tarn-demo (behind the wrapper command, if one is given, e.g. valgrind),
# stops the simulator and exits with the demo's status.
set -u

SIM=$1
DEMO=$2
LOG=${3:-tarn-sim.log}
shift $(($# < 3 ? $# : 3))

"$SIM" --address 127.0.0.1 --port 6868 >"$LOG" 2>&1 &
SIM_PID=$!
# Whatever happens to this script, the simulator does not outlive it.
trap 'kill -TERM "$SIM_PID" 2>/dev/null' EXIT

for _ in $(seq 100); do
  grep -q "listen at" "$LOG" && break
  if ! kill -0 "$SIM_PID" 2>/dev/null; then
    echo "run-demo: tarn-sim exited before listening:" >&2
    cat "$LOG" >&2
    exit 1
  fi
  sleep 0.05
done
if ! grep -q "listen at" "$LOG"; then
  echo "run-demo: tarn-sim did not listen within 5 s" >&2
  exit 1
fi

timeout 300 "$@" "$DEMO"
STATUS=$?

kill -TERM "$SIM_PID" 2>/dev/null
wait "$SIM_PID"
trap - EXIT
echo "run-demo: tarn-demo exited with status $STATUS; simulator log: $LOG"
exit $STATUS
