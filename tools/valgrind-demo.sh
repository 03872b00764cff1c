#!/usr/bin/env bash
# Runs the demo application under valgrind memcheck against the simulator:
#   tools/valgrind-demo.sh [build directory, default build/dev]
# Starts the build's tarn-sim on 127.0.0.1:6868, runs its tarn-demo under
# memcheck (full leak check), stops the simulator, and exits non-zero if
# memcheck found any error or leak, or the demo itself failed.
set -u

build=${1:-build/dev}
find_binary() {
  find "$build" -type f -name "$1" -perm -u+x -not -path '*/CMakeFiles/*' 2>/dev/null | head -n 1
}
sim=$(find_binary tarn-sim)
demo=$(find_binary tarn-demo)
if [[ -z $sim || -z $demo ]]; then
  echo "valgrind-demo: tarn-sim or tarn-demo not found under $build (build it first)" >&2
  exit 1
fi
if ! command -v valgrind >/dev/null; then
  echo "valgrind-demo: valgrind is not installed" >&2
  exit 1
fi

work=$(mktemp -d)
sim_log=$work/tarn-sim.log
"$sim" --address 127.0.0.1 --port 6868 >"$sim_log" 2>&1 &
sim_pid=$!
# The simulator never outlives this script, whatever ends it.
trap 'kill -TERM "$sim_pid" 2>/dev/null; wait "$sim_pid" 2>/dev/null; rm -rf "$work"' EXIT

for _ in $(seq 100); do
  grep -q "listen at" "$sim_log" && break
  if ! kill -0 "$sim_pid" 2>/dev/null; then
    echo "valgrind-demo: tarn-sim exited before listening:" >&2
    cat "$sim_log" >&2
    exit 1
  fi
  sleep 0.05
done
if ! grep -q "listen at" "$sim_log"; then
  echo "valgrind-demo: tarn-sim did not listen within 5 s" >&2
  exit 1
fi

# --error-exitcode makes any memcheck error, definite or possible leak
# included, fail the run; the demo's own status is checked as well.
timeout 300 valgrind --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,possible \
  --errors-for-leak-kinds=definite,possible --log-file="$work/memcheck.log" "$demo"
status=$?
cat "$work/memcheck.log"
if [[ $status -eq 99 ]]; then
  echo "valgrind-demo: memcheck reported errors" >&2
  exit 1
elif [[ $status -ne 0 ]]; then
  echo "valgrind-demo: tarn-demo failed under valgrind (status $status)" >&2
  exit 1
fi
summary=$(grep -E "ERROR SUMMARY" "$work/memcheck.log" | tail -n 1)
echo "valgrind-demo: tarn-demo passed under memcheck (${summary#*== })"
