// The receive path against a scripted loopback peer: every delivery pattern
// files the same messages, and damaged or hostile streams end in the designed
// outcome with the reassembly buffer bounded by what arrived.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "msg/msg.h"
#include "net/Socket.h"
#include "peer.h"

using fault::Body;
using fault::Frame;
using fault::Header;
using fault::Peer;

namespace {

// A client Socket connected to a Peer on an ephemeral loopback port.
struct Link {
  Peer peer;
  Socket client;
  Link() {
    client.Client_init("127.0.0.1", peer.port());
    peer.Accept();
  }
};

// Inbox contents as sender -> encoded messages, in filing order.
std::map<std::string, std::vector<std::string>> Filed(MailBox& box) {
  std::map<std::string, std::vector<std::string>> out;
  for (auto& entry : box.inbox) {
    for (auto& m : entry.second) out[entry.first].push_back(m.str());
  }
  return out;
}

// Sends each chunk, waits until it is readable, then calls recv_msg until a
// call files nothing. Returns every non-zero result, in order.
std::vector<int> Deliver(Link& link, MailBox& box, const std::vector<std::string>& chunks) {
  std::vector<int> results;
  for (const std::string& chunk : chunks) {
    link.peer.Send(chunk);
    fault::WaitReadable(link.client.m_sock);
    for (int r; (r = recv_msg(link.client, box)) != 0;) results.push_back(r);
  }
  return results;
}

struct Case {
  std::string body;
  int code;  // what recv_msg returns when it files this one from a 1-byte read
};

const std::vector<Case>& Cases() {
  static const std::vector<Case> cases = {
      {Body("N", 0, "N", "N", 0, "N"), 1},              // the 43-byte default message
      {Body("T-0", 20, "Speed", "N", 800, "SV-0"), 1},  // the 52-byte parameter message
      {Body("R-0", 14, "24.5 1.25 -3.5 -1 0.75 800 400", "R-0"), 1},
      {Body("SV-0", 5, std::string("#;\0%#", 5), "", -7), 1},  // markers and NUL inside
      {Body("R-0", 1), -10},                                   // connection notices
      {Body("T-0", 1, "N", "N", 0, "SV-0"), -11},
      {Body("SV-0", 1), 1},
      {Body("R-0", 12, "path", "N", -1), 1},
  };
  return cases;
}

}  // namespace

TEST(StreamFault, EveryMessageFiledIdenticallyWholeByteByByteAndSplitAtEveryOffset) {
  std::string stream;
  MailBox expected;
  for (const Case& c : Cases()) {
    stream += Frame(c.body);
    Message_RTS m;
    ASSERT_TRUE(m.decode(c.body));
    expected.inbox[m.sender_id].push_back(m);
  }
  const auto want = Filed(expected);
  Link link;
  ASSERT_TRUE(link.client.m_sock != -1);

  {  // whole: the first call reports the byte count, the rest come from the buffer
    MailBox box;
    const std::vector<int> got = Deliver(link, box, {stream});
    const std::vector<int> codes = {static_cast<int>(stream.size()), -1, -1, -1, -10, -11, -1, -1};
    EXPECT_EQ(got, codes);
    EXPECT_EQ(Filed(box), want);
    EXPECT_TRUE(link.client.m_buffer.empty());
  }
  {  // byte by byte: nothing until a frame's last byte, which files it
    MailBox box;
    std::vector<std::string> bytes;
    for (char c : stream) bytes.emplace_back(1, c);
    std::vector<int> codes;
    for (const Case& c : Cases()) codes.push_back(c.code);
    EXPECT_EQ(Deliver(link, box, bytes), codes);
    EXPECT_EQ(Filed(box), want);
    EXPECT_TRUE(link.client.m_buffer.empty());
  }
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    MailBox box;
    const std::vector<int> got = Deliver(link, box, {stream.substr(0, cut), stream.substr(cut)});
    ASSERT_EQ(got.size(), Cases().size()) << "cut at " << cut;
    ASSERT_EQ(Filed(box), want) << "cut at " << cut;
    ASSERT_TRUE(link.client.m_buffer.empty()) << "cut at " << cut;
  }
}

TEST(StreamFault, PeerClosingOrResettingMidFrameFilesNothingAndKeepsTheBytes) {
  const std::string frame = Frame(Body("R-0", 14, "1 2 3 -1 0 0 0"));
  const std::string half = frame.substr(0, frame.size() / 2);
  {
    Link link;
    MailBox box;
    EXPECT_TRUE(Deliver(link, box, {half}).empty());
    link.peer.Close();
    ASSERT_TRUE(fault::WaitReadable(link.client.m_sock));
    EXPECT_EQ(recv_msg(link.client, box), -2);
    EXPECT_EQ(recv_msg(link.client, box), -2);
    EXPECT_EQ(link.client.m_buffer, half);
    EXPECT_TRUE(box.inbox.empty());
  }
  {
    Link link;
    MailBox box;
    EXPECT_TRUE(Deliver(link, box, {half}).empty());
    link.peer.Reset();
    ASSERT_TRUE(fault::WaitReadable(link.client.m_sock));
    // The reset surfaces as a failed receive (filing nothing), then as an
    // ended connection.
    std::vector<int> results;
    for (int i = 0; i < 3 && (results.empty() || results.back() != -2); ++i) {
      results.push_back(recv_msg(link.client, box));
    }
    ASSERT_EQ(results.back(), -2);
    for (std::size_t i = 0; i + 1 < results.size(); ++i) EXPECT_EQ(results[i], 0);
    EXPECT_EQ(link.client.m_buffer, half);
    EXPECT_TRUE(box.inbox.empty());
    Message_RTS m;
    EXPECT_FALSE(send_msg(link.client, m));  // and writing fails without a signal
  }
}

TEST(StreamFault, FramesUpToTheLimitAreFiledAndLongerOnesDroppedWithBoundedBuffer) {
  // A text sized so that the body is 999990 bytes: a frame of exactly 1000000.
  const std::size_t text = 999990 - Body("SV-0", 14, "").size();
  const std::string largest = Body("SV-0", 14, std::string(text, 'a'));
  ASSERT_EQ(largest.size(), 999990u);
  std::string oversized(999991, 'x');  // no ';' inside: dropped through its terminator
  const std::string small = Body("SV-0", 3);
  const std::string stream = Frame(largest) + Frame(oversized) + Frame(small);

  Link link;
  MailBox box;
  std::atomic<std::size_t> sent{0};
  std::thread writer([&] {
    for (std::size_t at = 0; at < stream.size(); at += 65536) {
      const std::string chunk = stream.substr(at, 65536);
      sent += chunk.size();
      link.peer.Send(chunk);
    }
  });
  std::vector<int> results;
  std::size_t peak = 0;
  for (int i = 0; i < 100000 && box.inbox["SV-0"].size() < 2; ++i) {
    fault::WaitReadable(link.client.m_sock, 200);
    const int r = recv_msg(link.client, box);
    if (r != 0) results.push_back(r);
    peak = std::max(peak, link.client.m_buffer.size());
    ASSERT_LE(link.client.m_buffer.size(), sent.load());
  }
  writer.join();
  ASSERT_EQ(results.size(), 2u);
  const auto& filed = box.inbox["SV-0"];
  ASSERT_EQ(filed.size(), 2u);
  EXPECT_EQ(filed[0].text_param1, std::string(text, 'a'));
  EXPECT_EQ(filed[1].key, KEY_KILL);
  EXPECT_TRUE(link.client.m_buffer.empty());
  // Never more than one whole frame plus one receive's worth behind it.
  EXPECT_LE(peak, 1000001u + 102400u);
}

TEST(StreamFault, GarbageBetweenFramesIsDroppedAndHostileLengthWordsEndAsDesigned) {
  const std::string f1 = Frame(Body("R-0", 14, "1 2 3 -1 0 0 0"));
  const std::string f2 = Frame(Body("SV-0", 2));
  const std::string f3 = Frame(Body("T-0", 20, "Speed", "N", 800, "SV-0"));
  // No '#' in the first two runs of garbage: dropped silently. "#zz;" looks
  // like a frame start, fails its terminator check and is dropped through its
  // own ';' with the resynchronisation notice.
  const std::string stream = "xyz" + f1 + std::string("\0\0;;", 4) + f2 + "#zz;" + f3;
  {
    Link link;
    MailBox box;
    testing::internal::CaptureStdout();
    const std::vector<int> got = Deliver(link, box, {stream});
    // The resynchronising call files nothing; the next one files what follows.
    const int after = recv_msg(link.client, box);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\t socket  alinement protection \n");
    EXPECT_EQ(got, (std::vector<int>{static_cast<int>(stream.size()), -1}));
    EXPECT_EQ(after, -1);
    EXPECT_EQ(box.inbox["R-0"].size(), 1u);
    EXPECT_EQ(box.inbox["SV-0"].size(), 1u);
    EXPECT_EQ(box.inbox["T-0"].size(), 1u);
    EXPECT_TRUE(link.client.m_buffer.empty());
  }
  {
    // Length -11: 32-bit wrap-around makes it oversized; dropped through the
    // first ';' and the frame behind it is filed.
    Link link;
    MailBox box;
    EXPECT_TRUE(Deliver(link, box, {Header(-11) + ";" + f2}).empty());
    EXPECT_EQ(link.client.m_buffer, f2);
    EXPECT_EQ(recv_msg(link.client, box), -1);
    EXPECT_EQ(box.inbox["SV-0"].size(), 1u);
    EXPECT_TRUE(link.client.m_buffer.empty());
  }
  {
    // Length -10 points the terminator check at index -1: std::out_of_range
    // reaches the caller, with nothing filed and the bytes left in place.
    Link link;
    MailBox box;
    link.peer.Send(Header(-10) + f2);
    ASSERT_TRUE(fault::WaitReadable(link.client.m_sock));
    EXPECT_THROW(recv_msg(link.client, box), std::out_of_range);
    EXPECT_TRUE(box.inbox.empty());
    EXPECT_EQ(link.client.m_buffer, Header(-10) + f2);
  }
}
