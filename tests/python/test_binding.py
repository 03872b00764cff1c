# What the Python binding adds to the library: how texts, keys, lists and
# errors cross the boundary, the frame helper, and the Robot's point lists and
# status text. The library's own behaviour is pinned by the C++ suite.

import socket
import struct
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
