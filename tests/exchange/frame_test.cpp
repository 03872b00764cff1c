// Frame cutting as a pure function of the reassembly buffer, plus the socket
// glue of send_msg and recv_msg on a socketpair.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "msg/frame.h"
#include "msg/msg.h"
#include "net/Socket.h"

namespace {

// Bytes from hexadecimal digits; blanks are for reading only.
std::string hex(const std::string& digits) {
  std::string out, pair;
  for (char c : digits) {
    if (c == ' ') continue;
    pair += c;
    if (pair.size() == 2) {
      out.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
      pair.clear();
    }
  }
  return out;
}

std::string body(const std::string& sender, RTS_key key, int tag = 0) {
  Message_RTS m;
  m.sender_id = sender;
  m.key = key;
  m.int_param = tag;
  return m.str();
}

std::string frame(const std::string& sender, RTS_key key, int tag = 0) {
  return make_frame(body(sender, key, tag));
}

// '#', type 11 and the given length word (8 hex digits), nothing else.
std::string head(const std::string& length) {
  return hex("23 0b000000" + length);
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

  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  Socket a, b;
  a.Get(sv[0]);
  b.Get(sv[1]);
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_SET_PARAM;
  m.int_param = 800;
  m.text_param1 = "Speed";
  ASSERT_TRUE(send_msg(a, m));
  std::string wire;
  ASSERT_EQ(b.Recv(wire), 62);
  EXPECT_EQ(wire, hex("23 0b000000 34000000 00000000 03000000 542d30 04000000 53562d30 14000000"
                      "05000000 5370656564 01000000 4e 01000000 4e 20030000 25 00000000 25 3b"));
}

TEST(Frame, RecvResultSequences) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  Socket reader;
  reader.Get(sv[1]);
  MailBox box;
  EXPECT_EQ(recv_msg(reader, box), 0);  // nothing buffered, nothing to read

  const std::string two = frame("SV-0", KEY_DETAIL, 1) + frame("SV-0", KEY_DETAIL, 2);
  ASSERT_EQ(write(sv[0], two.data(), two.size()), static_cast<ssize_t>(two.size()));
  EXPECT_EQ(recv_msg(reader, box), static_cast<int>(two.size()));
  EXPECT_EQ(recv_msg(reader, box), -1);
  EXPECT_EQ(recv_msg(reader, box), 0);
  ASSERT_EQ(box.inbox["SV-0"].size(), 2u);
  EXPECT_EQ(box.inbox["SV-0"][0].int_param, 1);
  EXPECT_EQ(box.inbox["SV-0"][1].int_param, 2);

  // The peer's close is reported before anything buffered is looked at.
  reader.m_buffer = "#\x0b";
  close(sv[0]);
  EXPECT_EQ(recv_msg(reader, box), -2);
  EXPECT_EQ(reader.m_buffer, "#\x0b");
}

TEST(Frame, ReassemblyAndFiling) {
  MailBox box;
  const std::string f = make_frame(body("SV-0", KEY_DETAIL, 7) + filler(300));
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

  buf = frame("T-0", KEY_CONNECT) + frame("R-0", KEY_CONNECT) + frame("SV-0", KEY_CONNECT) +
        frame("R-0", KEY_DETAIL, 3);
  EXPECT_EQ(file_frame(buf, box, 5), -11);
  EXPECT_EQ(file_frame(buf, box, 5), -10);
  EXPECT_EQ(file_frame(buf, box, 5), 5);
  EXPECT_EQ(file_frame(buf, box, -1), -1);
  EXPECT_EQ(buf, "");
  EXPECT_EQ(box.inbox["T-0"].size(), 1u);
  ASSERT_EQ(box.inbox["R-0"].size(), 2u);
  EXPECT_EQ(box.inbox["R-0"][1].int_param, 3);
  EXPECT_EQ(box.inbox["SV-0"].size(), 2u);

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
  buf = head("f5ffffff") + "z;" + frame("SV-0", KEY_DETAIL);
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, frame("SV-0", KEY_DETAIL));

  // Misaligned terminator: the notice only when a ';' was found.
  testing::internal::CaptureStdout();
  buf = head("05000000") + "abcdeX";
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, head("05000000") + "abcdeX");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  testing::internal::CaptureStdout();
  buf += "g;rest";
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, "rest");
  // A length word of 59 starts with 0x3B: only the header's first six bytes go.
  buf = head("3b000000") + std::string(60, 'q');
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, hex("000000") + std::string(60, 'q'));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(kNotice) + kNotice);
  EXPECT_TRUE(box.inbox.empty());

  // -10 points before the frame: a bounds-checked access throws.
  buf = "zz" + head("f6ffffff");
  EXPECT_THROW(file_frame(buf, box, 1), std::out_of_range);
  EXPECT_EQ(buf, head("f6ffffff"));
}

TEST(Frame, WrongTypeAndUndecodableBodiesStayStuck) {
  MailBox box;
  std::string f = frame("SV-0", KEY_DETAIL);
  f[1] = 12;
  std::string buf = f + frame("SV-0", KEY_DETAIL);
  const std::string before = buf;
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(file_frame(buf, box, -1), 0);
  EXPECT_EQ(buf, before);

  // A closing marker other than '%'.
  std::string b = body("SV-0", KEY_DETAIL);
  b.back() = 'X';
  buf = make_frame(b);
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, make_frame(b));
  // A body without its closing marker: the decoder reads on into the
  // terminator behind it, which is no '%'.
  b.pop_back();
  buf = make_frame(b);
  EXPECT_EQ(file_frame(buf, box, 1), 0);
  EXPECT_EQ(buf, make_frame(b));
  EXPECT_TRUE(box.inbox.empty());
}
