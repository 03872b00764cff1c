# What the Python binding adds to the library: how texts, keys, lists and
# errors cross the boundary, the frame helper, the Robot's point lists and
# status text, and the event layer as an iterator. The library's own
# behaviour and the layer's are pinned by the C++ suite.

import signal
import socket
import struct
import threading
import time

import pytest

import tarnsdk as t

socket.setdefaulttimeout(5)  # every socket here, the accepted one included


def test_texts_keys_lists_errors_and_frames_cross_the_boundary():
    m = t.Message_RTS()
    m.text_param1 = b"\xff\xfe\x00z"  # bytes are taken as they are
    m.key = 99  # a key outside the table is a plain int
    m.actions = [t.Action_RTS(1, [t.QrInfo_RTS("7", 1.5, 2.0)])]
    again = t.Message_RTS()
    assert again.decode(m.encode()) is True
    # Bytes that are not UTF-8 come back as surrogates and go out unchanged.
    assert again.text_param1 == "\udcff\udcfe\x00z" and again.sender_id == "N"
    again.text_param2 = again.text_param1
    assert again.encode().count(b"\x04\x00\x00\x00\xff\xfe\x00z") == 2
    assert int(again.key) == 99 and t.RTS_key.KEY_DETAIL == 14
    (point,) = again.actions[0].path
    assert (point.qr_code, point.x, point.y) == ("7", 1.5, 2.0) and point == t.QrInfo_RTS("7", 0, 0)
    # A negative text length surfaces as ValueError, from both decoders.
    with pytest.raises(ValueError):
        t.Message_RTS().decode(struct.pack("<ii", 0, -2))
    with pytest.raises(ValueError):
        t.Action_RTS(0, t.QrInfo_RTS(), "").decode(struct.pack("<4i", 1, 0, 0, -1))
    assert t.frame(b"abc") == bytes.fromhex("230b000000030000006162633b")
    assert t.frame(m) == b"#" + struct.pack("<ii", 11, len(m.encode())) + m.encode() + b";"


def test_robot_takes_point_lists_and_shows_its_status():
    with socket.create_server(("127.0.0.1", 6868)) as listener:
        robot = t.Robot()
        conn, _ = listener.accept()
    ack = t.Message_RTS()
    ack.sender_id, ack.receiver_id, ack.key = "SV-0", "T-0", t.KEY_INIT
    conn.sendall(t.frame(ack))
    deadline = time.monotonic() + 5
    while not robot.online:
        assert time.monotonic() < deadline, "the acknowledgement was not applied"
        robot.Handle()
        time.sleep(0.005)
    assert str(robot) == robot.DebugString() and robot.DebugString().startswith("N Free Online\n")
    assert robot.SetPosition([(1000, 2000, 5), (1500, -500, 0)]) is True
    robot.Handle()
    wire = b""  # the announcement, then the action, each sent whole
    while len(wire) < 9 or len(wire) < 20 + struct.unpack_from("<i", wire, 5)[0]:
        wire += conn.recv(65536)
    action = t.Message_RTS()
    assert action.decode(wire[19 + struct.unpack_from("<i", wire, 5)[0]:]) is True
    assert [(w.qr_code, w.x, w.y, w.z) for w in action.actions[0].path] == [
        ("0", 1.0, 2.0, 5.0), ("1", 1.5, -0.5, 0.0)]


def reply(key, t1="N", t3="N", sender="SV-0"):
    m = t.Message_RTS()
    m.sender_id, m.receiver_id, m.key, m.text_param1, m.text_param3 = sender, "T-0", key, t1, t3
    if key == t.KEY_DETAIL:
        m.text_param2 = "R-0"
    return t.frame(m)


def test_events_are_served_once_in_order_within_a_bound_and_ctrl_c_interrupts():
    with socket.create_server(("127.0.0.1", 6868)) as listener:
        robot = t.connect(timeout=5)
        conn, _ = listener.accept()
    events = t.Events(robot)
    robot.Init(0, 0, 0)
    conn.sendall(reply(t.KEY_DETAIL, "24 1.5 -2 -1 0.25 10 20", "online", "R-0") +
                 reply(t.KEY_INIT) + reply(t.KEY_DETAIL, "24 1 2 3", sender="R-0"))
    seen = []
    for e in events.serve(timeout=5):
        seen.append(e)
        if e.type == t.EventType.InitAcknowledged:
            break
    assert [e.type for e in seen] == [t.EventType.Report, t.EventType.InitAcknowledged]
    assert (seen[0].report.online, seen[0].report.x, seen[0].report.name) == (True, 1.5, "R-0")
    # What the broken-off loop left comes next, once.
    (refused,) = events.step()
    assert (refused.type, refused.code, refused.report.online) == (t.EventType.Refused, 3, None)
    assert t.describe_state(refused.code) == "error 3 (busy)" and t.task_states[0].name == "free"
    assert t.set_path(robot, [(0, 0, 0)] * (t.max_path_points() + 1)) is False

    assert list(events.serve(timeout=0.2)) == []  # nothing sent: the loop ends at its bound

    main = threading.main_thread().ident
    threading.Timer(0.2, signal.pthread_kill, (main, signal.SIGINT)).start()
    start = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        for e in events.serve(timeout=30):
            pass
    assert time.monotonic() - start < 10

    conn.close()
    assert [e.type for e in events.serve(timeout=5)] == [t.EventType.ConnectionLost]
    assert events.lost
