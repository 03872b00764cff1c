# Runs tshark with the Lua dissector over a capture written here byte by byte,
# independently of the library, and checks what it decodes and flags.
# Environment: TARN_LUA (the dissector), TSHARK.

import os, struct, subprocess


# A length-prefixed text, and a frame whose length word may claim extra bytes.
text = lambda s: struct.pack("<i", len(s.encode())) + s.encode()
frame = lambda body, ftype=11, extra=0: b"#" + struct.pack("<ii", ftype, len(body) + extra) + body + b";"


def waypoint(code, x, y, z, flag=1, space=0, *arc):
    return struct.pack("<ifffii", code, x, y, z, flag, space) + struct.pack("<%df" % len(arc), *arc)


def action(atype, path=(), arcs=(), target=("N", 0.0, 0.0, 0), param="f"):
    return (struct.pack("<ii", atype, len(path)) + b"".join(path) + struct.pack("<i", len(arcs)) + b"".join(arcs)
            + text(target[0]) + struct.pack("<ffi", *target[1:]) + text(param))


def message(sender, receiver, key, int_param=0, t1="N", t2="N", t3="N", actions=(), opening=b"%"):
    # the head word (0), the addresses, the key and the texts
    head = bytes(4) + text(sender) + text(receiver) + struct.pack("<i", key) + text(t1) + text(t2) + text(t3)
    return head + struct.pack("<i", int_param) + opening + struct.pack("<i", len(actions)) + b"".join(actions) + b"%"


# An action with every part: two path way-points, two arc way-points, a target and a parameter.
ARC = frame(message("T-0", "R-0", 12, 1, actions=[action(
    2, [waypoint(42, 0.5, 0.5, 0, -1, 5), waypoint(43, 1.5, 2.5, 7)], [waypoint(-7, 1, 1, 0, 1, 2, .25, .5, .75, 1),
    waypoint(8, 2, 2, 0, 1, 2, 1.25, 1.5, 1.75, 2)], ("T9", 6.5, 7.5, 3), "go")]))
# Counts and lengths that claim more than the body holds: flagged, no runaway.
HOSTILE = (frame(message("T-0", "R-0", 12)[:-5] + struct.pack("<i", 10 ** 9) + b"%")
           + frame(message("T-0", "R-0", 12)[:-5] + struct.pack("<iii", 1, 1, 0x7FFFFFFF) + b"%")
           + frame(struct.pack("<ii", 0, -2) + b"%%%%"))
# Two frames in one segment, the second with a NUL, an empty text, frame bytes
# inside a text and a key outside the table; replies decode like requests.
PACKETS = [  # (from the client?, payload, name)
    (False, frame(message("R-0", "T-0", 14, 0, "12.5 1.5", "R-0")) + frame(message("T-0", "SV-0", 99, -5, "a\x00b",
     "", "x;y#")), "two_frames"), (True, ARC[:5], "split_1"), (True, ARC[5:40], "split_2"), (True, ARC[40:], "split_3"),
    # the length word claims one byte more, so the terminator position holds the
    # next frame's '#'; the receiver drops through the early ';' and reads on
    (True, b"xyz" + frame(message("T-0", "SV-0", 3), extra=1) + frame(message("T-0", "R-0", 13)), "bad_terminator"),
    (True, frame(message("T-0", "R-0", 7, 0, "r 1.5"), ftype=12), "wrong_type"),
    (True, b"#" + struct.pack("<ii", 11, 2000000) + b"abc;", "oversized"),
    (True, frame(message("T-0", "SV-0", 2, 0, "1.0", "2.0", "0.0", opening=b"X")), "decode_failure"),
    (True, HOSTILE, "hostile"), (True, b"#" + struct.pack("<ii", 11, -10), "minus_ten")]
FIELDS = ["_ws.col.Info", "_ws.expert.message"] + ["tarn." + f for f in (
    "damaged sender receiver key key_name int_param text1 text2 text3 length junk terminator wp.code wp.x wp.z wp.flag "
    "wp.space_type arc.code arc.space_type arc.param1 arc.param4 target.code target.x target.y target.space_type "
    "action.param").split()]


# The conversation between 127.0.0.1:40000 and :6868 as bare IPv4 packets
# (no handshake, checksums zero: tshark needs neither).
def pcap():
    seq, out = {True: 1000, False: 5000}, struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)
    for i, (client, payload, _) in enumerate(PACKETS):
        ports, size = (40000, 6868) if client else (6868, 40000), 40 + len(payload)
        out += (struct.pack("<IIII", 1700000000, i, size, size)
                + struct.pack("!BBHHHBBH4s4s", 0x45, 0, size, 1, 0x4000, 64, 6, 0, b"\x7f\0\0\1", b"\x7f\0\0\1")
                + struct.pack("!HHIIBBHHH", *ports, seq[client], seq[not client], 5 << 4, 0x18, 65535, 0, 0) + payload)
        seq[client] += len(payload)
    return out


def test_dissector(tmp_path):
    (tmp_path / "tarn.pcap").write_bytes(pcap())
    args = [os.environ["TSHARK"], "-n", "-X", "lua_script:" + os.environ["TARN_LUA"], "-r", str(tmp_path / "tarn.pcap"),
            "-o", "tcp.desegment_tcp_streams:TRUE", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=,"]
    out = subprocess.run(args + [a for f in FIELDS for a in ("-e", f)], capture_output=True, text=True, timeout=60,
                         env=dict(os.environ, WIRESHARK_CONFIG_DIR=str(tmp_path)))  # the user's preferences kept out
    assert out.returncode == 0 and "Lua" not in out.stderr, out.stderr
    rows = {name: dict(zip(FIELDS, line.split("\t"))) for (_, _, name), line in zip(PACKETS, out.stdout.splitlines())}
    get = lambda name, *fields: [rows[name][f] for f in fields]

    # The receiver's view: skipped bytes and the early ';' found again, frames
    # it would stall on or throw at, and bodies that claim more than they hold.
    assert {name: get(name, "_ws.col.Info", "_ws.expert.message") for name in rows if rows[name]["tarn.damaged"]} == {
        "bad_terminator": ["[skipped] | [bad terminator] | T-0 → R-0 KEY_GET_DETAIL", "Bytes before the frame marker "
                           "(the receiver drops them),Byte at the terminator position is 0x23, not ';'"],
        "wrong_type": ['[wrong type] T-0 → R-0 KEY_ORIENTATION "r 1.5"', "Type word 12, not 11"],
        "oversized": ["[oversized]", "Length 2000000: frame of more than 1000000 bytes"],
        "decode_failure": ['T-0 → SV-0 KEY_INIT "1.0"', "Opening marker is 0x58, not '%'"],
        "hostile": ["T-0 → R-0 KEY_ACTION | T-0 → R-0 KEY_ACTION | [undecodable]", "Body ends inside action 1 of "
                    "1000000000,Body ends inside action 1 of 1,Text length -2: the decoder raises a length error"],
        "minus_ten": ["[length -10]", "Length word -10 (the receiver raises an exception)"]}
    # Messages field by field; a frame split over three segments is decoded once, when complete.
    assert get("split_1", *FIELDS[3:]) == get("split_2", *FIELDS[3:]) == [""] * 25
    assert get("two_frames", *FIELDS[3:14]) == ["R-0,T-0", "T-0,SV-0", "14,99", "KEY_DETAIL,unknown", "0,-5",
                                                "12.5 1.5,a\\x00b", "R-0,", "N,x;y#", "56,52", "", "0x3b,0x3b"]
    # the skipped bytes, the early ';' (0x23 at the claimed position), then the next frame
    assert get("bad_terminator", "tarn.length", "tarn.junk", "tarn.terminator") == ["49,47", "78797a", "0x23,0x3b"]
    assert get("split_3", *FIELDS[14:]) == ["42,43", "0.5,1.5", "0,7", "-1,1", "5,0", "-7,8", "2,2", "0.25,1.25",
                                            "1,2", "T9", "6.5", "7.5", "3", "go"]
