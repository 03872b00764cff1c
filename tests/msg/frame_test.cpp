// The frame writer on the path that really sends, and frame cutting as a pure
// function of the reassembly buffer. The socket glue of recv_msg is driven
// from a scripted peer in the fault tests.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

#include "msg/frame.h"
#include "net/Socket.h"
#include "tests/support/alloc_budget.h"
#include "tests/support/wire.h"

using wire::hex;

namespace {

std::string body(const std::string& sender, RTS_key key, int tag = 0) {
  return wire::body(sender, "T-0", key, "N", "N", "N", tag);
}

std::string frame(const std::string& sender, RTS_key key, int tag = 0) {
  return wire::frame(body(sender, key, tag));
}

}  // namespace

TEST(Frame, SendMsgWritesOneFrameInOneSend) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  Socket socket;
  socket.Get(fds[0]);
  Message_RTS m;
  m.text_param1 = "Speed";
  const std::string body = m.str();
  ASSERT_TRUE(send_msg(socket, m));
  std::string got(200, '\0');
  got.resize(static_cast<std::size_t>(read(fds[1], &got[0], got.size())));
  EXPECT_EQ(got, hex("23 0b000000 2f000000") + body + ";");
  EXPECT_EQ(got, make_frame(body));
  EXPECT_EQ(make_frame(""), hex("23 0b000000 00000000 3b"));
  // A length beyond 16 bits.
  EXPECT_EQ(make_frame(std::string(70000, '#')).substr(0, 9), hex("23 0b000000 70110100"));
  close(fds[1]);
}

TEST(Frame, NoiseAndDamagedFramesAreCut) {
  MailBox box;
  // Bytes in front of a marker go; without a marker they stay.
  std::string buf = "xyz" + frame("SV-0", KEY_DETAIL, 7) + "#";
  EXPECT_EQ(file_frame(buf, box, 42), 42);
  EXPECT_EQ(buf, "#");
  ASSERT_EQ(box.inbox["SV-0"].size(), 1u);
  EXPECT_EQ(box.inbox["SV-0"][0].int_param, 7);
  box.inbox.clear();
  buf = "no marker;";
  EXPECT_EQ(file_frame(buf, box, 10), 0);
  EXPECT_EQ(buf, "no marker;");

  // Oversized with only part of the length word buffered (the rest reads as
  // zero): cut through the first ';', here inside the type word.
  buf = hex("23 3b000000 f0ffff");
  EXPECT_EQ(file_frame(buf, box, 8), 0);
  EXPECT_EQ(buf, hex("000000 f0ffff"));
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
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\t socket  alinement protection \n\t socket  alinement protection \n");
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

  // A text length of 2^31 - 1 in an 8-byte body: refused without allocating
  // it, and stuck like any body that does not decode.
  buf = hex("23 0b000000 08000000 00000000 ffffff7f 3b");
  // Anything above 1 MiB is refused, so a guard that fails costs a throw,
  // not gigabytes.
  alloc_budget::budget = alloc_budget::Budget{true, 0, 0, 0, 1u << 20};
  for (int call = 0; call < 2; ++call) EXPECT_EQ(file_frame(buf, box, 1), 0);
  alloc_budget::budget.armed = false;
  EXPECT_LT(alloc_budget::budget.largest, 4096u);
  EXPECT_EQ(buf, hex("23 0b000000 08000000 00000000 ffffff7f 3b"));
  EXPECT_TRUE(box.inbox.empty());
  buf = wire::frame(hex("00000000 ffffffff"));  // a negative length still throws
  EXPECT_THROW(file_frame(buf, box, 1), std::length_error);
}
