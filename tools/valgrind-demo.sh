#!/usr/bin/env bash
# Runs the demo application under valgrind memcheck against the simulator:
#   tools/valgrind-demo.sh [build directory, default build/dev]
# Uses the build's tarn-sim and tarn-demo, and exits non-zero if memcheck found
# any error or leak, or the demo itself failed.
set -u
cd "$(dirname "$0")/.."

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
trap 'rm -rf "$work"' EXIT

# --error-exitcode makes any memcheck error, definite or possible leak
# included, fail the run; the demo's own status is checked as well.
bash examples/run-demo.sh "$sim" "$demo" "$work/tarn-sim.log" \
  valgrind --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,possible \
  --errors-for-leak-kinds=definite,possible --log-file="$work/memcheck.log"
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
