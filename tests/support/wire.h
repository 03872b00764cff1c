#pragma once

// Wire bytes written by hand for the tests and the fuzz seeds. Words go out
// as raw host-order bytes (little-endian on every supported target), without
// the library's encoder, so that a codec fault cannot shape the very bytes
// meant to catch it.
//
//   wire::frame(wire::body("R-0", "T-0", 14, "24 0 0 -1", "R-0"))
//     a status report as the server sends it: '#', type 11, body length,
//     body, ';'. A body is the head word, sender, receiver, key, three texts,
//     int_param, '%', the action count, the action bodies, '%'.

#include <cstdint>
#include <string>

namespace wire {

struct Bytes {
  std::string s;
  Bytes& i32(std::int32_t v) { return raw(std::string(reinterpret_cast<const char*>(&v), 4)); }
  Bytes& f32(float v) { return raw(std::string(reinterpret_cast<const char*>(&v), 4)); }
  Bytes& text(const std::string& t) { return i32(static_cast<std::int32_t>(t.size())).raw(t); }
  Bytes& raw(const std::string& t) {
    s += t;
    return *this;
  }
};

// "23 0b000000" -> the bytes 23 0b 00 00 00; blanks only separate.
inline std::string hex(const std::string& digits) {
  std::string out;
  for (std::size_t i = 0; i < digits.size(); i += digits[i] == ' ' ? 1 : 2)
    if (digits[i] != ' ') out += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return out;
}

// A message body; `actions` holds `count` action bodies back to back.
inline std::string body(const std::string& sender, const std::string& receiver, std::int32_t key,
                        const std::string& t1 = "N", const std::string& t2 = "N",
                        const std::string& t3 = "N", std::int32_t int_param = 0,
                        std::int32_t count = 0, const std::string& actions = "") {
  Bytes b;
  b.i32(0).text(sender).text(receiver).i32(key).text(t1).text(t2).text(t3).i32(int_param);
  return b.raw("%").i32(count).raw(actions).raw("%").s;
}

// The frame header alone: '#', `type`, a length word announcing `length`.
inline std::string header(std::int32_t length, std::int32_t type = 11) {
  return Bytes().raw("#").i32(type).i32(length).s;
}

inline std::string frame(const std::string& payload, std::int32_t type = 11) {
  return header(static_cast<std::int32_t>(payload.size()), type) + payload + ";";
}

}  // namespace wire
