"""Records and codec through the Python module: exact bytes, round trips,
the lenient decoder's results, and the text conversion rules."""

import struct

import pytest

import tarnsdk as t

DEFAULT_43 = bytes.fromhex(
    "00000000" "01000000" "4e" "01000000" "4e" "00000000" "01000000" "4e" "01000000" "4e"
    "01000000" "4e" "00000000" "25" "00000000" "25")
SPEED_52 = bytes.fromhex(
    "00000000" "03000000" "542d30" "04000000" "53562d30" "14000000"
    "05000000" "5370656564" "01000000" "4e" "01000000" "4e" "20030000" "25" "00000000" "25")


def speed_request():
    m = t.Message_RTS()
    m.sender_id, m.receiver_id, m.key, m.int_param, m.text_param1 = "T-0", "SV-0", t.KEY_SET_PARAM, 800, "Speed"
    return m


def test_exact_bytes_of_messages_and_frames():
    assert t.Message_RTS().encode() == DEFAULT_43
    assert speed_request().encode() == SPEED_52
    framed = t.frame(speed_request())
    assert len(framed) == 62
    assert framed == b"#" + struct.pack("<ii", 11, 52) + SPEED_52 + b";"
    assert t.frame(b"abc") == bytes.fromhex("230b000000030000006162633b")
    assert t.frame(b"") == bytes.fromhex("230b00000000000000" "3b")


def test_action_body_bytes_and_round_trip():
    path = [t.QrInfo_RTS("3", 1.0, 2.0, t.SPACE_DEFAULT, 1)]
    path[0].z = 5.0
    a = t.Action_RTS(1, path)
    body = a.encode()
    assert body.hex() == (
        "01000000" "01000000" "03000000" "0000803f" "00000040" "0000a040" "01000000" "00000000"
        "00000000" "01000000" "33" "0000803f" "00000040" "00000000" "01000000" "66")

    b = t.Action_RTS(0, t.QrInfo_RTS(), "f")
    assert b.decode(body) is True
    assert b.type == 1 and b.param == "f" and b.arc_path == []
    (p,) = b.path
    assert (p.qr_code, p.x, p.y, p.z, p.flag, p.space_type) == ("3", 1.0, 2.0, 5.0, 1, t.SPACE_DEFAULT)
    # the target's z and flag do not travel
    assert (b.target.qr_code, b.target.x, b.target.y, b.target.z, b.target.flag) == ("3", 1.0, 2.0, 0.0, -1)
    # decoding appends: the second pass doubles the path
    b.decode(body)
    assert [w.qr_code for w in b.path] == ["3", "3"]


def test_message_round_trip_keeps_every_encoded_field():
    arc = t.QrInfo_ARC()
    arc.qr_code, arc.x, arc.arc_param1, arc.arc_param4, arc.space_type = "12", 0.5, 1.25, -2.0, 7
    act = t.Action_RTS(1, t.QrInfo_RTS("T9", 6.5, 7.5, 3, 1), [t.QrInfo_RTS("007", 1.0, 1.0)])
    act.arc_path = [arc]
    m = speed_request()
    m.head_word, m.key, m.text_param2, m.text_param3, m.local_flag = -4, 99, "", "a\0b;#", 5
    m.actions = [act, t.Action_RTS(2, t.QrInfo_RTS(), "")]

    out = t.Message_RTS()
    assert out.decode(m.encode() + b"trailing bytes are ignored") is True
    assert (out.head_word, out.sender_id, out.receiver_id, int(out.key), out.int_param) == (-4, "T-0", "SV-0", 99, 800)
    assert (out.text_param1, out.text_param2, out.text_param3, out.local_flag) == ("Speed", "", "a\0b;#", 0)
    a0, a1 = out.actions
    assert [w.qr_code for w in a0.path] == ["7"]  # path codes travel as integers
    (arc_out,) = a0.arc_path
    assert (arc_out.qr_code, arc_out.x, arc_out.arc_param1, arc_out.arc_param4, int(arc_out.space_type)) == (
        "12", 0.5, 1.25, -2.0, 7)
    assert (a0.target.qr_code, a0.target.x, a0.target.y, int(a0.target.space_type)) == ("T9", 6.5, 7.5, 3)
    assert (a1.type, a1.param, a1.path) == (2, "", [])
    assert out.encode() == m.encode()


def test_lenient_decoder_results():
    body = speed_request().encode()
    # bad opening marker: False, fields read so far keep their new values
    m = t.Message_RTS()
    broken = body[:-6] + b"X" + body[-5:]
    assert m.decode(broken) is False
    assert (m.sender_id, m.key, m.text_param1, m.int_param) == ("T-0", t.KEY_SET_PARAM, "Speed", 800)
    # bad closing marker: False
    assert t.Message_RTS().decode(body[:-1] + b"!") is False
    # cut right after the opening marker: accepted, no actions
    m = t.Message_RTS()
    assert m.decode(body[:-5]) is True and m.actions == []
    # a negative text length surfaces as ValueError, not a crash
    with pytest.raises(ValueError):
        t.Message_RTS().decode(struct.pack("<ii", 0, -2) + b"%%%%")


def test_records_defaults_comparison_and_text_bytes():
    q = t.QrInfo_RTS()
    assert (q.qr_code, q.x, q.y, q.z, q.space_type, q.flag) == ("N", 0.0, 0.0, 0.0, t.SPACE_DEFAULT, -1)
    # way-points compare by label alone
    assert t.QrInfo_RTS("7", 1, 2, 0, 1) == t.QrInfo_RTS("7", 5, 6, 0, -1)
    assert t.QrInfo_RTS("7", 1, 2) != t.QrInfo_RTS("07", 1, 2)
    assert t.Action_RTS(1, []).target.qr_code == "N"
    m = t.Message_RTS()
    assert (m.head_word, m.key, m.int_param, m.local_flag, m.sender_id, m.text_param3) == (0, t.KEY_NONE, 0, 0, "N", "N")
    # bytes that are not UTF-8 survive a read-modify-write unchanged
    m.text_param1 = b"\xff\xfe\x00z"
    again = t.Message_RTS()
    again.decode(m.encode())
    assert again.text_param1.encode("utf-8", "surrogateescape") == b"\xff\xfe\x00z"
    again.text_param2 = again.text_param1
    assert again.encode().count(b"\x04\x00\x00\x00\xff\xfe\x00z") == 2
    with pytest.raises(TypeError):
        m.text_param1 = 5
    assert int(t.KEY_SET_PARAM) == 20 and t.RTS_key.KEY_DETAIL == 14
