// The byte-range core and the hand-written code parser must be
// indistinguishable from the stream machinery they replace.

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "msg/codec.h"
#include "support.h"

TEST(CodecCore, CodeParserMatchesStreamExtraction) {
  std::vector<std::string> texts;
  for (int a = 0; a < 256; ++a) {
    texts.emplace_back(1, static_cast<char>(a));
    for (int b = 0; b < 256; ++b) texts.push_back({static_cast<char>(a), static_cast<char>(b)});
  }
  std::vector<std::string> numbers{"", "0", "000", "7", "0x10", "1e5", "1.5", "1,000", "N"};
  for (const char* stem : {"214748364", "429496729", "922337203685477580", "1844674407370955161",
                           "00000000000214748364", "99999999999999999999999"})
    for (char d = '0'; d <= '9'; ++d) numbers.push_back(stem + std::string(1, d));
  for (const char* lead : {"", " ", "\t\n", "\v\f\r "})
    for (const char* sign : {"", "+", "-", "+-", "--", "- "})
      for (const std::string& number : numbers)
        for (const std::string& tail : {std::string(), std::string(" 5"), std::string("x"),
                                        std::string("\0"
                                                    "5",
                                                    2),
                                        std::string("\xff")})
          texts.push_back(lead + std::string(sign) + number + tail);

  for (const std::string& text : texts) {
    std::istringstream in(text);
    int want = 12345;
    in >> want;
    std::int32_t got = 12345;
    extract_code(text.data(), text.size(), got);
    ASSERT_EQ(got, want) << ::testing::PrintToString(text);
  }
}

namespace {

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
  o.fields = describe(m);
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
  o.fields = describe(m);
  return o;
}

// Structural corruptions: wrong markers, negative and oversized text lengths,
// a negative and a short count. (Blind byte changes would misalign the parse
// and turn text bytes into gigabyte lengths and counts, which are honoured.)
// INT32_MIN rather than -1, so that a cut inside it leaves a small value.
std::vector<std::string> corruptions(const Message_RTS& m) {
  const std::string full = Message_RTS(m).str();
  std::vector<std::size_t> lengths{4, 8 + m.sender_id.size()};
  lengths.push_back(lengths.back() + 8 + m.receiver_id.size());
  lengths.push_back(lengths.back() + 4 + m.text_param1.size());
  lengths.push_back(lengths.back() + 4 + m.text_param2.size());
  const std::size_t marker = lengths.back() + 8 + m.text_param3.size();
  const std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  std::vector<std::string> out{full,
                               full + "%trailing",
                               with_i32(full, marker + 1, kMin),
                               with_i32(full, marker + 1, 1),
                               full,
                               full};
  out[4][marker] = '&';
  out[5].back() = '&';
  for (std::size_t at : lengths) {
    out.push_back(with_i32(full, at, kMin));
    out.push_back(with_i32(full, at, 0x7fff));
  }
  return out;
}

}  // namespace

TEST(CodecCore, ByteRangeDecodingMatchesStreamDecoding) {
  for (std::size_t receiver_length : {4, 300}) {
    Message_RTS m = with_two_actions();
    m.head_word = 0x01020304;
    m.receiver_id.assign(receiver_length, 'r');
    m.text_param2 = std::string("a\0b", 3);
    const std::vector<std::string> variants = corruptions(m);
    for (std::size_t v = 0; v < variants.size(); ++v) {
      for (std::size_t n = 0; n <= variants[v].size(); ++n) {
        const std::string bytes = variants[v].substr(0, n);
        const Outcome s = via_stream(bytes), b = via_span(bytes);
        ASSERT_EQ(std::tie(s.ok, s.threw, s.consumed, s.fields),
                  std::tie(b.ok, b.threw, b.consumed, b.fields))
            << "variant " << v << " cut at " << n;
      }
    }
  }

  const std::string body = with_two_actions().actions[0].str();
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
    ASSERT_EQ(describe(from_stream), describe(from_span)) << n;
  }
}
