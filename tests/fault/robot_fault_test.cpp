// The Robot against a scripted control server on 127.0.0.1:6868 that floods
// status reports in chunks that split frames, closes or resets mid-frame, or
// sends progress counts a 32-bit countdown would take ages to work off.

#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>

#include "tests/support/robot_session.h"

using RobotFault = RobotSession;

namespace {

std::size_t LargestInbox() {
  std::size_t n = 0;
  for (const auto& entry : m_msg.inbox) n = std::max(n, entry.second.size());
  return n;
}

std::vector<std::int32_t> OutboxKeys() {
  std::vector<std::int32_t> keys;
  for (const auto& m : m_msg.outbox["T-0"]) keys.push_back(m.key);
  return keys;
}

std::deque<QrInfo_RTS> Path(int n) {
  std::deque<QrInfo_RTS> path;
  for (int i = 0; i < n; ++i) path.emplace_back(std::to_string(i), 0.5f, 1.0f, SPACE_DEFAULT, 1);
  return path;
}

}  // namespace

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
    ASSERT_LE(LargestInbox(), 1u) << "handled reports must not pile up";
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
  if (!reset) {
    EXPECT_EQ(steps, 1);
  }
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
  Message_RTS init;
  init.key = KEY_INIT;
  m_msg.inbox["SV-0"].push_back(init);
  robot->Handle();
  robot->Handle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket dis connect\n");
  EXPECT_TRUE(robot->online);
  EXPECT_TRUE(m_msg.inbox["SV-0"].empty());
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM, KEY_KILL}));
}

INSTANTIATE_TEST_SUITE_P(CloseOrReset, PeerLoss, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& p) {
                           return p.param ? "Reset" : "Close";
                         });

TEST_F(RobotFault, HugeAndNegativeProgressCountsTrimOnlyTheOldestActionWithoutStalling) {
  Action_RTS first(1, Path(4));
  first.arc_path.resize(2);
  acts.emplace_back(true, first);
  acts.emplace_back(true, Action_RTS(1, Path(3)));
  // As a countdown these are up to 2^32 steps; a second is generous for the
  // few removals that can actually happen.
  const auto prompt = [this](std::int32_t count) {
    const auto start = std::chrono::steady_clock::now();
    Feed(In("R-0", KEY_ACTION, "path", "N", count));
    return std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
  };
  for (std::int32_t count : {INT_MIN, -1, INT_MAX}) {
    EXPECT_TRUE(prompt(count)) << count;
    ASSERT_EQ(acts.size(), 2u) << "\"path\" never removes the action itself";
    EXPECT_TRUE(acts[0].second.path.empty());
    EXPECT_TRUE(acts[0].second.arc_path.empty());
    EXPECT_EQ(acts[1].second.path.size(), 3u);
  }
  // An entry whose progress flag is off keeps its way-points.
  acts.pop_front();
  acts.front().first = false;
  EXPECT_TRUE(prompt(-1));
  EXPECT_EQ(acts[0].second.path.size(), 3u);
  EXPECT_LE(LargestInbox(), 1u);
}
