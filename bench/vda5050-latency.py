#!/usr/bin/python3
"""Latency of tarn-vda5050 as a master control sees it, over TCP through Mosquitto.

    bench/vda5050-latency.py SIM BRIDGE [--samples N] [--broker-nodelay]

Starts a broker, tarn-sim and the bridge in a private network namespace (so it
needs root, and never touches the host's ports), initialises the robot, then
alternates two measurements N times each:

  order -> echo           a one-node order where the robot stands, until the
                          first state that carries its orderId;
  stateRequest -> state   until the first state with that action FINISHED.

Both include the broker's hop in each direction. The master's own socket has
Nagle's algorithm off, so that only the bridge's and the broker's sockets are
measured. The master follows the four topics the vehicle publishes, or with
--follow-all its whole tree, so that the broker also hands it back its own
orders just before the state. --broker-nodelay runs the broker with
`set_tcp_nodelay true`. The bridge runs with --viz-rate 10 unless told otherwise.
Prints p50, p99 and the maximum in milliseconds, one line per measurement.
"""
import argparse, json, os, pathlib, queue, random, socket, subprocess, sys, tempfile, time
import paho.mqtt.client as mqtt

import vda_bench

ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
ap.add_argument("sim")
ap.add_argument("bridge")
ap.add_argument("--samples", type=int, default=300)
ap.add_argument("--broker-nodelay", action="store_true")
ap.add_argument("--follow-all", action="store_true",
                help="subscribe to the vehicle's whole tree, its own orders included")
ap.add_argument("--viz-rate", default="10", help="the bridge's --viz-rate (default 10)")
args = ap.parse_args()

vda_bench.in_private_namespace("vda5050-latency")

tmp = tempfile.mkdtemp()
procs = []
states = queue.Queue()
PREFIX = vda_bench.PREFIX


def start(cmd, ready):
    return vda_bench.start(cmd, ready, procs)


def send(topic, **body):
    vda_bench.send(client, topic, **body)


def wait_state(pred, timeout=10):
    deadline = time.monotonic() + timeout
    while True:
        try:
            s = states.get(timeout=max(0, deadline - time.monotonic()))
        except queue.Empty:
            sys.exit("vda5050-latency: no state in time")
        if pred(s):
            return time.perf_counter()


def action(s, aid):
    return next((a["actionStatus"] for a in s["actionStates"] if a["actionId"] == aid), None)


def percentile(values, p):
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100 * (len(v) - 1))))]


try:
    conf = pathlib.Path(tmp, "mosquitto.conf")
    conf.write_text("allow_anonymous true\nlistener 1883 127.0.0.1\n" +
                    ("set_tcp_nodelay true\n" if args.broker_nodelay else ""))
    start(["mosquitto", "-c", str(conf)], " running")
    start([args.sim, "--quiet", "--no-web"], "listen at")
    client = mqtt.Client()
    client.on_message = lambda c, u, m: m.topic.endswith("/state") and states.put(json.loads(m.payload))
    client.connect("127.0.0.1", 1883)
    client.socket().setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    topics = ["#"] if args.follow_all else ["state", "visualization", "connection", "factsheet"]
    for topic in topics:
        client.subscribe(PREFIX + topic, 0)
    client.loop_start()
    procs.append(subprocess.Popen([args.bridge, "--manufacturer", "acme", "--serial", "r1",
                                   "--viz-rate", args.viz_rate]))
    deadline = time.monotonic() + 10
    while True:  # the bridge's first state says it is up
        try:
            states.get(timeout=0.2)
            break
        except queue.Empty:
            if time.monotonic() > deadline:
                sys.exit("vda5050-latency: the bridge sent no state")
            send("instantActions", actions=[])
    init = [{"actionId": "init", "actionType": "initPosition", "blockingType": "HARD",
             "actionParameters": [{"key": k, "value": 0} for k in ("x", "y", "theta")]}]
    send("instantActions", actions=init)
    wait_state(lambda s: action(s, "init") == "FINISHED")
    echo, request = [], []
    node = {"nodeId": "a", "sequenceId": 0, "released": True, "actions": [],
            "nodePosition": {"x": 0, "y": 0, "mapId": "map"}}
    for i in range(args.samples):
        time.sleep(random.uniform(0, 0.02))  # no lockstep with delayed acknowledgements
        t0 = time.perf_counter()
        send("order", orderId=f"o{i}", orderUpdateId=0, nodes=[node], edges=[])
        echo.append(wait_state(lambda s: s["orderId"] == f"o{i}") - t0)
        time.sleep(random.uniform(0, 0.02))
        aid = f"s{i}"
        t0 = time.perf_counter()
        send("instantActions", actions=[{"actionId": aid, "actionType": "stateRequest",
                                         "blockingType": "NONE"}])
        request.append(wait_state(lambda s: action(s, aid) == "FINISHED") - t0)
    broker = ("set_tcp_nodelay true" if args.broker_nodelay else "default broker") + (
        ", all topics" if args.follow_all else "")
    for name, values in (("order -> echo", echo), ("stateRequest -> state", request)):
        ms = [v * 1000 for v in values]
        print(f"{broker:34} {name:22} n={len(ms)} p50 {percentile(ms, 50):6.2f} ms  "
              f"p99 {percentile(ms, 99):6.2f} ms  max {max(ms):6.2f} ms")
finally:
    for p in reversed(procs):
        p.kill()
        p.wait()
