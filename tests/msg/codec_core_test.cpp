// The byte-range core and the hand-written code parser must be
// indistinguishable from the stream machinery they replace.

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <vector>

#include "msg/codec.h"
#include "support.h"

TEST(CodecCore, CodeParserMatchesStreamExtraction) {
  std::vector<std::string> texts;
  for (int a = 0; a < 256; ++a)
    for (int b = -1; b < 256; ++b)
      texts.push_back(std::string(1, static_cast<char>(a)) +
                      (b < 0 ? "" : std::string(1, static_cast<char>(b))));
  std::vector<std::string> numbers{"", "0", "000", "7", "0x10", "1e5", "1.5", "1,000", "N"};
  for (const char* stem : {"214748364", "429496729", "922337203685477580", "1844674407370955161",
                           "00000000000214748364", "99999999999999999999999"})
    for (char d = '0'; d <= '9'; ++d) numbers.push_back(stem + std::string(1, d));
  const std::string tails[] = {"", " 5", "x", std::string(1, '\0') + "5", "\xff"};
  for (const char* lead : {"", " ", "\t\n", "\v\f\r "})
    for (const char* sign : {"", "+", "-", "+-", "--", "- "})
      for (const std::string& number : numbers)
        for (const std::string& tail : tails)
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

// Result (or exception), bytes consumed and every field left behind, as one
// text. Each decode starts from the same non-default record.
template <class Record, class Decode>
std::string outcome(Record record, Decode decode) {
  std::size_t consumed = 0;
  std::string result;
  try {
    result = decode(record, consumed) ? "true " : "false ";
  } catch (const std::length_error&) {
    result = "threw ";
  }
  return result + std::to_string(consumed) + ' ' + describe(record);
}

template <class Record, class Span>
void expect_same_at_every_cut(const Record& start, const std::string& full, Span span,
                              const std::string& what) {
  for (std::size_t n = 0; n <= full.size(); ++n) {
    const std::string bytes = full.substr(0, n);
    const std::string via_stream = outcome(start, [&](Record& r, std::size_t& consumed) {
      std::stringstream in(bytes);
      const bool ok = r.decode(in);
      in.clear();
      consumed = static_cast<std::size_t>(in.tellg());
      return ok;
    });
    const std::string via_span = outcome(start, [&](Record& r, std::size_t& consumed) {
      return span(r, bytes.data(), bytes.size(), &consumed);
    });
    ASSERT_EQ(via_stream, via_span) << what << " cut at " << n;
  }
}

}  // namespace

TEST(CodecCore, ByteRangeDecodingMatchesStreamDecodingAtEveryCut) {
  for (std::size_t receiver_length : {4, 300}) {
    Message_RTS m = with_two_actions();
    m.head_word = 0x01020304;
    m.receiver_id.assign(receiver_length, 'r');
    m.text_param2 = std::string("a\0b", 3);
    const std::string full = m.str();
    // Structural corruptions: wrong markers, negative and oversized text
    // lengths, a negative and a short count. (Blind byte changes would turn
    // text bytes into gigabyte lengths, which are honoured.) INT32_MIN rather
    // than -1, so that a cut inside it leaves a small value.
    std::vector<std::size_t> lengths{4};  // the five text length words; the key follows the second
    for (const std::string* t : {&m.sender_id, &m.receiver_id, &m.text_param1, &m.text_param2})
      lengths.push_back(lengths.back() + 4 + t->size() + (t == &m.receiver_id ? 4 : 0));
    const std::size_t marker = lengths.back() + 8 + m.text_param3.size();
    std::vector<std::string> variants{full, full + "%trailing"};
    for (std::int32_t count : {INT32_MIN, 1}) variants.push_back(with_i32(full, marker + 1, count));
    for (std::size_t at : {marker, full.size() - 1})
      variants.push_back(std::string(full).replace(at, 1, "&"));
    for (std::size_t at : lengths) {
      variants.push_back(with_i32(full, at, INT32_MIN));
      variants.push_back(with_i32(full, at, 0x7fff));
    }
    for (std::size_t v = 0; v < variants.size(); ++v)
      expect_same_at_every_cut(Message_RTS(), variants[v], decode_message,
                               "variant " + std::to_string(v));
  }
  expect_same_at_every_cut(Action_RTS(5, QrInfo_RTS("old", 1, 1, SPACE_DEFAULT, 3), "old"),
                           with_two_actions().actions[0].str(), decode_action, "action");
}
