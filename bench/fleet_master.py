#!/usr/bin/python3
"""A fleet of VDA 5050 vehicles on one broker, measured by a scripted master.

    bench/fleet_master.py SIM BRIDGE [N ...] [--idle S] [--samples K] [--json FILE]
                          [--brokers K [--joined-from edge|centre] [--quickack]] [--threaded]

Usually run through bench/fleet.sh, which builds the two programs first. Needs
root: everything runs in a private network namespace (so the host's ports are
never touched), and each robot in one of its own inside it, because the
control port is compiled in. For each fleet size N (default 1 10 100), with a
fresh broker and fleet each time:

  start    Mosquitto with `set_tcp_nodelay true`, the bridges on its Unix
           socket (a Unix socket crosses network namespaces), this master over
           TCP on 127.0.0.1 with Nagle's algorithm off on its own socket;
           N tarn-sim (--quiet --no-web), each under `unshare -n`, and N
           tarn-vda5050 with their defaults (--viz-rate 1, --state-interval
           30), each entering its simulator's namespace with `nsenter -n`;
  init     initPosition for every robot, on a 3 m grid;
  idle     S seconds (default 30, one state interval) with nothing ordered;
  latency  rounds of N one-node orders, one per robot where it stands,
           published back to back: each until the first state that carries
           its orderId; rounds 50 to 150 ms apart (random, so that no round
           keeps step with the bridges' timers); at least 30 rounds and K
           samples (default 300);
  route    a 1 m square order for every robot, published back to back, until
           every robot reports its last node reached and stands.

With --brokers K the robots are spread over K edge brokers, each joined to the
master's broker by mosquitto's own bridge (opened by the edge, or with
--joined-from centre by the master's broker); --quickack gives this run's
loopback routes `quickack 1`, so that no side delays its acknowledgements.

The master is single-threaded (paho's loop driven by hand), so each publish is
written to the socket when it is made and each arrival is timestamped before
the next packet is read; it parses only what it must. With --threaded it is
written as masters often are instead: paho's network thread, every message
parsed on arrival, which shows what the master's own design costs. CPU and run-queue waiting come from
/proc/PID/task/*/schedstat (nanoseconds, every thread), memory from
/proc/PID/status (VmRSS) and smaps_rollup (Pss, which shares the libraries
among the processes that map them). The hops of an echo are split with the
state's own timestamp (the bridge's clock, the same machine's, milliseconds).
Prints a block per fleet size, then each size's cost per robot against the
first size's.
"""
import argparse, http.client, json, math, os, pathlib, random, selectors, shutil, signal, socket, subprocess
import sys, tempfile, threading, time, ctypes
from datetime import datetime
import paho.mqtt.client as mqtt

ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
ap.add_argument("sim")
ap.add_argument("bridge")
ap.add_argument("sizes", nargs="*", type=int, default=[1, 10, 100])
ap.add_argument("--idle", type=float, default=30, help="seconds of the idle phase (default 30)")
ap.add_argument("--samples", type=int, default=300, help="order->echo samples at least (default 300)")
ap.add_argument("--json", help="also write the figures to this file")
ap.add_argument("--brokers", type=int, default=1,
                help="K > 1: the robots spread over K edge brokers, each joined to the master's "
                     "broker with mosquitto's own bridge (default 1: one broker)")
ap.add_argument("--joined-from", choices=("edge", "centre"), default="edge",
                help="which side opens each broker bridge's connection (default edge)")
ap.add_argument("--quickack", action="store_true",
                help="loopback routes with `quickack 1`: no delayed acknowledgements between brokers")
ap.add_argument("--view", metavar="PROGRAM",
                help="also run this tarn-fleet-view on the master's broker, with one page reading "
                     "its events, and measure it")
ap.add_argument("--threaded", action="store_true",
                help="a master as often written: paho's network thread (loop_start), every "
                     "message parsed as it arrives")
args = ap.parse_args()
if any(n < 1 or n > 250 for n in args.sizes):
    sys.exit("fleet: a fleet has 1 to 250 robots")
if not 1 <= args.brokers <= 10:
    sys.exit("fleet: 1 to 10 brokers")

MANUFACTURER = "bench"
libc = ctypes.CDLL(None, use_errno=True)


def die_with_master():
    # Whatever ends the master (a kill included), its children go with it:
    # PR_SET_PDEATHSIG survives the exec chains unshare -> sh -> tarn-sim and
    # nsenter -> tarn-vda5050.
    libc.prctl(1, signal.SIGKILL)


if os.environ.get("FLEET_BENCH_NS") != "1":
    # The master itself runs in a private network namespace, so that its
    # broker's port never meets the host's; a signal here is passed on to it,
    # and it cleans up.
    if os.geteuid() != 0 or subprocess.call(["unshare", "-n", "true"], stderr=subprocess.DEVNULL):
        sys.exit("fleet: needs root for network namespaces (unshare -n)")
    os.environ["FLEET_BENCH_NS"] = "1"
    inner = subprocess.Popen(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-",
                              sys.executable, *sys.argv], preexec_fn=die_with_master)
    for sig in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(sig, lambda signum, frame: inner.send_signal(signum))
    sys.exit(inner.wait())


def on_signal(signum, frame):
    raise SystemExit(128 + signum)


if args.quickack:  # in this run's own namespace: nothing outside it changes
    for dst in ("127.0.0.0/8", "127.0.0.1"):
        subprocess.check_call(["ip", "route", "change", "local", dst, "dev", "lo", "table", "local",
                               "proto", "kernel", "scope", "host", "src", "127.0.0.1", "quickack", "1"])


signal.signal(signal.SIGTERM, on_signal)
signal.signal(signal.SIGHUP, on_signal)


class Fail(Exception):
    pass


def percentile(values, p):
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100 * (len(v) - 1))))] if v else float("nan")


def usage(pid):
    """(CPU ns, run-queue wait ns) of every thread of a process."""
    run = wait = 0
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                r, w, _ = f.read().split()
            run, wait = run + int(r), wait + int(w)
    except (FileNotFoundError, ProcessLookupError):
        pass
    return run, wait


def memory(pid):
    """(VmRSS, Pss) in kB."""
    rss = pss = 0
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                rss = int(line.split()[1])
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            if line.startswith("Pss:"):
                pss = int(line.split()[1])
    return rss, pss


def tcp_counters():
    """This namespace's TCP retransmission counters: the broker's and the
    master's connections are the only TCP in it."""
    wanted = {"RetransSegs", "TCPTimeouts", "TCPLossProbes", "TCPBacklogDrop", "PruneCalled",
              "TCPRcvQDrop", "TCPZeroWindowDrop", "TCPToZeroWindowAdv"}
    found = {}
    for name in ("/proc/net/snmp", "/proc/net/netstat"):
        lines = pathlib.Path(name).read_text().splitlines()
        for keys, values in zip(lines[::2], lines[1::2]):
            for k, v in zip(keys.split()[1:], values.split()[1:]):
                if k in wanted:
                    found[k] = int(v)
    return found


def loadavg():
    return float(pathlib.Path("/proc/loadavg").read_text().split()[0])


class Drain(threading.Thread):
    """Reads and discards what the started programs print after their ready
    line, so that none of them ever blocks on a full pipe."""

    def __init__(self, fds):
        super().__init__(daemon=True)
        self.sel = selectors.DefaultSelector()
        for fd in fds:
            self.sel.register(fd, selectors.EVENT_READ)
        self.wake_r, self.wake_w = os.pipe()
        self.sel.register(self.wake_r, selectors.EVENT_READ)

    def run(self):
        while True:
            for key, _ in self.sel.select():
                if key.fd == self.wake_r:
                    return
                if not os.read(key.fd, 65536):
                    self.sel.unregister(key.fd)

    def stop(self):
        os.write(self.wake_w, b"x")
        self.join(5)
        for fd in (self.wake_r, self.wake_w):
            os.close(fd)


class Page(threading.Thread):
    """One open page of the fleet view: reads its event stream as a browser
    would, counting the snapshots and their bytes, and keeps the last one."""

    def __init__(self, address, port):
        super().__init__(daemon=True)
        self.conn = http.client.HTTPConnection(address, port, timeout=None)
        self.conn.request("GET", "/events")
        # A second descriptor of the connection, to shut it down from stop()
        # (the response takes the connection's own over).
        self.sock = socket.socket(fileno=os.dup(self.conn.sock.fileno()))
        self.response = self.conn.getresponse()
        assert self.response.status == 200, self.response.status
        self.events = self.bytes = 0
        self.last = None

    def run(self):
        try:
            for line in self.response:
                if line.startswith(b"data: "):
                    self.events, self.bytes, self.last = self.events + 1, self.bytes + len(line), line[6:]
        except (OSError, ValueError, http.client.HTTPException):
            pass  # closed by stop()

    def stop(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.join(5)
        self.sock.close()
        self.response.close()


def start(cmd, **kw):
    return subprocess.Popen(cmd, preexec_fn=die_with_master, **kw)


def wait_ready(procs, text, timeout):
    """Waits until every process has printed a line containing text."""
    sel, buf = selectors.DefaultSelector(), {}
    for p in procs:
        sel.register(p.stdout.fileno(), selectors.EVENT_READ, p)
        buf[p.stdout.fileno()] = b""
    deadline = time.monotonic() + timeout
    while buf:
        events = sel.select(max(0, deadline - time.monotonic()))
        if not events:
            raise Fail(f"{len(buf)} of {len(procs)} programs not ready after {timeout} s")
        for key, _ in events:
            chunk = os.read(key.fd, 65536)
            if not chunk:
                raise Fail(f"{key.data.args[0]} ended before it was ready")
            buf[key.fd] += chunk
            if text in buf[key.fd]:
                sel.unregister(key.fd)
                del buf[key.fd]
    sel.close()


class Fleet:
    def __init__(self, n, tmp):
        self.n, self.tmp = n, tmp
        self.serials = [f"r{i:03d}" for i in range(1, n + 1)]
        self.procs, self.sims, self.bridges, self.brokers, self.socks = [], {}, {}, [], []
        self.state = {}  # serial -> last state (parsed), outside the latency phase
        self.online = set()
        self.links = set()  # edge brokers whose bridge to the master's broker is up
        self.echo = None  # the latency phase's handler, when active
        self.changed = threading.Condition()  # held while a message is handled
        self.drain = None
        self.view = self.page = None

    # -- processes ----------------------------------------------------------

    def start_brokers(self):
        """The master's broker; with --brokers K > 1, K edge brokers too, each
        joined to it by a bridge that carries the vehicles' topics out and the
        master's in. The bridges reach their broker's Unix socket."""
        common = ("user root\nallow_anonymous true\nset_tcp_nodelay true\n"
                  "connection_messages false\nmax_queued_messages 10000\n")
        prefix = f"uagv/v2/{MANUFACTURER}/+/"
        edges = args.brokers if args.brokers > 1 else 0
        from_centre = args.joined_from == "centre"

        def join(k, port):  # the bridge's section, in the configuration of the side opening it
            towards_edge, from_edge = ("out", "in") if from_centre else ("in", "out")
            return (f"connection edge{k}\naddress 127.0.0.1:{port}\ncleansession true\n"
                    "notifications true\n" + "".join(
                        f"topic {prefix}{t} {d} {q}\n" for t, d, q in (
                            ("order", towards_edge, 0), ("instantActions", towards_edge, 0),
                            ("state", from_edge, 0), ("visualization", from_edge, 0),
                            ("connection", from_edge, 1), ("factsheet", from_edge, 0))))
        confs = [common + "listener 1883 127.0.0.1\n" +
                 ("".join(join(k, 1884 + k) for k in range(edges)) if from_centre else "")]
        for k in range(edges):
            confs.append(common + (f"listener {1884 + k} 127.0.0.1\n" if from_centre else join(k, 1883)))
        for k, conf in enumerate(confs):
            path = pathlib.Path(self.tmp, f"broker{k}.sock")
            if k > 0 or args.brokers == 1:
                conf += f"listener 0 {path}\n"
                self.socks.append(str(path))
            pathlib.Path(self.tmp, f"mosquitto{k}.conf").write_text(conf)
            self.brokers.append(start(["mosquitto", "-c", os.path.join(self.tmp, f"mosquitto{k}.conf")],
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT))
            self.procs.append(self.brokers[-1])
            if k == 0:  # the edges' bridges connect to it at once
                wait_ready(self.brokers[:1], b" running", 10)
        # (Bridges opened by the centre retry until their edge listens.)
        wait_ready(self.brokers[1:], b" running", 10)

    def start_view(self):
        """tarn-fleet-view on the master's broker, and one page open on it."""
        self.view = start([args.view, "--http-port", "0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.procs.append(self.view)
        for line in self.view.stdout:
            if line.startswith(b"fleet view: "):
                address, port = line.split()[2].decode().split("/")[2].split(":")
                self.page = Page(address, int(port))
                self.page.start()
                return
        raise Fail(f"tarn-fleet-view exited with {self.view.wait()} before it served its page")

    def start_robots(self):
        log = open(os.path.join(self.tmp, "bridges.log"), "ab")
        for s in self.serials:
            self.sims[s] = start(["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "-",
                                  args.sim, "--quiet", "--no-web"],
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.procs.append(self.sims[s])
        wait_ready(list(self.sims.values()), b"listen at", 30)
        self.drain = Drain([b.stdout.fileno() for b in self.brokers] +
                           [p.stdout.fileno() for p in self.sims.values()] +
                           ([self.view.stdout.fileno()] if self.view else []))
        self.drain.start()
        # The bridge gives up on its control server after 10 s, so it starts
        # only once its simulator listens.
        for i, s in enumerate(self.serials):
            self.bridges[s] = start(["nsenter", "-t", str(self.sims[s].pid), "-n", args.bridge,
                                     "--manufacturer", MANUFACTURER, "--serial", s,
                                     "--unix", self.socks[i % len(self.socks)]],
                                    stdout=log, stderr=log)
            self.procs.append(self.bridges[s])
        log.close()

    def check_alive(self):
        for p in self.procs:
            if p.poll() is not None:
                raise Fail(f"{' '.join(map(str, p.args[:1] + p.args[-4:]))} exited with {p.returncode}")

    def stop(self):
        for p in reversed(self.procs):
            if p.poll() is None:
                p.kill()
        for p in self.procs:
            p.wait()
        if self.page:
            self.page.stop()
        if self.drain:
            self.drain.stop()
        for p in self.procs:
            if p.stdout:
                p.stdout.close()

    # -- MQTT ---------------------------------------------------------------

    def connect(self):
        self.client = c = mqtt.Client(client_id="fleet-master")
        c.on_message = self.on_message
        c.connect("127.0.0.1", 1883, keepalive=60)
        c.socket().setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for topic in ("state", "visualization", "connection", "factsheet"):
            c.subscribe(f"uagv/v2/{MANUFACTURER}/+/{topic}", 0)
        if args.brokers > 1:
            c.subscribe("$SYS/broker/connection/+/state", 0)
        if args.threaded:
            c.loop_start()

    def on_message(self, client, userdata, m):
        t = time.perf_counter()
        with self.changed:
            self.handle(t, m)
            self.changed.notify()

    def handle(self, t, m):
        if m.topic.startswith("$SYS/"):
            if m.payload == b"1":
                self.links.add(m.topic.split("/")[3])
            return
        _, _, _, serial, topic = m.topic.split("/")
        if args.threaded:
            json.loads(m.payload)
        if topic == "state":
            if self.echo is not None:
                self.echo(t, serial, m.payload)
            else:
                self.state[serial] = json.loads(m.payload)
        elif topic == "connection" and b'"ONLINE"' in m.payload:
            self.online.add(serial)

    def pump(self, done, timeout, what, until=None):
        """Serves the connection until done() holds, or until the perf_counter
        time `until` when given; event-driven, bounded by timeout."""
        deadline = time.monotonic() + timeout
        with self.changed:
            while not (time.perf_counter() >= until if until else done()):
                left = deadline - time.monotonic()
                if left <= 0:
                    self.check_alive()
                    raise Fail(f"{what}: not within {timeout} s")
                wait = max(0, min(left, 0.5, until - time.perf_counter() if until else 0.5))
                if args.threaded:  # paho's thread serves the connection
                    self.changed.wait(wait)
                    if not self.client.is_connected():
                        raise Fail(f"{what}: the master lost the broker")
                    continue
                rc = self.client.loop(wait)
                if rc != mqtt.MQTT_ERR_SUCCESS:
                    raise Fail(f"{what}: the master lost the broker ({mqtt.error_string(rc)})")

    def send(self, serial, topic, body):
        body.update(headerId=0, timestamp="2026-01-01T00:00:00.00Z", version="2.1.0",
                    manufacturer=MANUFACTURER, serialNumber=serial)
        return f"uagv/v2/{MANUFACTURER}/{serial}/{topic}", json.dumps(body)

    def home(self, i):
        return 3.0 * (i % 10), 3.0 * (i // 10)

    # -- phases -------------------------------------------------------------

    def init(self):
        self.pump(lambda: len(self.online) == self.n, 30, "every bridge ONLINE")
        for i, s in enumerate(self.serials):
            x, y = self.home(i)
            self.client.publish(*self.send(s, "instantActions", {"actions": [{
                "actionId": "init", "actionType": "initPosition", "blockingType": "HARD",
                "actionParameters": [{"key": "x", "value": x}, {"key": "y", "value": y},
                                     {"key": "theta", "value": 0}]}]}))

        def finished():
            return all(any(a["actionId"] == "init" and a["actionStatus"] == "FINISHED"
                           for a in self.state.get(s, {}).get("actionStates", []))
                       for s in self.serials)
        self.pump(finished, 30, "initPosition FINISHED for every robot")

    def snapshot(self, opening=True):
        """CPU use of every process and the time. An opening snapshot reads the
        master's own last and takes the time after reading, a closing one
        reads them first, so that the reading itself stays out of the window."""
        pids = {"broker": [b.pid for b in self.brokers], "bridge": [self.bridges[s].pid for s in self.serials],
                "sim": [self.sims[s].pid for s in self.serials]}
        if self.view:
            pids["view"] = [self.view.pid]
        if not opening:
            t, mine = time.perf_counter(), usage(os.getpid())
        used = {k: [usage(p) for p in v] for k, v in pids.items()}
        if opening:
            mine, t = usage(os.getpid()), time.perf_counter()
        return t, dict(used, master=[mine])

    @staticmethod
    def spent(a, b):
        """Per kind: (CPU s per process, run-queue wait s per process) lists, and seconds."""
        (t0, u0), (t1, u1) = a, b
        return {k: [((r1 - r0) / 1e9, (w1 - w0) / 1e9) for (r0, w0), (r1, w1) in zip(u0[k], u1[k])]
                for k in u0}, t1 - t0

    def idle(self, seconds):
        a = self.snapshot()
        self.pump(None, seconds + 5, "idle", until=a[0] + seconds)
        return self.spent(a, self.snapshot(False))

    def latency(self, samples):
        rounds = max(30, math.ceil(samples / self.n))
        offset = min((time.time() - time.perf_counter()) for _ in range(5))
        pending, sent, results = {}, {}, []

        def echo(t, serial, payload):
            needle = pending.get(serial)
            if needle is not None and needle in payload:
                del pending[serial]
                results.append((serial, sent[serial], t, payload))
        self.echo = echo
        node = lambda x, y: {"nodeId": "here", "sequenceId": 0, "released": True, "actions": [],
                             "nodePosition": {"x": x, "y": y, "mapId": "map"}}
        bursts, windows, tcp0 = [], [], tcp_counters()
        try:
            for r in range(rounds):
                msgs = []
                for i, s in enumerate(self.serials):
                    oid = f"echo-{r}"
                    msgs.append((s, oid, *self.send(s, "order", {
                        "orderId": oid, "orderUpdateId": 0, "nodes": [node(*self.home(i))],
                        "edges": []})))
                random.shuffle(msgs)
                with self.changed:
                    pending.update((s, f'"orderId":"{oid}"'.encode()) for s, oid, _, _ in msgs)
                before = self.snapshot()
                for s, oid, topic, text in msgs:
                    sent[s] = time.perf_counter()
                    self.client.publish(topic, text)
                bursts.append(time.perf_counter() - sent[msgs[0][0]])
                self.pump(lambda: not pending, 10, f"round {r}: every order echoed")
                windows.append(self.spent(before, self.snapshot(False)))
                self.pump(None, 1, "gap", until=time.perf_counter() + random.uniform(0.05, 0.15))
        finally:
            self.echo = None
        # What every kind of process spent while rounds were under way, from
        # the first order published to the last echo received, summed.
        used = ({k: [tuple(sum(w[0][k][i][j] for w in windows) for j in (0, 1))
                     for i in range(len(windows[0][0][k]))] for k in windows[0][0]},
                sum(w[1] for w in windows))
        echo_ms, to_bridge, from_bridge = [], [], []
        for serial, t0, t1, payload in results:
            echo_ms.append((t1 - t0) * 1000)
            stamp = json.loads(payload)["timestamp"]
            # The bridge writes whole milliseconds, cut: its publish lies within
            # the millisecond after the stamp, on average half-way.
            tb = datetime.strptime(stamp, "%Y-%m-%dT%H:%M:%S.%f%z").timestamp() + 0.0005
            to_bridge.append((tb - (t0 + offset)) * 1000)
            from_bridge.append(((t1 + offset) - tb) * 1000)
        tcp = {k: v - tcp0.get(k, 0) for k, v in tcp_counters().items()}
        return dict(rounds=rounds, tcp=tcp, echo=echo_ms, state_bytes=mean([len(r[3]) for r in results]), to_bridge=to_bridge, from_bridge=from_bridge,
                    burst_ms=[b * 1000 for b in bursts], used=used)

    def route(self):
        corners = [(0, 0), (1, 0), (1, 1), (0, 1), (0, 0)]
        for i, s in enumerate(self.serials):
            hx, hy = self.home(i)
            nodes = [{"nodeId": f"n{k}", "sequenceId": 2 * k, "released": True, "actions": [],
                      "nodePosition": {"x": hx + dx, "y": hy + dy, "mapId": "map"}}
                     for k, (dx, dy) in enumerate(corners)]
            edges = [{"edgeId": f"e{k}", "sequenceId": 2 * k + 1, "released": True,
                      "startNodeId": f"n{k}", "endNodeId": f"n{k + 1}", "actions": []}
                     for k in range(len(corners) - 1)]
            self.state.pop(s, None)
            self.client.publish(*self.send(s, "order", {"orderId": "square", "orderUpdateId": 0,
                                                        "nodes": nodes, "edges": edges}))
        last = f"n{len(corners) - 1}"

        def done(s):
            st = self.state.get(s)
            return (st is not None and st["orderId"] == "square" and st["lastNodeId"] == last
                    and not st["nodeStates"] and not st["driving"])
        a, page = self.snapshot(), (self.page.events, self.page.bytes) if self.page else None
        try:
            self.pump(lambda: all(map(done, self.serials)), 120, "every square driven")
        except Fail:
            pass
        finished = sum(map(done, self.serials))
        errors = sum(bool(self.state.get(s, {}).get("errors")) for s in self.serials)
        used = self.spent(a, self.snapshot(False))
        result = dict(finished=finished, errors=errors, used=used)
        if self.page:
            # What the page was sent while the squares were driven, and what it
            # showed at their end (the view sends at most 10 snapshots a second).
            self.pump(None, 1, "the view's last snapshot", until=time.perf_counter() + 0.3)
            events, size = self.page.events - page[0], self.page.bytes - page[1]
            shown = json.loads(self.page.last)["vehicles"] if self.page.last else []
            result["view"] = dict(events_per_s=events / used[1], event_bytes=size / max(1, events),
                                  shown=len(shown), online=sum(v["connection"] == "ONLINE" for v in shown),
                                  finished=sum(v["lastNodeId"] == last and not v["nodes"] for v in shown))
        return result

    def memories(self):
        return {k: [memory(p.pid) for p in v.values()] for k, v in
                (("bridge", self.bridges), ("sim", self.sims))} | {"broker": [memory(b.pid) for b in self.brokers]} | (
                    {"view": [memory(self.view.pid)]} if self.view else {})


def mean(v):
    return sum(v) / len(v) if v else float("nan")


def measure(n):
    tmp = tempfile.mkdtemp(prefix="fleet-")
    fleet = Fleet(n, tmp)
    load = loadavg()
    t_start = time.perf_counter()
    try:
        fleet.start_brokers()
        fleet.connect()
        if args.view:
            fleet.start_view()
        if args.brokers > 1:
            fleet.pump(lambda: len(fleet.links) == args.brokers, 10, "every edge broker joined")
        fleet.start_robots()
        fleet.init()
        startup = time.perf_counter() - t_start
        idle = fleet.idle(args.idle)
        lat = fleet.latency(args.samples)
        route = fleet.route()
        fleet.check_alive()
        mem = fleet.memories()
    except Fail as e:
        log = pathlib.Path(tmp, "bridges.log").read_text(errors="replace")[-2000:]
        sys.exit(f"fleet N={n}: {e}" + (f"\nbridges said:\n{log}" if log else ""))
    finally:
        fleet.stop()
        if hasattr(fleet, "client"):
            fleet.client.disconnect()
            fleet.client.loop_stop()
        shutil.rmtree(tmp, ignore_errors=True)

    def per_s(used, kind):  # CPU ms per second: per robot, or of all brokers together
        spent, seconds = used
        runs = [r for r, _ in spent[kind]]
        return (sum(runs) if kind == "broker" else mean(runs)) / seconds * 1000

    def total(used, kind, i=0):  # seconds summed over the kind's processes
        return sum(x[i] for x in used[0][kind])

    kinds = ("bridge", "sim", "broker", "master") + (("view",) if args.view else ())
    orders = n * lat["rounds"]
    lu = lat["used"]
    return dict(
        n=n, brokers=args.brokers, load_start=load, load_end=loadavg(), startup_s=startup,
        idle_s=idle[1], route_s=route["used"][1],
        cpu_idle={k: per_s(idle, k) for k in kinds},
        cpu_route={k: per_s(route["used"], k) for k in kinds},
        cpu_max_bridge_idle=max(r for r, _ in idle[0]["bridge"]) / idle[1] * 1000,
        rss_kb={k: mean([r for r, _ in v]) for k, v in mem.items()},
        rss_max_kb={k: max(r for r, _ in v) for k, v in mem.items()},
        pss_kb={k: mean([p for _, p in v]) for k, v in mem.items()},
        echo=dict(samples=len(lat["echo"]), rounds=lat["rounds"],
                  p50=percentile(lat["echo"], 50), p99=percentile(lat["echo"], 99),
                  max=max(lat["echo"]),
                  to_bridge_p50=percentile(lat["to_bridge"], 50),
                  to_bridge_p99=percentile(lat["to_bridge"], 99),
                  from_bridge_p50=percentile(lat["from_bridge"], 50),
                  from_bridge_p99=percentile(lat["from_bridge"], 99),
                  burst_ms=mean(lat["burst_ms"]), state_bytes=lat["state_bytes"], tcp=lat["tcp"]),
        # CPU and run-queue waiting per order while rounds were under way (us),
        # all processes of a kind together (the simulators only keep reporting).
        per_order_us={k: {"cpu": total(lu, k) / orders * 1e6, "wait": total(lu, k, 1) / orders * 1e6}
                      for k in kinds},
        latency_phase_s=lu[1],
        routes=dict(finished=route["finished"], errors=route["errors"]),
        view=route.get("view"),
    )


def report(r):
    e, c, ci = r["echo"], r["cpu_route"], r["cpu_idle"]
    print(f"\n== N = {r['n']}" + (f" on {r['brokers']} edge brokers" if r["brokers"] > 1 else "") +
          f"  (load average {r['load_start']:.2f} at start, {r['load_end']:.2f} at end;"
          f" fleet up in {r['startup_s']:.2f} s)")
    print(f"  idle {r['idle_s']:.0f} s, CPU ms/s per process: bridge {ci['bridge']:.2f} (max "
          f"{r['cpu_max_bridge_idle']:.2f}), sim {ci['sim']:.2f}, broker {ci['broker']:.2f}, "
          f"master {ci['master']:.2f}")
    print(f"  route {r['route_s']:.1f} s, CPU ms/s per process: bridge {c['bridge']:.2f}, sim "
          f"{c['sim']:.2f}, broker {c['broker']:.2f}, master {c['master']:.2f}")
    print("  memory kB, RSS mean (max) / PSS mean: " + ", ".join(
        f"{k} {r['rss_kb'][k]:.0f} ({r['rss_max_kb'][k]}) / {r['pss_kb'][k]:.0f}" for k in r["rss_kb"]))
    print(f"  order -> echo, {e['samples']} orders in {e['rounds']} rounds of {r['n']} at once: "
          f"p50 {e['p50']:.2f} ms, p99 {e['p99']:.2f} ms, max {e['max']:.2f} ms")
    print(f"    hops: order -> bridge's state stamp p50 {e['to_bridge_p50']:.2f} / p99 "
          f"{e['to_bridge_p99']:.2f} ms; stamp -> master p50 {e['from_bridge_p50']:.2f} / p99 "
          f"{e['from_bridge_p99']:.2f} ms; publishing a round took {e['burst_ms']:.2f} ms; "
          f"echo states of {e['state_bytes']:.0f} bytes")
    print("    TCP during the rounds: " + ", ".join(f"{k} {v}" for k, v in sorted(e["tcp"].items())))
    print("    per order, CPU / run-queue wait us: " + ", ".join(
        f"{k} {v['cpu']:.0f} / {v['wait']:.0f}" for k, v in r["per_order_us"].items()) +
        f" (rounds under way {r['latency_phase_s'] * 1000:.0f} ms in all)")
    print(f"  routes finished: {r['routes']['finished']} of {r['n']}"
          f" ({r['routes']['errors']} with errors)")
    if r["view"]:
        v = r["view"]
        print(f"  fleet view: CPU ms/s idle {ci['view']:.2f}, route {c['view']:.2f}; RSS "
              f"{r['rss_kb']['view']:.0f} kB; its page got {v['events_per_s']:.1f} snapshots/s of "
              f"{v['event_bytes'] / 1024:.1f} KiB during the route and showed {v['shown']} vehicles, "
              f"{v['online']} online, {v['finished']} with their square finished")


results = []
for n in args.sizes:
    results.append(measure(n))
    report(results[-1])
    sys.stdout.flush()
if len(results) > 1:
    a = results[0]
    print(f"\nper-robot cost against N = {a['n']} (ratio):")
    for r in results[1:]:
        ratios = [("bridge idle CPU", r["cpu_idle"]["bridge"] / a["cpu_idle"]["bridge"]),
                  ("bridge route CPU", r["cpu_route"]["bridge"] / a["cpu_route"]["bridge"]),
                  ("sim route CPU", r["cpu_route"]["sim"] / a["cpu_route"]["sim"]),
                  ("broker route CPU per robot", r["cpu_route"]["broker"] / r["n"] /
                   (a["cpu_route"]["broker"] / a["n"])),
                  ("bridge RSS", r["rss_kb"]["bridge"] / a["rss_kb"]["bridge"])]
        print(f"  N = {r['n']}: " + ", ".join(f"{k} {v:.2f}" for k, v in ratios))
if args.json:
    pathlib.Path(args.json).write_text(json.dumps(results, indent=1))
