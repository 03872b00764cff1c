#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "msg/msg.h"

namespace {

// "01000000 4e" -> the bytes 01 00 00 00 4e; blanks only separate.
std::string hex(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0';) {
    if (*p == ' ') {
      ++p;
      continue;
    }
    out += static_cast<char>(std::stoi(std::string(p, 2), nullptr, 16));
    p += 2;
  }
  return out;
}

std::int32_t i32_at(const std::string& s, std::size_t offset) {
  std::int32_t v;
  std::memcpy(&v, s.data() + offset, 4);
  return v;
}

void put_i32(std::string& s, std::size_t offset, std::int32_t v) {
  std::memcpy(&s[offset], &v, 4);
}

// The velocity request: 52 bytes, opening '%' at 46, count at 47, closing '%' at 51.
Message_RTS set_speed() {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_SET_PARAM;
  m.int_param = 800;
  m.text_param1 = "Speed";
  return m;
}

QrInfo_RTS waypoint(const std::string& code, float z = 0, int flag = 1) {
  QrInfo_RTS w(code, 1.0f, 2.0f, SPACE_DEFAULT, flag);
  w.z = z;
  return w;
}

Action_RTS blank() {
  return Action_RTS(0, QrInfo_RTS(), "f");
}

Message_RTS with_two_actions() {
  Message_RTS m = set_speed();
  Action_RTS a(1, std::deque<QrInfo_RTS>{waypoint("3", 5), waypoint("4")});
  QrInfo_ARC arc;
  arc.qr_code = "8";
  arc.arc_param2 = 0.5f;
  a.arc_path.push_back(arc);
  m.actions = {a, Action_RTS(2, waypoint("x"), std::string("p\0q", 3))};
  return m;
}

}  // namespace

TEST(Encoding, KnownByteSequences) {
  EXPECT_EQ(Message_RTS().str(), hex("00000000 01000000 4e 01000000 4e 00000000 01000000 4e "
                                     "01000000 4e 01000000 4e 00000000 25 00000000 25"));
  EXPECT_EQ(set_speed().str(), hex("00000000 03000000 542d30 04000000 53562d30 14000000 "
                                   "05000000 5370656564 01000000 4e 01000000 4e 20030000 25 "
                                   "00000000 25"));
  const Action_RTS one(1, std::deque<QrInfo_RTS>{waypoint("3", 5)});
  EXPECT_EQ(one.str(), hex("01000000 01000000 03000000 0000803f 00000040 0000a040 01000000 "
                           "00000000 00000000 01000000 33 0000803f 00000040 00000000 "
                           "01000000 66"));
  const Action_RTS empty(-2, QrInfo_RTS("", 0, 0, SPACE_DEFAULT, 1), "");
  EXPECT_EQ(empty.str(), hex("feffffff 00000000 00000000 00000000 00000000 00000000 00000000 "
                             "00000000"));

  // Action bodies follow the count back to back, with nothing between them.
  Message_RTS carrying = set_speed();
  carrying.actions = {one, empty};
  EXPECT_EQ(carrying.str(),
            set_speed().str().substr(0, 47) + hex("02000000") + one.str() + empty.str() + "%");
}

TEST(Encoding, WaypointCodesTravelAsIntegers) {
  std::deque<QrInfo_RTS> path;
  for (const char* code : {"N", "12abc", " -4", "5", "", " \t\n", "007", "+8", "2147483648",
                           "-99999999999", "0x10", "9"})
    path.push_back(waypoint(code));
  Action_RTS a(1, path);
  QrInfo_ARC arc;
  arc.qr_code = "";
  a.arc_path = {arc, arc};
  arc.qr_code = "-";
  a.arc_path.push_back(arc);
  const std::string body = a.str();

  const std::vector<std::int32_t> want{0,
                                       12,
                                       -4,
                                       5,
                                       5,
                                       5,
                                       7,
                                       8,
                                       std::numeric_limits<std::int32_t>::max(),
                                       std::numeric_limits<std::int32_t>::min(),
                                       0,
                                       9};
  for (std::size_t i = 0; i < want.size(); ++i) EXPECT_EQ(i32_at(body, 8 + 24 * i), want[i]) << i;
  // One code variable per action: a blank arc label repeats the path's last code.
  const std::size_t arcs = 12 + 24 * path.size();
  EXPECT_EQ(i32_at(body, arcs), 9);
  EXPECT_EQ(i32_at(body, arcs + 40), 9);
  EXPECT_EQ(i32_at(body, arcs + 80), 0);
  // ... but nothing carries into the next action: a blank first label writes 0.
  EXPECT_EQ(i32_at(Action_RTS(1, std::deque<QrInfo_RTS>{waypoint(" ")}).str(), 8), 0);
}

TEST(Decoding, RoundTripKeepsWhatTravels) {
  Message_RTS m = set_speed();
  m.head_word = -7;
  m.key = static_cast<RTS_key>(5);
  m.sender_id = "";
  m.text_param2 = std::string("a\0b", 3);
  m.local_flag = 9;
  std::deque<QrInfo_RTS> path{waypoint("007", 5, 3), waypoint(" N")};
  path[1].space_type = static_cast<Space_type>(77);
  Action_RTS a(4, QrInfo_RTS(std::string("t\0", 2), 3.5f, -1, static_cast<Space_type>(6), 2), path);
  a.target.z = 8;
  QrInfo_ARC arc;
  arc.qr_code = "-12";
  arc.flag = 4;
  arc.arc_param4 = 0.25f;
  a.arc_path.push_back(arc);
  a.param = std::string("\0p", 2);
  m.actions = {a, Action_RTS(0, QrInfo_RTS(), "")};
  const std::string bytes = m.str();

  Message_RTS r;
  r.local_flag = 3;
  ASSERT_TRUE(r.decode(bytes + "trailing bytes are ignored"));
  EXPECT_EQ(r.head_word, -7);
  EXPECT_EQ(r.sender_id, "");
  EXPECT_EQ(r.receiver_id, "SV-0");
  EXPECT_EQ(r.key, 5);
  EXPECT_EQ(r.int_param, 800);
  EXPECT_EQ(r.text_param2, std::string("a\0b", 3));
  EXPECT_EQ(r.local_flag, 0);
  ASSERT_EQ(r.actions.size(), 2u);
  const Action_RTS& d = r.actions[0];
  EXPECT_EQ(d.type, 4);
  ASSERT_EQ(d.path.size(), 2u);
  EXPECT_EQ(d.path[0].qr_code, "7");
  EXPECT_EQ(d.path[0].z, 5);
  EXPECT_EQ(d.path[0].flag, 3);
  EXPECT_EQ(d.path[1].qr_code, "0");
  EXPECT_EQ(d.path[1].space_type, 77);
  ASSERT_EQ(d.arc_path.size(), 1u);
  EXPECT_EQ(d.arc_path[0].qr_code, "-12");
  EXPECT_EQ(d.arc_path[0].flag, 4);
  EXPECT_EQ(d.arc_path[0].arc_param4, 0.25f);
  EXPECT_EQ(d.target.qr_code, std::string("t\0", 2));
  EXPECT_EQ(d.target.x, 3.5f);
  EXPECT_EQ(d.target.space_type, 6);
  EXPECT_EQ(d.target.z, 0);  // z and flag stay behind
  EXPECT_EQ(d.target.flag, -1);
  EXPECT_EQ(d.param, std::string("\0p", 2));
  EXPECT_EQ(r.actions[1].param, "");
  EXPECT_EQ(r.str(), bytes);
}

TEST(Decoding, OnlyTheMarkersAreChecked) {
  Message_RTS source = set_speed();
  source.head_word = 0x11;
  std::string wrong_open = source.str();
  wrong_open[46] = '&';
  Message_RTS m;
  EXPECT_FALSE(m.decode(wrong_open));
  EXPECT_EQ(m.head_word, 0x11);
  EXPECT_EQ(m.sender_id, "T-0");
  EXPECT_EQ(m.receiver_id, "SV-0");
  EXPECT_EQ(m.key, KEY_SET_PARAM);
  EXPECT_EQ(m.text_param1, "Speed");
  EXPECT_EQ(m.int_param, 800);

  // Cut before the opening marker: refused; anywhere after it: accepted.
  const std::string full = with_two_actions().str();
  for (std::size_t n = 0; n < full.size(); ++n) {
    Message_RTS cut;
    EXPECT_EQ(cut.decode(full.substr(0, n)), n > 46) << n;
    if (n == 47) {
      EXPECT_TRUE(cut.actions.empty());
    }
  }

  std::string wrong_close = full;
  wrong_close.back() = ';';
  Message_RTS closed;
  EXPECT_FALSE(closed.decode(wrong_close));
  EXPECT_EQ(closed.actions.size(), 2u);

  // A negative count reads no action and goes straight to the closing test.
  std::string negative = set_speed().str();
  put_i32(negative, 47, -5);
  Message_RTS none;
  EXPECT_TRUE(none.decode(negative));
  EXPECT_TRUE(none.actions.empty());
  negative.back() = 'x';
  EXPECT_FALSE(Message_RTS().decode(negative));
}

TEST(Decoding, ShortInputKeepsWhatIsNotReached) {
  // head_word cut after 2 bytes: only those 2 bytes are replaced.
  Message_RTS head;
  head.head_word = 0x7f7f7f7f;
  EXPECT_FALSE(head.decode(hex("0102")));
  EXPECT_EQ(head.head_word, 0x7f7f0201);

  // text_param1's length cut after its low byte (05): the length variable
  // keeps its upper bytes from the receiver's length 300 (0x012c), so all
  // three texts are resized to 0x0105 and keep their old first byte.
  Message_RTS source = set_speed();
  source.receiver_id.assign(300, 'r');
  const std::string bytes = source.str();
  Message_RTS m;
  EXPECT_FALSE(m.decode(bytes.substr(0, 8 + 3 + 4 + 300 + 4 + 1)));
  EXPECT_EQ(m.receiver_id, source.receiver_id);
  EXPECT_EQ(m.key, KEY_SET_PARAM);
  const std::string resized = "N" + std::string(0x104, '\0');
  EXPECT_EQ(m.text_param1, resized);
  EXPECT_EQ(m.text_param3, resized);
  EXPECT_EQ(m.int_param, 0);

  // An action cut right after its type: empty queues, empty texts, true.
  std::stringstream type_only(hex("09000000"));
  Action_RTS a = blank();
  EXPECT_TRUE(a.decode(type_only));
  EXPECT_EQ(a.type, 9);
  EXPECT_TRUE(a.path.empty() && a.arc_path.empty());
  EXPECT_EQ(a.target.qr_code, "");
  EXPECT_EQ(a.param, "");
}

TEST(Decoding, CountsLengthsAndRepeatedDecoding) {
  // N = -3: no path way-points, M is read from the next 4 bytes.
  Action_RTS arcs_only(1, waypoint("t"), "f");
  QrInfo_ARC arc;
  arc.qr_code = "6";
  arcs_only.arc_path.push_back(arc);
  std::string body = arcs_only.str();
  put_i32(body, 4, -3);
  std::stringstream in(body);
  Action_RTS a = blank();
  EXPECT_TRUE(a.decode(in));
  EXPECT_TRUE(a.path.empty());
  ASSERT_EQ(a.arc_path.size(), 1u);
  EXPECT_EQ(a.arc_path[0].qr_code, "6");
  EXPECT_EQ(a.target.qr_code, "t");

  // A negative length throws from the resize; what was read before stays.
  std::string bad_receiver = set_speed().str();
  put_i32(bad_receiver, 11, -1);
  Message_RTS m;
  EXPECT_THROW(m.decode(bad_receiver), std::length_error);
  EXPECT_EQ(m.sender_id, "T-0");
  EXPECT_EQ(m.receiver_id, "N");

  Message_RTS carrying = set_speed();
  carrying.actions = {Action_RTS(3, std::deque<QrInfo_RTS>{waypoint("2")})};
  std::string bad_target = carrying.str();
  // The body starts at 51; its target length sits 36 bytes in.
  put_i32(bad_target, 51 + 36, std::numeric_limits<std::int32_t>::min());
  std::stringstream action_in(bad_target.substr(51));
  Action_RTS partial = blank();
  EXPECT_THROW(partial.decode(action_in), std::length_error);
  EXPECT_EQ(partial.type, 3);
  EXPECT_EQ(partial.path.size(), 1u);
  Message_RTS holder;
  EXPECT_THROW(holder.decode(bad_target), std::length_error);
  EXPECT_TRUE(holder.actions.empty());  // the failed action is not appended

  // Decoding appends: the same bytes twice give twice the actions, and the
  // stream stands right behind each record.
  const std::string one = with_two_actions().str();
  std::stringstream twice(one + one + "#");
  Message_RTS r;
  EXPECT_TRUE(r.decode(twice));
  EXPECT_EQ(twice.tellg(), static_cast<std::streamoff>(one.size()));
  EXPECT_TRUE(r.decode(twice));
  EXPECT_EQ(twice.tellg(), static_cast<std::streamoff>(2 * one.size()));
  EXPECT_EQ(r.actions.size(), 4u);
}

TEST(Decoding, FileStreams) {
  char path[] = "/tmp/tarn_codec_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::string message = with_two_actions().str();
  const std::string action = with_two_actions().actions[0].str();
  {
    std::ofstream out(path, std::ios::binary);
    out << message << action;
  }
  std::ifstream in(path, std::ios::binary);
  Message_RTS m;
  EXPECT_TRUE(m.decode(in));
  EXPECT_EQ(m.str(), message);
  Action_RTS a = blank();
  EXPECT_TRUE(a.decode(in));
  EXPECT_EQ(a.str(), action);
  Message_RTS after_end;
  EXPECT_FALSE(after_end.decode(in));  // nothing left before the opening marker
  std::remove(path);
}
