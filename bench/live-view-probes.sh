#!/usr/bin/env bash
# Hostile-client probes against a tarn-sim binary (bench/live-view-probes.py):
# cross-origin and foreign-Host requests, slow, idle and stalled connections,
# oversized bodies and bad lengths against the live view; the CPU spent while
# the robot drives with an error held; 3000 control connections in a row.
# Each probe starts its own simulator on ports 6868 and 6869, so each runs in
# a private network namespace of its own (needs root; otherwise run the
# Python file directly, with those ports free).
#   bash bench/live-view-probes.sh path/to/tarn-sim [probe ...]   (default: all)
set -euo pipefail
cd "$(dirname "$0")"
SIM=$(realpath "${1:?usage: live-view-probes.sh path/to/tarn-sim [probe ...]}")
shift
probes=("$@")
if ((${#probes[@]} == 0)); then
  probes=(anchor cross-origin foreign-host slowloris-8 slowloris-200 idle-200 stalled-subscribers-50
    stalled-subscribers-50-at-rest bodies-100MB bad-content-length cpu-error-held storm-3000)
fi
for probe in "${probes[@]}"; do
  unshare -n bash -c 'ip link set lo up && exec python3 live-view-probes.py "$@"' probes "$SIM" "$probe"
done
