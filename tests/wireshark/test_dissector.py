# Runs tshark with the Lua dissector over a capture written here byte by byte,
# independently of the library, and checks what it decodes and flags.
# Environment: TARN_LUA (the dissector), TSHARK.

import os
import struct
import subprocess

import pytest


def text(s):
    return struct.pack("<i", len(s.encode())) + s.encode()


def waypoint(code, x, y, z, flag=1, space=0, *arc):
    return struct.pack("<ifffii", code, x, y, z, flag, space) + struct.pack("<%df" % len(arc), *arc)


def action(atype, path=(), arcs=(), target=("N", 0.0, 0.0, 0), param="f"):
    return (struct.pack("<ii", atype, len(path)) + b"".join(path) + struct.pack("<i", len(arcs)) + b"".join(arcs)
            + text(target[0]) + struct.pack("<ffi", *target[1:]) + text(param))


def message(sender, receiver, key, int_param=0, t1="N", t2="N", t3="N", actions=(), opening=b"%"):
    return (struct.pack("<i", 0) + text(sender) + text(receiver) + struct.pack("<i", key) + text(t1) + text(t2)
            + text(t3) + struct.pack("<i", int_param) + opening + struct.pack("<i", len(actions))
            + b"".join(actions) + b"%")


def frame(body, ftype=11, length=None):
    return b"#" + struct.pack("<ii", ftype, len(body) if length is None else length) + body + b";"


PATH3 = frame(message("T-0", "R-0", 12, 3, actions=[action(1, target=("2", 3.25, -4.0, 0), path=[
    waypoint(0, 1.0, 2.0, 0.0), waypoint(1, 1.5, 2.5, 0.0), waypoint(2, 3.25, -4.0, 7.0)])]))
ARC = message("T-0", "R-0", 12, 1, actions=[action(
    2, [waypoint(42, 0.5, 0.5, 0.0, -1, 5)], [waypoint(-7, 1, 1, 0, 1, 2, 0.25, 0.5, 0.75, 1.0),
                                              waypoint(8, 2, 2, 0, 1, 2, 1.25, 1.5, 1.75, 2.0)],
    ("T9", 6.5, 7.5, 3), "go")])
# The length word claims one byte more, so the terminator position holds the
# next frame's '#'; the receiver drops through the early ';' and reads on.
SHORT = message("T-0", "SV-0", 3)
# Counts and lengths that claim more than the body holds: flagged, no runaway.
HOSTILE = (frame(message("T-0", "R-0", 12)[:-5] + struct.pack("<i", 10 ** 9) + b"%")
           + frame(message("T-0", "R-0", 12)[:-5] + struct.pack("<iii", 1, 1, 0x7FFFFFFF) + b"%")
           + frame(struct.pack("<ii", 0, -2) + b"%%%%"))
PACKETS = [  # (from the client?, payload, name)
    (True, frame(message("T-0", "SV-0", 20, 800, "Speed")) + frame(message("T-0", "SV-0", 20, 500, "Acceleration")),
     "two_frames"), (True, PATH3[:5], "split_1"), (True, PATH3[5:40], "split_2"), (True, PATH3[40:], "split_3"),
    (False, frame(message("R-0", "T-0", 14, 0, "12.5 1.5 2.5 -1 0.25 800 500", "R-0")), "detail"),
    (True, b"xyz" + frame(SHORT, length=len(SHORT) + 1) + frame(message("T-0", "R-0", 13)), "bad_terminator"),
    (True, frame(message("T-0", "R-0", 7, 0, "r 1.5"), ftype=12), "wrong_type"),
    (True, b"#" + struct.pack("<ii", 11, 2000000) + b"abc;", "oversized"),
    (True, frame(message("T-0", "SV-0", 2, 0, "1.0", "2.0", "0.0", opening=b"X")), "decode_failure"),
    (True, frame(ARC), "arc"),
    (True, frame(message("T-0", "SV-0", 99, -5, "a\x00b", "", "x;y#")), "odd_texts"),
    (True, HOSTILE, "hostile"),
    (True, b"#" + struct.pack("<ii", 11, -10), "minus_ten"),
]


# Frame number in the capture: the three handshake packets come first.
def n(name):
    return 4 + [p[2] for p in PACKETS].index(name)


# The conversation between 127.0.0.1:40000 and :6868 as bare IPv4 packets
# (checksums zero: tshark does not verify them by default).
def pcap():
    seq = {True: 1000, False: 5000}
    segments = [(True, 0x02, b""), (False, 0x12, b""), (True, 0x10, b"")]
    out = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)
    for i, (client, flags, payload) in enumerate(segments + [(c, 0x18, p) for c, p, _ in PACKETS]):
        ports = (40000, 6868) if client else (6868, 40000)
        tcp = struct.pack("!HHIIBBHHH", *ports, seq[client], seq[not client], 5 << 4, flags, 65535, 0, 0)
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 40 + len(payload), 1, 0x4000, 64, 6, 0, b"\x7f\0\0\1",
                         b"\x7f\0\0\1")
        seq[client] += len(payload) or (1 if flags & 0x02 else 0)
        out += struct.pack("<IIII", 1700000000, i * 1000, 40 + len(payload), 40 + len(payload)) + ip + tcp + payload
    return out


@pytest.fixture(scope="module")
def fields(tmp_path_factory):
    d = tmp_path_factory.mktemp("ws")
    (d / "tarn.pcap").write_bytes(pcap())
    (d / "cfg").mkdir()  # keeps the user's preferences out

    # {frame number: [values of each field, joined by ","]}
    def run(*names, filter="tarn"):
        args = [os.environ["TSHARK"], "-n", "-X", "lua_script:" + os.environ["TARN_LUA"], "-r", str(d / "tarn.pcap"),
                "-o", "tcp.desegment_tcp_streams:TRUE", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=,",
                "-e", "frame.number", "-Y", filter] + [a for f in names for a in ("-e", f)]
        out = subprocess.run(args, env=dict(os.environ, WIRESHARK_CONFIG_DIR=str(d / "cfg")), capture_output=True,
                             text=True, timeout=60)
        assert out.returncode == 0 and "Lua" not in out.stderr, out.stderr
        return {int(line.split("\t")[0]): line.split("\t")[1:] for line in out.stdout.splitlines()}

    return run


def test_damaged_frames_are_flagged_and_explained(fields):
    # The receiver's view: skipped bytes and the early ';' found again, frames
    # it would stall on or throw at, and bodies that claim more than they hold.
    want = [("bad_terminator", "[skipped] | [bad terminator] | T-0 → R-0 KEY_GET_DETAIL",
             "Bytes before the frame marker (the receiver drops them),Byte at the terminator position is 0x23, not ';'"),
            ("wrong_type", '[wrong type] T-0 → R-0 KEY_ORIENTATION "r 1.5"', "Type word 12, not 11"),
            ("oversized", "[oversized]", "Length 2000000: frame of more than 1000000 bytes"),
            ("decode_failure", 'T-0 → SV-0 KEY_INIT "1.0"', "Opening marker is 0x58, not '%'"),
            ("hostile", "T-0 → R-0 KEY_ACTION | T-0 → R-0 KEY_ACTION | [undecodable]",
             "Body ends inside action 1 of 1000000000,Body ends inside action 1 of 1,"
             "Text length -2: the decoder raises a length error"),
            ("minus_ten", "[length -10]", "Length word -10 (the receiver raises an exception)")]
    assert fields("_ws.col.Info", "_ws.expert.message", filter="tarn.damaged") == {
        n(name): [info, expert] for name, info, expert in want}


def test_messages_and_actions_decode_field_by_field(fields):
    rows = fields("tarn.sender", "tarn.receiver", "tarn.key", "tarn.key_name", "tarn.int_param", "tarn.text1",
                  "tarn.text2", "tarn.text3", "tarn.length", "tarn.junk", "tarn.terminator", filter="frame")
    # a frame split over three segments is decoded once, when complete
    assert rows[n("split_1")] == rows[n("split_2")] == [""] * 11 and rows[n("split_3")][3] == "KEY_ACTION"
    assert rows[n("detail")][:7] == ["R-0", "T-0", "14", "KEY_DETAIL", "0", "12.5 1.5 2.5 -1 0.25 800 500", "R-0"]
    assert rows[n("two_frames")] == ["T-0,T-0", "SV-0,SV-0", "20,20", "KEY_SET_PARAM,KEY_SET_PARAM", "800,500",
                                     "Speed,Acceleration", "N,N", "N,N", "52,59", "", "0x3b,0x3b"]
    # NUL shown escaped, an empty text, frame bytes inside a text, a key outside the table
    assert rows[n("odd_texts")] == ["T-0", "SV-0", "99", "unknown", "-5", "a\\x00b", "", "x;y#", "52", "", "0x3b"]
    # the skipped bytes, the early ';' (0x23 at the claimed position), then the next frame
    assert rows[n("bad_terminator")][8:] == ["49,47", "78797a", "0x23,0x3b"]
    rows = fields("tarn.wp.code", "tarn.wp.x", "tarn.wp.z", "tarn.wp.flag", "tarn.wp.space_type", "tarn.arc.code",
                  "tarn.arc.space_type", "tarn.arc.param1", "tarn.arc.param4", "tarn.target.code", "tarn.target.x",
                  "tarn.target.y", "tarn.target.space_type", "tarn.action.param")
    assert rows[n("split_3")] == ["0,1,2", "1,1.5,3.25", "0,0,7", "1,1,1", "0,0,0", "", "", "", "", "2", "3.25", "-4",
                                  "0", "f"]
    assert rows[n("arc")] == ["42", "0.5", "0", "-1", "5", "-7,8", "2,2", "0.25,1.25", "1,2", "T9", "6.5", "7.5", "3",
                              "go"]
