// The byte-range core and the hand-written code parser must be
// indistinguishable from the stream machinery they replace.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "msg/codec.h"

namespace {

std::vector<std::string> tricky_codes() {
  std::vector<std::string> texts;
  for (int a = 0; a < 256; ++a) {
    texts.emplace_back(1, static_cast<char>(a));
    for (int b = 0; b < 256; ++b) texts.push_back({static_cast<char>(a), static_cast<char>(b)});
  }
  std::vector<std::string> numbers{"",    "0",   "000",   "7", "0x10",
                                   "1e5", "1.5", "1,000", "N", "12abc"};
  for (const char* stem : {"214748364", "429496729", "922337203685477580", "1844674407370955161",
                           "00000000000214748364", "99999999999999999999999"})
    for (char d = '0'; d <= '9'; ++d) numbers.push_back(std::string(stem) + d);
  for (const char* lead : {"", " ", "\t\n", "\v\f\r "})
    for (const char* sign : {"", "+", "-", "+-", "--", "- "})
      for (const std::string& number : numbers)
        for (const std::string& tail : {std::string(), std::string(" 5"), std::string("x"),
                                        std::string("\0"
                                                    "5",
                                                    2),
                                        std::string("\xff")})
          texts.push_back(lead + std::string(sign) + number + tail);
  return texts;
}

std::string action_fields(const Action_RTS& a) {
  std::string out =
      a.str() + '|' + std::to_string(a.target.z) + ',' + std::to_string(a.target.flag);
  for (const QrInfo_RTS& w : a.path) out += ',' + w.qr_code;
  for (const QrInfo_ARC& w : a.arc_path) out += ',' + w.qr_code;
  return out;
}

// Everything a decode can leave in a record, not only what re-encodes.
std::string fields(const Message_RTS& m) {
  std::string out = Message_RTS(m).str() + '|' + std::to_string(m.local_flag);
  for (const Action_RTS& a : m.actions) out += '|' + action_fields(a);
  return out;
}

struct Outcome {
  bool ok = false;
  bool threw = false;
  std::size_t consumed = 0;
  std::string fields;
};

Outcome via_stream(const std::string& bytes) {
  std::stringstream in(bytes);
  Message_RTS m;
  Outcome o;
  try {
    o.ok = m.decode(in);
    in.clear();
    o.consumed = static_cast<std::size_t>(in.tellg());
  } catch (const std::length_error&) {
    o.threw = true;
  }
  o.fields = fields(m);
  return o;
}

Outcome via_span(const std::string& bytes) {
  Message_RTS m;
  Outcome o;
  try {
    o.ok = decode_message(m, bytes.data(), bytes.size(), &o.consumed);
  } catch (const std::length_error&) {
    o.threw = true;
  }
  o.fields = fields(m);
  return o;
}

void expect_same_outcome(const std::string& bytes, const std::string& what) {
  const Outcome s = via_stream(bytes);
  const Outcome b = via_span(bytes);
  ASSERT_EQ(s.ok, b.ok) << what;
  ASSERT_EQ(s.threw, b.threw) << what;
  ASSERT_EQ(s.consumed, b.consumed) << what;
  ASSERT_EQ(s.fields, b.fields) << what;
}

Message_RTS sample(std::size_t receiver_length) {
  Message_RTS m;
  m.head_word = 0x01020304;
  m.sender_id = "T-0";
  m.receiver_id.assign(receiver_length, 'r');
  m.key = KEY_ACTION;
  m.int_param = 2;
  m.text_param2 = std::string("a\0b", 3);
  QrInfo_RTS w("12", 1.5f, 2.5f, SPACE_DEFAULT, 1);
  w.z = 3;
  Action_RTS a(1, std::deque<QrInfo_RTS>{w, QrInfo_RTS("-4", 0, 1, SPACE_DEFAULT, 1)});
  QrInfo_ARC arc;
  arc.qr_code = "5";
  arc.arc_param3 = 7;
  a.arc_path.push_back(arc);
  m.actions = {a, Action_RTS(2, w, "param")};
  return m;
}

// Structural corruptions of an encoded message: wrong markers, negative and
// oversized text lengths, a negative count, a short count. (Blind byte changes would misalign the
// parse and turn text bytes into gigabyte lengths and counts, which the decoder honours.)
std::vector<std::string> corruptions(const Message_RTS& m) {
  const std::string full = Message_RTS(m).str();
  std::vector<std::size_t> lengths{4};
  lengths.push_back(lengths.back() + 4 + m.sender_id.size());
  lengths.push_back(lengths.back() + 4 + m.receiver_id.size() + 4);
  lengths.push_back(lengths.back() + 4 + m.text_param1.size());
  lengths.push_back(lengths.back() + 4 + m.text_param2.size());
  const std::size_t marker = lengths.back() + 4 + m.text_param3.size() + 4;
  auto with = [&](std::size_t at, std::int32_t value) {
    std::string out = full;
    std::memcpy(&out[at], &value, 4);
    return out;
  };
  // INT32_MIN rather than -1: a cut inside it must leave a small value, since
  // a partly read count or length of ff ff ff would be honoured.
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  std::vector<std::string> out{full, full + "%trailing"};
  for (std::size_t at : lengths) {
    out.push_back(with(at, kMin));
    out.push_back(with(at, 0x7fff));
  }
  out.push_back(with(marker + 1, kMin));
  out.push_back(with(marker + 1, 1));
  out.push_back(full);
  out.back()[marker] = '&';
  out.push_back(full);
  out.back().back() = '&';
  return out;
}

}  // namespace

TEST(CodecCore, CodeParserMatchesStreamExtraction) {
  const std::vector<std::string> texts = tricky_codes();
  ASSERT_GT(texts.size(), 70000u);
  for (const std::string& text : texts) {
    std::istringstream in(text);
    int want = 12345;
    in >> want;
    std::int32_t got = 12345;
    extract_code(text.data(), text.size(), got);
    ASSERT_EQ(got, want) << ::testing::PrintToString(text);
  }
}

TEST(CodecCore, ByteRangeDecodingMatchesStreamDecoding) {
  for (std::size_t receiver_length : {std::size_t{4}, std::size_t{300}}) {
    const Message_RTS m = sample(receiver_length);
    const std::vector<std::string> variants = corruptions(m);
    for (std::size_t v = 0; v < variants.size(); ++v)
      for (std::size_t n = 0; n <= variants[v].size(); ++n)
        expect_same_outcome(variants[v].substr(0, n),
                            "variant " + std::to_string(v) + " cut at " + std::to_string(n));
  }
}

TEST(CodecCore, ByteRangeActionDecodingMatchesStreamDecoding) {
  const std::string body = sample(4).actions[0].str();
  for (std::size_t n = 0; n <= body.size(); ++n) {
    const std::string cut = body.substr(0, n);
    Action_RTS from_stream(5, QrInfo_RTS("old", 1, 1, SPACE_DEFAULT, 3), "old");
    Action_RTS from_span = from_stream;
    std::stringstream in(cut);
    from_stream.decode(in);
    in.clear();
    std::size_t consumed = 0;
    EXPECT_TRUE(decode_action(from_span, cut.data(), cut.size(), &consumed));
    ASSERT_EQ(static_cast<std::size_t>(in.tellg()), consumed) << n;
    ASSERT_EQ(action_fields(from_stream), action_fields(from_span)) << n;
  }
}
