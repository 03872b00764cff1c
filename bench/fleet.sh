#!/usr/bin/env bash
# The fleet benchmark in one command: N robots, each a tarn-sim and a
# tarn-vda5050 in a network namespace of its own, on one Mosquitto broker,
# driven by a scripted master (bench/fleet_master.py); N = 1, 10 and 100
# unless told otherwise.
#
#   sudo bash bench/fleet.sh [N ...] [--idle S] [--samples K] [--json FILE] [--brokers K ...] [--view]
#
# Installs the Debian packages it lacks, builds tarn-sim, tarn-vda5050 and
# tarn-fleet-view (Release, in build/fleet) unless TARN_SIM, TARN_BRIDGE and
# TARN_FLEET_VIEW name the programs to measure, and prints per fleet size: CPU and memory per robot (bridge and
# simulator), the broker's CPU, order -> echo p50/p99 with the N orders sent at
# once, where that time goes, and whether every route finished; then the cost
# per robot against the smallest fleet; with --view also the fleet map's
# cost, with one page open, and what that page showed. About 4 minutes for 1 10 100. Needs
# root for the namespaces; every process it starts ends with it (namespaces
# made with unshare vanish with their last process), also on Ctrl-C or kill.
# What the figures mean and what was measured: docs/performance.md.
set -euo pipefail
cd "$(dirname "$0")/.."
if [[ $(id -u) -ne 0 ]]; then
  echo "fleet: needs root (a network namespace per robot)" >&2
  exit 1
fi
source tools/prerequisites.sh
require_packages cmake g++ make libcpp-httplib-dev nlohmann-json3-dev libmosquitto-dev \
  mosquitto python3-paho-mqtt iproute2 util-linux

if [[ -z ${TARN_SIM:-} || -z ${TARN_BRIDGE:-} || -z ${TARN_FLEET_VIEW:-} ]]; then
  cmake -S . -B build/fleet -DCMAKE_BUILD_TYPE=Release -DTARN_BUILD_TESTS=OFF \
    -DTARN_BUILD_PYTHON=OFF >/dev/null
  cmake --build build/fleet --target tarn-sim tarn-vda5050 tarn-fleet-view -j"$(nproc)" >/dev/null
  TARN_SIM=build/fleet/tools/sim/tarn-sim
  TARN_BRIDGE=build/fleet/tools/vda5050/tarn-vda5050
  TARN_FLEET_VIEW=build/fleet/tools/fleet-view/tarn-fleet-view
fi
# --view names the fleet map to the master.
args=()
for arg in "$@"; do
  if [[ $arg == --view ]]; then args+=(--view "$TARN_FLEET_VIEW"); else args+=("$arg"); fi
done

# The master runs in the background so that a signal to this script reaches
# it through the trap; it passes it on and stops its fleet.
/usr/bin/python3 bench/fleet_master.py "$TARN_SIM" "$TARN_BRIDGE" "${args[@]}" &
master=$!
trap 'kill -TERM "$master" 2>/dev/null' INT TERM HUP
status=0
wait "$master" || status=$?
# A trapped signal ends the first wait early: wait for the master's cleanup.
while kill -0 "$master" 2>/dev/null; do wait "$master" || status=$?; done
exit "$status"
