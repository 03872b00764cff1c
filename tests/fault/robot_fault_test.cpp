// The Robot against a scripted control server on 127.0.0.1:6868 that closes
// the connection in the middle of a frame.

#include <fcntl.h>

#include "tests/support/robot_session.h"

using RobotFault = RobotSession;

TEST_F(RobotFault, PeerClosingMidFrameDisconnectsForGoodAndKeepsTheQueue) {
  BringOnline();
  const int fd = m_socket.m_sock;
  // A last whole report and half of the next one are unread when the peer
  // goes: the report still takes effect in the step that sees the loss.
  const std::string report = In("R-0", KEY_DETAIL, "20 1 2 -1", "R-0");
  server.Send(report + report.substr(0, 20));
  loopback::wait_readable(fd);
  ASSERT_TRUE(robot->SetVelocity(500));
  server.Close();
  testing::internal::CaptureStdout();
  robot->Handle();
  EXPECT_FALSE(robot->connected);
  EXPECT_EQ(robot->voltage, 20.0f);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(m_socket.m_sock, fd);  // the closed number stays
  EXPECT_TRUE(m_socket.m_buffer.empty());
  EXPECT_TRUE(robot->online);  // only a kill acknowledgement or Kill() clears it
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM}));

  // Later steps read nothing and print nothing, but still apply what is in
  // the inbox and still try to send, keeping the unsent messages in order.
  EXPECT_FALSE(robot->SetVelocity(600));
  m_msg.inbox["SV-0"].emplace_back();
  m_msg.inbox["SV-0"].back().key = KEY_INIT;
  robot->Kill();
  EXPECT_FALSE(robot->online);
  robot->Handle();
  robot->Handle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket dis connect\n");
  EXPECT_TRUE(robot->online);  // the queued acknowledgement was applied
  EXPECT_TRUE(m_msg.inbox["SV-0"].empty());
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM, KEY_KILL}));
}
