#!/usr/bin/env bash
# The main job: builds the library, the simulator and the demo (Release, in
# build/demo), then runs the demo against the simulator and its live view.
# Installs the Debian packages it lacks first.
#   bash tools/demo.sh [--plot FILE.svg]
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/prerequisites.sh
require_packages "${TARN_DEMO_PACKAGES[@]}"

mkdir -p build
log=build/demo-build.log
echo "building the library, tarn-sim and tarn-demo (Release, build/demo; log in $log)"
if ! { cmake --preset demo && cmake --build --preset demo; } >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "demo: the build failed (whole log: $log)" >&2
  exit 1
fi

# At a terminal the simulator outlives the demo until Enter, so the live view
# can still be looked at; in scripts and CI it stops with the demo.
linger=0
[[ -t 0 && -t 1 ]] && linger=1
TARN_DEMO_LINGER=$linger exec bash examples/run-demo.sh build/demo/tools/sim/tarn-sim \
  build/demo/examples/tarn-demo build/demo/tarn-sim.log -- "$@"
