// The simulated robot, driven message by message and in simulated time.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "sim_core.h"

using tarn_sim::RobotSim;
using tarn_sim::SimConfig;

namespace {

Message_RTS Request(RTS_key key, const std::string& to, int value = 0,
                    const std::string& text1 = "N", const std::string& text2 = "N",
                    const std::string& text3 = "N") {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = to;
  m.key = key;
  m.int_param = value;
  m.text_param1 = text1;
  m.text_param2 = text2;
  m.text_param3 = text3;
  return m;
}

// A KEY_ACTION as the client builds it: one travel action, way-points named
// "0", "1", ... with coordinates in metres.
Message_RTS Travel(const std::vector<std::pair<float, float>>& points, int type = 1) {
  std::deque<QrInfo_RTS> path;
  for (std::size_t i = 0; i < points.size(); ++i) {
    path.push_back(
        QrInfo_RTS(std::to_string(i), points[i].first, points[i].second, SPACE_DEFAULT, 1));
  }
  Message_RTS m = Request(KEY_ACTION, "R-0", static_cast<int>(points.size()));
  m.actions.push_back(Action_RTS(type, path));
  return m;
}

// Fields of a status report text, in order.
struct Status {
  double voltage, x, y;
  int state;
  double orientation, velocity, acceleration;
};

Status Parse(const Message_RTS& m) {
  Status s{};
  EXPECT_EQ(m.key, KEY_DETAIL);
  EXPECT_EQ(m.sender_id, "R-0");
  EXPECT_EQ(m.text_param2, "R-0");
  int n = std::sscanf(m.text_param1.c_str(), "%lf %lf %lf %d %lf %lf %lf", &s.voltage, &s.x, &s.y,
                      &s.state, &s.orientation, &s.velocity, &s.acceleration);
  EXPECT_EQ(n, 7) << m.text_param1;
  return s;
}

// A robot with a connected client, online at the origin, limits set.
RobotSim OnlineRobot(SimConfig config = SimConfig(), int speed = 1000, int accel = 800) {
  RobotSim sim(config);
  sim.Receive(Request(KEY_CONNECT, "SV-0"));
  sim.Receive(Request(KEY_INIT, "SV-0", 0, "0.000000", "0.000000", "0.000000"));
  sim.Receive(Request(KEY_SET_PARAM, "SV-0", speed, "Speed"));
  sim.Receive(Request(KEY_SET_PARAM, "SV-0", accel, "Acceleration"));
  return sim;
}

// Progress reports only, as "path:<code>" / "action".
std::vector<std::string> ProgressOf(const std::vector<Message_RTS>& out) {
  std::vector<std::string> p;
  for (const Message_RTS& m : out) {
    if (m.key != KEY_ACTION) continue;
    EXPECT_EQ(m.sender_id, "R-0");
    EXPECT_EQ(m.receiver_id, "T-0");
    if (m.text_param1 == "path") {
      EXPECT_EQ(m.int_param, 1);
      p.push_back("path:" + m.text_param2);
    } else {
      p.push_back(m.text_param1);
    }
  }
  return p;
}

int LastState(const std::vector<Message_RTS>& out) {
  for (auto it = out.rbegin(); it != out.rend(); ++it) {
    if (it->key == KEY_DETAIL) return Parse(*it).state;
  }
  ADD_FAILURE() << "no status report";
  return 99;
}

}  // namespace

TEST(SimCore, InitAndKillAreAcknowledgedByTheServerAndReportedByTheRobot) {
  RobotSim sim;
  EXPECT_TRUE(sim.Receive(Request(KEY_CONNECT, "SV-0")).empty());
  EXPECT_TRUE(sim.registered());

  auto out = sim.Receive(Request(KEY_INIT, "SV-0", 0, "1.500000", "-0.250000", "0.500000"));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].key, KEY_INIT);
  EXPECT_EQ(out[0].sender_id, "SV-0");
  EXPECT_EQ(out[0].receiver_id, "T-0");
  EXPECT_EQ(out[0].text_param1, "N");
  EXPECT_TRUE(out[0].actions.empty());
  // Metres in, metres out; the third INIT number is the heading.
  EXPECT_EQ(out[1].text_param1, "26.40 1.500 -0.250 -1 0.5000 0.0 0.0");
  EXPECT_EQ(out[1].receiver_id, "T-0");
  EXPECT_TRUE(sim.online());

  out = sim.Receive(Request(KEY_KILL, "SV-0"));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].key, KEY_KILL);
  EXPECT_EQ(out[0].sender_id, "SV-0");
  EXPECT_EQ(out[1].text_param1, "26.40 1.500 -0.250 -1 0.5000 0.0 0.0");
  EXPECT_FALSE(sim.online());

  // An INIT whose numbers do not parse leaves the robot offline, unacknowledged
  // and in error 5.
  out = sim.Receive(Request(KEY_INIT, "SV-0", 0, "1.0", "abc", "0"));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(Parse(out[0]).state, 5);
  EXPECT_FALSE(sim.online());
  EXPECT_DOUBLE_EQ(sim.x(), 1.5);
}

TEST(SimCore, DrivesAPathWithinItsLimitsAndReportsEveryWayPoint) {
  RobotSim sim = OnlineRobot();
  auto out = sim.Receive(Travel({{0.8f, 0.0f}, {0.8f, 0.6f}}));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(Parse(out[0]).state, 0);  // working, reported at once

  std::vector<Message_RTS> all;
  double first_arrival = -1;
  double max_speed = 0;
  double max_accel = 0;
  while (sim.time() < 10 && (all.empty() || ProgressOf(all).size() < 3)) {
    auto step = sim.Advance(0.01);
    max_speed = std::max(max_speed, sim.velocity());
    max_accel = std::max(max_accel, std::fabs(sim.acceleration()));
    if (first_arrival < 0 && !ProgressOf(step).empty()) first_arrival = sim.time();
    all.insert(all.end(), step.begin(), step.end());
  }
  EXPECT_EQ(ProgressOf(all), (std::vector<std::string>{"path:0", "path:1", "action"}));
  // 800 mm with 800 mm/s^2 and a 1000 mm/s limit: accelerate for half, brake
  // for half, 2 s in all.
  EXPECT_NEAR(first_arrival, 2.0, 0.02);
  EXPECT_LE(max_speed, 1000.0);
  EXPECT_LE(max_accel, 800.0 + 1e-6);
  EXPECT_DOUBLE_EQ(sim.x(), 0.8f * 1000.0 / 1000.0);
  EXPECT_NEAR(sim.y(), 0.6, 1e-6);
  // Facing the second leg before driving it.
  EXPECT_NEAR(sim.heading(), M_PI / 2, 1e-9);
  // The report after "action" says the robot is free again.
  ASSERT_EQ(all.back().key, KEY_DETAIL);
  EXPECT_EQ(Parse(all.back()).state, -1);
  EXPECT_EQ(sim.task_state(), -1);
}

TEST(SimCore, CruisesAtTheSpeedLimit) {
  RobotSim sim = OnlineRobot(SimConfig(), 500, 1000);
  sim.Receive(Travel({{3.0f, 0.0f}}));
  double max_speed = 0;
  double arrival = -1;
  while (sim.time() < 10 && arrival < 0) {
    auto out = sim.Advance(0.005);
    max_speed = std::max(max_speed, sim.velocity());
    if (!ProgressOf(out).empty()) arrival = sim.time();
  }
  EXPECT_NEAR(max_speed, 500.0, 1e-9);
  // 0.25 m to reach 500 mm/s, 2.5 m cruising, 0.25 m braking: 6.5 s.
  EXPECT_NEAR(arrival, 6.5, 0.02);
}

TEST(SimCore, RefusedActionsSetAnErrorAndAreClosedInOrder) {
  RobotSim sim;
  sim.Receive(Request(KEY_CONNECT, "SV-0"));
  // Offline: refused with 2 and closed at once.
  auto out = sim.Receive(Travel({{1.0f, 0.0f}}));
  EXPECT_EQ(ProgressOf(out), (std::vector<std::string>{"action"}));
  EXPECT_EQ(LastState(out), 2);

  sim = OnlineRobot();
  sim.Receive(Travel({{0.5f, 0.0f}}));
  sim.Advance(0.2);
  // Busy: error 3 while it keeps driving; the refused action is closed only
  // after the running one, so the client's running list drops them in order.
  out = sim.Receive(Travel({{1.0f, 1.0f}, {2.0f, 2.0f}}));
  EXPECT_TRUE(ProgressOf(out).empty());
  EXPECT_EQ(LastState(out), 3);
  std::vector<Message_RTS> all;
  for (int i = 0; i < 500 && ProgressOf(all).size() < 3; ++i) {
    auto step = sim.Advance(0.01);
    all.insert(all.end(), step.begin(), step.end());
  }
  EXPECT_EQ(ProgressOf(all), (std::vector<std::string>{"path:0", "action", "action"}));
  EXPECT_NEAR(sim.x(), 0.5, 1e-9);
  EXPECT_EQ(sim.task_state(), 3);  // latched until the next accepted command

  // A parameter change is accepted and clears it.
  EXPECT_TRUE(sim.Receive(Request(KEY_SET_PARAM, "SV-0", 700, "Speed")).empty());
  EXPECT_EQ(sim.task_state(), -1);
  EXPECT_EQ(sim.speed_limit(), 700);

  // Unknown parameter or a non-positive value: error 5, limits unchanged.
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_SET_PARAM, "SV-0", 700, "Jerk"))), 5);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_SET_PARAM, "SV-0", 0, "Acceleration"))), 5);
  EXPECT_EQ(sim.accel_limit(), 800);

  // Only travel actions (type 1) are understood: error 4, closed at once.
  out = sim.Receive(Travel({{1.0f, 0.0f}}, 2));
  EXPECT_EQ(ProgressOf(out), (std::vector<std::string>{"action"}));
  EXPECT_EQ(LastState(out), 4);

  // A non-finite coordinate: error 5; INIT clears any error.
  out = sim.Receive(Travel({{NAN, 0.0f}}));
  EXPECT_EQ(LastState(out), 5);
  out = sim.Receive(Request(KEY_INIT, "SV-0", 0, "0.000000", "0.000000", "0.000000"));
  EXPECT_EQ(LastState(out), -1);
  EXPECT_DOUBLE_EQ(sim.x(), 0.0);
}

TEST(SimCore, TurnsInPlaceTheShortWayAndRefusesBadOrientations) {
  SimConfig quiet;
  quiet.report_rate_hz = 0;
  RobotSim sim(quiet);
  sim.Receive(Request(KEY_CONNECT, "SV-0"));
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, "R-0", 0, "r 1"))), 2);

  sim.Receive(Request(KEY_INIT, "SV-0", 0, "0.000000", "0.000000", "-3.000000"));
  auto out = sim.Receive(Request(KEY_ORIENTATION, "R-0", 0, "r 3.14159"));
  EXPECT_EQ(LastState(out), 0);
  EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, "R-0", 0, "r 1"))), 3);
  // From -3 to 3.14159 across pi is 0.1416 rad: at 3 rad/s under 0.05 s.
  out = sim.Advance(0.06);
  EXPECT_DOUBLE_EQ(sim.heading(), 3.14159);
  EXPECT_DOUBLE_EQ(sim.x(), 0.0);
  // The end of the turn is reported at once; the busy refusal during it is
  // still latched.
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(Parse(out[0]).orientation, 3.1416);
  EXPECT_EQ(Parse(out[0]).state, 3);

  for (const char* bad : {"x 1", "r", "r abc", "r nan", "r 1e999", "1.5"}) {
    EXPECT_EQ(LastState(sim.Receive(Request(KEY_ORIENTATION, "R-0", 0, bad))), 5) << bad;
  }
  EXPECT_DOUBLE_EQ(sim.heading(), 3.14159);
  EXPECT_EQ(sim.task_state(), 5);
}

TEST(SimCore, PeriodicReportsFollowTheRateOnlyForARegisteredClient) {
  SimConfig config;
  RobotSim unregistered(config);
  EXPECT_TRUE(unregistered.Advance(2.0).empty());

  RobotSim sim(config);
  sim.Receive(Request(KEY_CONNECT, "SV-0"));
  // One report right after the client registers, then one every 0.1 s.
  auto out = sim.Advance(1.0);
  ASSERT_EQ(out.size(), 11u);
  for (const Message_RTS& m : out) EXPECT_EQ(Parse(m).state, -1);
  // Small steps do not change the count.
  int count = 0;
  for (int i = 0; i < 1000; ++i) count += static_cast<int>(sim.Advance(0.001).size());
  EXPECT_EQ(count, 10);

  config.report_rate_hz = 0;
  RobotSim silent(config);
  silent.Receive(Request(KEY_CONNECT, "SV-0"));
  EXPECT_TRUE(silent.Advance(2.0).empty());
  EXPECT_EQ(silent.Receive(Request(KEY_GET_DETAIL, "R-0")).size(), 1u);
}

TEST(SimCore, BatteryDrainsFasterWhileDrivingAndStopsAtItsFloor) {
  RobotSim idle = OnlineRobot();
  idle.Advance(10);
  EXPECT_NEAR(idle.voltage(), 26.4 - 10 * 0.002, 1e-9);

  RobotSim driving = OnlineRobot();
  driving.Receive(Travel({{5.0f, 0.0f}}));
  driving.Advance(10);
  EXPECT_LT(driving.voltage(), idle.voltage() - 0.03);

  SimConfig fast;
  fast.drain_idle = 1.0;
  RobotSim flat(fast);
  flat.Advance(100);
  EXPECT_DOUBLE_EQ(flat.voltage(), 22.0);
}

TEST(SimCore, KillAndLeavingStopTheRobotAndCloseItsActions) {
  RobotSim sim = OnlineRobot();
  sim.Receive(Travel({{2.0f, 0.0f}, {2.0f, 2.0f}}));
  sim.Advance(0.5);
  sim.Receive(Travel({{9.0f, 9.0f}}));  // refused: busy
  const double x = sim.x();
  auto out = sim.Receive(Request(KEY_KILL, "SV-0"));
  // The running action and the refused one are closed before the ack.
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(ProgressOf(out), (std::vector<std::string>{"action", "action"}));
  EXPECT_EQ(out[2].key, KEY_KILL);
  EXPECT_EQ(Parse(out[3]).state, -1);
  EXPECT_EQ(sim.velocity(), 0);
  sim.Advance(1.0);
  EXPECT_DOUBLE_EQ(sim.x(), x);

  // Empty path: nothing to drive, done at the next step.
  sim = OnlineRobot();
  sim.Receive(Travel({}));
  EXPECT_EQ(ProgressOf(sim.Advance(0.01)), (std::vector<std::string>{"action"}));

  sim = OnlineRobot();
  sim.Receive(Travel({{2.0f, 0.0f}}));
  sim.Advance(1.0);
  const double stopped_at = sim.x();
  sim.ClientLeft();
  EXPECT_FALSE(sim.online());
  EXPECT_FALSE(sim.registered());
  EXPECT_TRUE(sim.Advance(1.0).empty());
  EXPECT_DOUBLE_EQ(sim.x(), stopped_at);
  EXPECT_EQ(sim.speed_limit(), 1000);  // kept for the next client
}

TEST(SimCore, DescribeShowsEveryFieldReadablyAndEscapesBinary) {
  Message_RTS m = Travel({{0.8f, 0.0f}, {0.5f, -0.25f}});
  EXPECT_EQ(tarn_sim::Describe(m),
            "T-0 -> R-0 KEY_ACTION int=2 \"N\" \"N\" \"N\" actions=1 [type 1, 2 pts: 0(0.8,0) "
            "1(0.5,-0.25)]");
  Message_RTS odd;
  odd.key = static_cast<RTS_key>(5);
  odd.sender_id = std::string("a\0\"b", 4);
  odd.text_param1 = std::string(100, 'z');
  EXPECT_EQ(tarn_sim::Describe(odd), "a\\x00\\\"b -> N KEY_5 int=0 \"" + std::string(80, 'z') +
                                         "...(+20 bytes)\" \"N\" \"N\"");
}
