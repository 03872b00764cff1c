// The Robot against a scripted control server on 127.0.0.1:6868: a server that
// floods status reports, writes one byte at a time, closes or resets mid-frame,
// or sends progress counts that would take a 32-bit countdown to work off.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "peer.h"
#include "robot/robot.h"

using fault::Body;
using fault::Frame;
using fault::Peer;

namespace {

const char kInitial[] =
    "N Free Offline\nPosition(X,Y,Z,Orientation):0 0 0 0\n"
    "Velocity:0mm/s Acceleration:0mm/s^2 Voltage:0V\n";

// A connected Robot whose announcement the server has already read.
struct Session {
  Peer peer{6868};
  std::unique_ptr<Robot> robot;
  Session() {
    robot = std::make_unique<Robot>();
    if (!peer.Accept()) return;
    robot->Handle();
    peer.Drain();
  }
  bool ready() const { return peer.listening() && robot->connected; }
  // Writes the bytes and runs one step once they can be read.
  void Feed(const std::string& bytes) {
    peer.Send(bytes);
    fault::WaitReadable(m_socket.m_sock);
    robot->Handle();
  }
};

std::size_t LargestInbox() {
  std::size_t n = 0;
  for (const auto& entry : m_msg.inbox) n = std::max(n, entry.second.size());
  return n;
}

std::deque<QrInfo_RTS> Path(int n) {
  std::deque<QrInfo_RTS> path;
  for (int i = 0; i < n; ++i) path.emplace_back(std::to_string(i), 0.5f, 1.0f, SPACE_DEFAULT, 1);
  return path;
}

}  // namespace

TEST(RobotFault, FloodOfStatusReportsIsAppliedInOrderWithMemoryBoundedByWhatWasSent) {
  Session s;
  ASSERT_TRUE(s.ready());
  constexpr int kReports = 3000;
  std::vector<std::string> frames;
  std::vector<std::size_t> before{0};  // bytes of the reports ahead of report i
  for (int i = 1; i <= kReports; ++i) {
    frames.push_back(
        Frame(Body("R-0", 14, "12.5 " + std::to_string(i) + " -1.5 0 0.5 800 400", "R-0")));
    before.push_back(before.back() + frames.back().size());
  }
  std::atomic<std::size_t> sent{0};
  std::thread server([&] {
    for (std::size_t i = 0; i < frames.size(); i += 50) {
      std::string batch;
      for (std::size_t j = i; j < i + 50 && j < frames.size(); ++j) batch += frames[j];
      sent += batch.size();
      s.peer.Send(batch);
    }
  });

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  float last = 0;
  int steps = 0;
  while (s.robot->x < kReports && std::chrono::steady_clock::now() < deadline) {
    s.robot->Handle();
    ++steps;
    ASSERT_LE(LargestInbox(), 1u) << "handled reports must not pile up";
    ASSERT_GE(s.robot->x, last) << "reports applied out of order";
    last = s.robot->x;
    const auto applied = static_cast<std::size_t>(s.robot->x);
    ASSERT_LE(m_socket.m_buffer.size() + before[applied], sent.load());
    if (m_socket.m_buffer.empty()) fault::WaitReadable(m_socket.m_sock, 50);
  }
  server.join();
  EXPECT_EQ(s.robot->x, kReports);
  EXPECT_EQ(s.robot->state, 0);
  EXPECT_TRUE(m_socket.m_buffer.empty());
  EXPECT_TRUE(s.robot->connected);
  EXPECT_LE(steps, 2 * kReports);
}

TEST(RobotFault, PeerWritingOneByteAtATimeIsAppliedExactlyWhenEachFrameCompletes) {
  Session s;
  ASSERT_TRUE(s.ready());
  const std::string ack = Frame(Body("SV-0", KEY_INIT));
  const std::string report =
      Frame(Body("R-0", KEY_DETAIL, "24.5 1.25 -3.5 -1 0.75 800 400", "R-0"));
  const std::string stream = ack + report;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    s.Feed(stream.substr(i, 1));
    ASSERT_EQ(s.robot->online, i + 1 >= ack.size()) << "after byte " << i;
    if (i + 1 < stream.size()) {
      ASSERT_EQ(s.robot->name, "N") << "after byte " << i;
    }
  }
  EXPECT_EQ(s.robot->DebugString(),
            "R-0 Free Online\nPosition(X,Y,Z,Orientation):1.25 -3.5 0 0.75\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:24.5V\n");
  EXPECT_TRUE(m_socket.m_buffer.empty());
}

TEST(RobotFault, PeerClosingMidFrameDisconnectsOnceAndKeepsTheQueue) {
  Session s;
  ASSERT_TRUE(s.ready());
  const std::string report = Frame(Body("R-0", KEY_DETAIL, "1 2 3 0 0 0 0", "R-0"));
  s.Feed(report.substr(0, 20));
  EXPECT_EQ(s.robot->DebugString(), kInitial);

  testing::internal::CaptureStdout();
  s.peer.Close();
  fault::WaitReadable(m_socket.m_sock);
  s.robot->Handle();
  EXPECT_FALSE(s.robot->connected);
  // The guard of the setters now fails silently; Init has none and queues.
  EXPECT_FALSE(s.robot->SetVelocity(800));
  s.robot->Init(1000, 2000, 0);
  s.robot->Handle();
  s.robot->Handle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket dis connect\n");
  EXPECT_EQ(s.robot->DebugString(), kInitial);
  ASSERT_EQ(m_msg.outbox["T-0"].size(), 2u);
  EXPECT_EQ(m_msg.outbox["T-0"][0].key, KEY_KILL);
  EXPECT_EQ(m_msg.outbox["T-0"][1].key, KEY_INIT);
}

TEST(RobotFault, PeerResettingTheConnectionDisconnectsWithinAFewSteps) {
  Session s;
  ASSERT_TRUE(s.ready());
  s.Feed(Frame(Body("R-0", KEY_DETAIL, "1 2 3 0 0 0 0", "R-0")).substr(0, 30));
  testing::internal::CaptureStdout();
  s.peer.Reset();
  fault::WaitReadable(m_socket.m_sock);
  for (int i = 0; i < 5 && s.robot->connected; ++i) s.robot->Handle();
  EXPECT_FALSE(s.robot->connected);
  s.robot->Handle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket dis connect\n");
  EXPECT_EQ(s.robot->DebugString(), kInitial);
}

TEST(RobotFault, HugeAndNegativeProgressCountsTrimOnlyTheOldestActionWithoutStalling) {
  Session s;
  ASSERT_TRUE(s.ready());
  Action_RTS first(1, Path(4));
  first.arc_path.resize(2);
  acts.emplace_back(true, first);
  acts.emplace_back(true, Action_RTS(1, Path(3)));

  auto progress = [&](const std::string& what, std::int32_t count) {
    const auto start = std::chrono::steady_clock::now();
    s.Feed(Frame(Body("R-0", KEY_ACTION, what, "N", count)));
    return std::chrono::steady_clock::now() - start;
  };
  // 2^31 steps as a countdown; a fraction of a second is generous for the
  // removals that can actually happen.
  EXPECT_LT(progress("path", INT_MIN), std::chrono::seconds(1));
  ASSERT_EQ(acts.size(), 2u);
  EXPECT_TRUE(acts[0].second.path.empty());
  EXPECT_TRUE(acts[0].second.arc_path.empty());
  EXPECT_EQ(acts[1].second.path.size(), 3u);
  EXPECT_LT(progress("path", -1), std::chrono::seconds(1));
  EXPECT_LT(progress("path", INT_MAX), std::chrono::seconds(1));
  EXPECT_EQ(acts.size(), 2u) << "\"path\" never removes the action itself";

  progress("action", 0);
  ASSERT_EQ(acts.size(), 1u);
  progress("path", 2);
  EXPECT_EQ(acts[0].second.path.size(), 1u);
  EXPECT_EQ(acts[0].second.path.front().qr_code, "2");

  // An entry whose progress flag is off keeps its way-points.
  acts.front().first = false;
  EXPECT_LT(progress("path", -1), std::chrono::seconds(1));
  EXPECT_EQ(acts[0].second.path.size(), 1u);
  EXPECT_LE(LargestInbox(), 1u);
}
