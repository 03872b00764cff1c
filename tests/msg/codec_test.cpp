// Records and their codec through the public interface: exact bytes, the
// text-to-code rule, and what the lenient decoders leave behind.

#include <gtest/gtest.h>

#include <deque>
#include <sstream>
#include <stdexcept>

#include "msg/msg.h"
#include "tests/support/wire.h"

using wire::hex;

namespace {

std::string with_i32(std::string s, std::size_t at, std::int32_t v) {
  return s.replace(at, 4, wire::Bytes().i32(v).s);
}

// The velocity request: 52 bytes, opening '%' at 46, count at 47, closing '%'
// at 51; an action body added to it starts at 51.
Message_RTS set_speed() {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_SET_PARAM;
  m.int_param = 800;
  m.text_param1 = "Speed";
  return m;
}

QrInfo_RTS waypoint(const std::string& code, float z = 0) {
  QrInfo_RTS w(code, 1.0f, 2.0f, SPACE_DEFAULT, 1);
  w.z = z;
  return w;
}

// Two actions, one with a path and an arc path, one with a NUL in its param.
Message_RTS with_two_actions() {
  Message_RTS m = set_speed();
  Action_RTS a(1, std::deque<QrInfo_RTS>{waypoint("3", 5), waypoint("-4")});
  a.arc_path.resize(1);
  a.arc_path[0].qr_code = "8";
  a.arc_path[0].arc_param2 = 0.5f;
  m.actions = {a, Action_RTS(2, waypoint("x"), std::string("p\0q", 3))};
  return m;
}

}  // namespace

TEST(Encoding, KnownByteSequencesAndRecordDefaults) {
  EXPECT_EQ(Message_RTS().str(), hex("00000000 01000000 4e 01000000 4e 00000000 01000000 4e "
                                     "01000000 4e 01000000 4e 00000000 25 00000000 25"));
  EXPECT_EQ(set_speed().str(), hex("00000000 03000000 542d30 04000000 53562d30 14000000 "
                                   "05000000 5370656564 01000000 4e 01000000 4e 20030000 25 "
                                   "00000000 25"));
  const Action_RTS one(1, std::deque<QrInfo_RTS>{waypoint("3", 5)});
  EXPECT_EQ(one.str(), hex("01000000 01000000 03000000 0000803f 00000040 0000a040 01000000 "
                           "00000000 00000000 01000000 33 0000803f 00000040 00000000 "
                           "01000000 66"));
  // Action bodies follow the count back to back, with nothing between them.
  Message_RTS carrying = set_speed();
  carrying.actions = {one, one};
  EXPECT_EQ(carrying.str(),
            set_speed().str().substr(0, 47) + hex("02000000") + one.str() + one.str() + "%");

  // A way-point is its label: position, space type and flag do not count.
  const QrInfo_RTS d;
  EXPECT_EQ(d.qr_code + std::to_string(d.x + d.y + d.z + d.space_type) + std::to_string(d.flag),
            "N0.000000-1");
  const QrInfo_RTS a("7", 1, 2, SPACE_DEFAULT, 1), b("7", 5, 6, static_cast<Space_type>(3), -1);
  EXPECT_TRUE(a == b && !(a != b));
  EXPECT_TRUE(a != QrInfo_RTS("07", 1, 2, SPACE_DEFAULT, 1) && !(a == d));
}

TEST(Encoding, CodesAreIntegersAndBlankLabelsRepeatThePreviousCode) {
  // Read as a stream reads an int: blanks skipped, a sign, digits up to the
  // first other byte, clamped to 32 bits; no number gives 0; a blank label
  // leaves the previous code.
  std::istringstream codes(
      "N| -4|| \t\n\v\f\r|007|+5|+-5|7.9|2147483647|2147483648|"
      "18446744073709551616|-2147483648|-99999999999|9");
  const std::int32_t want[] = {0, -4,        -4,        -4,        7,         5,         0,
                               7, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN, 9};
  Action_RTS a(1, std::deque<QrInfo_RTS>{});
  for (std::string code; std::getline(codes, code, '|');) a.path.push_back(waypoint(code));
  a.arc_path.resize(1);
  a.arc_path[0].qr_code = "";
  const std::string body = a.str();
  for (std::size_t i = 0; i < 14; ++i)
    EXPECT_EQ(body.substr(8 + 24 * i, 4), wire::Bytes().i32(want[i]).s) << i;
  EXPECT_EQ(body.substr(12 + 24 * 14, 4), hex("09000000"));  // the arc path continues the code
  // Each action starts afresh: a blank first label writes 0.
  EXPECT_EQ(Action_RTS(1, std::deque<QrInfo_RTS>{waypoint(" ")}).str().substr(8, 4),
            hex("00000000"));
}

TEST(Decoding, RoundTripKeepsWhatTravels) {
  Message_RTS m = with_two_actions();
  m.head_word = -7;
  m.key = static_cast<RTS_key>(5);
  m.sender_id = "";
  m.text_param2 = std::string("a\0b", 3);
  m.local_flag = 9;
  Action_RTS& a = m.actions[0];
  a.path.push_back(waypoint("+007"));
  a.path.push_back(waypoint(" N"));
  a.target = QrInfo_RTS(std::string("t\0", 2), 3.5f, -1, static_cast<Space_type>(6), 2);
  a.target.z = 8;
  const std::string bytes = m.str();

  Message_RTS r;
  r.local_flag = 3;
  ASSERT_TRUE(r.decode(bytes + "trailing bytes are ignored"));
  ASSERT_EQ(r.str(), bytes);  // every field that travels, texts byte for byte
  EXPECT_EQ(r.local_flag, 0);
  // From a stream, each record stops right behind its closing marker, and
  // decoding again appends.
  std::stringstream twice(bytes + bytes);
  Message_RTS s;
  EXPECT_TRUE(s.decode(twice) && twice.tellg() == std::streamoff(bytes.size()) && s.decode(twice));
  EXPECT_EQ(s.actions.size(), 4u);
  const Action_RTS& d = r.actions[0];
  EXPECT_EQ(d.path[2].qr_code + d.path[3].qr_code + d.arc_path[0].qr_code, "708");
  EXPECT_EQ(d.target.z + d.target.flag, -1.f);  // z and flag do not travel
}

TEST(Decoding, OnlyTheMarkersAreChecked) {
  Message_RTS source = set_speed();
  source.head_word = 0x11;
  Message_RTS m;
  EXPECT_FALSE(m.decode(source.str().replace(46, 1, "&")));
  EXPECT_EQ(m.str(), source.str());  // every field before the marker was taken

  // Cut before the opening marker: refused; anywhere after it: accepted.
  const std::string full = with_two_actions().str();
  for (std::size_t n = 0; n < full.size(); ++n) {
    Message_RTS cut;
    EXPECT_EQ(cut.decode(full.substr(0, n)), n > 46) << n;
    // Once any byte of the count is in, that many actions are appended,
    // whatever part of their bodies arrived.
    EXPECT_EQ(cut.actions.size(), n < 48 ? 0u : 2u) << n;
  }
  Message_RTS closed;
  EXPECT_FALSE(closed.decode(full.substr(0, full.size() - 1) + ";"));
  EXPECT_EQ(closed.actions.size(), 2u);

  // A negative count reads no action and goes straight to the closing test.
  const std::string negative = with_i32(set_speed().str(), 47, -5);
  Message_RTS none;
  EXPECT_TRUE(none.decode(negative) && none.actions.empty());
  EXPECT_FALSE(Message_RTS().decode(negative.substr(0, 51) + "x"));
}

TEST(Decoding, ShortInputKeepsWhatIsNotReached) {
  Message_RTS head;
  head.head_word = 0x7f7f7f7f;
  EXPECT_FALSE(head.decode(hex("0102")));
  EXPECT_EQ(head.head_word, 0x7f7f0201);  // only the bytes that arrived

  // text_param1's length cut after its low byte (05): the length variable
  // keeps its upper byte from the receiver's length 300 (0x012c), and all
  // three texts are resized to 0x0105, keeping their old first byte.
  Message_RTS source = set_speed();
  source.receiver_id.assign(300, 'r');
  Message_RTS m;
  EXPECT_FALSE(m.decode(source.str().substr(0, 8 + 3 + 4 + 300 + 4 + 1)));
  EXPECT_EQ(m.receiver_id, source.receiver_id);
  EXPECT_EQ(m.key, KEY_SET_PARAM);
  const std::string resized = "N" + std::string(0x104, '\0');
  EXPECT_EQ(m.text_param1 + m.text_param3, resized + resized);
  EXPECT_EQ(m.int_param, 0);

  std::stringstream type_only(hex("09000000"));
  Action_RTS a(0, QrInfo_RTS(), "f");
  EXPECT_TRUE(a.decode(type_only));
  EXPECT_EQ(a.type, 9);
  EXPECT_TRUE(a.path.empty() && a.arc_path.empty() && a.target.qr_code.empty() && a.param.empty());
}

TEST(Decoding, CountsAndLengths) {
  // N = -3: no path way-points, and M is read from the next 4 bytes.
  Action_RTS arcs_only(1, waypoint("t"), "f");
  arcs_only.arc_path.resize(1);
  arcs_only.arc_path[0].qr_code = "6";
  std::stringstream in(with_i32(arcs_only.str(), 4, -3));
  Action_RTS a(0, QrInfo_RTS(), "f");
  EXPECT_TRUE(a.decode(in));
  EXPECT_EQ(a.str(), arcs_only.str());

  // A negative length throws from the resize; what was read before stays,
  // and an action that threw is not appended.
  Message_RTS m;
  EXPECT_THROW(m.decode(with_i32(set_speed().str(), 11, -1)), std::length_error);
  EXPECT_EQ(m.sender_id + m.receiver_id, "T-0N");
  Message_RTS carrying = set_speed();
  carrying.actions = {Action_RTS(3, std::deque<QrInfo_RTS>{waypoint("2")})};
  const std::string bad_target = with_i32(carrying.str(), 51 + 36, INT32_MIN);
  std::stringstream action_in(bad_target.substr(51));
  Action_RTS partial(0, QrInfo_RTS(), "f");
  EXPECT_THROW(partial.decode(action_in), std::length_error);
  EXPECT_EQ(partial.type + partial.path.size(), 4u);
  EXPECT_THROW(m.decode(bad_target), std::length_error);
  EXPECT_TRUE(m.actions.empty());
}
