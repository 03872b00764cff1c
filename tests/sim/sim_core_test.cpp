// The simulated robot, driven message by message and in simulated time.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "sim_core.h"

using tarn_sim::RobotSim;
using tarn_sim::SimConfig;
using Strings = std::vector<std::string>;
using Out = std::vector<Message_RTS>;

namespace {

Message_RTS Request(RTS_key key, int value = 0, const std::string& t1 = "N",
                    const std::string& t2 = "N", const std::string& t3 = "N") {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = key == KEY_ACTION || key == KEY_ORIENTATION ? "R-0" : "SV-0";
  m.key = key;
  m.int_param = value;
  m.text_param1 = t1;
  m.text_param2 = t2;
  m.text_param3 = t3;
  return m;
}

// A KEY_ACTION as the client builds it: way-points "0", "1", ... in metres.
Message_RTS Travel(const std::vector<std::pair<float, float>>& points, int type = 1) {
  std::deque<QrInfo_RTS> path;
  for (std::size_t i = 0; i < points.size(); ++i)
    path.emplace_back(std::to_string(i), points[i].first, points[i].second, SPACE_DEFAULT, 1);
  Message_RTS m = Request(KEY_ACTION, static_cast<int>(points.size()));
  m.actions.push_back(Action_RTS(type, path));
  return m;
}

// The task state (fourth number) of the last message, a status report.
int LastState(const Out& out) {
  if (out.empty()) return 99;
  const Message_RTS& m = out.back();
  EXPECT_EQ(m.key, KEY_DETAIL);
  EXPECT_EQ(m.sender_id + m.text_param2, "R-0R-0");
  double v, x, y;
  int state = 99;
  EXPECT_EQ(std::sscanf(m.text_param1.c_str(), "%lf %lf %lf %d", &v, &x, &y, &state), 4);
  return state;
}

// Progress reports only, as "path:<code>" or "action".
Strings ProgressOf(const Out& out) {
  Strings p;
  for (const Message_RTS& m : out) {
    if (m.key != KEY_ACTION) continue;
    EXPECT_EQ(m.sender_id + ">" + m.receiver_id, "R-0>T-0");
    EXPECT_EQ(m.int_param, m.text_param1 == "path" ? 1 : 0);
    p.push_back(m.text_param1 == "path" ? "path:" + m.text_param2 : m.text_param1);
  }
  return p;
}

RobotSim OnlineRobot(int speed = 1000, int accel = 800) {
  RobotSim sim;
  for (const Message_RTS& m :
       {Request(KEY_CONNECT), Request(KEY_INIT, 0, "0", "0", "0"),
        Request(KEY_SET_PARAM, speed, "Speed"), Request(KEY_SET_PARAM, accel, "Acceleration")})
    sim.Receive(m);
  return sim;
}

}  // namespace

TEST(SimCore, DrivesAPathWithinItsLimitsAndReportsEveryWayPoint) {
  RobotSim sim = OnlineRobot(500, 1000);
  EXPECT_EQ(LastState(sim.Receive(Travel({{0.8f, 0.0f}, {0.8f, 0.6f}}))), 0);
  Out all;
  double first_arrival = -1, max_speed = 0, max_accel = 0;
  while (sim.time() < 10 && ProgressOf(all).size() < 3) {
    Out step = sim.Advance(0.005);
    max_speed = std::max(max_speed, sim.velocity());
    max_accel = std::max(max_accel, std::fabs(sim.acceleration()));
    if (first_arrival < 0 && !ProgressOf(step).empty()) first_arrival = sim.time();
    all.insert(all.end(), step.begin(), step.end());
  }
  EXPECT_EQ(ProgressOf(all), (Strings{"path:0", "path:1", "action"}));
  // 0.125 m (0.5 s) to reach 500 mm/s, 0.55 m (1.1 s) cruising, 0.125 m (0.5 s) braking.
  EXPECT_NEAR(first_arrival, 2.1, 0.015);
  EXPECT_NEAR(max_speed, 500.0, 1e-9);
  EXPECT_LE(max_accel, 1000.0 + 1e-6);
  EXPECT_NEAR(sim.x(), 0.8, 1e-6);
  EXPECT_NEAR(sim.y(), 0.6, 1e-6);
  EXPECT_NEAR(sim.heading(), M_PI / 2, 1e-9);  // turned to face the second leg
  EXPECT_EQ(LastState(all), -1);               // the report right after "action": free again
}

TEST(SimCore, RefusalsSetAnErrorAndRefusedActionsAreClosedInOrder) {
  RobotSim sim;
  sim.Receive(Request(KEY_CONNECT));
  Out out = sim.Receive(Travel({{1.0f, 0.0f}}));  // offline
  EXPECT_EQ(ProgressOf(out), Strings{"action"});
  EXPECT_EQ(LastState(out), 2);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, 0, "r 1"))), 2);

  sim = OnlineRobot();
  sim.Receive(Travel({{0.5f, 0.0f}}));
  sim.Advance(0.2);
  // Busy: error 3 while it keeps driving; the refused action is closed only
  // after the running one, so the client's running list drops them in order.
  out = sim.Receive(Travel({{1.0f, 1.0f}}));
  EXPECT_TRUE(ProgressOf(out).empty());
  EXPECT_EQ(LastState(out), 3);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, 0, "r 1"))), 3);
  EXPECT_EQ(ProgressOf(sim.Advance(5)), (Strings{"path:0", "action", "action"}));
  EXPECT_NEAR(sim.x(), 0.5, 1e-9);
  EXPECT_EQ(sim.task_state(), 3);  // latched until the next accepted command
  EXPECT_TRUE(sim.Receive(Request(KEY_SET_PARAM, 700, "Speed")).empty());
  EXPECT_EQ(sim.task_state(), -1);
  EXPECT_EQ(sim.speed_limit(), 700);

  // Malformed requests: error 5 and nothing changes.
  for (const Message_RTS& bad :
       {Request(KEY_SET_PARAM, 700, "Jerk"), Request(KEY_SET_PARAM, 0, "Acceleration"),
        Travel({{NAN, 0.0f}}), Request(KEY_ORIENTATION, 0, "x 1"), Request(KEY_ORIENTATION, 0, "r"),
        Request(KEY_ORIENTATION, 0, "r abc"), Request(KEY_ORIENTATION, 0, "r nan"),
        Request(KEY_ORIENTATION, 0, "r 1e999"), Request(KEY_ORIENTATION, 0, "1.5")})
    EXPECT_EQ(LastState(sim.Receive(bad)), 5) << bad.text_param1;
  EXPECT_EQ(sim.accel_limit(), 800);
  EXPECT_EQ(sim.heading(), 0.0);
  out = sim.Receive(Travel({{1.0f, 0.0f}}, 2));  // only travel actions exist
  EXPECT_EQ(ProgressOf(out), Strings{"action"});
  EXPECT_EQ(LastState(out), 4);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_INIT, 0, "0", "0", "0"))), -1);
}

TEST(SimCore, TurnsInPlaceTheShortWay) {
  SimConfig no_periodic;
  no_periodic.report_rate_hz = 0;
  RobotSim sim(no_periodic);
  sim.Receive(Request(KEY_CONNECT));
  sim.Receive(Request(KEY_INIT, 0, "0.000000", "0.000000", "-3.000000"));
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, 0, "r 3.14159"))), 0);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, 0, "r 1"))), 3);
  // From -3 across pi to 3.14159 is 0.1416 rad: under 0.05 s at 3 rad/s. The
  // end of the turn is reported at once, with the busy refusal still latched.
  Out out = sim.Advance(0.06);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].text_param1, "26.40 0.000 0.000 3 3.1416 0.0 0.0");
  EXPECT_DOUBLE_EQ(sim.heading(), 3.14159);
}

TEST(SimCore, PeriodicReportsAndBattery) {
  RobotSim unregistered;
  EXPECT_TRUE(unregistered.Advance(2.0).empty());

  RobotSim sim;
  sim.Receive(Request(KEY_CONNECT));
  // One report right after the client registers, then one every 0.1 s,
  // however time is sliced.
  EXPECT_EQ(sim.Advance(1.0).size(), 11u);
  std::size_t count = 0;
  for (int i = 0; i < 1000; ++i) count += sim.Advance(0.001).size();
  EXPECT_EQ(count, 10u);
  EXPECT_NEAR(sim.voltage(), 26.4 - 2 * 0.002, 1e-9);

  SimConfig config;
  config.drain_idle = 1.0;
  RobotSim flat(config);
  flat.Advance(100);
  EXPECT_DOUBLE_EQ(flat.voltage(), 22.0);
}

TEST(SimCore, InitAndKillAreAcknowledgedByTheServerAndStopTheRobot) {
  RobotSim sim;
  EXPECT_TRUE(sim.Receive(Request(KEY_CONNECT)).empty());
  Out out = sim.Receive(Request(KEY_INIT, 0, "1.500000", "-0.250000", "0.500000"));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].key, KEY_INIT);
  EXPECT_EQ(out[0].sender_id + ">" + out[0].receiver_id + out[0].text_param1, "SV-0>T-0N");
  // Metres in, metres out; the third INIT number is the heading.
  EXPECT_EQ(out[1].text_param1, "26.40 1.500 -0.250 -1 0.5000 0.0 0.0");
  EXPECT_TRUE(sim.online());

  sim.Receive(Travel({{2.0f, 0.0f}, {2.0f, 2.0f}}));
  sim.Advance(0.5);
  sim.Receive(Travel({{9.0f, 9.0f}}));  // refused: busy
  const double x = sim.x();
  out = sim.Receive(Request(KEY_KILL));
  // The running action and the refused one are closed before the ack.
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(ProgressOf(out), (Strings{"action", "action"}));
  EXPECT_EQ(out[2].key, KEY_KILL);
  EXPECT_EQ(out[2].sender_id, "SV-0");
  EXPECT_EQ(LastState(out), -1);
  EXPECT_FALSE(sim.online());
  sim.Advance(1.0);
  EXPECT_DOUBLE_EQ(sim.x(), x);

  // Numbers that do not parse: no acknowledgement, still offline, error 5.
  out = sim.Receive(Request(KEY_INIT, 0, "1.0", "abc", "0"));
  EXPECT_EQ(out.size(), 1u);
  EXPECT_EQ(LastState(out), 5);
  EXPECT_FALSE(sim.online());
  EXPECT_DOUBLE_EQ(sim.x(), x);

  // A client leaving stops the robot but keeps it online with its settings.
  sim = OnlineRobot();
  sim.Receive(Travel({{2.0f, 0.0f}}));
  sim.Advance(1.0);
  const double stopped_at = sim.x();
  sim.ClientLeft();
  EXPECT_TRUE(sim.online());              // the next client finds it ready
  EXPECT_TRUE(sim.Advance(1.0).empty());  // nobody to report to
  EXPECT_DOUBLE_EQ(sim.x(), stopped_at);
  EXPECT_EQ(sim.speed_limit(), 1000);  // kept for the next client
}

TEST(SimCore, DescribeShowsEveryFieldAndEscapesBinary) {
  EXPECT_EQ(tarn_sim::Describe(Travel({{0.8f, 0.0f}, {0.5f, -0.25f}})),
            "T-0 -> R-0 KEY_ACTION int=2 \"N\" \"N\" \"N\" actions=1 [type 1, 2 pts: 0(0.8,0) "
            "1(0.5,-0.25)]");
  Message_RTS odd;
  odd.key = static_cast<RTS_key>(5);
  odd.sender_id = std::string("a\0\"b", 4);
  odd.text_param1 = std::string(100, 'z');
  EXPECT_EQ(tarn_sim::Describe(odd), "a\\x00\\\"b -> N KEY_5 int=0 \"" + std::string(80, 'z') +
                                         "...(+20 bytes)\" \"N\" \"N\"");
}
