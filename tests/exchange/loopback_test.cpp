// Two ends of one loopback connection, built only from the exported pieces,
// exchange a few thousand messages both ways: every one must be filed intact
// and in order.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <vector>

#include "msg/msg.h"
#include "net/loopback.h"

namespace {

constexpr int kCount = 2000;

// Text of assorted sizes full of '#', ';' and NUL bytes; every 150th message
// is larger than one receive can deliver.
Message_RTS numbered(int seq, const std::string& sender) {
  Message_RTS m;
  m.sender_id = sender;
  m.receiver_id = "X";
  m.key = seq % 5 == 0 ? KEY_CONNECT : KEY_DETAIL;
  m.int_param = seq;
  const std::size_t size = seq % 150 == 7 ? 110000 + seq : (seq * 37) % 1500;
  for (std::size_t i = 0; i < size; ++i) m.text_param1.push_back("#;\0ab"[(i + seq) % 5]);
  m.text_param3 = std::string("#;\0", 3) + std::to_string(seq);
  return m;
}

// Bytes the kernel still holds for sending (unsent or unacknowledged).
int pending(int fd) {
  int n = 0;
  ioctl(fd, SIOCOUTQ, &n);
  return n;
}

struct End {
  Socket sock;
  MailBox box;
  std::vector<Message_RTS> out;
  std::size_t sent = 0;
  std::string sender;
};

}  // namespace

TEST(Exchange, ThousandsOfFramesBothWaysOverLoopback) {
  const int port = loopback_port();
  Socket listener;
  End a, b;
  testing::internal::CaptureStdout();
  listener.Server_init("127.0.0.1", port);
  a.sock.Client_init("127.0.0.1", port);
  const int fd = accept_wait(listener);
  testing::internal::GetCapturedStdout();
  ASSERT_NE(fd, -1);
  b.sock.Get(fd);

  // Send never loops over a partial write, so a frame is written only into an
  // empty send queue made large enough for the biggest one.
  a.sender = "R-0";
  b.sender = "SV-0";
  for (End* e : {&a, &b}) {
    const int size = 1 << 20;
    setsockopt(e->sock.m_sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    for (int i = 0; i < kCount; ++i) e->out.push_back(numbered(i, e->sender));
  }

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(45);
  while (a.box.inbox[b.sender].size() < kCount || b.box.inbox[a.sender].size() < kCount) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    for (End* e : {&a, &b}) {
      if (e->sent < kCount && pending(e->sock.m_sock) == 0) {
        ASSERT_TRUE(send_msg(e->sock, e->out[e->sent++]));
      }
    }
    for (End* e : {&a, &b}) {
      int result;
      while ((result = recv_msg(e->sock, e->box)) != 0) ASSERT_NE(result, -2);
      // Acknowledge at once instead of waiting for data to carry it.
      const int one = 1;
      setsockopt(e->sock.m_sock, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof(one));
    }
  }

  for (End* to : {&a, &b}) {
    const End& from = to == &a ? b : a;
    const auto& got = to->box.inbox[from.sender];
    ASSERT_EQ(got.size(), static_cast<std::size_t>(kCount));
    for (int i = 0; i < kCount; ++i) {
      const Message_RTS& want = from.out[i];
      ASSERT_EQ(got[i].int_param, i);
      ASSERT_EQ(got[i].key, want.key);
      ASSERT_EQ(got[i].receiver_id, "X");
      ASSERT_EQ(got[i].text_param1, want.text_param1);
      ASSERT_EQ(got[i].text_param3, want.text_param3);
    }
    EXPECT_EQ(to->box.inbox.size(), 1u);
    EXPECT_EQ(to->sock.m_buffer, "");
  }
}
