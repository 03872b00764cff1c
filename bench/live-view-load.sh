#!/usr/bin/env bash
# The control port's Init round trip (tarn-bench latency/init_ack, p99 over
# 1000 rounds) against a tarn-sim whose live view is idle, and against one
# whose live view is under load: one event-stream subscriber (an open page)
# and 20 clients fetching /state back to back, running for two seconds
# before the benchmark starts. The simulator is started here, so the one
# tarn-bench would start finds the port taken and the Robot talks to this
# one. Idle and loaded runs alternate; the medians of their p99 are compared.
# The load generator runs at the lowest priority, as a browser elsewhere
# would not compete for these cores: what is measured is what serving the
# load costs the simulator, not what generating it costs the machine.
#
# Uses port 6868 and 6869: run it in a private network namespace,
#   unshare -n sh -c 'ip link set lo up && bash bench/live-view-load.sh \
#     build/bench/bench/tarn-bench build/bench/tools/sim/tarn-sim'
set -euo pipefail
BENCH=${1:?usage: live-view-load.sh path/to/tarn-bench path/to/tarn-sim [rounds]}
SIM=${2:?usage: live-view-load.sh path/to/tarn-bench path/to/tarn-sim [rounds]}
ROUNDS=${3:-5}

# "p50 p99" of one run, in microseconds.
latency() {
  "$BENCH" --benchmark_filter='latency/init_ack' 2>/dev/null | grep -o 'p[59][09]_us=[0-9.]*k\?' |
    awk -F= '{ v = $2; if (v ~ /k$/) v = substr(v, 1, length(v) - 1) * 1000; printf "%s ", v }'
}

load() {
  chrt --idle 0 python3 - >/dev/null 2>&1 <<'PY' &
import http.client, threading, time
def hammer():
    while True:
        try:
            c = http.client.HTTPConnection("127.0.0.1", 6869, timeout=5)
            while True:
                c.request("GET", "/state")
                c.getresponse().read()
        except Exception:
            time.sleep(0.01)
def subscribe():
    while True:
        try:
            c = http.client.HTTPConnection("127.0.0.1", 6869, timeout=5)
            c.request("GET", "/events")
            r = c.getresponse()
            while r.read(4096):
                pass
        except Exception:
            time.sleep(0.01)
for f in [subscribe] + [hammer] * 20:
    threading.Thread(target=f, daemon=True).start()
time.sleep(3600)
PY
  echo $!
}

start_sim() {
  "$SIM" --quiet --rate 0 >/dev/null &
  sim=$!
  until curl -s -o /dev/null http://127.0.0.1:6869/state; do sleep 0.05; done
}
stop_sim() { kill "$sim"; wait "$sim" 2>/dev/null || true; }

q50=() q99=() l50=() l99=()
for ((i = 0; i < ROUNDS; i++)); do
  start_sim
  read -r a b <<<"$(latency)"; q50+=("$a"); q99+=("$b")
  stop_sim
  start_sim
  pid=$(load)
  sleep 2
  read -r a b <<<"$(latency)"; l50+=("$a"); l99+=("$b")
  kill "$pid"; wait "$pid" 2>/dev/null || true
  stop_sim
done
median() { printf '%s\n' "$@" | sort -g | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
report() {
  local q l
  q=$(median ${!2}) l=$(median ${!3})
  echo "Init round trip $1 (us), live view idle:   ${!2}  median $q"
  echo "Init round trip $1 (us), live view loaded: ${!3}  median $l"
  awk -v q="$q" -v l="$l" -v n="$1" 'BEGIN { printf "%s loaded / idle: %.2f (target <= 1.20)\n", n, l / q }'
}
report p50 'q50[*]' 'l50[*]'
report p99 'q99[*]' 'l99[*]'
