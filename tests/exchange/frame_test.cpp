// Frame building and cutting as pure functions of the reassembly buffer. The
// socket glue around them (recv_msg) is driven from a scripted peer in the
// fault tests.

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "msg/frame.h"
#include "msg/msg.h"
#include "tests/support/wire.h"

using wire::hex;

namespace {

std::string body(const std::string& sender, RTS_key key, int tag = 0) {
  return wire::body(sender, "T-0", key, "N", "N", "N", tag);
}

std::string frame(const std::string& sender, RTS_key key, int tag = 0) {
  return wire::frame(body(sender, key, tag));
}

// Bytes that a body may hold and that must not confuse the cutter.
std::string filler(std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) out.push_back("#;\0"[i % 3]);
  return out;
}

const char kNotice[] = "\t socket  alinement protection \n";

}  // namespace

TEST(Frame, LayoutOnTheWire) {
  EXPECT_EQ(make_frame(""), hex("23 0b000000 00000000 3b"));
  EXPECT_EQ(make_frame("abc"), hex("23 0b000000 03000000 616263 3b"));
  const std::string big = make_frame(std::string(70000, '#'));  // length beyond 16 bits
  EXPECT_EQ(big.substr(0, 9), hex("23 0b000000 70110100"));
  EXPECT_EQ(big.size(), 70010u);
  EXPECT_EQ(big.back(), ';');
}

TEST(Frame, ReassemblyAndFiling) {
  MailBox box;
  const std::string f = wire::frame(body("SV-0", KEY_DETAIL, 7) + filler(300));
  // Split inside the length word: the missing high byte reads as zero.
  std::string buf = "xyz" + f.substr(0, 6);
  EXPECT_EQ(file_frame(buf, box, 9), 0);
  EXPECT_EQ(buf, f.substr(0, 6));  // stray bytes dropped, frame kept
  buf += f.substr(6, 100);
  EXPECT_EQ(file_frame(buf, box, 100), 0);
  buf += f.substr(106) + "#";
  EXPECT_EQ(file_frame(buf, box, 42), 42);
  EXPECT_EQ(buf, "#");
  ASSERT_EQ(box.inbox["SV-0"].size(), 1u);
  EXPECT_EQ(box.inbox["SV-0"][0].int_param, 7);

  buf = "no marker;";
  EXPECT_EQ(file_frame(buf, box, 10), 0);
  EXPECT_EQ(buf, "no marker;");
}

TEST(Frame, DamagedFramesAreCutAtTheFirstEnder) {
  MailBox box;
  // Oversized, even with only part of the length word buffered.
  std::string buf = hex("23 0b000000 f0ffff");
  EXPECT_EQ(file_frame(buf, box, 8), 0);
  EXPECT_EQ(buf.size(), 8u);
  buf += "ab;cd";
  EXPECT_EQ(file_frame(buf, box, 5), 0);
  EXPECT_EQ(buf, "cd");
  // Below -10 wraps around and is oversized too.
  buf = wire::header(-11) + "z;" + frame("SV-0", KEY_DETAIL);
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, frame("SV-0", KEY_DETAIL));

  // Misaligned terminator: the notice only when a ';' was found.
  testing::internal::CaptureStdout();
  buf = wire::header(5) + "abcdeX";
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, wire::header(5) + "abcdeX");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  testing::internal::CaptureStdout();
  buf += "g;rest";
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, "rest");
  // A length word of 59 starts with 0x3B: only the header's first six bytes go.
  buf = wire::header(59) + std::string(60, 'q');
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, hex("000000") + std::string(60, 'q'));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(kNotice) + kNotice);
  EXPECT_TRUE(box.inbox.empty());

  // -10 points before the frame: a bounds-checked access throws, with the
  // bytes from the frame start left in place.
  buf = "zz" + wire::header(-10);
  EXPECT_THROW(file_frame(buf, box, 1), std::out_of_range);
  EXPECT_EQ(buf, wire::header(-10));
}

TEST(Frame, WrongTypeAndUndecodableBodiesStayStuck) {
  MailBox box;
  std::string buf = wire::frame(body("SV-0", KEY_DETAIL), 12) + frame("SV-0", KEY_DETAIL);
  const std::string before = buf;
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(file_frame(buf, box, -1), 0);
  EXPECT_EQ(buf, before);

  // A closing marker other than '%'; then none at all, so that the decoder
  // reads on into the terminator, which is no '%' either.
  std::string b = body("SV-0", KEY_DETAIL);
  b.back() = 'X';
  for (const std::string& damaged : {b, b.substr(0, b.size() - 1)}) {
    buf = make_frame(damaged);
    EXPECT_EQ(file_frame(buf, box, 1), 0);
    EXPECT_EQ(buf, make_frame(damaged));
  }
  EXPECT_TRUE(box.inbox.empty());
}
