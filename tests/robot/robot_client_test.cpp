// Robot against a scripted control server on 127.0.0.1:6868: the exact frames
// each command sends, the guards that refuse them, how replies change the
// state, and a server that goes away mid-frame. The server's frames are
// built by hand, independently of the codec. The connection, mailbox and
// action list are module-wide, so each case runs in a process of its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <memory>
#include <tuple>

#include "robot/robot.h"
#include "tests/support/peer.h"
#include "tests/support/wire.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// A frame as this client sends it, and one addressed to it.
std::string Out(const std::string& receiver, std::int32_t key, const std::string& t1 = "N",
                const std::string& t2 = "N", const std::string& t3 = "N", std::int32_t value = 0) {
  return wire::frame(wire::body("T-0", receiver, key, t1, t2, t3, value));
}
std::string In(const std::string& sender, std::int32_t key, const std::string& t1 = "N",
               const std::string& t2 = "N", std::int32_t value = 0) {
  return wire::frame(wire::body(sender, "T-0", key, t1, t2, "N", value));
}

// One way-point record of an action body: code, x, y, z, flag, space type.
std::string Point(std::int32_t code, float x, float y, float z) {
  return wire::Bytes().i32(code).f32(x).f32(y).f32(z).i32(1).i32(0).s;
}

// A KEY_ACTION frame carrying one type-1 action over `n` encoded way-points.
std::string ActionFrame(std::int32_t n, const std::string& points, const std::string& target,
                        float tx, float ty) {
  wire::Bytes action;
  action.i32(1).i32(n).raw(points).i32(0).text(target).f32(tx).f32(ty).i32(0).text("f");
  return wire::frame(wire::body("T-0", "R-0", KEY_ACTION, "N", "N", "N", n, 1, action.s));
}

// The keys of the messages queued for sending, oldest first.
std::vector<std::int32_t> OutboxKeys() {
  std::vector<std::int32_t> keys;
  for (const Message_RTS& m : m_msg.outbox["T-0"]) keys.push_back(m.key);
  return keys;
}

// The running actions, oldest first, as their path codes and arc path codes:
// "(0 1 arcN)(-1)"; a held entry (progress flag off) is marked "!(...)".
std::string Running() {
  std::string out;
  for (const auto& entry : acts) {
    std::string codes;
    for (const QrInfo_RTS& q : entry.second.path) codes += ' ' + q.qr_code;
    for (const QrInfo_ARC& q : entry.second.arc_path) codes += " arc" + q.qr_code;
    out += (entry.first ? "(" : "!(") + codes.substr(codes.empty() ? 0 : 1) + ")";
  }
  return out;
}

// A connected Robot. SetUp pins the handshake: the constructor prints
// nothing and only queues the announcement, which the first step writes.
class Connected : public testing::Test {
 protected:
  void SetUp() override {
    loopback::listen(listener, 6868);
    CaptureStdout();
    robot = std::make_unique<Robot>();
    ASSERT_EQ(GetCapturedStdout(), "");
    ASSERT_TRUE(robot->connected);
    CaptureStdout();
    ASSERT_GE(server.Get(loopback::wait_for([this] { return listener.Accpet_client(); })), 0);
    GetCapturedStdout();
    ASSERT_EQ(Read(20), "");
    robot->Handle();
    ASSERT_EQ(Read(), Out("SV-0", KEY_CONNECT));
  }

  std::string Read(int first_wait_ms = 300) { return loopback::read_all(server, first_wait_ms); }

  // Writes the bytes and runs one service step once they can be read.
  void Feed(const std::string& bytes) {
    server.Send(bytes);
    loopback::wait_readable(m_socket.m_sock, 1000);
    robot->Handle();
  }

  void BringOnline() {
    Feed(In("SV-0", KEY_INIT));
    ASSERT_TRUE(robot->online);
  }

  Socket listener, server;
  std::unique_ptr<Robot> robot;
};

}  // namespace

TEST(RobotConnect, UnreachableServerRefusesGuardedCommandsAndKeepsQueueing) {
  CaptureStdout();
  Robot robot;
  EXPECT_EQ(GetCapturedStdout(), "Can Not Connect Server !\n");
  EXPECT_FALSE(robot.connected);
  EXPECT_EQ(robot.DebugString(),
            "N Free Offline\nPosition(X,Y,Z,Orientation):0 0 0 0\n"
            "Velocity:0mm/s Acceleration:0mm/s^2 Voltage:0V\n");

  // Refused silently, even with an out-of-range value; no announcement either.
  float point[3] = {1, 2, 3};
  CaptureStdout();
  EXPECT_FALSE(robot.SetVelocity(800) || robot.SetVelocity(5000) || robot.SetAcceleration(500) ||
               robot.SetOrientation(1.0f) || robot.SetPosition(1, 2, 3) ||
               robot.SetPosition(std::deque<float*>{point}));
  robot.GetDetial();
  EXPECT_EQ(GetCapturedStdout(), "");

  // Init and Kill have no guard; the unsent messages stay queued in order,
  // and handled ones (key 0) are erased, the one in front included.
  robot.Init(1500, -2500, 0.5f);
  robot.Kill();
  auto& queue = m_msg.outbox["T-0"];
  for (int at : {0, 2, 4, 4, 7}) queue.insert(queue.begin() + at, Message_RTS());
  for (int i = 0; i < 3; ++i) robot.Handle();
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_KILL, KEY_INIT, KEY_KILL}));
}

TEST_F(Connected, SettersCheckTheirGuardFirstThenTheirRange) {
  const auto param = [](const char* name, int value) {
    return Out("SV-0", KEY_SET_PARAM, name, "N", "N", value);
  };
  // Velocity and acceleration need only the connection: offline and in error
  // they are accepted, like Init and Kill.
  Feed(In("SV-0", KEY_DETAIL, "24 0 0 5", "R-0"));
  CaptureStdout();
  for (int v : {300, 1300, 299, 1301}) EXPECT_EQ(robot->SetVelocity(v), v == 300 || v == 1300);
  for (int a : {100, 1000, 99, 1001}) EXPECT_EQ(robot->SetAcceleration(a), a == 100 || a == 1000);
  const std::string illegal = "value illegality \n";
  EXPECT_EQ(GetCapturedStdout(), illegal + illegal + illegal + illegal);
  robot->Init(1500, 250, 7);
  robot->Handle();
  EXPECT_EQ(Read(), param("Speed", 300) + param("Speed", 1300) + param("Acceleration", 100) +
                        param("Acceleration", 1000) + Out("SV-0", KEY_KILL) +
                        Out("SV-0", KEY_INIT, "1.500000", "0.250000", "7.000000"));

  // Orientation needs an online, free robot; pi is single precision and
  // NaN passes the range test.
  Feed(In("SV-0", KEY_DETAIL, "24 0 0 -1", "R-0") + In("SV-0", KEY_INIT));
  const float pi = 3.14159274f;
  CaptureStdout();
  const std::pair<float, bool> cases[] = {{pi, true},  {std::nextafter(pi, 4.0f), false},
                                          {-pi, true}, {std::nextafter(-pi, -4.0f), false},
                                          {NAN, true}, {0.0000001f, true}};
  for (const auto& c : cases) EXPECT_EQ(robot->SetOrientation(c.first), c.second) << c.first;
  EXPECT_EQ(GetCapturedStdout(), illegal + illegal);
  robot->Handle();
  std::string turns;
  for (const char* text : {"r 3.14159", "r -3.14159", "r nan", "r 1e-07"})
    turns += Out("R-0", KEY_ORIENTATION, text);
  EXPECT_EQ(Read(), turns);
}

TEST_F(Connected, PositionCommandsSendOneActionAndRecordItUntilDestruction) {
  // Offline, then online but working or failed: the position and orientation
  // commands are refused silently (the guard comes before the range) without
  // using up a name; the detail request needs only online.
  float a[3] = {1000, 2000, 3}, b[3] = {-500, 0, 4};
  for (const char* report : {"", "24 0 0 0", "24 0 0 3"}) {
    if (*report) Feed(In("SV-0", KEY_DETAIL, report, "R-0") + In("SV-0", KEY_INIT));
    CaptureStdout();
    EXPECT_FALSE(robot->SetPosition(1, 2, 3) || robot->SetPosition(std::deque<float*>{a}) ||
                 robot->SetOrientation(9.0f));
    robot->GetDetial();
    EXPECT_EQ(GetCapturedStdout(), "");
    robot->Handle();
    EXPECT_EQ(Read(100), *report ? Out("R-0", KEY_GET_DETAIL) : "");
  }
  Feed(In("SV-0", KEY_DETAIL, "24 0 0 -1", "R-0"));
  EXPECT_TRUE(robot->SetPosition(1500, -250, 7) && robot->SetPosition(0, 0, 0) &&
              robot->SetPosition(std::deque<float*>{a, b}) && robot->SetPosition({}));
  robot->Handle();
  EXPECT_EQ(Read(), ActionFrame(1, Point(-1, 1.5f, -0.25f, 7), "-1", 1.5f, -0.25f) +
                        ActionFrame(1, Point(-2, 0, 0, 0), "-2", 0, 0) +
                        ActionFrame(2, Point(0, 1, 2, 3) + Point(1, -0.5f, 0, 4), "1", -0.5f, 0) +
                        ActionFrame(0, "", "N", 0, 0));
  EXPECT_EQ(Running(), "(-1)(-2)(0 1)()");

  // The destructor drops the running actions and the queue, sending nothing.
  ASSERT_TRUE(robot->SetPosition(1, 2, 3));
  robot->Kill();
  const int fd = m_socket.m_sock;
  robot.reset();
  EXPECT_TRUE(m_socket.m_sock == fd && fcntl(fd, F_GETFD) == -1);  // closed, its number kept
  EXPECT_TRUE(acts.empty() && m_msg.inbox.empty() && m_msg.outbox.empty());
  EXPECT_EQ(Read(100), "");
}

TEST_F(Connected, StatusReportsFollowStreamExtraction) {
  BringOnline();
  // All seven numbers; then four (the last three fields keep their values);
  // then a letter in fifth place, which zeroes orientation and stops there.
  // The name is taken every time.
  const char* const cases[][3] = {
      {"24.5 1500 -2.25 0 1.5 800 400", "R-0",
       "R-0 Working Online\nPosition(X,Y,Z,Orientation):1500 -2.25 0 1.5\n"
       "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:24.5V\n"},
      {"12 2500000 3 7", "R-7",
       "R-7 In Error 7 Online\nPosition(X,Y,Z,Orientation):2.5e+06 3 0 1.5\n"
       "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:12V\n"},
      {"11 4 5 -2 x 900 500", "R-2",
       "R-2 In Error -2 Online\nPosition(X,Y,Z,Orientation):4 5 0 0\n"
       "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:11V\n"},
  };
  for (const auto& c : cases) {
    Feed(In("SV-0", KEY_DETAIL, c[0], c[1]));
    EXPECT_EQ(robot->DebugString(), c[2]) << c[0];
  }
  // Three frames in one receive are all applied in one step (the drain loop
  // stops at the second, which came from the buffer; one more call files the
  // third). The kill acknowledgement clears online; the connection stays.
  Feed(In("SV-0", KEY_DETAIL, "9 9 9 9", "R-9") + In("SV-0", KEY_DETAIL, "1 0 0 -1", "R-0") +
       In("SV-0", KEY_KILL));
  EXPECT_EQ(robot->DebugString(),
            "R-0 Free Offline\nPosition(X,Y,Z,Orientation):0 0 0 0\n"
            "Velocity:800mm/s Acceleration:400mm/s^2 Voltage:1V\n");
  // Of three handled messages the removal pass leaves the second (it became
  // first and is not examined again); the next pass erases it.
  EXPECT_TRUE(robot->connected && m_msg.inbox["SV-0"].size() == 1);
  robot->Handle();
  EXPECT_TRUE(m_msg.inbox["SV-0"].empty());
}

TEST_F(Connected, ActionProgressTrimsAndRetiresTheOldestAction) {
  const auto progress = [](const char* what, std::int32_t n) {
    return In("R-0", KEY_ACTION, what, "N", n);
  };
  Feed(progress("action", 0));  // nothing running: ignored
  BringOnline();
  float p[4][3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
  ASSERT_TRUE(robot->SetPosition(std::deque<float*>{p[0], p[1], p[2], p[3]}));
  ASSERT_TRUE(robot->SetPosition(5, 5, 0));
  acts.front().second.arc_path.resize(3);
  // One way-point off each list; other texts and a count of 0 do nothing.
  Feed(progress("path", 1) + progress("other", 1) + progress("path", 0));
  EXPECT_EQ(Running(), "(1 2 3 arcN arcN)(-1)");
  acts.front().first = false;  // a held entry keeps its way-points
  Feed(progress("path", 2));
  EXPECT_EQ(Running(), "!(1 2 3 arcN arcN)(-1)");
  acts.front().first = true;
  // Negative counts are 32-bit countdowns of up to 2^32 steps; "path" never
  // retires the action.
  for (std::int32_t count : {INT_MIN, -1, INT_MAX}) {
    Feed(progress("path", count));
    EXPECT_EQ(Running(), "()(-1)") << count;
  }
  Feed(progress("action", 0));
  EXPECT_EQ(Running(), "(-1)");
  Feed(progress("action", 0) + progress("action", 0));
  EXPECT_TRUE(acts.empty() && m_msg.inbox["R-0"].size() == 1);  // the second stays, handled
}

TEST_F(Connected, PeerClosingMidFrameDisconnectsForGoodAndKeepsTheQueue) {
  BringOnline();
  const int fd = m_socket.m_sock;
  // A last whole report and half of the next one are unread when the peer
  // goes: the report still takes effect in the step that sees the loss.
  const std::string report = In("R-0", KEY_DETAIL, "20 1 2 -1", "R-0");
  server.Send(report + report.substr(0, 20));
  loopback::wait_readable(fd);
  ASSERT_TRUE(robot->SetVelocity(500));
  close(server.m_sock);
  server.m_sock = -1;
  testing::internal::CaptureStdout();
  robot->Handle();
  // Closed, with the closed number left in place; online stays (only a kill
  // acknowledgement or Kill() clears it).
  EXPECT_EQ(std::make_tuple(robot->connected, robot->online, robot->voltage, m_socket.m_sock,
                            fcntl(fd, F_GETFD), m_socket.m_buffer),
            std::make_tuple(false, true, 20.0f, fd, -1, std::string()));
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
  EXPECT_TRUE(robot->online && m_msg.inbox["SV-0"].empty());  // the acknowledgement applied
  EXPECT_EQ(OutboxKeys(), (std::vector<std::int32_t>{KEY_SET_PARAM, KEY_KILL}));
}
