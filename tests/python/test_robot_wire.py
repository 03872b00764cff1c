"""Robot through the Python module against a scripted control server on
127.0.0.1:6868: the exact frames it sends, how replies change its state, and
what a closed peer does. Needs the port lock (the library's port is fixed)."""

import socket
import struct
import time

import pytest

import tarnsdk as t

PORT = 6868


class Peer:
    """The server end of the robot's connection, reading and writing frames."""

    def __init__(self, conn):
        self.conn = conn
        self.conn.setblocking(False)
        self.buf = b""

    def frames(self, robot, count, timeout=5.0):
        """Runs robot.Handle() until `count` whole frames arrived; returns them raw."""
        out = []
        deadline = time.monotonic() + timeout
        while len(out) < count:
            assert time.monotonic() < deadline, "only %d of %d frames arrived" % (len(out), count)
            robot.Handle()
            try:
                chunk = self.conn.recv(65536)
                assert chunk, "robot closed the connection"
                self.buf += chunk
            except BlockingIOError:
                time.sleep(0.005)
            while len(self.buf) >= 9:
                n = struct.unpack_from("<i", self.buf, 5)[0]
                if len(self.buf) < n + 10:
                    break
                out.append(self.buf[:n + 10])
                self.buf = self.buf[n + 10:]
        return out

    def messages(self, robot, count):
        decoded = []
        for f in self.frames(robot, count):
            assert f[:5] == b"#\x0b\x00\x00\x00" and f[-1:] == b";"
            m = t.Message_RTS()
            assert m.decode(f[9:-1]) is True
            decoded.append(m)
        return decoded

    def send(self, robot, sender, key, int_param=0, t1="N", t2="N"):
        m = t.Message_RTS()
        m.sender_id, m.receiver_id, m.key, m.int_param, m.text_param1, m.text_param2 = (
            sender, "T-0", key, int_param, t1, t2)
        self.conn.sendall(t.frame(m))
        time.sleep(0.02)
        robot.Handle()

    def assert_silent(self, robot):
        robot.Handle()
        time.sleep(0.02)
        with pytest.raises(BlockingIOError):
            self.conn.recv(1)


@pytest.fixture
def listener():
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("127.0.0.1", PORT))
    s.listen(1)
    s.settimeout(5)
    yield s
    s.close()


@pytest.fixture
def session(listener):
    robot = t.Robot()
    conn, _ = listener.accept()
    peer = Peer(conn)
    yield robot, peer
    del robot  # tears the shared connection down before the next test
    conn.close()


def test_commands_leave_as_exact_frames(session, capfd):
    robot, peer = session
    assert robot.connected and not robot.online
    (hello,) = peer.frames(robot, 1)
    announce = t.Message_RTS()
    announce.sender_id, announce.receiver_id, announce.key = "T-0", "SV-0", t.KEY_CONNECT
    assert hello == t.frame(announce)

    assert robot.SetVelocity(800) is True
    (speed,) = peer.frames(robot, 1)
    assert speed.hex() == (
        "23" "0b000000" "34000000" "00000000" "03000000" "542d30" "04000000" "53562d30" "14000000"
        "05000000" "5370656564" "01000000" "4e" "01000000" "4e" "20030000" "25" "00000000" "25" "3b")

    # range checks print and queue nothing; guards fail silently
    assert robot.SetVelocity(299) is False and robot.SetVelocity(1301) is False
    assert robot.SetAcceleration(99) is False
    assert robot.SetPosition(1.0, 2.0, 0.0) is False  # not online yet
    assert robot.SetPosition([(1.0, 2.0, 0.0)]) is False
    assert capfd.readouterr().out == "value illegality \n" * 3
    peer.assert_silent(robot)

    robot.Init(1500, -2500, 90)
    kill, init = peer.messages(robot, 2)
    assert (kill.key, kill.receiver_id, kill.text_param1) == (t.KEY_KILL, "SV-0", "N")
    assert (init.key, init.text_param1, init.text_param2, init.text_param3) == (
        t.KEY_INIT, "1.500000", "-2.500000", "90.000000")


def test_replies_update_the_state_and_enable_motion(session):
    robot, peer = session
    peer.frames(robot, 1)  # the announcement
    peer.send(robot, "SV-0", t.KEY_INIT)
    assert robot.online and robot.state == -1
    peer.send(robot, "R-0", t.KEY_DETAIL, 0, "24.5 1.25 -0.5 0 1.5 800 500", "R-0")
    assert (robot.voltage, robot.x, robot.y, robot.state, robot.orientation, robot.velocity,
            robot.acceleration, robot.name) == (24.5, 1.25, -0.5, 0, 1.5, 800, 500, "R-0")
    assert str(robot) == robot.DebugString() == (
        "R-0 Working Online\nPosition(X,Y,Z,Orientation):1.25 -0.5 0 1.5\n"
        "Velocity:800mm/s Acceleration:500mm/s^2 Voltage:24.5V\n")
    assert robot.SetPosition([(1000, 2000, 5)]) is False  # busy

    peer.send(robot, "R-0", t.KEY_DETAIL, 0, "24.4 1.25 -0.5 -1 1.5 800 500", "R-0")
    assert robot.SetPosition([(1000, 2000, 5), (1500, -500, 0)]) is True
    assert robot.SetPosition(3000, 4000, 7) is True
    assert robot.SetOrientation(3.5) is False
    listed, single = peer.messages(robot, 2)
    assert (listed.key, listed.receiver_id, listed.int_param) == (t.KEY_ACTION, "R-0", 2)
    (action,) = listed.actions
    assert action.type == 1
    assert [(w.qr_code, w.x, w.y, w.z, w.flag) for w in action.path] == [
        ("0", 1.0, 2.0, 5.0, 1), ("1", 1.5, -0.5, 0.0, 1)]
    (point,) = single.actions[0].path
    # the single-point overload names its way-points -1, -2, ... per process
    assert (single.int_param, point.qr_code, point.x, point.y, point.z) == (1, "-1", 3.0, 4.0, 7.0)

    peer.send(robot, "SV-0", t.KEY_KILL)
    assert not robot.online


def test_closed_peer_disconnects_for_good(session, capfd):
    robot, peer = session
    peer.frames(robot, 1)
    peer.conn.close()
    time.sleep(0.02)
    robot.Handle()
    assert capfd.readouterr().out == "socket dis connect\n"
    assert robot.connected is False
    assert robot.SetVelocity(800) is False
    robot.Handle()
    assert capfd.readouterr().out == ""


def test_no_server(capfd):
    robot = t.Robot()
    assert robot.connected is False
    assert capfd.readouterr().out == "Can Not Connect Server !\n"
    assert robot.DebugString() == (
        "N Free Offline\nPosition(X,Y,Z,Orientation):0 0 0 0\nVelocity:0mm/s Acceleration:0mm/s^2 Voltage:0V\n")
    assert robot.SetVelocity(800) is False
