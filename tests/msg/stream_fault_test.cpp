// The receive path against a scripted loopback peer: every way of splitting
// the stream files the same messages with the same result codes, a peer that
// closes mid-frame is reported without losing the buffered bytes, and the
// size limit lets the largest frame through.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "msg/msg.h"
#include "net/Socket.h"
#include "tests/support/peer.h"
#include "tests/support/wire.h"

namespace {

// A Socket on one end of a stream socket pair; the test writes the other.
struct Link {
  Socket client;
  int peer = -1;
  Link() {
    int ends[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    client.Get(ends[0]);
    peer = ends[1];
  }
  ~Link() { close(peer); }
};

// Inbox contents as sender -> encoded messages, in filing order.
std::map<std::string, std::vector<std::string>> Filed(MailBox& box) {
  std::map<std::string, std::vector<std::string>> out;
  for (auto& entry : box.inbox)
    for (auto& m : entry.second) out[entry.first].push_back(m.str());
  return out;
}

// Sends each chunk, waits until it is readable, then calls recv_msg until a
// call files nothing. Returns every non-zero result, in order.
std::vector<int> Deliver(Link& link, MailBox& box, const std::vector<std::string>& chunks) {
  std::vector<int> results;
  for (const std::string& chunk : chunks) {
    EXPECT_EQ(write(link.peer, chunk.data(), chunk.size()), static_cast<ssize_t>(chunk.size()));
    loopback::wait_readable(link.client.m_sock);
    for (int r; (r = recv_msg(link.client, box)) != 0;) results.push_back(r);
  }
  return results;
}

}  // namespace

TEST(StreamFault, EveryMessageFiledIdenticallyWholeAndSplitAtEveryOffset) {
  const std::vector<std::string> bodies = {
      wire::body("N", "N", 0),
      wire::body("SV-0", "T-0", 5, std::string("#;\0%#", 5), "", "N", -7),
      wire::body("R-0", "T-0", KEY_CONNECT),  // connection notices: -10 and -11
      wire::body("T-0", "SV-0", KEY_CONNECT),
      wire::body("SV-0", "T-0", KEY_CONNECT),  // not a notice
      wire::body("R-0", "T-0", KEY_DETAIL, "24.5 1.25 -3.5 -1 0.75 800 400", "R-0"),
  };
  std::string stream;
  std::map<std::string, std::vector<std::string>> want;
  for (const std::string& b : bodies) {
    stream += wire::frame(b);
    want[b.substr(8, static_cast<unsigned char>(b[4]))].push_back(b);  // the sender text
  }
  // Whole, the first call reports the bytes received and the rest come from
  // the buffer, one per call; split anywhere, the same messages are filed.
  Link link;
  for (std::size_t cut = 0; cut < stream.size(); ++cut) {
    MailBox box;
    const std::vector<int> got = Deliver(link, box, {stream.substr(0, cut), stream.substr(cut)});
    const std::vector<int> whole{int(stream.size()), -1, -10, -11, -1, -1};
    EXPECT_TRUE(cut > 0 || got == whole);
    ASSERT_EQ(got.size(), bodies.size()) << "cut at " << cut;
    ASSERT_EQ(Filed(box), want) << "cut at " << cut;
    ASSERT_TRUE(link.client.m_buffer.empty()) << "cut at " << cut;
  }

  // A peer that closes mid-frame: -2 at once and on every later call, the
  // partial frame kept, nothing filed.
  MailBox box;
  EXPECT_TRUE(Deliver(link, box, {stream.substr(0, 30)}).empty());
  shutdown(link.peer, SHUT_WR);
  ASSERT_TRUE(loopback::wait_readable(link.client.m_sock));
  EXPECT_EQ(std::vector<int>({recv_msg(link.client, box), recv_msg(link.client, box)}),
            std::vector<int>({-2, -2}));
  EXPECT_TRUE(link.client.m_buffer == stream.substr(0, 30) && box.inbox.empty());
}

TEST(StreamFault, FramesUpToTheLimitAreFiledAndLongerOnesDropped) {
  // A body of 999990 bytes makes a frame of exactly 1000000; one byte more
  // (and no ';' inside) is dropped through its own terminator.
  const std::size_t text = 999990 - wire::body("SV-0", "T-0", KEY_DETAIL, "").size();
  Link link;
  MailBox box;
  link.client.m_buffer =
      wire::frame(wire::body("SV-0", "T-0", KEY_DETAIL, std::string(text, 'a'))) +
      wire::frame(std::string(999991, 'x')) + wire::frame(wire::body("SV-0", "T-0", KEY_KILL));
  // Braced lists evaluate in order: three calls, one frame each.
  EXPECT_EQ(std::vector<int>({recv_msg(link.client, box), recv_msg(link.client, box),
                              recv_msg(link.client, box)}),
            std::vector<int>({-1, 0, -1}));
  const auto& filed = box.inbox["SV-0"];
  EXPECT_TRUE(link.client.m_buffer.empty() && filed.size() == 2 &&
              filed[0].text_param1 == std::string(text, 'a') && filed[1].key == KEY_KILL);
}
