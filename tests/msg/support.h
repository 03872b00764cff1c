#pragma once

#include <cstring>

#include "msg/msg.h"
#include "tests/support/wire.h"

using wire::hex;

inline std::int32_t i32_at(const std::string& s, std::size_t at) {
  std::int32_t v;
  std::memcpy(&v, s.data() + at, 4);
  return v;
}

inline std::string with_i32(std::string s, std::size_t at, std::int32_t v) {
  return s.replace(at, 4, wire::Bytes().i32(v).s);
}

// Everything a decode can leave in an action or a message, including what
// the encoding does not show (label texts, target z and flag, local_flag).
inline std::string describe(const Action_RTS& a) {
  std::string out =
      a.str() + '|' + std::to_string(a.target.z) + ',' + std::to_string(a.target.flag);
  for (const QrInfo_RTS& w : a.path) out += ',' + w.qr_code;
  for (const QrInfo_ARC& w : a.arc_path) out += ',' + w.qr_code;
  return out;
}

inline std::string describe(const Message_RTS& m) {
  std::string out = Message_RTS(m).str() + '|' + std::to_string(m.local_flag);
  for (const Action_RTS& a : m.actions) out += '|' + describe(a);
  return out;
}

// The velocity request: 52 bytes, opening '%' at 46, count at 47, closing '%'
// at 51; an action body added to it starts at 51.
inline Message_RTS set_speed() {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_SET_PARAM;
  m.int_param = 800;
  m.text_param1 = "Speed";
  return m;
}

inline QrInfo_RTS waypoint(const std::string& code, float z = 0) {
  QrInfo_RTS w(code, 1.0f, 2.0f, SPACE_DEFAULT, 1);
  w.z = z;
  return w;
}

// Two actions, one with a path and an arc path, one with a NUL in its param.
inline Message_RTS with_two_actions() {
  Message_RTS m = set_speed();
  Action_RTS a(1, std::deque<QrInfo_RTS>{waypoint("3", 5), waypoint("-4")});
  a.arc_path.resize(1);
  a.arc_path[0].qr_code = "8";
  a.arc_path[0].arc_param2 = 0.5f;
  m.actions = {a, Action_RTS(2, waypoint("x"), std::string("p\0q", 3))};
  return m;
}
