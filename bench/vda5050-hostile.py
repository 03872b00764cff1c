#!/usr/bin/python3
"""What tarn-vda5050 publishes under large and hostile input, measured.

    bench/vda5050-hostile.py SIM BRIDGE [--nodes N]

In a private network namespace (needs root): a broker, tarn-sim and the bridge.
Prints one line per finding:

  theta       the range of agvPosition.theta in every state and visualization
              while the robot drives west and turns;
  large       what an order of N released nodes (default 45,000) does: the
              error it is refused with, or whether the robot drives it, and
              whether the bridge is still running;
  echoes      the size of the state, and the stateRequest -> state time, after
              30 orders refused with 1 MB orderIds;
  initPosition  whether the robot is still initialised after an initPosition
              with x = 1e308.
"""
import argparse, json, os, pathlib, queue, subprocess, sys, tempfile, threading, time
import paho.mqtt.client as mqtt

import vda_bench

ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
ap.add_argument("sim")
ap.add_argument("bridge")
ap.add_argument("--nodes", type=int, default=45000)
args = ap.parse_args()

vda_bench.in_private_namespace("vda5050-hostile")

tmp = tempfile.mkdtemp()
procs = []
inbox = queue.Queue()
PREFIX = vda_bench.PREFIX


def start(cmd, ready):
    return vda_bench.start(cmd, ready, procs)


def send(topic, **body):
    vda_bench.send(client, topic, **body)


def until(pred, what, timeout=60):
    """Messages (topic, payload, size) up to the first state satisfying pred."""
    seen, deadline = [], time.monotonic() + timeout
    while True:
        try:
            m = inbox.get(timeout=max(0, deadline - time.monotonic()))
        except queue.Empty:
            return seen, None
        seen.append(m)
        if m[0] == "state" and pred(m[1]):
            return seen, m[1]


def action(s, aid):
    return next((a["actionStatus"] for a in s["actionStates"] if a["actionId"] == aid), None)


def instant(aid, kind, **params):
    send("instantActions", actions=[{
        "actionId": aid, "actionType": kind, "blockingType": "HARD",
        "actionParameters": [{"key": k, "value": v} for k, v in params.items()]}])


def order(oid, points):
    nodes = [{"nodeId": f"n{i}", "sequenceId": 2 * i, "released": True, "actions": [],
              "nodePosition": dict({"x": p[0], "y": p[1], "mapId": "map"},
                                   **({"theta": p[2]} if len(p) > 2 else {}))}
             for i, p in enumerate(points)]
    edges = [{"edgeId": f"e{i}", "sequenceId": 2 * i + 1, "released": True,
              "startNodeId": f"n{i}", "endNodeId": f"n{i + 1}", "actions": []}
             for i in range(len(points) - 1)]
    send("order", orderId=oid, orderUpdateId=0, nodes=nodes, edges=edges)


def bridge():
    procs.append(subprocess.Popen([args.bridge, "--manufacturer", "acme", "--serial", "r1",
                                   "--viz-rate", "10"]))
    until(lambda s: True, "a first state", 10)
    return procs[-1]


def refused(s, oid):
    return [(e["errorType"], e["errorDescription"]) for e in s["errors"]
            if {"referenceKey": "orderId", "referenceValue": oid} in e["errorReferences"]]


def errors(s):
    return [(e["errorType"], e["errorDescription"][:80]) for e in s["errors"]]


try:
    conf = pathlib.Path(tmp, "mosquitto.conf")
    conf.write_text("allow_anonymous true\nlistener 1883 127.0.0.1\nset_tcp_nodelay true\n")
    start(["mosquitto", "-c", str(conf)], " running")
    start([args.sim, "--quiet", "--no-web"], "listen at")
    client = mqtt.Client()
    client.on_message = lambda c, u, m: inbox.put(
        (m.topic.rsplit("/", 1)[1], json.loads(m.payload), len(m.payload)))
    client.connect("127.0.0.1", 1883)
    for topic in ("state", "visualization"):
        client.subscribe(PREFIX + topic, 0)
    client.loop_start()
    br = bridge()
    instant("i0", "initPosition", x=0, y=0, theta=0)
    until(lambda s: action(s, "i0") == "FINISHED", "initialised")

    # West, then a turn to face east again.
    order("west", [(0, 0), (-1, 0, 3.14159), (-1, 0.5, 0)])
    seen, last = until(lambda s: s["lastNodeId"] == "n2" and not s["driving"], "west done")
    thetas = [m[1]["agvPosition"]["theta"] for m in seen]
    print(f"theta         {len(thetas)} messages: min {min(thetas):.5f} max {max(thetas):.5f}, "
          f"{sum(abs(t) > 3.141592653589793 for t in thetas)} outside [-pi, pi]")

    # The large order: along y, 1 mm apart.
    pos = (last["agvPosition"]["x"], last["agvPosition"]["y"])
    order("large", [(pos[0], pos[1] + i / 1000) for i in range(args.nodes)])
    # Refused, or driven (its second node passed), or the bridge gone.
    t0 = time.monotonic()
    deadline, s = t0 + 180, None
    while br.poll() is None and time.monotonic() < deadline:
        seen, got = until(lambda s: refused(s, "large") or (
            s["orderId"] == "large" and s["lastNodeId"] == "n1"), "the large order", 0.5)
        if got:
            s = got
            break
    if s is None and br.poll() is None:
        verdict = "neither driven nor refused in 180 s"
    elif br.poll() is not None:
        verdict = f"the bridge exited {br.returncode} after {time.monotonic() - t0:.0f} s"
    else:
        verdict = f"refused: {refused(s, 'large')}" if refused(s, "large") else "driven"
    print(f"large         {args.nodes} nodes: {verdict}")
    if br.poll() is None and s is not None:
        instant("c", "cancelOrder")
        until(lambda s: action(s, "c") in ("FINISHED", "FAILED"), "cancelled", 30)
    else:
        br.kill()
        br.wait()
        br = bridge()
        instant("i1", "initPosition", x=0, y=0, theta=0)
        until(lambda s: action(s, "i1") == "FINISHED", "initialised again")

    # Echoes: 30 orders starting 100 m away, refused, each with a 1 MB orderId.
    for i in range(30):
        order(chr(ord("a") + i % 26) * (1 << 20), [(100, 100), (101, 100)])
    time.sleep(1)
    while not inbox.empty():
        inbox.get()
    t0 = time.perf_counter()
    instant("sr", "stateRequest")
    seen, s = until(lambda s: action(s, "sr") == "FINISHED", "the requested state")
    size = [m[2] for m in seen if m[0] == "state"][-1]
    print(f"echoes        state after 30 refused 1 MB-id orders: {size} bytes, "
          f"stateRequest -> state {1000 * (time.perf_counter() - t0):.0f} ms")

    instant("big", "initPosition", x=1e308, y=0, theta=0)
    seen, s = until(lambda s: action(s, "big") in ("FINISHED", "FAILED"), "initPosition 1e308")
    print(f"initPosition  x = 1e308: {action(s, 'big')}, positionInitialized "
          f"{s['agvPosition']['positionInitialized']}, {errors(s)[-2:]}")
finally:
    for p in reversed(procs):
        p.kill()
        p.wait()
