// Byte codec of actions and messages.
//
// Wire form: every number is its 4 raw bytes in host order, every text a
// 32-bit length and its bytes. The decoders are lenient on purpose: they check
// only the two '%' markers of a message, never the stream state, and read as
// far as the record's own lengths and counts take them.
//
// Decoding has one core, templated over a byte source. StreamSource goes
// through std::istream::read, so the stream overloads get the stream's own
// semantics; SpanSource reads a byte range (the string overload and the
// receive path) and reproduces those semantics exactly:
//   - a read that gets only k of its n bytes replaces only those k bytes of
//     the destination, and fails the stream;
//   - once failed, every later read (of any size, 0 included) gets nothing;
//   - a read of 0 bytes changes nothing.
//
// Encoding computes the exact size first and writes raw bytes into one
// buffer; no stream is involved on either side.

#include "msg/codec.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <istream>
#include <limits>
#include <string>
#include <utility>

namespace {

static_assert(sizeof(float) == 4 && std::numeric_limits<float>::is_iec559,
              "floats travel as IEEE 754 single precision");
static_assert(sizeof(Space_type) == 4 && sizeof(RTS_key) == 4, "enumerations travel in 32 bits");

constexpr char kMarker = '%';

// Fixed part of a message: head_word, five text lengths, key, int_param, the
// two markers and the action count.
constexpr std::size_t kMessageFixedSize = 4 + 5 * 4 + 4 + 4 + 1 + 4 + 1;
// Fixed part of an action: type, N, M, L1, target x/y/space_type, L2.
constexpr std::size_t kActionFixedSize = 8 * 4;
constexpr std::size_t kWaypointSize = 6 * 4;
constexpr std::size_t kArcSize = kWaypointSize + 4 * 4;

// ---------------------------------------------------------------- encoding

class Writer {
 public:
  explicit Writer(char* out) : out_(out) {}

  template <class T>
  void raw(const T& value) {
    static_assert(sizeof(T) == 4, "every wire number is 4 bytes");
    std::memcpy(out_, &value, 4);
    out_ += 4;
  }

  // Length (its low 32 bits: a text of 2^32 bytes or more cannot be told
  // apart from a shorter one on the wire), then the bytes.
  void text(const std::string& s) {
    raw(static_cast<std::uint32_t>(s.size()));
    if (!s.empty()) std::memcpy(out_, s.data(), s.size());
    out_ += s.size();
  }

  void byte(char c) { *out_++ = c; }

 private:
  char* out_;
};

std::size_t action_size(const Action_RTS& a) {
  return kActionFixedSize + kWaypointSize * a.path.size() + kArcSize * a.arc_path.size() +
         a.target.qr_code.size() + a.param.size();
}

// Way-point record: code, x, y, z, flag, space_type (flag before space_type
// is the wire order, not the declaration order). `code` is shared by every
// way-point of one action so that a blank label repeats the previous code.
void write_waypoint(Writer& w, const QrInfo_RTS& wp, std::int32_t& code) {
  extract_code(wp.qr_code.data(), wp.qr_code.size(), code);
  w.raw(code);
  w.raw(wp.x);
  w.raw(wp.y);
  w.raw(wp.z);
  w.raw(wp.flag);
  w.raw(wp.space_type);
}

void write_action(Writer& w, const Action_RTS& a) {
  w.raw(a.type);
  // A blank or empty label on the first way-point has no earlier code to
  // repeat; 0 is what an unset code is written as, the same as a label that
  // is no number at all.
  std::int32_t code = 0;
  w.raw(static_cast<std::uint32_t>(a.path.size()));
  for (const QrInfo_RTS& wp : a.path) write_waypoint(w, wp, code);
  w.raw(static_cast<std::uint32_t>(a.arc_path.size()));
  for (const QrInfo_ARC& arc : a.arc_path) {
    write_waypoint(w, arc, code);
    w.raw(arc.arc_param1);
    w.raw(arc.arc_param2);
    w.raw(arc.arc_param3);
    w.raw(arc.arc_param4);
  }
  // The target travels with its label as text and without z and flag.
  w.text(a.target.qr_code);
  w.raw(a.target.x);
  w.raw(a.target.y);
  w.raw(a.target.space_type);
  w.text(a.param);
}

void write_message(Writer& w, const Message_RTS& m) {
  w.raw(m.head_word);
  w.text(m.sender_id);
  w.text(m.receiver_id);
  w.raw(m.key);
  w.text(m.text_param1);
  w.text(m.text_param2);
  w.text(m.text_param3);
  // int_param travels after the texts although it is declared before them.
  w.raw(m.int_param);
  w.byte(kMarker);
  w.raw(static_cast<std::uint32_t>(m.actions.size()));
  for (const Action_RTS& a : m.actions) write_action(w, a);
  w.byte(kMarker);
}

// ---------------------------------------------------------------- decoding

class StreamSource {
 public:
  explicit StreamSource(std::istream& in) : in_(in) {}
  void read(char* dst, std::size_t n) { in_.read(dst, static_cast<std::streamsize>(n)); }
  // The stream overloads allocate every text as asked.
  bool admits(std::size_t) const { return true; }

 private:
  std::istream& in_;
};

// A short read happens only when the range runs out, so the failed state of
// a stream needs no flag here: every later read finds nothing left.
class SpanSource {
 public:
  SpanSource(const char* data, std::size_t size, bool bounded = false)
      : begin_(data), cur_(data), left_(size), bounded_(bounded) {}

  // Whether a message text of n bytes is read at all; a bounded source (the
  // receive path) refuses one that cannot arrive in full.
  bool admits(std::size_t n) const { return !bounded_ || n <= left_; }

  void read(char* dst, std::size_t n) {
    const std::size_t k = n < left_ ? n : left_;
    if (k == 0) return;
    std::memcpy(dst, cur_, k);
    cur_ += k;
    left_ -= k;
  }

  std::size_t consumed() const { return static_cast<std::size_t>(cur_ - begin_); }

 private:
  const char* begin_;
  const char* cur_;
  std::size_t left_;
  bool bounded_;
};

// Reads straight into the object's bytes: on short input the bytes not
// reached keep what the destination held.
template <class Source, class T>
void read_raw(Source& src, T& value) {
  static_assert(sizeof(T) == 4, "every wire number is 4 bytes");
  src.read(reinterpret_cast<char*>(&value), 4);
}

// The length is widened as a signed value, so a negative one asks for more
// than max_size() and resize throws std::length_error before anything is
// read. Large positive lengths are allocated as asked: the decoder trusts its
// input. On short input the string keeps its size, its old bytes beyond what
// arrived and NUL bytes where it grew.
template <class Source>
void read_text(Source& src, std::string& s, std::int32_t length) {
  s.resize(static_cast<std::string::size_type>(static_cast<std::ptrdiff_t>(length)));
  src.read(s.data(), s.size());
}

// A message text. False, with nothing allocated, when the source refuses a
// positive length; a negative one still reaches the resize and throws.
template <class Source>
bool read_message_text(Source& src, std::string& s, std::int32_t length) {
  if (length > 0 && !src.admits(static_cast<std::size_t>(length))) return false;
  read_text(src, s, length);
  return true;
}

// The temporaries that fields pass through (code, space_type, counts and
// lengths) are zeroed before each read, so whatever short input leaves unread
// comes out as 0 rather than as stale memory.
template <class Source>
void read_waypoint(Source& src, QrInfo_RTS& wp) {
  std::int32_t code = 0;
  read_raw(src, code);
  // std::to_string writes exactly what a classic-locale stream writes for an
  // int: an optional '-' and the decimal digits, a single word.
  wp.qr_code = std::to_string(code);
  read_raw(src, wp.x);
  read_raw(src, wp.y);
  read_raw(src, wp.z);
  read_raw(src, wp.flag);
  std::int32_t space = 0;
  read_raw(src, space);
  wp.space_type = static_cast<Space_type>(space);
}

template <class Source>
void decode_action_from(Source& src, Action_RTS& a) {
  read_raw(src, a.type);

  std::int32_t n = 0;
  read_raw(src, n);
  for (std::int32_t i = 0; i < n; ++i) {
    QrInfo_RTS wp;
    read_waypoint(src, wp);
    a.path.push_back(std::move(wp));
  }

  std::int32_t m = 0;
  read_raw(src, m);
  for (std::int32_t i = 0; i < m; ++i) {
    QrInfo_ARC arc;
    read_waypoint(src, arc);
    read_raw(src, arc.arc_param1);
    read_raw(src, arc.arc_param2);
    read_raw(src, arc.arc_param3);
    read_raw(src, arc.arc_param4);
    a.arc_path.push_back(std::move(arc));
  }

  // target.z and target.flag are not on the wire and keep their values.
  std::int32_t l1 = 0;
  read_raw(src, l1);
  read_text(src, a.target.qr_code, l1);
  read_raw(src, a.target.x);
  read_raw(src, a.target.y);
  std::int32_t space = 0;
  read_raw(src, space);
  a.target.space_type = static_cast<Space_type>(space);

  std::int32_t l2 = 0;
  read_raw(src, l2);
  read_text(src, a.param, l2);
}

template <class Source>
bool decode_message_from(Source& src, Message_RTS& m) {
  m.local_flag = 0;
  read_raw(src, m.head_word);

  // One length variable serves all five texts, starting at 0 for the call: a
  // text whose length cannot be read takes the length last read before it.
  std::int32_t length = 0;
  read_raw(src, length);
  if (!read_message_text(src, m.sender_id, length)) return false;
  read_raw(src, length);
  if (!read_message_text(src, m.receiver_id, length)) return false;
  read_raw(src, m.key);
  for (std::string* text : {&m.text_param1, &m.text_param2, &m.text_param3}) {
    read_raw(src, length);
    if (!read_message_text(src, *text, length)) return false;
  }
  read_raw(src, m.int_param);

  // The marker starts at 0, so input that ends before the opening marker is
  // refused; input cut anywhere after it passes the closing test because the
  // closing read then leaves the opening '%' in place.
  char marker = 0;
  src.read(&marker, 1);
  if (marker != kMarker) return false;

  std::int32_t count = 0;
  read_raw(src, count);
  for (std::int32_t i = 0; i < count; ++i) {
    // Decoded into a blank first so that an action whose decoding throws is
    // not appended.
    Action_RTS blank(0, QrInfo_RTS(), "f");
    decode_action_from(src, blank);
    m.actions.push_back(std::move(blank));
  }

  src.read(&marker, 1);
  return marker == kMarker;
}

}  // namespace

// ---------------------------------------------------------------- internal API

void extract_code(const char* text, std::size_t size, std::int32_t& value) {
  // Classic-locale white space, as the stream's sentry skips it.
  auto blank = [](char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
  };
  std::size_t i = 0;
  while (i < size && blank(text[i])) ++i;
  if (i == size) return;  // the extraction never starts: value untouched

  bool negative = false;
  if (text[i] == '-' || text[i] == '+') {
    negative = text[i] == '-';
    ++i;
  }
  // The magnitude saturates just past 2^31; beyond that only the clamping
  // below matters.
  constexpr std::uint64_t kLimit = std::uint64_t{1} << 31;
  std::uint64_t magnitude = 0;
  bool digits = false;
  for (; i < size && text[i] >= '0' && text[i] <= '9'; ++i) {
    digits = true;
    if (magnitude <= kLimit) magnitude = magnitude * 10 + static_cast<unsigned>(text[i] - '0');
  }
  if (!digits) {
    value = 0;
  } else if (negative) {
    value = magnitude >= kLimit ? std::numeric_limits<std::int32_t>::min()
                                : -static_cast<std::int32_t>(magnitude);
  } else {
    value = magnitude >= kLimit ? std::numeric_limits<std::int32_t>::max()
                                : static_cast<std::int32_t>(magnitude);
  }
}

std::size_t encoded_size(const Message_RTS& m) {
  std::size_t size = kMessageFixedSize + m.sender_id.size() + m.receiver_id.size() +
                     m.text_param1.size() + m.text_param2.size() + m.text_param3.size();
  for (const Action_RTS& a : m.actions) size += action_size(a);
  return size;
}

void append_message(std::string& out, const Message_RTS& m) {
  const std::size_t start = out.size();
  out.resize(start + encoded_size(m));
  Writer w(out.data() + start);
  write_message(w, m);
}

bool decode_message(Message_RTS& message, const char* data, std::size_t size,
                    std::size_t* consumed) {
  SpanSource src(data, size);
  const bool ok = decode_message_from(src, message);
  if (consumed != nullptr) *consumed = src.consumed();
  return ok;
}

bool decode_received(Message_RTS& message, const char* data, std::size_t size) {
  SpanSource src(data, size, true);
  return decode_message_from(src, message);
}

bool decode_action(Action_RTS& action, const char* data, std::size_t size, std::size_t* consumed) {
  SpanSource src(data, size);
  decode_action_from(src, action);
  if (consumed != nullptr) *consumed = src.consumed();
  return true;
}

// ---------------------------------------------------------------- records

std::string Action_RTS::str() const {
  std::string out(action_size(*this), '\0');
  Writer w(out.data());
  write_action(w, *this);
  return out;
}

// The result is always true: a body is taken as it comes, and callers do not
// look at it.
bool Action_RTS::decode(std::stringstream& in) {
  StreamSource src(in);
  decode_action_from(src, *this);
  return true;
}

bool Action_RTS::decode(std::ifstream& in) {
  StreamSource src(in);
  decode_action_from(src, *this);
  return true;
}

std::string Message_RTS::str() {
  std::string out;
  append_message(out, *this);
  return out;
}

bool Message_RTS::decode(std::ifstream& in) {
  StreamSource src(in);
  return decode_message_from(src, *this);
}

bool Message_RTS::decode(std::stringstream& in) {
  StreamSource src(in);
  return decode_message_from(src, *this);
}

// Same outcome as decoding a fresh string stream over a copy of `in`, without
// the copy. Bytes after the closing marker are ignored.
bool Message_RTS::decode(const std::string& in) {
  return decode_message(*this, in.data(), in.size());
}
