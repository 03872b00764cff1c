// Robot against a fake control server on 127.0.0.1:6868. Each test case runs in
// its own process, so the module-wide socket, mailbox and action list start
// fresh every time.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <memory>

#include "robot/fake_server.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::vector<std::int32_t> Keys(const std::vector<Message_RTS>& queue) {
  std::vector<std::int32_t> keys;
  for (const auto& m : queue) keys.push_back(m.key);
  return keys;
}

// One way-point record of an action body: code, x, y, z, flag, space type.
std::string Point(std::int32_t code, float x, float y, float z) {
  return Bytes().i32(code).f32(x).f32(y).f32(z).i32(1).i32(0).s;
}

// A type-1 action body over `n` encoded way-points whose target is given.
std::string ActionBody(std::int32_t n, const std::string& points, const std::string& target_code,
                       float tx, float ty) {
  return Bytes()
      .i32(1)
      .i32(n)
      .raw(points)
      .i32(0)
      .text(target_code)
      .f32(tx)
      .f32(ty)
      .i32(0)
      .text("f")
      .s;
}

std::string ActionFrame(std::int32_t int_param, const std::string& action) {
  return Frame(Body("T-0", "R-0", KEY_ACTION, "N", "N", "N", int_param, 1, action));
}

class Connected : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.listening());
    robot = std::make_unique<Robot>();
    ASSERT_TRUE(robot->connected);
    ASSERT_TRUE(server.Accept());
    robot->Handle();
    ASSERT_EQ(server.Read(), Out("SV-0", KEY_CONNECT));
  }

  void BringOnline() {
    Deliver(server, *robot, FromServer(KEY_INIT));
    ASSERT_TRUE(robot->online);
  }

  FakeServer server;
  std::unique_ptr<Robot> robot;
};

}  // namespace

TEST(RobotConnect, AnnouncesItselfWithTheConnectFrame) {
  FakeServer server;
  ASSERT_TRUE(server.listening());
  CaptureStdout();
  Robot robot;
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(robot.connected);
  EXPECT_FALSE(robot.online);
  EXPECT_EQ(robot.DebugString(),
            "N Free Offline\n"
            "Position(X,Y,Z,Orientation):0 0 0 0\n"
            "Velocity:0mm/s Acceleration:0mm/s^2 Voltage:0V\n");
  ASSERT_TRUE(server.Accept());
  // Queued by the constructor, written only by the first service step.
  EXPECT_EQ(server.Read(100), "");
  ASSERT_EQ(m_msg.outbox["T-0"].size(), 1u);

  robot.Handle();
  const std::string expected(
      "#\x0b\x00\x00\x00\x30\x00\x00\x00"  // marker, type 11, body length 48
      "\x00\x00\x00\x00"                   // head word
      "\x03\x00\x00\x00T-0\x04\x00\x00\x00SV-0"
      "\x01\x00\x00\x00"  // KEY_CONNECT
      "\x01\x00\x00\x00N\x01\x00\x00\x00N\x01\x00\x00\x00N"
      "\x00\x00\x00\x00%\x00\x00\x00\x00%;",
      58);
  EXPECT_EQ(server.Read(), expected);
  EXPECT_TRUE(m_msg.outbox["T-0"].empty());
}

TEST(RobotConnect, UnreachableServerRefusesCommandsAndKeepsQueueing) {
  CaptureStdout();
  Robot robot;
  EXPECT_EQ(GetCapturedStdout(), "Can Not Connect Server !\n");
  EXPECT_FALSE(robot.connected);
  EXPECT_TRUE(m_msg.outbox["T-0"].empty());  // no announcement without a connection

  // Every guarded command is refused silently, even with an out-of-range value.
  float point[3] = {1, 2, 3};
  CaptureStdout();
  EXPECT_FALSE(robot.SetVelocity(800));
  EXPECT_FALSE(robot.SetVelocity(5000));
  EXPECT_FALSE(robot.SetAcceleration(500));
  EXPECT_FALSE(robot.SetOrientation(1.0f));
  EXPECT_FALSE(robot.SetPosition(1, 2, 3));
  EXPECT_FALSE(robot.SetPosition(std::deque<float*>{point}));
  robot.GetDetial();
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(m_msg.outbox["T-0"].empty());
  EXPECT_TRUE(acts.empty());

  // Init and Kill have no guard; the unsent messages stay queued in order.
  robot.Init(1500, -2500, 0.5f);
  robot.Kill();
  for (int i = 0; i < 3; ++i) robot.Handle();
  const auto& queue = m_msg.outbox["T-0"];
  ASSERT_EQ(Keys(queue), (std::vector<std::int32_t>{KEY_KILL, KEY_INIT, KEY_KILL}));
  EXPECT_EQ(queue[1].receiver_id, "SV-0");
  EXPECT_EQ(queue[1].text_param1, "1.500000");
  EXPECT_EQ(queue[1].text_param2, "-2.500000");
  EXPECT_EQ(queue[1].text_param3, "0.500000");
  EXPECT_FALSE(robot.online);
}

TEST_F(Connected, ParameterSettersCheckRangesAndNeedOnlyTheConnection) {
  // Offline and free, or busy: only `connected` matters to these two.
  CaptureStdout();
  EXPECT_TRUE(robot->SetVelocity(300));
  EXPECT_TRUE(robot->SetVelocity(1300));
  EXPECT_FALSE(robot->SetVelocity(299));
  EXPECT_FALSE(robot->SetVelocity(1301));
  EXPECT_TRUE(robot->SetAcceleration(100));
  EXPECT_TRUE(robot->SetAcceleration(1000));
  EXPECT_FALSE(robot->SetAcceleration(99));
  EXPECT_FALSE(robot->SetAcceleration(1001));
  EXPECT_EQ(GetCapturedStdout(),
            "value illegality \nvalue illegality \nvalue illegality \nvalue illegality \n");
  robot->Handle();
  EXPECT_EQ(server.Read(), Out("SV-0", KEY_SET_PARAM, "Speed", "N", "N", 300) +
                               Out("SV-0", KEY_SET_PARAM, "Speed", "N", "N", 1300) +
                               Out("SV-0", KEY_SET_PARAM, "Acceleration", "N", "N", 100) +
                               Out("SV-0", KEY_SET_PARAM, "Acceleration", "N", "N", 1000));

  Deliver(server, *robot, FromServer(KEY_DETAIL, "24 0 0 5", "R-0"));
  ASSERT_EQ(robot->state, 5);
  EXPECT_TRUE(robot->SetVelocity(800));
  robot->Init(1500, 250, 7);
  robot->Kill();
  robot->Handle();
  EXPECT_EQ(server.Read(),
            Out("SV-0", KEY_SET_PARAM, "Speed", "N", "N", 800) + Out("SV-0", KEY_KILL) +
                Out("SV-0", KEY_INIT, "1.500000", "0.250000", "7.000000") + Out("SV-0", KEY_KILL));
}

TEST_F(Connected, OrientationAndDetailNeedAnOnlineFreeRobot) {
  CaptureStdout();
  EXPECT_FALSE(robot->SetOrientation(0.5f));  // offline
  EXPECT_FALSE(robot->SetOrientation(9.0f));  // guard first: no range message
  robot->GetDetial();
  EXPECT_EQ(GetCapturedStdout(), "");
  robot->Handle();
  EXPECT_EQ(server.Read(100), "");

  BringOnline();
  const float pi = 3.14159274f;
  CaptureStdout();
  EXPECT_TRUE(robot->SetOrientation(pi));
  EXPECT_FALSE(robot->SetOrientation(std::nextafter(pi, 4.0f)));
  EXPECT_TRUE(robot->SetOrientation(-pi));
  EXPECT_FALSE(robot->SetOrientation(std::nextafter(-pi, -4.0f)));
  EXPECT_TRUE(robot->SetOrientation(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_TRUE(robot->SetOrientation(0.0000001f));
  robot->GetDetial();
  EXPECT_EQ(GetCapturedStdout(), "value illegality \nvalue illegality \n");
  robot->Handle();
  EXPECT_EQ(server.Read(), Out("R-0", KEY_ORIENTATION, "r 3.14159") +
                               Out("R-0", KEY_ORIENTATION, "r -3.14159") +
                               Out("R-0", KEY_ORIENTATION, "r nan") +
                               Out("R-0", KEY_ORIENTATION, "r 1e-07") + Out("R-0", KEY_GET_DETAIL));

  // Working: orientation refused silently, the detail request still allowed.
  Deliver(server, *robot, FromServer(KEY_DETAIL, "24 0 0 0", "R-0"));
  CaptureStdout();
  EXPECT_FALSE(robot->SetOrientation(0.5f));
  EXPECT_FALSE(robot->SetOrientation(9.0f));
  robot->GetDetial();
  EXPECT_EQ(GetCapturedStdout(), "");
  robot->Handle();
  EXPECT_EQ(server.Read(), Out("R-0", KEY_GET_DETAIL));
}

TEST_F(Connected, PositionCommandsSendOneActionAndRecordIt) {
  EXPECT_FALSE(robot->SetPosition(1, 2, 3));  // offline: refused, no name used
  BringOnline();

  EXPECT_TRUE(robot->SetPosition(1500, -250, 7));
  robot->Handle();
  EXPECT_EQ(server.Read(),
            ActionFrame(1, ActionBody(1, Point(-1, 1.5f, -0.25f, 7), "-1", 1.5f, -0.25f)));

  // A busy or failed robot refuses both overloads without output.
  float a[3] = {1000, 2000, 3}, b[3] = {-500, 0, 4};
  for (const char* report : {"24 0 0 0", "24 0 0 3"}) {
    Deliver(server, *robot, FromServer(KEY_DETAIL, report, "R-0"));
    CaptureStdout();
    EXPECT_FALSE(robot->SetPosition(1, 2, 3));
    EXPECT_FALSE(robot->SetPosition(std::deque<float*>{a}));
    EXPECT_EQ(GetCapturedStdout(), "");
  }
  Deliver(server, *robot, FromServer(KEY_DETAIL, "24 0 0 -1", "R-0"));
  EXPECT_EQ(server.Read(100), "");

  EXPECT_TRUE(robot->SetPosition(0, 0, 0));  // the refused calls used no name
  EXPECT_TRUE(robot->SetPosition(std::deque<float*>{a, b}));
  EXPECT_TRUE(robot->SetPosition(std::deque<float*>{}));
  robot->Handle();
  const std::string two_points = Point(0, 1, 2, 3) + Point(1, -0.5f, 0, 4);
  EXPECT_EQ(server.Read(), ActionFrame(1, ActionBody(1, Point(-2, 0, 0, 0), "-2", 0, 0)) +
                               ActionFrame(2, ActionBody(2, two_points, "1", -0.5f, 0)) +
                               ActionFrame(0, ActionBody(0, "", "N", 0, 0)));

  ASSERT_EQ(acts.size(), 4u);
  for (const auto& entry : acts) EXPECT_TRUE(entry.first);
  EXPECT_EQ(acts[0].second.path.at(0).qr_code, "-1");
  EXPECT_EQ(acts[2].second.path.size(), 2u);
  EXPECT_TRUE(acts[3].second.path.empty());
}

TEST_F(Connected, StatusReportsFollowStreamExtraction) {
  BringOnline();
  Deliver(server, *robot, FromServer(KEY_DETAIL, "24.5 1500 -2.25 0 1.5 800 400", "R-0"));
  EXPECT_EQ(robot->DebugString(),
            "R-0 Working Online\n"
            "Position(X,Y,Z,Orientation):1500 -2.25 0 1.5\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:24.5V\n");

  // Four numbers: the last three fields keep their values; name still taken.
  Deliver(server, *robot, FromServer(KEY_DETAIL, "12 2500000 3 7", "R-7"));
  EXPECT_EQ(robot->DebugString(),
            "R-7 In Error 7 Online\n"
            "Position(X,Y,Z,Orientation):2.5e+06 3 0 1.5\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:12V\n");

  // A letter in fifth place zeroes orientation and stops the extraction there.
  Deliver(server, *robot, FromServer(KEY_DETAIL, "11 4 5 -2 x 900 500", "R-2"));
  EXPECT_EQ(robot->DebugString(),
            "R-2 In Error -2 Online\n"
            "Position(X,Y,Z,Orientation):4 5 0 0\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:11V\n");

  // Nothing numeric at all: voltage zeroed, the rest kept, name still updated.
  Deliver(server, *robot, FromServer(KEY_DETAIL, "low", "R-3"));
  EXPECT_EQ(robot->voltage, 0.0f);
  EXPECT_EQ(robot->x, 4.0f);
  EXPECT_EQ(robot->state, -2);
  EXPECT_EQ(robot->name, "R-3");

  // The kill acknowledgement clears online; the connection is not involved.
  Deliver(server, *robot, FromServer(KEY_DETAIL, "1 0 0 -1", "R-0") + FromServer(KEY_KILL));
  EXPECT_EQ(robot->DebugString(),
            "R-0 Free Offline\n"
            "Position(X,Y,Z,Orientation):0 0 0 0\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:1V\n");
  EXPECT_TRUE(robot->connected);
  // Both were handled; the removal pass keeps the one that became first.
  const auto& inbox = m_msg.inbox["SV-0"];
  ASSERT_EQ(inbox.size(), 1u);
  EXPECT_EQ(inbox[0].key, KEY_NONE);
  EXPECT_EQ(inbox[0].sender_id, "SV-0");
}

TEST_F(Connected, ActionProgressTrimsAndRetiresTheOldestAction) {
  auto progress = [this](const char* what, std::int32_t n) {
    Deliver(server, *robot, Frame(Body("R-0", "T-0", KEY_ACTION, what, "N", "N", n)));
  };
  progress("action", 0);  // nothing running: ignored
  EXPECT_TRUE(m_msg.inbox["R-0"].empty());

  BringOnline();
  float p[4][3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
  ASSERT_TRUE(robot->SetPosition(std::deque<float*>{p[0], p[1], p[2], p[3]}));
  ASSERT_TRUE(robot->SetPosition(5, 5, 0));
  const auto front_codes = [] {
    std::string codes;
    for (const auto& q : acts.front().second.path) codes += q.qr_code;
    return codes;
  };

  progress("path", 1);
  EXPECT_EQ(front_codes(), "123");
  progress("other", 1);
  progress("path", 0);
  EXPECT_EQ(front_codes(), "123");

  acts.front().first = false;  // a held entry keeps its way-points
  progress("path", 2);
  EXPECT_EQ(front_codes(), "123");
  acts.front().first = true;

  // A negative count is a huge unsigned one: the step must still be prompt.
  const auto start = std::chrono::steady_clock::now();
  progress("path", -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(front_codes(), "");
  ASSERT_EQ(acts.size(), 2u);  // "path" never retires the action itself
  EXPECT_EQ(acts.back().second.path.size(), 1u);

  progress("action", 0);
  ASSERT_EQ(acts.size(), 1u);
  EXPECT_EQ(front_codes(), "-1");
  progress("path", 7);
  EXPECT_EQ(front_codes(), "");
  progress("action", 0);
  EXPECT_TRUE(acts.empty());
  progress("action", 0);
  EXPECT_TRUE(acts.empty());
  EXPECT_TRUE(m_msg.inbox["R-0"].empty());
}

TEST_F(Connected, PeerCloseDisconnectsForGoodAndKeepsTheQueue) {
  BringOnline();
  const int fd = m_socket.m_sock;
  // A last report and the close arrive together: both take effect in one step.
  server.Write(FromServer(KEY_DETAIL, "20 1 2 -1", "R-0"));
  server.CloseClient();
  AwaitClientReadable();
  ASSERT_TRUE(robot->SetVelocity(500));

  CaptureStdout();
  robot->Handle();
  const bool closed = fcntl(fd, F_GETFD) == -1;
  EXPECT_EQ(GetCapturedStdout(), "socket dis connect\n");
  EXPECT_TRUE(closed);
  EXPECT_EQ(m_socket.m_sock, fd);  // the closed number stays
  EXPECT_TRUE(m_socket.m_buffer.empty());
  EXPECT_FALSE(robot->connected);
  EXPECT_TRUE(robot->online);  // only a kill clears it
  EXPECT_EQ(robot->voltage, 20.0f);
  EXPECT_EQ(Keys(m_msg.outbox["T-0"]), (std::vector<std::int32_t>{KEY_SET_PARAM}));

  // Later steps read nothing and print nothing, but still apply and still try
  // to send, keeping the unsent messages in order.
  EXPECT_FALSE(robot->SetVelocity(600));
  robot->Kill();
  Message_RTS init;
  init.key = KEY_INIT;
  m_msg.inbox["SV-0"].push_back(init);
  CaptureStdout();
  robot->Handle();
  robot->Handle();
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(robot->online);
  EXPECT_TRUE(m_msg.inbox["SV-0"].empty());
  EXPECT_EQ(Keys(m_msg.outbox["T-0"]), (std::vector<std::int32_t>{KEY_SET_PARAM, KEY_KILL}));
}

TEST_F(Connected, DestructorDropsEverythingAndSendsNothing) {
  BringOnline();
  ASSERT_TRUE(robot->SetPosition(1, 2, 3));
  robot->Kill();
  const int fd = m_socket.m_sock;
  robot.reset();
  EXPECT_EQ(m_socket.m_sock, fd);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_TRUE(acts.empty());
  EXPECT_TRUE(m_msg.inbox.empty());
  EXPECT_TRUE(m_msg.outbox.empty());
  EXPECT_EQ(server.Read(100), "");  // the queued action and kill were dropped
}
