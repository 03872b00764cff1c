// The Robot against a scripted control server on 127.0.0.1:6868 that floods
// status reports in chunks that split frames, or closes or resets mid-frame.

#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/robot_session.h"

using RobotFault = RobotSession;

TEST_F(RobotFault, FloodOfStatusReportsIsAppliedInOrderWithMemoryBoundedByWhatWasSent) {
  constexpr int kReports = 3000;
  std::string stream;
  std::vector<std::size_t> before{0};  // bytes of the reports ahead of report i
  for (int i = 1; i <= kReports; ++i) {
    stream += In("R-0", KEY_DETAIL, "12.5 " + std::to_string(i) + " -1.5 0 0.5 800 400", "R-0");
    before.push_back(stream.size());
  }
  std::atomic<std::size_t> sent{0};
  std::thread writer([&] {
    for (std::size_t at = 0; at < stream.size(); at += 8192) {
      const std::string chunk = stream.substr(at, 8192);
      sent += chunk.size();
      server.Send(chunk);
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  float last = 0;
  int steps = 0;
  while (robot->x < kReports && std::chrono::steady_clock::now() < deadline) {
    robot->Handle();
    ++steps;
    for (const auto& entry : m_msg.inbox)
      ASSERT_LE(entry.second.size(), 1u) << "handled reports must not pile up";
    ASSERT_GE(robot->x, last) << "reports applied out of order";
    // A step that applied nothing waits for more bytes instead of spinning.
    if (robot->x == last) loopback::wait_readable(m_socket.m_sock, 50);
    last = robot->x;
    ASSERT_LE(m_socket.m_buffer.size() + before[static_cast<std::size_t>(last)], sent.load());
  }
  writer.join();
  EXPECT_EQ(robot->x, kReports);
  EXPECT_EQ(robot->state, 0);
  EXPECT_TRUE(m_socket.m_buffer.empty());
  EXPECT_TRUE(robot->connected);
  EXPECT_LE(steps, 2 * kReports);
}

class PeerLoss : public RobotSession, public testing::WithParamInterface<bool> {};

TEST_P(PeerLoss, MidFrameDisconnectsForGoodAndKeepsTheQueue) {
  const bool reset = GetParam();
  BringOnline();
  const int fd = m_socket.m_sock;
  // A last whole report and half of the next one are unread when the peer
  // goes: the report still takes effect in the step that sees the loss.
  const std::string report = In("R-0", KEY_DETAIL, "20 1 2 -1", "R-0");
  server.Send(report + report.substr(0, 20));
  loopback::wait_readable(fd);
  ASSERT_TRUE(robot->SetVelocity(500));
  reset ? server.Reset() : server.Close();
  testing::internal::CaptureStdout();
  int steps = 0;
  while (steps < 5 && robot->connected) ++steps, robot->Handle();
  EXPECT_FALSE(robot->connected);
  EXPECT_TRUE(reset || steps == 1) << steps;  // a reset may first surface as a failed read
  EXPECT_EQ(robot->voltage, 20.0f);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(m_socket.m_sock, fd);  // the closed number stays
  EXPECT_TRUE(m_socket.m_buffer.empty());
  EXPECT_TRUE(robot->online);  // only a kill acknowledgement clears it
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM}));

  // Later steps read nothing and print nothing, but still apply what is in
  // the inbox and still try to send, keeping the unsent messages in order.
  EXPECT_FALSE(robot->SetVelocity(600));
  robot->Kill();
  m_msg.inbox["SV-0"].emplace_back();
  m_msg.inbox["SV-0"].back().key = KEY_KILL;  // the acknowledgement
  robot->Handle();
  robot->Handle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket dis connect\n");
  EXPECT_FALSE(robot->online);
  EXPECT_TRUE(m_msg.inbox["SV-0"].empty());
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM, KEY_KILL}));
}

INSTANTIATE_TEST_SUITE_P(CloseOrReset, PeerLoss, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& p) {
                           return p.param ? "Reset" : "Close";
                         });
