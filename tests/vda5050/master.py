#!/usr/bin/python3
# A scripted master control for tarn-vda5050 against a real Mosquitto broker.
#
# master.py SIM BRIDGE broker|fleet [SHIM]. Each robot is a tarn-sim with its own
# bridge in a network namespace of its own (the library connects to
# 127.0.0.1:6868); the bridges reach the broker through its Unix socket, the
# master over TCP in this test's private namespace. Needs root for the
# namespaces. SHIM, a library preloaded into the bridges, makes every other
# recv() answer "nothing yet": the bridge must still see every message.
import collections, json, math, os, pathlib, queue, shutil, socket, struct, subprocess, sys, tempfile, time
import paho.mqtt.client as mqtt

SIM, BRIDGE, MODE = sys.argv[1:4]
SHIM = sys.argv[4] if len(sys.argv) > 4 else None
if os.environ.get("VDA_TEST_NS") != "1":
    if os.geteuid() != 0 or subprocess.call(["unshare", "-n", "true"], stderr=subprocess.DEVNULL) != 0:
        sys.exit("vda5050 test: cannot create a network namespace (unshare -n): run it as root")
    os.environ["VDA_TEST_NS"] = "1"
    sys.exit(subprocess.call(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-",
                              sys.executable, *sys.argv]))
tmp = tempfile.mkdtemp()
SOCK, procs = os.path.join(tmp, "broker.sock"), []
queues, client, headings = collections.defaultdict(queue.Queue), mqtt.Client(), []

def received(c, u, m):
    queues[m.topic].put(body := json.loads(m.payload))
    if "agvPosition" in body: headings.append(body["agvPosition"]["theta"])
client.on_message = received

def start(cmd, ready):  # starts a program and waits for its line saying it is ready
    procs.append(p := subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True))
    for line in p.stdout:
        if ready in line: return p
    sys.exit(f"{cmd[0]} ended before it was ready")

def bridge(sim, serial):  # a bridge in the simulator's namespace
    env = dict(os.environ)
    if SHIM:  # an instrumented bridge would refuse a library loaded before its runtime
        env.update(LD_PRELOAD=SHIM, ASAN_OPTIONS=env.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
    procs.append(subprocess.Popen(["nsenter", "-t", str(sim.pid), "-n", BRIDGE, "--manufacturer", "acme", "--serial",
                                   serial, "--unix", SOCK, "--viz-rate", "10", "--state-interval", "7"], env=env))
    return procs[-1]

def robot(serial):  # a simulator in a fresh namespace, and its bridge
    sim = start(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-", SIM, "--quiet"], "listen at")
    return sim, bridge(sim, serial)

def send(serial, topic, **body):
    body.update(headerId=1, timestamp="2026-01-01T00:00:00.00Z", version="2.1.0", manufacturer="acme", serialNumber=serial)
    client.publish(f"uagv/v2/acme/{serial}/{topic}", json.dumps(body))

def order(oid, upd, pts, released=99, seq0=0):  # pts: (nodeId, x, y[, theta])
    nodes = [{"nodeId": n, "sequenceId": seq0 + 2 * i, "released": i < released, "actions": [],
              "nodePosition": dict({"x": x, "y": y, "mapId": "map"}, **({"theta": t[0]} if t else {}))}
             for i, (n, x, y, *t) in enumerate(pts)]
    edges = [{"edgeId": "e" + a["nodeId"] + b["nodeId"], "sequenceId": a["sequenceId"] + 1,
              "released": b["released"], "startNodeId": a["nodeId"], "endNodeId": b["nodeId"], "actions": []}
             for a, b in zip(nodes, nodes[1:])]
    return dict(orderId=oid, orderUpdateId=upd, nodes=nodes, edges=edges)

def instant(*actions):
    return [{"actionId": i, "actionType": t, "blockingType": "HARD",
             "actionParameters": [{"key": k, "value": v} for k, v in p.items()]} for i, t, p in actions]

def until(serial, topic, pred, what, timeout=30):
    # Messages of the topic in order, up to the first that satisfies pred.
    seen, deadline = [], time.monotonic() + timeout
    while not seen or not pred(seen[-1]):
        try: seen.append(queues[f"uagv/v2/acme/{serial}/{topic}"].get(timeout=max(0, deadline - time.monotonic())))
        except queue.Empty: sys.exit(f"{serial}: no {topic} with {what}; last: {seen[-1:]}")
    return seen

def connection(serial, state):
    return until(serial, "connection", lambda c: c["connectionState"] == state, state)

def action(s, aid):
    return next((a["actionStatus"] for a in s["actionStates"] if a["actionId"] == aid), None)

def changes(states, f):  # the distinct successive values of f over the states
    return [v for i, v in enumerate(map(f, states)) if i == 0 or v != f(states[i - 1])]

def done(s, node):
    return s["lastNodeId"] == node and not any(n["released"] for n in s["nodeStates"]) and not s["driving"]

def at(s, x, y):
    return abs(s["agvPosition"]["x"] - x) + abs(s["agvPosition"]["y"] - y) < 2e-3

def scenario_broker():
    sim, br = robot("r1")
    assert [c["connectionState"] for c in connection("r1", "ONLINE")] == ["ONLINE"]
    fs = until("r1", "factsheet", lambda f: True, "a factsheet")[-1]
    assert sorted(a["actionType"] for a in fs["protocolFeatures"]["agvActions"]) == [
        "cancelOrder", "factsheetRequest", "initPosition", "stateRequest"]
    timing, most = fs["protocolLimits"]["timing"], fs["protocolLimits"]["maxArrayLens"]["order.nodes"]
    assert (timing["defaultStateInterval"], timing["visualizationInterval"]) == (7, 0.1), timing
    # The node limit comes from the frame limit (1,000,000 bytes, 24 per way-point; 40,000 nodes
    # fit). The count is checked before anything else of the order.
    assert 40000 < most <= 1000000 // 24, most
    send("r1", "order", orderId="huge", orderUpdateId=0, nodes=[{}] * (most + 1), edges=[{}] * most)
    s = until("r1", "state", lambda s: s["errors"], "the huge order refused")[-1]
    assert [(e["errorType"], e["errorDescription"]) for e in s["errors"]] == [("orderError", (
        f"this robot takes at most {most} nodes per order (one drive command carries {most - 1} way-points)"))], s
    send("r1", "instantActions",
         actions=instant(("i1", "initPosition", {"x": 0, "y": 0, "theta": 0}), ("p1", "startPause", {})))
    s = until("r1", "state", lambda s: action(s, "i1") == "FINISHED", "initPosition finished")[-1]
    assert s["agvPosition"]["positionInitialized"] and action(s, "p1") == "FAILED", s
    assert [(e["errorType"], e["errorReferences"][1]["referenceValue"]) for e in s["errors"]] == [
        ("orderError", "huge"), ("unsupportedAction", "startPause")], s
    send("r1", "order", **order("o1", 0, [("a", 0, 0), ("b", 1, 0, 1.5708), ("c", 1, 1), ("d", 0, 1)], 3))
    states = [s for s in until("r1", "state", lambda s: done(s, "c"), "o1 base done") if s["orderId"] == "o1"]
    assert changes(states, lambda s: [n["nodeId"] for n in s["nodeStates"]]) == [["b", "c", "d"], ["c", "d"], ["d"]]
    assert changes(states, lambda s: (s["lastNodeId"], s["lastNodeSequenceId"])) == [("a", 0), ("b", 2), ("c", 4)]
    assert True in changes(states, lambda s: s["driving"]) and not states[-1]["errors"], states[-1]
    # Driving west the robot reports pi; the turn ordered on the last node is taken.
    send("r1", "order", **order("o1", 1, [("c", 1, 1), ("d", 0, 1, -1.5708)], seq0=4))
    s = until("r1", "state", lambda s: done(s, "d"), "o1 update done")[-1]
    assert (s["orderUpdateId"], s["lastNodeSequenceId"], s["errors"]) == (1, 6, []) and at(s, 0, 1), s
    assert abs(s["agvPosition"]["theta"] + 1.5708) < 1e-3, s
    assert max(map(abs, headings)) <= math.pi and any(abs(t) > 3.14 for t in headings), headings
    send("r1", "instantActions", actions=instant(("s1", "stateRequest", {})))
    until("r1", "state", lambda s: action(s, "s1") == "FINISHED", "the requested state")
    br.kill()
    connection("r1", "CONNECTIONBROKEN")
    client.subscribe("uagv/v2/acme/r1/connection", 1)  # a new subscription gets the retained state
    connection("r1", "CONNECTIONBROKEN")
    br = bridge(sim, "r1")
    connection("r1", "ONLINE")  # the bridge is connected to the simulator by then
    until("r1", "visualization", lambda v: at(v, 0, 1), "the robot where it stopped")
    sim.kill()
    until("r1", "state", lambda s: [(e["errorType"], e["errorLevel"]) for e in s["errors"]]
          == [("controlServerLost", "FATAL")], "a fatal error")
    connection("r1", "CONNECTIONBROKEN")
    assert br.wait(timeout=10) == 6
    # A control server (here, in the master's namespace) whose frame cannot be read: length -10.
    with socket.create_server(("127.0.0.1", 6868)) as server:
        procs.append(br := subprocess.Popen([BRIDGE, "--manufacturer", "acme", "--serial", "r2", "--unix", SOCK]))
        peer = server.accept()[0]
        connection("r2", "ONLINE")
        peer.sendall(b"#" + struct.pack("<ii", 11, -10))
        s = until("r2", "state", lambda s: s["errors"], "a fatal error")[-1]
        assert [(e["errorType"], e["errorLevel"]) for e in s["errors"]] == [("controlServerLost", "FATAL")], s
        assert s["errors"][0]["errorDescription"].startswith("the control server sent unreadable data: "), s
        connection("r2", "CONNECTIONBROKEN")
        assert br.wait(timeout=10) == 7

def scenario_fleet():
    plans = {"r1": [(0, 0), (1, 0), (1, 1)], "r2": [(2, 2), (2, 0.5)], "r3": [(-1, 0), (-1, -1), (0, -1), (0, 0)]}
    pairs = {serial: robot(serial) for serial in plans}
    for serial, ((x, y), *_) in plans.items():
        connection(serial, "ONLINE")
        send(serial, "instantActions", actions=instant(("i", "initPosition", dict(x=x, y=y, theta=0))))
        until(serial, "state", lambda s: action(s, "i") == "FINISHED", "initPosition finished")
    for serial, pts in plans.items():
        send(serial, "order", **order("o-" + serial, 0, [(f"n{i}", x, y) for i, (x, y) in enumerate(pts)]))
    for serial, pts in plans.items():
        s = until(serial, "state", lambda s: done(s, f"n{len(pts) - 1}"), "its order done")[-1]
        assert (s["orderId"], s["errors"]) == ("o-" + serial, []) and at(s, *pts[-1]), s
    for serial, (sim, br) in pairs.items():
        br.terminate()
        assert br.wait(timeout=10) == 0
        connection(serial, "OFFLINE")

try:
    pathlib.Path(tmp, "mosquitto.conf").write_text(f"user root\nallow_anonymous true\nlistener 1883 127.0.0.1\nlistener 0 {SOCK}\n")
    start([os.environ.get("MOSQUITTO", "mosquitto"), "-c", os.path.join(tmp, "mosquitto.conf")], " running")
    client.connect("127.0.0.1", 1883)
    client.subscribe("uagv/v2/acme/#", 1)
    client.loop_start()
    {"broker": scenario_broker, "fleet": scenario_fleet}[MODE]()
    print(f"vda5050 {MODE}: passed")
finally:
    for p in reversed(procs): p.kill(), p.wait()
    shutil.rmtree(tmp, ignore_errors=True)
