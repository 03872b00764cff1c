#!/usr/bin/env bash
# Runs the fuzz targets for as long as one likes, keeping what they find.
#
#   fuzz/run-fuzz.sh [seconds per target] [target ...]
#
# Builds the fuzz preset if needed, then runs each target (all four by
# default) for the given time (default 600 s) with a persistent corpus under
# build/fuzz/corpus/<target>, seeded from the generated seeds. Crashing inputs
# land in build/fuzz/findings/. Exits non-zero if any target failed.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(fuzz_message_decode fuzz_action_decode fuzz_recv fuzz_robot_handle)

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2
build=build/fuzz
"$build/fuzz/tarn-fuzz-seeds" "$build/fuzz/seeds"
mkdir -p "$build/findings"

declare -A seeds=([fuzz_message_decode]=message [fuzz_action_decode]=action [fuzz_recv]=recv
                  [fuzz_robot_handle]=robot)
status=0
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  echo "== $t for ${seconds}s"
  "$build/fuzz/$t" -max_total_time="$seconds" -max_len=4096 -timeout=5 -rss_limit_mb=2048 \
    -malloc_limit_mb=512 -dict=fuzz/tarn.dict -artifact_prefix="$build/findings/$t-" \
    -print_final_stats=1 "$corpus" "$build/fuzz/seeds/${seeds[$t]}" || status=1
done
exit $status
