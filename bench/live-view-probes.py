"""Hostile-client probes against one tarn-sim binary: what a web page or a
network peer can make the live view and the control port do. Each probe
starts its own simulator on 6868/6869 and prints one line per figure.

Run through bench/live-view-probes.sh, which puts each probe in a private
network namespace. Figures: the answer (status line or what happened),
the latency of GET /state from a well-behaved client and of a status
request on the control port, and the simulator's resident memory.
"""

import os, socket, struct, subprocess, sys, threading, time

SIM = sys.argv[1]
HOST = "127.0.0.1"
CTRL, VIEW = 6868, 6869
MB = 1 << 20


def now():
    return time.monotonic()


# ---- the simulator process ----

class Sim:
    def __init__(self, *args):
        self.p = subprocess.Popen([SIM, "--quiet", *args], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                  text=True)
        self.url = next(l for l in self.p.stdout if l.startswith("live view: ")).split()[2]
        threading.Thread(target=lambda: [None for _ in self.p.stdout], daemon=True).start()

    def rss_mb(self):
        for line in open("/proc/%d/status" % self.p.pid):
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
        return float("nan")

    def cpu_s(self):
        f = open("/proc/%d/stat" % self.p.pid).read().rsplit(")", 1)[1].split()
        return (int(f[11]) + int(f[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.p.terminate()
        self.p.wait(timeout=10)


# ---- HTTP by hand, so that every byte and header is the probe's choice ----

def connect(port=VIEW, timeout=10):
    s = socket.create_connection((HOST, port), timeout=timeout)
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


def request(method, path, headers=(), body=b"", host="127.0.0.1:6869", timeout=10):
    """(status line or what happened, seconds)."""
    t0 = now()
    try:
        s = connect(timeout=timeout)
        head = "%s %s HTTP/1.1\r\nHost: %s\r\n" % (method, path, host)
        head += "".join("%s: %s\r\n" % h for h in headers)
        if body or method == "POST":
            head += "Content-Length: %d\r\n" % len(body)
        s.sendall(head.encode() + b"Connection: close\r\n\r\n" + body)
        data = s.recv(4096)
        s.close()
        return (data.split(b"\r\n", 1)[0].decode() if data else "closed"), now() - t0
    except socket.timeout:
        return "no answer in %g s" % timeout, now() - t0
    except OSError as e:
        return e.__class__.__name__, now() - t0


def state_ms(timeout=10):
    status, t = request("GET", "/state", timeout=timeout)
    return ("%.1f ms" % (t * 1000)) if status.startswith("HTTP/1.1 200") else status


def paused():
    """Whether the simulation is paused, or becomes so within 1 s (controls are applied by the loop)."""
    end = now() + 1
    while True:
        s = connect()
        s.sendall(b"GET /state HTTP/1.1\r\nHost: 127.0.0.1:6869\r\nConnection: close\r\n\r\n")
        data = b""
        while chunk := s.recv(65536):
            data += chunk
        if b'"paused":true' in data or now() > end:
            return b'"paused":true' in data
        time.sleep(0.05)


# ---- the control port, in wire bytes ----

def text(t):
    return struct.pack("<i", len(t)) + t.encode()


def frame(key, t1="N", t2="N", t3="N", n=0, actions=b"", count=0):
    body = struct.pack("<i", 0) + text("T-0") + text("SV-0") + struct.pack("<i", key) + text(t1) + text(t2) + \
        text(t3) + struct.pack("<i", n) + b"%" + struct.pack("<i", count) + actions + b"%"
    return b"#" + struct.pack("<ii", 11, len(body)) + body + b";"


def travel(x_m):
    point = struct.pack("<ifffii", 0, x_m, 0, 0, 1, 0)  # code 0, x, y, z, flag 1, space 0
    return frame(12, n=1, count=1, actions=struct.pack("<ii", 1, 1) + point + struct.pack("<i", 0) + text("0") +
                 struct.pack("<ffi", x_m, 0, 0) + text("f"))


class Client:
    """The one client of the control port; ctrl_ms() times a status request."""

    def __init__(self):
        self.s = connect(CTRL)
        self.s.sendall(frame(1))

    def drain(self):
        self.s.setblocking(False)
        try:
            while self.s.recv(65536):
                pass
        except BlockingIOError:
            pass
        self.s.setblocking(True)

    def ctrl_ms(self):
        self.drain()
        t0 = now()
        self.s.sendall(frame(13))
        data = b""
        try:
            while b"R-0" not in data:
                chunk = self.s.recv(65536)
                if not chunk:
                    return "dropped"
                data += chunk
        except socket.timeout:
            return "no answer in 10 s"
        return "%.1f ms" % ((now() - t0) * 1000)


def figures(sim, client, label):
    print("  %-34s /state %-18s control %-10s RSS %.1f MB" % (label, state_ms(), client.ctrl_ms(), sim.rss_mb()),
          flush=True)


# ---- probes ----

def probe_anchor(sim, client):
    figures(sim, client, "nothing else going on")


def probe_cross_origin(sim, client):
    evil = [("Origin", "http://evil.example")]
    for path, extra in [("/control/pause", []), ("/control/pause", [("Content-Type", "text/plain")]),
                        ("/control/error?code=5", [("Content-Type", "application/x-www-form-urlencoded")]),
                        ("/control/pause", [("Content-Type", "application/json")])]:
        status, _ = request("POST", path, evil + extra)
        print("  POST %-22s %-44s -> %s" % (path, ", ".join(v for _, v in extra) or "no content type", status))
    print("  simulation paused afterwards: %s" % paused())
    status, _ = request("POST", "/control/drop", evil + [("Content-Type", "text/plain")])
    print("  POST /control/drop (text/plain)  -> %s; control client still served: %s" %
          (status, client.ctrl_ms() not in ("dropped",)))


def probe_foreign_host(sim, client):
    for method, path, headers in [("GET", "/state", []), ("GET", "/", []), ("GET", "/events", []),
                                  ("POST", "/control/pause", [("Content-Type", "application/json")])]:
        status, _ = request(method, path, headers, host="evil.example:6869", timeout=3)
        print("  %-4s %-15s Host: evil.example:6869 -> %s" % (method, path, status))
    print("  simulation paused afterwards: %s" % paused())


def hold(n, opening):
    """n connections to the view, each started with `opening`; returns them."""
    conns = []
    for _ in range(n):
        s = connect()
        if opening:
            s.sendall(opening)
        conns.append(s)
    return conns


def closed_by_server(conns):
    """How many of `conns` the simulator has closed or reset, judged by the
    TCP state, so that unread data (an answer, events) is left unread."""
    count = 0
    for s in conns:
        state = s.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0]
        count += state != 1  # not ESTABLISHED: CLOSE_WAIT after its FIN, CLOSE after its reset
    return count


class ClosureWatch:
    """Samples closed_by_server(conns) every 50 ms from now on; `when` is the
    time from now until the last of them was closed, None until then."""

    def __init__(self, conns, limit=60):
        self.t0, self.when = now(), None
        def watch():
            while self.when is None and now() - self.t0 < limit:
                if closed_by_server(conns) == len(conns):
                    self.when = now() - self.t0
                time.sleep(0.05)
        self.thread = threading.Thread(target=watch, daemon=True)
        self.thread.start()

    def report(self, n):
        self.thread.join()
        print("  all %d closed by the simulator after: %s" % (n, "%.2f s" % self.when if self.when else "> 60 s"))


def probe_slowloris(sim, client, n):
    conns = hold(n, b"GET /state HTTP/1.1\r\nHost: 127.0.0.1:6869\r\nX-Slow: ")
    stop = threading.Event()

    def drip():  # one header byte a second on every connection
        while not stop.wait(1):
            for s in conns:
                try:
                    if s.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0] == 1:
                        s.send(b"a")
                except OSError:
                    pass
    threading.Thread(target=drip, daemon=True).start()
    t0, watch = now(), ClosureWatch(conns)
    for at in (1, 4, 8):
        time.sleep(max(0, at - (now() - t0)))
        figures(sim, client, "after %d s, %d/%d closed by it" % (at, closed_by_server(conns), n))
    watch.report(n)
    stop.set()
    for s in conns:
        s.close()


def probe_idle(sim, client, n=200):
    conns = hold(n, b"")
    t0, watch = now(), ClosureWatch(conns)
    for at in (0.5, 2, 4):
        time.sleep(max(0, at - (now() - t0)))
        figures(sim, client, "after %g s, %d/%d closed by it" % (at, closed_by_server(conns), n))
    watch.report(n)
    for s in conns:
        s.close()


def probe_stalled_subscribers(sim, client, n=50, moving=True):
    conns = hold(n, b"GET /events HTTP/1.1\r\nHost: 127.0.0.1:6869\r\n\r\n")
    # A moving robot changes the state 25 times a second; one at rest, once a
    # second (its battery).
    if moving:
        client.s.sendall(frame(2, "0", "0", "0") + travel(20.0))
    t0, watch = now(), ClosureWatch(conns)
    for at in (1, 5):
        time.sleep(max(0, at - (now() - t0)))
        figures(sim, client, "after %g s, %d/%d closed by it" % (at, closed_by_server(conns), n))
    watch.report(n)
    for s in conns:
        s.close()


def big_post(path, size=100 * MB, headers=()):
    """POSTs `size` bytes; (status, seconds to the answer, body bytes sent before it)."""
    s = connect(timeout=30)
    head = "POST %s HTTP/1.1\r\nHost: 127.0.0.1:6869\r\nContent-Length: %d\r\n" % (path, size)
    s.sendall((head + "".join("%s: %s\r\n" % h for h in headers) + "\r\n").encode())
    sent, answer, t0 = [0], [None], now()

    def read():
        try:
            answer[0] = s.recv(4096).split(b"\r\n", 1)[0].decode() or "closed"
        except OSError as e:
            answer[0] = e.__class__.__name__
        answer.append(now() - t0)
    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    chunk = b"x" * MB
    try:
        while sent[0] < size and reader.is_alive():
            sent[0] += s.send(chunk[:size - sent[0]])
    except OSError:
        pass
    reader.join(30)
    s.close()
    return answer[0] or "no answer in 30 s", answer[1] if len(answer) > 1 else float("nan"), sent[0]


def probe_big_bodies(sim, client):
    json = [("Content-Type", "application/json")]
    for path, headers in [("/state", []), ("/control/pause", json)]:
        status, t, sent = big_post(path, headers=headers)
        print("  100 MB POST %-15s -> %s after %.2f s, %.1f MB of the body sent" % (path, status, t, sent / MB))
    print("  simulation paused afterwards: %s" % paused())
    if paused():
        request("POST", "/control/resume", json)
    idle = sim.rss_mb()
    peak = [idle]
    done = threading.Event()

    def watch():
        while not done.wait(0.05):
            peak[0] = max(peak[0], sim.rss_mb())
    threading.Thread(target=watch, daemon=True).start()
    posts = [threading.Thread(target=big_post, args=("/control/pause",), kwargs={"headers": json}) for _ in range(4)]
    for p in posts:
        p.start()
    for p in posts:
        p.join()
    done.set()
    time.sleep(2)
    print("  four 100 MB POSTs at once: RSS idle %.1f MB, peak %.1f MB, 2 s after %.1f MB" %
          (idle, peak[0], sim.rss_mb()))
    figures(sim, client, "afterwards")


def probe_bad_length(sim, client):
    for label, head in [("Content-Length: abc", b"Content-Length: abc\r\n\r\n"),
                        ("Content-Length: 100, 10 bytes sent", b"Content-Length: 100\r\n\r\n0123456789"),
                        ("Content-Length twice (4, 0)", b"Content-Length: 4\r\nContent-Length: 0\r\n\r\n")]:
        s = connect(timeout=30)
        t0 = now()
        s.sendall(b"POST /control/pause HTTP/1.1\r\nHost: 127.0.0.1:6869\r\nContent-Type: application/json\r\n" +
                  head)
        try:
            answer = s.recv(4096).split(b"\r\n", 1)[0].decode() or "closed"
        except OSError as e:
            answer = e.__class__.__name__
        print("  %-36s -> %s after %.2f s" % (label, answer, now() - t0))
        s.close()
    figures(sim, client, "afterwards")


def probe_cpu_error_held(sim, client):
    # 20 m at the default 500 mm/s: the robot is still driving long after
    # the 1 s hold of the busy refusal provoked by the second action.
    client.s.sendall(frame(2, "0", "0", "0") + travel(20.0))
    time.sleep(0.3)
    client.s.sendall(travel(20.0))
    time.sleep(1.5)
    c0, t0 = sim.cpu_s(), now()
    end = t0 + 5
    while now() < end:  # keep reading, as a client does
        client.drain()
        time.sleep(0.05)
    print("  CPU while driving with error 3 held: %.2f CPU-s in %.1f s" % (sim.cpu_s() - c0, now() - t0))


def connect_in_a_row(port, n):
    """(seconds, connections whose handshake was retried)."""
    t0, retried = now(), 0
    for _ in range(n):
        s = socket.create_connection((HOST, port), timeout=60)
        info = s.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104)
        retried += struct.unpack_from("I", info, 100)[0] > 0  # tcpi_total_retrans
        s.close()
    return now() - t0, retried


def probe_storm(sim, client, n=3000):
    t, retried = connect_in_a_row(CTRL, n)
    # The anchor: the same connections to a listener that only accepts and
    # closes them, with the system's largest queue.
    anchor = socket.socket()
    anchor.bind((HOST, 6870))
    anchor.listen(socket.SOMAXCONN)
    def serve():
        while True:
            anchor.accept()[0].close()
    threading.Thread(target=serve, daemon=True).start()
    a, _ = connect_in_a_row(6870, n)
    print("  %d connections in a row: %.2f s, %d needed a second handshake; anchor %.2f s; ratio %.1f" %
          (n, t, retried, a, t / a))
    figures(sim, client, "afterwards")


PROBES = {
    "anchor": probe_anchor,
    "cross-origin": probe_cross_origin,
    "foreign-host": probe_foreign_host,
    "slowloris-8": lambda s, c: probe_slowloris(s, c, 8),
    "slowloris-200": lambda s, c: probe_slowloris(s, c, 200),
    "idle-200": probe_idle,
    "stalled-subscribers-50": probe_stalled_subscribers,
    "stalled-subscribers-50-at-rest": lambda s, c: probe_stalled_subscribers(s, c, moving=False),
    "bodies-100MB": probe_big_bodies,
    "bad-content-length": probe_bad_length,
    "cpu-error-held": probe_cpu_error_held,
    "storm-3000": probe_storm,
}

if __name__ == "__main__":
    name = sys.argv[2]
    sim = Sim()
    try:
        time.sleep(0.2)
        client = Client()
        print("%s (%s)" % (name, SIM), flush=True)
        PROBES[name](sim, client)
    finally:
        sim.stop()
