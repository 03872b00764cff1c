"""Runs tshark with the Lua dissector over a generated capture and checks what
it decodes. Environment: TARN_LUA (the dissector), TSHARK (optional)."""

import os
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import make_capture as mc  # noqa: E402

LUA = os.environ.get("TARN_LUA", str(pathlib.Path(__file__).parents[2] / "tools/wireshark/tarn.lua"))
TSHARK = os.environ.get("TSHARK", "tshark")


@pytest.fixture(scope="module")
def capture(tmp_path_factory):
    d = tmp_path_factory.mktemp("ws")
    pcap = d / "tarn.pcap"
    pcap.write_bytes(mc.build())
    # A private configuration folder keeps the user's preferences out of it.
    (d / "cfg").mkdir()
    env = dict(os.environ, WIRESHARK_CONFIG_DIR=str(d / "cfg"))

    def run(*args):
        out = subprocess.run([TSHARK, "-n", "-X", "lua_script:" + LUA, "-o", "tcp.desegment_tcp_streams:TRUE",
                              "-r", str(pcap), *args], env=env, capture_output=True, text=True, timeout=60)
        assert out.returncode == 0, out.stderr
        assert "Lua" not in out.stderr, out.stderr
        return out.stdout

    return run


def fields(run, *names, filter=None):
    """{frame number: [value of each field]} for the frames that match."""
    args = ["-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", "-E", "aggregator=,", "-e", "frame.number"]
    for n in names:
        args += ["-e", n]
    if filter:
        args += ["-Y", filter]
    rows = {}
    for line in run(*args).splitlines():
        cols = line.split("\t")
        rows[int(cols[0])] = cols[1:]
    return rows


def frames_matching(run, filter):
    return sorted(fields(run, filter=filter))


def n(name):
    return mc.packet_number(name)


def test_generator_builds_the_exact_wire_bytes():
    assert mc.message("T-0", "SV-0", 20, 800, "Speed") == mc.SPEED_800_BODY
    assert len(mc.SPEED_800_BODY) == 52
    default = mc.message("N", "N", 0)
    assert len(default) == 43 and default.hex() == (
        "00000000" "01000000" "4e" "01000000" "4e" "00000000" "01000000" "4e" "01000000" "4e"
        "01000000" "4e" "00000000" "25" "00000000" "25")
    assert mc.frame(b"abc") == bytes.fromhex("230b00000003000000616263" "3b")
    one = mc.action(1, path=[mc.waypoint(3, 1.0, 2.0, 5.0)], target=("3", 1.0, 2.0, 0))
    assert len(one) == 58 and one[8:32].hex() == "03000000" "0000803f" "00000040" "0000a040" "01000000" "00000000"


def test_messages_decode_field_by_field(capture):
    rows = fields(capture, "tarn.sender", "tarn.receiver", "tarn.key", "tarn.key_name", "tarn.int_param",
                  "tarn.text1", "tarn.text2", "tarn.text3", "tarn.head_word", "tarn.action_count",
                  filter="tarn")
    assert rows[n("connect")] == ["T-0", "SV-0", "1", "KEY_CONNECT", "0", "N", "N", "N", "0", "0"]
    # two frames in one segment: both messages, in order
    assert rows[n("two_frames")] == ["T-0,T-0", "SV-0,SV-0", "20,20", "KEY_SET_PARAM,KEY_SET_PARAM",
                                     "800,500", "Speed,Acceleration", "N,N", "N,N", "0,0", "0,0"]
    assert rows[n("detail")][:6] == ["R-0", "T-0", "14", "KEY_DETAIL", "0", "12.5 1.5 2.5 -1 0.25 800 500"]
    assert rows[n("detail")][6] == "R-0"
    assert rows[n("progress")][3:6] == ["KEY_ACTION", "1", "path"]
    # NUL shown escaped, an empty text, frame bytes inside a text, a key outside the table
    assert rows[n("odd_texts")] == ["T-0", "SV-0", "99", "unknown", "-5", "a\\x00b", "", "x;y#", "0", "0"]


def test_frame_split_over_three_segments_is_reassembled(capture):
    rows = fields(capture, "tarn.key_name", "tarn.length", "tarn.wp.code", "tarn.wp.x", "tarn.wp.z",
                  "tarn.wp.flag", "tarn.target.code", "tarn.action.param")
    assert rows[n("split_1")] == [""] * 8 and rows[n("split_2")] == [""] * 8
    assert rows[n("split_3")] == ["KEY_ACTION", str(len(mc.PATH3)), "0,1,2", "1,1.5,3.25", "0,0,7", "1,1,1",
                                  "2", "f"]


def test_action_with_arc_path_and_target(capture):
    names = ["tarn.action.type", "tarn.action.path_count", "tarn.wp.code", "tarn.wp.flag", "tarn.wp.space_type",
             "tarn.action.arc_count", "tarn.arc.code", "tarn.arc.space_type", "tarn.arc.param1",
             "tarn.arc.param4", "tarn.target.code", "tarn.target.x", "tarn.target.y", "tarn.target.space_type",
             "tarn.action.param", "tarn.damaged"]
    row = fields(capture, *names)[n("arc")]
    assert dict(zip(names, row)) == {
        "tarn.action.type": "2", "tarn.action.path_count": "1", "tarn.wp.code": "42", "tarn.wp.flag": "-1",
        "tarn.wp.space_type": "5", "tarn.action.arc_count": "2", "tarn.arc.code": "-7,8",
        "tarn.arc.space_type": "2,2", "tarn.arc.param1": "0.25,1.25", "tarn.arc.param4": "1,2",
        "tarn.target.code": "T9", "tarn.target.x": "6.5", "tarn.target.y": "7.5", "tarn.target.space_type": "3",
        "tarn.action.param": "go", "tarn.damaged": ""}


def test_damaged_frames_are_flagged_and_the_stream_recovers(capture):
    assert frames_matching(capture, "tarn.junk.expert") == [n("bad_terminator")]
    assert frames_matching(capture, "tarn.bad_terminator") == [n("bad_terminator")]
    assert frames_matching(capture, "tarn.bad_type") == [n("wrong_type")]
    assert frames_matching(capture, "tarn.oversized") == [n("oversized")]
    assert frames_matching(capture, "tarn.decode_failed") == [n("decode_failure"), n("hostile")]
    assert frames_matching(capture, "tarn.length_minus_ten") == [n("minus_ten")]
    assert frames_matching(capture, "tarn.truncated") == [n("hostile")]
    assert frames_matching(capture, "tarn.damaged") == [n(x) for x in (
        "bad_terminator", "wrong_type", "oversized", "decode_failure", "hostile", "minus_ten")]
    rows = fields(capture, "tarn.key_name", "tarn.junk", "tarn.terminator", "_ws.col.Info")
    # skipped "xyz", the frame whose terminator position holds the next '#',
    # then the frame behind it, found again after the early ';'
    assert rows[n("bad_terminator")][:3] == ["KEY_GET_DETAIL", "78797a", "0x23,0x3b"]
    assert rows[n("bad_terminator")][3] == "[skipped] | [bad terminator] | T-0 → R-0 KEY_GET_DETAIL"
    # a wrong type word still shows the message it carries
    assert rows[n("wrong_type")][0] == "KEY_ORIENTATION"
    # the segment after the oversized frame starts cleanly
    assert rows[n("decode_failure")][0] == "KEY_INIT" and rows[n("arc")][0] == "KEY_ACTION"
    assert rows[n("hostile")][3] == "T-0 → R-0 KEY_ACTION | T-0 → R-0 KEY_ACTION | [undecodable]"


def test_verbose_tree_names_every_part(capture):
    text = capture("-V", "-Y", "frame.number == %d" % n("two_frames"))
    for line in ["Frame marker: 0x23", "Frame type: 11", "Body length: 52", "Head word: 0", "Sender: T-0",
                 "Receiver: SV-0", "Key: KEY_SET_PARAM (20)", "Text parameter 1: Speed", "Int parameter: 800",
                 "Opening marker: 0x25", "Action count: 0", "Closing marker: 0x25", "Frame terminator: 0x3b",
                 "Body length: 59", "Text parameter 1: Acceleration", "Int parameter: 500"]:
        assert line in text, line
    assert "Expert Info" not in text
