"""Writes a pcap of a synthetic TCP conversation on port 6868.

The frames are built byte by byte here, independently of the library, so the
dissector is checked against the wire layout itself. Each packet's purpose is
listed in PACKETS; the dissector test refers to packets by those names.

Usage: make_capture.py OUTPUT.pcap
"""

import struct
import sys

CLIENT = ("127.0.0.1", 40000)
SERVER = ("127.0.0.1", 6868)


def text(s):
    b = s.encode() if isinstance(s, str) else s
    return struct.pack("<i", len(b)) + b


def waypoint(code, x, y, z, flag=1, space=0):
    # flag travels before space type
    return struct.pack("<ifffii", code, x, y, z, flag, space)


def arc_waypoint(code, x, y, z, flag, space, p1, p2, p3, p4):
    return waypoint(code, x, y, z, flag, space) + struct.pack("<ffff", p1, p2, p3, p4)


def action(atype, path=(), arcs=(), target=("N", 0.0, 0.0, 0), param="f"):
    code, tx, ty, tspace = target
    return (struct.pack("<ii", atype, len(path)) + b"".join(path) +
            struct.pack("<i", len(arcs)) + b"".join(arcs) +
            text(code) + struct.pack("<ffi", tx, ty, tspace) + text(param))


def message(sender, receiver, key, int_param=0, t1="N", t2="N", t3="N", actions=(),
            head_word=0, open_marker=b"%"):
    return (struct.pack("<i", head_word) + text(sender) + text(receiver) +
            struct.pack("<i", key) + text(t1) + text(t2) + text(t3) +
            struct.pack("<i", int_param) + open_marker + struct.pack("<i", len(actions)) +
            b"".join(actions) + b"%")


def frame(body, ftype=11, length=None, terminator=b";"):
    n = len(body) if length is None else length
    return b"#" + struct.pack("<ii", ftype, n) + body + terminator


# The velocity request exactly as it must appear on the wire (52-byte body).
SPEED_800_BODY = bytes.fromhex(
    "00000000" "03000000" "542d30" "04000000" "53562d30" "14000000"
    "05000000" "5370656564" "01000000" "4e" "01000000" "4e" "20030000" "25" "00000000" "25")

PATH3 = message("T-0", "R-0", 12, 3, actions=[
    action(1, path=[waypoint(0, 1.0, 2.0, 0.0), waypoint(1, 1.5, 2.5, 0.0),
                    waypoint(2, 3.25, -4.0, 7.0)], target=("2", 3.25, -4.0, 0))])

ARC = message("T-0", "R-0", 12, 1, actions=[
    action(2, path=[waypoint(42, 0.5, 0.5, 0.0, flag=-1, space=5)],
           arcs=[arc_waypoint(-7, 1.0, 1.0, 0.0, 1, 2, 0.25, 0.5, 0.75, 1.0),
                 arc_waypoint(8, 2.0, 2.0, 0.0, 1, 2, 1.25, 1.5, 1.75, 2.0)],
           target=("T9", 6.5, 7.5, 3), param="go")])

# A frame whose terminator came one byte early: the length word claims one
# byte more, so the terminator position holds the next frame's '#'. The
# receiver drops through the early ';' and then reads the next frame.
_short_body = message("T-0", "SV-0", 3)
BAD_TERMINATOR = frame(_short_body, length=len(_short_body) + 1)

# Bodies that claim more than they hold, and header-only frames with a length
# word of -3 and -10: the dissector must flag them without running away.
_huge_count = message("T-0", "R-0", 12)[:-5] + struct.pack("<i", 1000000000) + b"%"
_huge_path = (message("T-0", "R-0", 12)[:-5] + struct.pack("<i", 1) +
              struct.pack("<ii", 1, 0x7FFFFFFF) + b"%")
_negative_text = struct.pack("<i", 0) + struct.pack("<i", -2) + b"%%%%"
HOSTILE = frame(_huge_count) + frame(_huge_path) + frame(_negative_text)
MINUS_TEN = b"#" + struct.pack("<ii", 11, -10)

# (direction, payload, name): "c" client to server, "s" server to client.
PACKETS = [
    ("c", frame(message("T-0", "SV-0", 1)), "connect"),
    ("c", frame(SPEED_800_BODY) + frame(message("T-0", "SV-0", 20, 500, "Acceleration")), "two_frames"),
    ("c", frame(PATH3)[:5], "split_1"),
    ("c", frame(PATH3)[5:40], "split_2"),
    ("c", frame(PATH3)[40:], "split_3"),
    ("s", frame(message("R-0", "T-0", 14, 0, "12.5 1.5 2.5 -1 0.25 800 500", "R-0")), "detail"),
    ("s", frame(message("R-0", "T-0", 12, 1, "path")), "progress"),
    ("c", b"xyz" + BAD_TERMINATOR + frame(message("T-0", "R-0", 13)), "bad_terminator"),
    ("c", frame(message("T-0", "R-0", 7, 0, "r 1.5"), ftype=12), "wrong_type"),
    ("c", b"#" + struct.pack("<ii", 11, 2000000) + b"abc;", "oversized"),
    ("c", frame(message("T-0", "SV-0", 2, 0, "1.0", "2.0", "0.0", open_marker=b"X")), "decode_failure"),
    ("c", frame(ARC), "arc"),
    ("c", frame(message("T-0", "SV-0", 99, -5, "a\x00b", "", "x;y#")), "odd_texts"),
    ("c", HOSTILE, "hostile"),
    ("c", MINUS_TEN, "minus_ten"),
]


def packet_number(name):
    """Frame number in the capture (three handshake packets come first)."""
    return 4 + [p[2] for p in PACKETS].index(name)


def _checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def _ip(addr):
    return bytes(int(p) for p in addr.split("."))


def _segment(src, dst, seq, ack, flags, payload):
    tcp = struct.pack("!HHIIBBHHH", src[1], dst[1], seq, ack, 5 << 4, flags, 65535, 0, 0)
    pseudo = _ip(src[0]) + _ip(dst[0]) + struct.pack("!BBH", 0, 6, len(tcp) + len(payload))
    tcp = tcp[:16] + struct.pack("!H", _checksum(pseudo + tcp + payload)) + tcp[18:]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp) + len(payload), 1, 0x4000, 64, 6, 0,
                     _ip(src[0]), _ip(dst[0]))
    ip = ip[:10] + struct.pack("!H", _checksum(ip)) + ip[12:]
    return ip + tcp + payload


def build():
    syn, ack, psh = 0x02, 0x10, 0x08
    cseq, sseq = 1000, 5000
    segs = [
        _segment(CLIENT, SERVER, cseq, 0, syn, b""),
        _segment(SERVER, CLIENT, sseq, cseq + 1, syn | ack, b""),
        _segment(CLIENT, SERVER, cseq + 1, sseq + 1, ack, b""),
    ]
    cseq += 1
    sseq += 1
    for direction, payload, _ in PACKETS:
        if direction == "c":
            segs.append(_segment(CLIENT, SERVER, cseq, sseq, psh | ack, payload))
            cseq += len(payload)
        else:
            segs.append(_segment(SERVER, CLIENT, sseq, cseq, psh | ack, payload))
            sseq += len(payload)
    # pcap, LINKTYPE_RAW (bare IPv4 packets)
    out = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)
    for i, seg in enumerate(segs):
        out += struct.pack("<IIII", 1700000000, i * 1000, len(seg), len(seg)) + seg
    return out


if __name__ == "__main__":
    with open(sys.argv[1], "wb") as f:
        f.write(build())
