// The simulated robot, driven message by message and in simulated time.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "sim_core.h"
#include "support/wire.h"

using tarn_sim::RobotSim;
using Out = std::vector<Message_RTS>;

namespace {

Message_RTS Request(RTS_key key, int value = 0, const std::string& t1 = "N",
                    const std::string& t2 = "N", const std::string& t3 = "N") {
  Message_RTS m;
  m.sender_id = "T-0", m.key = key, m.int_param = value;
  m.text_param1 = t1, m.text_param2 = t2, m.text_param3 = t3;
  return m;
}

// A KEY_ACTION as the client builds it: way-points "0", "1", ... in metres.
Message_RTS Travel(const std::vector<std::pair<float, float>>& points, int type = 1) {
  std::deque<QrInfo_RTS> path;
  for (const auto& [x, y] : points)
    path.emplace_back(std::to_string(path.size()), x, y, SPACE_DEFAULT, 1);
  Message_RTS m = Request(KEY_ACTION, static_cast<int>(points.size()));
  m.actions.push_back(Action_RTS(type, path));
  return m;
}

// The replies in order, each in brief when it has exactly the shape the client
// relies on: "path:<code>" for a way-point reached, "action" for an action
// closed, the task state of a status report. Anything else shows in full.
std::string Brief(const Out& out) {
  std::string s;
  for (const Message_RTS& m : out) {
    std::string d = tarn_sim::Describe(m);
    int state;
    if (d == "R-0 -> T-0 KEY_ACTION int=0 \"action\" \"N\" \"N\"")
      d = "action";
    else if (d.rfind("R-0 -> T-0 KEY_ACTION int=1 \"path\" \"", 0) == 0)
      d = "path:" + m.text_param2;
    else if (d.rfind("R-0 -> T-0 KEY_DETAIL int=0 \"", 0) == 0 && m.text_param2 == "R-0" &&
             std::sscanf(m.text_param1.c_str(), "%*f %*f %*f %d", &state) == 1)
      d = std::to_string(state);
    s += (s.empty() ? "" : " ") + d;
  }
  return s;
}

// A robot whose client has registered, initialised at the origin with these
// limits, reporting on events only (no periodic reports).
RobotSim Robot(int speed = 1000, int accel = 800) {
  tarn_sim::SimConfig quiet;
  quiet.report_rate_hz = 0;
  RobotSim sim(quiet);
  for (const Message_RTS& m :
       {Request(KEY_CONNECT), Request(KEY_INIT, 0, "0", "0", "0"),
        Request(KEY_SET_PARAM, speed, "Speed"), Request(KEY_SET_PARAM, accel, "Acceleration")})
    sim.Receive(m);
  return sim;
}

}  // namespace

TEST(SimCore, DrivesAPathWithinItsLimitsAndReportsEveryWayPoint) {
  RobotSim sim = Robot(500, 1000);
  EXPECT_EQ(Brief(sim.Receive(Travel({{0.8f, 0.0f}, {0.8f, 0.6f}}))), "0");
  Out all;
  double first_arrival = -1, max_accel = 0;
  while (sim.time() < 10 && sim.task_state() == 0) {
    Out step = sim.Advance(0.005);
    max_accel = std::max(max_accel, std::fabs(sim.acceleration()));
    if (first_arrival < 0 && !step.empty()) first_arrival = sim.time();
    all.insert(all.end(), step.begin(), step.end());
  }
  EXPECT_EQ(Brief(all), "path:0 path:1 action -1");
  // 0.125 m (0.5 s) to reach 500 mm/s, 0.55 m (1.1 s) cruising, 0.125 m (0.5 s) braking.
  EXPECT_NEAR(first_arrival, 2.1, 0.015);
  EXPECT_NEAR(max_accel, 1000.0, 1e-6);        // as reported: up to the limit, never beyond
  EXPECT_NEAR(sim.heading(), M_PI / 2, 1e-9);  // turned to face the second leg
}

TEST(SimCore, RefusalsReportAnErrorThatClearsRefusedActionsCloseInOrderAndTurnsAreBusy) {
  RobotSim sim = Robot();
  sim.Receive(Travel({{0.5f, 0.0f}}));
  sim.Advance(0.2);
  // Busy: error 3 while it keeps driving; the refused action is closed only
  // after the running one, so the client's running list drops them in order.
  EXPECT_EQ(Brief(sim.Receive(Travel({{1.0f, 1.0f}}))), "3");
  // Held while it drives; the arrival after the hold clears it.
  EXPECT_EQ(Brief(sim.Advance(5)), "path:0 action action -1");
  // At rest: held 1 s, then cleared by a report of its own; an accepted
  // command clears it at once.
  EXPECT_EQ(Brief(sim.Inject(3)), "3");
  EXPECT_EQ(Brief(sim.Advance(0.99)), "");
  EXPECT_EQ(Brief(sim.Advance(0.02)), "-1");
  EXPECT_EQ(Brief(sim.Inject(2)), "2");
  EXPECT_EQ(Brief(sim.Receive(Request(KEY_SET_PARAM, 700, "Speed"))), "");
  EXPECT_EQ(sim.task_state(), -1);
  EXPECT_EQ(sim.speed_limit(), 700);

  // Malformed requests: error 5 and nothing changes. A message announcing a
  // huge number of actions (not decoded) gets one refusal.
  for (const char* turn : {"x 1", "r", "r abc", "r nan", "r 1e999", "1.5"})
    EXPECT_EQ(Brief(sim.Receive(Request(KEY_ORIENTATION, 0, turn))), "5") << turn;
  for (const auto& [name, value] : std::vector<std::pair<const char*, int>>{
           {"Jerk", 700}, {"Speed", 0}, {"Speed", -800}, {"Acceleration", 0}, {"Acceleration", -1}})
    EXPECT_EQ(Brief(sim.Receive(Request(KEY_SET_PARAM, value, name))), "5") << name << value;
  // Every coordinate of every way-point is screened.
  for (float bad : {NAN, 3e38f})  // 3e41 mm
    for (const auto& path : std::vector<std::vector<std::pair<float, float>>>{
             {{bad, 0.0f}}, {{0.0f, bad}}, {{1.0f, 0.0f}, {1.0f, bad}}})
      EXPECT_EQ(Brief(sim.Receive(Travel(path))), "action 5") << path.size() << " " << bad;
  EXPECT_EQ(Brief(sim.Receive(Travel({}), 1000000)), "5");
  EXPECT_EQ(sim.accel_limit(), 800);
  EXPECT_EQ(sim.heading(), 0.0);
  EXPECT_EQ(Brief(sim.Receive(Travel({{1.0f, 0.0f}}, 2))), "action 4");  // travel is all it does

  // Turning in place the short way, from -3 across pi to 3.14159 (0.1416 rad,
  // under 0.05 s at 3 rad/s), is busy too. The end of the turn is reported at
  // once, with the busy refusal still latched.
  sim.Receive(Request(KEY_INIT, 0, "0.000000", "0.000000", "-3.000000"));
  EXPECT_EQ(Brief(sim.Receive(Request(KEY_ORIENTATION, 0, "r 3.14159"))), "0");
  EXPECT_EQ(Brief(sim.Receive(Request(KEY_ORIENTATION, 0, "r 1"))), "3");
  EXPECT_EQ(Brief(sim.Advance(0.06)), "3");
  EXPECT_DOUBLE_EQ(sim.heading(), 3.14159);
}

TEST(SimCore, PeriodicReportsAndBattery) {
  RobotSim sim;
  sim.Receive(Request(KEY_CONNECT));
  // One report right after the client registers, then one every 0.1 s,
  // however time is sliced.
  EXPECT_EQ(sim.Advance(1.0).size(), 11u);
  std::size_t count = 0;
  for (int i = 0; i < 1000; ++i) count += sim.Advance(0.001).size();
  EXPECT_EQ(count, 10u);
  EXPECT_NEAR(sim.voltage(), 26.4 - 2 * 0.002, 1e-9);
  tarn_sim::SimConfig draining;
  draining.drain_idle = 1.0;
  RobotSim flat(draining);
  flat.Advance(100);
  EXPECT_DOUBLE_EQ(flat.voltage(), 22.0);
}

TEST(SimCore, InitKillAndALeavingClient) {
  RobotSim sim = Robot();
  Out out = sim.Receive(Request(KEY_INIT, 0, "1.500000", "-0.250000", "0.500000"));
  // The report first, so the pose is current when the client turns online.
  // Metres in, metres out; the third INIT number is the heading.
  EXPECT_EQ(Brief(out), "-1 SV-0 -> T-0 KEY_INIT int=0 \"N\" \"N\" \"N\"");
  EXPECT_EQ(out[0].text_param1 + "|" + out[0].text_param3,
            "26.40 1.500 -0.250 -1 0.5000 0.0 0.0|online");
  sim.Receive(Travel({{2.0f, 0.0f}, {2.0f, 2.0f}}));
  sim.Advance(0.5);
  sim.Receive(Travel({{9.0f, 9.0f}}));  // refused: busy
  const double x = sim.x();
  // The running action and the refused one are closed before the ack.
  out = sim.Receive(Request(KEY_KILL));
  EXPECT_EQ(Brief(out), "action action -1 SV-0 -> T-0 KEY_KILL int=0 \"N\" \"N\" \"N\"");
  EXPECT_EQ(out[2].text_param3, "offline");
  // Offline now: motion is refused with error 2 and its action closed at
  // once; an INIT out of range (1e306 m is infinite in mm) is not
  // acknowledged (error 5) and leaves it offline.
  EXPECT_EQ(Brief(sim.Receive(Travel({{1.0f, 0.0f}}))), "action 2");
  for (const auto& [x, y] : std::vector<std::pair<const char*, const char*>>{
           {"1.0", "1e306"}, {"1e306", "1.0"}, {"nan", "1.0"}, {"1.0", "1.0 2"}})
    EXPECT_EQ(Brief(sim.Receive(Request(KEY_INIT, 0, x, y, "0"))), "5") << x << " " << y;
  sim.Advance(1.0);
  EXPECT_FALSE(sim.online());
  EXPECT_DOUBLE_EQ(sim.x(), x);

  // A client leaving: the robot finishes its path without progress reports
  // for the next client, and that one finds it online, with its settings.
  sim = Robot();
  sim.Receive(Travel({{2.0f, 0.0f}, {2.0f, 1.0f}}));
  sim.Advance(1.0);
  sim.ClientLeft();
  EXPECT_EQ(Brief(sim.Advance(2.0)), "");
  sim.Receive(Request(KEY_CONNECT));
  EXPECT_EQ(Brief(sim.Advance(5.0)), "-1");
  EXPECT_DOUBLE_EQ(sim.y(), 1.0);
  EXPECT_TRUE(sim.route()[1].passed && sim.online());
  EXPECT_EQ(sim.speed_limit(), 1000);
}

TEST(SimCore, ScreeningFramesBeforeDecodingThemAndDescribingMessages) {
  // An action message announcing 1,000,000 actions and holding none.
  std::string body = wire::body("T-0", "N", KEY_ACTION, "N", "N", "N", 0, 1000000);
  std::string buffer = wire::frame(body) + "#tail";
  std::uint32_t announced = 0;
  EXPECT_EQ(tarn_sim::ScreenFrame(buffer, announced), tarn_sim::Screen::kPass);
  EXPECT_EQ(announced, 1000000u);
  EXPECT_EQ(buffer, wire::frame(wire::body("T-0", "N", KEY_ACTION)) + "#tail");  // count zeroed
  body[4] = '\x7f';  // the sender's length reaches past the frame
  buffer = wire::frame(body);
  EXPECT_EQ(tarn_sim::ScreenFrame(buffer, announced), tarn_sim::Screen::kDiscard);

  // Described for the log and the live view: every field, binary escaped.
  Message_RTS odd = Travel({{0.8f, 0.0f}, {0.5f, -0.25f}});
  odd.key = static_cast<RTS_key>(5), odd.sender_id = std::string("a\0\"b", 4);
  odd.text_param1 = std::string(100, 'z');
  EXPECT_EQ(tarn_sim::Describe(odd), "a\\x00\\\"b -> N KEY_5 int=2 \"" + std::string(80, 'z') +
                                         "...(+20 bytes)\" \"N\" \"N\" actions=1 [type 1, 2 pts: "
                                         "0(0.8,0) 1(0.5,-0.25)]");
}
