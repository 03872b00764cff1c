#!/usr/bin/python3
# A scripted master control for tarn-vda5050 against a real Mosquitto broker.
#
# master.py SIM BRIDGE broker|fleet. Each robot is a tarn-sim with its own bridge
# in a network namespace of its own (the library connects to 127.0.0.1:6868);
# the bridges reach the broker through its Unix socket, the master over TCP in
# this test's private namespace. Needs root for the namespaces.
import collections, json, os, queue, shutil, subprocess, sys, tempfile, time
import paho.mqtt.client as mqtt

SIM, BRIDGE, MODE = sys.argv[1:4]
if os.environ.get("VDA_TEST_NS") != "1":
    if os.geteuid() != 0 or subprocess.call(["unshare", "-n", "true"], stderr=subprocess.DEVNULL) != 0:
        sys.exit("vda5050 test: cannot create a network namespace (unshare -n): run it as root")
    os.environ["VDA_TEST_NS"] = "1"
    sys.exit(subprocess.call(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-",
                              sys.executable, *sys.argv]))
tmp = tempfile.mkdtemp()
SOCK, procs = os.path.join(tmp, "broker.sock"), []

def start(cmd, ready):  # starts a program and waits for its line saying it is ready
    procs.append(p := subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True))
    for line in p.stdout:
        if ready in line: return p
    sys.exit(f"{cmd[0]} ended before it was ready")

def bridge(sim, serial):  # a bridge in the simulator's namespace
    procs.append(subprocess.Popen(["nsenter", "-t", str(sim.pid), "-n", BRIDGE, "--manufacturer", "acme",
                                   "--serial", serial, "--unix", SOCK, "--viz-rate", "10"]))
    return procs[-1]

def robot(serial):  # a simulator in a fresh namespace, and its bridge
    sim = start(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-", SIM, "--quiet"], "listen at")
    return sim, bridge(sim, serial)

def header(serial):
    return dict(headerId=1, timestamp="2026-01-01T00:00:00.00Z", version="2.1.0", manufacturer="acme", serialNumber=serial)

def order(serial, oid, upd, pts, released=99, seq0=0):
    nodes = [{"nodeId": n, "sequenceId": seq0 + 2 * i, "released": i < released, "actions": [],
              "nodePosition": dict({"x": x, "y": y, "mapId": "map"}, **({"theta": t} if t is not None else {}))}
             for i, (n, x, y, t) in enumerate(pts)]
    edges = [{"edgeId": "e" + a["nodeId"] + b["nodeId"], "sequenceId": a["sequenceId"] + 1,
              "released": b["released"], "startNodeId": a["nodeId"], "endNodeId": b["nodeId"], "actions": []}
             for a, b in zip(nodes, nodes[1:])]
    return dict(header(serial), orderId=oid, orderUpdateId=upd, nodes=nodes, edges=edges)

def instant(serial, *actions):
    return dict(header(serial), actions=[{"actionId": i, "actionType": t, "blockingType": "HARD",
                                          "actionParameters": [{"key": k, "value": v} for k, v in p.items()]}
                                         for i, t, p in actions])

class Master:
    def __init__(self):
        self.queues = collections.defaultdict(queue.Queue)
        self.c = mqtt.Client()
        self.c.on_message = lambda c, u, m: self.queues[m.topic].put(json.loads(m.payload))
        self.c.connect("127.0.0.1", 1883)
        self.c.subscribe("uagv/v2/acme/#", 1)
        self.c.loop_start()

    def send(self, serial, topic, body):
        self.c.publish(f"uagv/v2/acme/{serial}/{topic}", json.dumps(body))

    def until(self, serial, topic, pred, what, timeout=30):
        # Messages of the topic in order, up to the first that satisfies pred.
        seen, deadline = [], time.monotonic() + timeout
        while not seen or not pred(seen[-1]):
            try: seen.append(self.queues[f"uagv/v2/acme/{serial}/{topic}"].get(timeout=max(0, deadline - time.monotonic())))
            except queue.Empty: sys.exit(f"{serial}: no {topic} with {what}; last: {seen[-1:]}")
        return seen

def error(s, kind, key, value):
    return any(e["errorType"] == kind and {"referenceKey": key, "referenceValue": value} in e["errorReferences"]
               for e in s["errors"])

def action(s, aid):
    return next((a["actionStatus"] for a in s["actionStates"] if a["actionId"] == aid), None)

def changes(states, f):  # the distinct successive values of f over the states
    return [v for i, v in enumerate(map(f, states)) if i == 0 or v != f(states[i - 1])]

def done(s, node):
    return s["lastNodeId"] == node and not any(n["released"] for n in s["nodeStates"]) and not s["driving"]

def scenario_broker(m):
    sim, br = robot("r1")
    assert [c["connectionState"] for c in m.until("r1", "connection", lambda c: c["connectionState"] == "ONLINE", "ONLINE")] == ["ONLINE"]
    fs = m.until("r1", "factsheet", lambda f: True, "a factsheet")[-1]["protocolFeatures"]["agvActions"]
    assert sorted(a["actionType"] for a in fs) == ["cancelOrder", "factsheetRequest", "initPosition", "stateRequest"]
    ok = order("r1", "o1", 0, [("a", 0, 0, None), ("b", 1, 0, 1.5708), ("c", 1, 1, None), ("d", 0, 1, None)], 3)
    m.send("r1", "order", ok)
    m.until("r1", "state", lambda s: error(s, "orderError", "orderId", "o1") and s["orderId"] == "", "no init")
    m.send("r1", "instantActions", instant("r1", ("i1", "initPosition", {"x": 0, "y": 0, "theta": 0}),
                                          ("p1", "startPause", {}), ("c0", "cancelOrder", {})))
    s = m.until("r1", "state", lambda s: action(s, "i1") == "FINISHED", "initPosition finished")[-1]
    assert s["agvPosition"]["positionInitialized"] and action(s, "p1") == action(s, "c0") == "FAILED", s
    assert error(s, "unsupportedAction", "actionId", "p1") and error(s, "noOrderToCancel", "actionId", "c0"), s
    bad = order("r1", "v1", 0, [("a", 0, 0, None), ("b", 1, 0, None)])
    bad["edges"] = []
    for body, kind in [(bad, "validationError"), (order("r1", "f1", 0, [("a", 5, 5, None)]), "noRouteError")]:
        m.send("r1", "order", body)
        m.until("r1", "state", lambda s: any(e["errorType"] == kind for e in s["errors"]), kind)
    act = order("r1", "x1", 0, [("a", 0, 0, None)])
    act["nodes"][0]["actions"] = [{"actionId": "k1", "actionType": "pick", "blockingType": "HARD"}]
    m.send("r1", "order", act)
    m.until("r1", "state", lambda s: error(s, "orderError", "actionId", "k1"), "orderError for a node action")
    m.send("r1", "order", ok)
    states = [s for s in m.until("r1", "state", lambda s: done(s, "c"), "o1 base done") if s["orderId"] == "o1"]
    assert changes(states, lambda s: [n["nodeId"] for n in s["nodeStates"]]) == [["b", "c", "d"], ["c", "d"], ["d"]]
    assert changes(states, lambda s: (s["lastNodeId"], s["lastNodeSequenceId"])) == [("a", 0), ("b", 2), ("c", 4)]
    assert True in changes(states, lambda s: s["driving"]) and not states[-1]["errors"], states[-1]
    heading = [s["agvPosition"]["theta"] for s in states if s["lastNodeId"] == "b"]
    assert heading and abs(heading[-1] - 1.5708) < 1e-3, heading
    m.send("r1", "order", order("r1", "o1", 1, [("c", 1, 1, None), ("d", 0, 1, None)], seq0=4))
    s = m.until("r1", "state", lambda s: done(s, "d"), "o1 update done")[-1]
    assert (s["orderUpdateId"], s["lastNodeSequenceId"], s["errors"]) == (1, 6, []), s
    assert abs(s["agvPosition"]["x"]) < 1e-3 and abs(s["agvPosition"]["y"] - 1) < 1e-3, s
    m.send("r1", "order", order("r1", "o2", 0, [("d", 0, 1, None), ("far", -9, 1, None)]))
    m.until("r1", "visualization", lambda v: v["agvPosition"]["x"] < -0.3, "the robot under way")
    m.send("r1", "instantActions", instant("r1", ("c1", "cancelOrder", {}), ("s1", "stateRequest", {})))
    s = m.until("r1", "state", lambda s: action(s, "c1") == "FINISHED" and action(s, "s1") == "FINISHED", "cancel")[-1]
    assert not s["nodeStates"] and not s["driving"] and s["lastNodeId"] == "d" and s["orderId"] == "o2", s
    assert -9 < s["agvPosition"]["x"] < -0.3 and s["agvPosition"]["positionInitialized"], s
    br.kill()
    m.until("r1", "connection", lambda c: c["connectionState"] == "CONNECTIONBROKEN", "the last will")
    m.c.subscribe("uagv/v2/acme/r1/connection", 1)  # a new subscription gets the retained state
    m.until("r1", "connection", lambda c: c["connectionState"] == "CONNECTIONBROKEN", "the will retained")
    br = bridge(sim, "r1")
    m.until("r1", "connection", lambda c: c["connectionState"] == "ONLINE", "ONLINE again")
    m.until("r1", "visualization", lambda v: v["agvPosition"]["mapId"] == "map", "a visualization")
    sim.kill()
    s = m.until("r1", "state", lambda s: any(e["errorLevel"] == "FATAL" for e in s["errors"]), "a fatal error")[-1]
    assert [e["errorType"] for e in s["errors"]] == ["controlServerLost"], s
    m.until("r1", "connection", lambda c: c["connectionState"] == "CONNECTIONBROKEN", "CONNECTIONBROKEN")
    assert br.wait(timeout=10) == 3

def scenario_fleet(m):
    plans = {"r1": [(0, 0), (1, 0), (1, 1)], "r2": [(2, 2), (2, 0.5)], "r3": [(-1, 0), (-1, -1), (0, -1), (0, 0)]}
    pairs = {serial: robot(serial) for serial in plans}
    for serial, pts in plans.items():
        m.until(serial, "connection", lambda c: c["connectionState"] == "ONLINE", "ONLINE")
        m.send(serial, "instantActions", instant(serial, ("i", "initPosition", dict(x=pts[0][0], y=pts[0][1], theta=0))))
        m.until(serial, "state", lambda s: action(s, "i") == "FINISHED", "initPosition finished")
    for serial, pts in plans.items():
        m.send(serial, "order", order(serial, "o-" + serial, 0, [(f"n{i}", x, y, None) for i, (x, y) in enumerate(pts)]))
    for serial, pts in plans.items():
        s = m.until(serial, "state", lambda s: done(s, f"n{len(pts) - 1}"), "its order done")[-1]
        p = s["agvPosition"]
        assert (s["orderId"], s["errors"]) == ("o-" + serial, []) and abs(p["x"] - pts[-1][0]) + abs(p["y"] - pts[-1][1]) < 2e-3, s
    for serial, (sim, br) in pairs.items():
        br.terminate()
        assert br.wait(timeout=10) == 0
        m.until(serial, "connection", lambda c: c["connectionState"] == "OFFLINE", "OFFLINE")

try:
    with open(os.path.join(tmp, "mosquitto.conf"), "w") as f:
        f.write(f"user root\nallow_anonymous true\nlistener 1883 127.0.0.1\nlistener 0 {SOCK}\n")
    start([os.environ.get("MOSQUITTO", "mosquitto"), "-c", os.path.join(tmp, "mosquitto.conf")], " running")
    {"broker": scenario_broker, "fleet": scenario_fleet}[MODE](Master())
    print(f"vda5050 {MODE}: passed")
finally:
    for p in reversed(procs): p.kill(), p.wait()
    shutil.rmtree(tmp, ignore_errors=True)
