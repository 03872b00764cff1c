# tarn-fleet-view in headless Chromium with 10 robots, each a tarn-sim and a
# tarn-vda5050 in a network namespace of its own, on one Mosquitto broker (as
# tests/vda5050/master.py has them): every vehicle appears, drives along its
# order and is drawn where it is; one whose bridge is killed is marked with the
# last will the broker publishes, one that leaves in order vanishes; a message
# over the view's size limit never reaches it. Runs in a private network
# namespace (root). Leaves fleet-view.png (mid-order) in the working directory.

import http.client as http_client, json, os, pathlib, shutil, signal, subprocess, tempfile, time, urllib.request

import paho.mqtt.client as mqtt
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

SIM, BRIDGE, VIEW = os.environ["TARN_SIM"], os.environ["TARN_BRIDGE"], os.environ["TARN_FLEET_VIEW"]
SERIALS = ["r%02d" % i for i in range(10)]
# Where each starts, 3 m apart, and its order: east 1.5 m, then north 1.5 m.
START = {s: ((i % 5) * 3.0, (i // 5) * 3.0) for i, s in enumerate(SERIALS)}


def until(what, condition, timeout=60.0):
    deadline = time.monotonic() + timeout
    while not (result := condition()):
        assert time.monotonic() < deadline, "timed out waiting for " + what
        time.sleep(0.02)
    return result


def started(procs, cmd, ready):
    """Starts a program and waits for its line saying it is ready."""
    procs.append(p := subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True))
    for line in p.stdout:
        if ready in line:
            return p, line
    raise AssertionError(f"{cmd[0]} ended before it was ready")


def send(client, serial, topic, **body):
    body.update(headerId=1, timestamp="2026-01-01T00:00:00.00Z", version="2.1.0", manufacturer="acme",
                serialNumber=serial)
    client.publish(f"uagv/v2/acme/{serial}/{topic}", json.dumps(body), qos=1)


def order(serial):
    x, y = START[serial]
    points = [("n0", x, y), ("n1", x + 1.5, y), ("n2", x + 1.5, y + 1.5)]
    nodes = [{"nodeId": n, "sequenceId": 2 * i, "released": True, "actions": [],
              "nodePosition": {"x": px, "y": py, "mapId": "map"}} for i, (n, px, py) in enumerate(points)]
    edges = [{"edgeId": a["nodeId"] + b["nodeId"], "sequenceId": a["sequenceId"] + 1, "released": True,
              "startNodeId": a["nodeId"], "endNodeId": b["nodeId"], "actions": []} for a, b in zip(nodes, nodes[1:])]
    return dict(orderId="o-" + serial, orderUpdateId=0, nodes=nodes, edges=edges)


# Every drawn vehicle: id -> (connection, x, y, remaining nodes, marked broken).
VEHICLES = """return Object.fromEntries([...document.querySelectorAll('#vehicles .vehicle')].map((g) =>
    [g.dataset.id, [g.dataset.connection, +g.dataset.x, +g.dataset.y, +g.dataset.nodes, g.classList.contains('broken')]]));"""

# Where each vehicle's marker is drawn, in metres, read back through the grid's labelled lines.
DRAWN = """const grid = [...document.querySelectorAll('#grid line')].map((l, i) =>
        [l, parseFloat(document.querySelectorAll('#grid text')[i].textContent)]);
    const ruler = (vertical) => {
      const [[a, ma], [b, mb]] = grid.filter(([l]) => (l.getAttribute('x1') === l.getAttribute('x2')) === vertical);
      const at = (l) => vertical ? l.getBoundingClientRect().x : l.getBoundingClientRect().y;
      return (p) => ma + (p - at(a)) * (mb - ma) / (at(b) - at(a));
    };
    const [mx, my] = [ruler(true), ruler(false)];
    return Object.fromEntries([...document.querySelectorAll('#vehicles .vehicle')].map((g) => {
      const r = g.querySelector('.body').getBoundingClientRect();
      return [g.dataset.id, [mx(r.x + r.width / 2), my(r.y + r.height / 2)]];
    }));"""


def test_fleet_view_shows_every_vehicle_on_its_way_and_marks_the_lost():
    tmp = tempfile.mkdtemp(prefix="tarn-fleet-")
    sock, procs, bridges = os.path.join(tmp, "broker.sock"), [], {}
    options = webdriver.ChromeOptions()
    options.binary_location = os.environ["CHROMIUM"]
    for flag in ("headless no-sandbox disable-gpu no-first-run disable-sync disable-background-networking "
                 "disable-component-update disable-quic window-size=1400,900 user-data-dir=" +
                 os.path.join(tmp, "chromium")).split():
        options.add_argument("--" + flag)
    client = mqtt.Client()
    try:
        pathlib.Path(tmp, "mosquitto.conf").write_text(
            f"user root\nallow_anonymous true\nlistener 1883 127.0.0.1\nlistener 0 {sock}\n")
        started(procs, [os.environ["MOSQUITTO"], "-c", os.path.join(tmp, "mosquitto.conf")], " running")
        _, line = started(procs, [VIEW, "--http-port", "0", "--offline-keep", "1"], "fleet view: ")
        url = line.split()[2]
        # Guarded as the live view: only its own names, and it only reads.
        address, port = url.split("/")[2].split(":")
        for method, headers, status in (("GET", {"Host": "evil.example"}, 421), ("GET", {}, 200),
                                        ("POST", {"Content-Type": "application/json"}, 405)):
            http = http_client.HTTPConnection(address, int(port), timeout=5)
            http.request(method, "/state", headers=headers)
            assert (method, http.getresponse().status) == (method, status), headers
            http.close()
        client.connect("127.0.0.1", 1883)
        client.loop_start()
        for serial in SERIALS:
            sim, _ = started(procs, ["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-", SIM,
                                     "--quiet", "--no-web"], "listen at")
            procs.append(br := subprocess.Popen(["nsenter", "-t", str(sim.pid), "-n", BRIDGE, "--manufacturer",
                                                 "acme", "--serial", serial, "--unix", sock, "--viz-rate", "10"]))
            bridges[serial] = br

        with webdriver.Chrome(service=Service(os.environ["CHROMEDRIVER"]), options=options) as browser:
            browser.get(url)
            js = browser.execute_script
            cards = "return [...document.querySelectorAll('.card .conn')].map((b) => b.textContent)"
            until("10 vehicles online", lambda: js(cards) == ["ONLINE"] * 10)
            for serial, (x, y) in START.items():
                send(client, serial, "instantActions", actions=[{"actionId": "i", "actionType": "initPosition",
                     "blockingType": "HARD", "actionParameters": [{"key": k, "value": v} for k, v in
                                                                  dict(x=x, y=y, theta=0, mapId="map").items()]}])
            placed = lambda: (v := js(VEHICLES)) and len(v) == 10 and all(
                abs(v["acme/" + s][1] - x) + abs(v["acme/" + s][2] - y) < 0.01 for s, (x, y) in START.items())
            until("10 vehicles drawn where they were put", placed)
            # x grows to the right and y upwards on the screen, as VDA 5050 has it.
            at = js("""return Object.fromEntries([...document.querySelectorAll('#vehicles .vehicle')].map((g) =>
                [g.dataset.id.split('/')[1], [g.getBoundingClientRect().x, g.getBoundingClientRect().y]]));""")
            assert at["r01"][0] > at["r00"][0] and at["r05"][1] < at["r00"][1], at

            for serial in SERIALS:
                send(client, serial, "order", **order(serial))
            # Remaining nodes as each vehicle's drawing showed them, and whether it was seen at its corner.
            left, cornered = {s: [] for s in SERIALS}, set()

            def watch(done):
                for vid, (_, x, y, nodes, _) in js(VEHICLES).items():
                    s = vid.split("/")[1]
                    if (left[s] or nodes) and (not left[s] or left[s][-1] != nodes):  # from the order's echo on
                        left[s].append(nodes)
                    cornered.update([s] if abs(x - START[s][0] - 1.5) + abs(y - START[s][1]) < 0.02 else [])
                return done()

            until("every vehicle at or past its corner", lambda: watch(lambda: len(cornered) == 10))
            browser.save_screenshot("fleet-view.png")
            finished = lambda: all(left[s][-1] == 0 for s in SERIALS)
            until("every order finished", lambda: watch(finished))
            assert left == {s: [2, 1, 0] for s in SERIALS}, left
            state = json.load(urllib.request.urlopen(url + "state", timeout=5))
            for v in state["vehicles"]:
                x, y = START[v["serial"]]
                assert (v["orderId"], v["lastNodeId"], v["errors"]) == ("o-" + v["serial"], "n2", []), v
                assert abs(v["pose"]["x"] - x - 1.5) + abs(v["pose"]["y"] - y - 1.5) < 0.01, v
            for vid, (x, y) in js(DRAWN).items():
                sx, sy = START[vid.split("/")[1]]
                assert abs(x - sx - 1.5) < 0.05 and abs(y - sy - 1.5) < 0.05, (vid, x, y)

            # Over the size limit: the broker keeps it from the view; then one it ignores, then a sign.
            client.publish("uagv/v2/acme/r00/state", b"{" + b" " * 300000 + b"}", qos=1)
            client.publish("uagv/v2/acme/r00/state", b"not json", qos=1)
            send(client, "r00", "factsheet", typeSpecification={"seriesName": "after"})
            until("the sign", lambda: "after" in js("return document.querySelector('.card').textContent"))
            assert js("return document.getElementById('dropped').textContent") == \
                "1 messages ignored (malformed or too large)"

            bridges["r03"].kill()
            marked = lambda: js(VEHICLES)["acme/r03"][0] == "CONNECTIONBROKEN" and js(
                "return document.querySelector('.vehicle.broken .mark.broken').textContent") == "connection broken"
            until("r03 marked connection broken", marked)
            assert [v[0] for k, v in js(VEHICLES).items() if k != "acme/r03"] == ["ONLINE"] * 9
            bridges["r07"].send_signal(signal.SIGTERM)
            assert bridges["r07"].wait(timeout=10) == 0
            # OFFLINE in order: gone once --offline-keep (1 s) is over.
            until("r07 gone", lambda: "acme/r07" not in js(VEHICLES) and len(js(cards)) == 9, 10)
    finally:
        client.loop_stop()
        for p in reversed(procs):
            p.kill()
            p.wait()
        shutil.rmtree(tmp, ignore_errors=True)
