#!/usr/bin/env python3
# Raw peers on 127.0.0.1:6868 for the tools' end-to-end tests.
#   peer.py flood        a server that sends status reports without pause
#   peer.py backlog      a server that never accepts, its listen queue full
#   peer.py badlen       a server that answers with a frame whose length word is -10
#   peer.py liar         a server that answers with a message announcing 2^31 - 1 actions
#   peer.py sessions LOG clients of tarn-sim, one line per outcome: report (a status
#                        report came), closed, or timeout
# Servers print "ready" once clients can come.
import select, socket, struct, sys, time

ADDR = ("127.0.0.1", 6868)
i32 = struct.Struct("<i").pack
text = lambda b: i32(len(b)) + b
frame = lambda body, kind=11: b"#" + i32(kind) + i32(len(body)) + body + b";"
message = lambda sender, receiver, key, t1=b"N", t2=b"N": (
    i32(0) + text(sender) + text(receiver) + i32(key) + text(t1) + text(t2) + text(b"N") + i32(0) +
    b"%" + i32(0) + b"%")
REPORT = frame(message(b"R-0", b"T-0", 14, b"24.00 0.000 0.000 -1 0 0 0", b"R-0"))
CONNECT = frame(message(b"T-0", b"SV-0", 1))


def outcome(sock, data=b"", seconds=3):
    sock.sendall(data)
    got, end, report = b"", time.monotonic() + seconds, text(b"R-0") + text(b"T-0") + i32(14)
    while time.monotonic() < end and report not in got:  # the robot's status report
        if select.select([sock], [], [], 0.05)[0]:
            chunk = sock.recv(65536)
            if not chunk:
                return "closed"
            got += chunk
    return "report" if report in got else "timeout"


def client(log, drops):  # each client must be dropped before the next one comes
    end = time.monotonic() + 5
    while open(log).read().count("client dropped:") < drops and time.monotonic() < end:
        time.sleep(0.02)
    return socket.create_connection(ADDR)


if sys.argv[1] == "sessions":
    first = socket.create_connection(ADDR)
    print(outcome(first, CONNECT))
    print(outcome(socket.create_connection(ADDR)))  # a second client: closed at once
    print(outcome(first))
    first.close()
    # Stray bytes and a frame with a wrong terminator are discarded and the
    # sound frame behind them is answered; a frame of another type blocks the
    # stream for good; a length word of -10 and a negative text length throw.
    for n, data in enumerate([b"hello" + frame(b"abc")[:12] + b"X;" + CONNECT,
                              b"#" + i32(12) + CONNECT[5:], b"#" + i32(11) + i32(-10),
                              frame(i32(0) + i32(-5) + b"x" * 16), CONNECT]):
        print(outcome(client(sys.argv[2], n + 1), data, 6))
    sys.exit()
server = socket.create_server(ADDR, backlog=0 if sys.argv[1] == "backlog" else 4)
# With a backlog of 0, Linux queues one connection: filling it keeps every later connect waiting.
held = socket.create_connection(ADDR) if sys.argv[1] == "backlog" else None
print("ready", flush=True)
peer = None if held else server.accept()[0]
while sys.argv[1] == "flood":
    peer.sendall(REPORT * 1000)
if sys.argv[1] == "badlen":
    peer.sendall(b"#" + i32(11) + i32(-10))
if sys.argv[1] == "liar":  # the count in place of the message's 0, no action behind it
    peer.sendall(frame(message(b"R-0", b"T-0", 5, b"path")[:-5] + i32(2**31 - 1) + b"%"))
time.sleep(600)
