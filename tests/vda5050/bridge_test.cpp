// The bridge's order and state logic against a recording robot: which
// commands it issues when, and what the state then says.

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "bridge.h"

namespace {

using vda::Json;

struct FakeRobot : vda::RobotPort {
  std::ostringstream calls;  // one line per command
  bool Log(const char* what, std::vector<float> values) {
    calls << what;
    for (float v : values) calls << ' ' << v;
    return calls << '\n', true;
  }
  bool Drive(const std::vector<std::array<float, 3>>& points) override {
    std::vector<float> all;
    for (const auto& p : points) all.insert(all.end(), p.begin(), p.end());
    return Log("drive", all);
  }
  bool Turn(float theta) override { return Log("turn", {theta}); }
  bool Speed(int v) override { return Log("speed", {float(v)}); }
  void Init(float x, float y, float t) override { Log("init", {x, y, t}); }
  void Detail() override { Log("detail", {}); }
};

// Nodes "name x y [theta]" joined by released edges; orderUpdateId upd. The
// first node takes the fields of first on top.
std::string Order(const std::string& id, std::int64_t upd, std::vector<Json> nodes,
                  std::int64_t seq0 = 0, const char* first = "{}") {
  Json o = Json::parse(R"({"nodes":[],"edges":[]})");
  o["orderId"] = id, o["orderUpdateId"] = upd;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    Json n = Json::parse(R"({"released":true,"actions":[],"nodePosition":{"mapId":"map"}})");
    n["nodeId"] = nodes[i][0], n["sequenceId"] = seq0 + 2 * i;
    n["nodePosition"]["x"] = nodes[i][1], n["nodePosition"]["y"] = nodes[i][2];
    if (nodes[i].size() > 3) n["nodePosition"]["theta"] = nodes[i][3];
    if (i == 0) n.merge_patch(Json::parse(first));
    o["nodes"].push_back(n);
    if (i == 0) continue;
    Json e = Json::parse(R"({"released":true,"actions":[]})");
    e["edgeId"] = "e" + std::to_string(i), e["sequenceId"] = seq0 + 2 * i - 1;
    e["startNodeId"] = nodes[i - 1][0], e["endNodeId"] = nodes[i][0];
    o["edges"].push_back(e);
  }
  return o.dump();
}

constexpr double kPi = 3.14159265358979323846;
using tarn::EventType;

tarn::Event Ev(EventType type) {
  tarn::Event e;
  e.type = type;
  e.passed = e.total = 1;  // progress of a running action
  return e;
}
// A status report; 24.2 V lies halfway between the default empty and full voltages.
tarn::Event At(float x, float y, std::int32_t s, float t = 0, bool complete = true) {
  tarn::Event e = Ev(EventType::Report);
  e.report.voltage = 24.2f, e.report.x = x, e.report.y = y, e.report.state = s;
  e.report.orientation = t, e.report.complete = complete;
  return e;
}

struct vda5050Core : ::testing::Test {
  FakeRobot robot;
  vda::Bridge bridge{vda::Config(), robot};
  void On(EventType type) { bridge.OnEvent(Ev(type)); }
  void Report(float x, float y, std::int32_t s, float t = 0) { bridge.OnEvent(At(x, y, s, t)); }
  void Online() { On(EventType::InitAcknowledged), Report(0, 0, -1); }
  // The state's error types, then its action states as "actionId=status".
  std::string Said() {
    const Json state = bridge.State("t");
    std::string out;
    for (const Json& e : state["errors"]) out += e["errorType"].get<std::string>() + "; ";
    for (const Json& a : state["actionStates"])
      out += a["actionId"].get<std::string>() + "=" + a["actionStatus"].get<std::string>() + "; ";
    return out;
  }
  // One instant action per entry, "actionId:actionType" or just the type,
  // which is then its actionId too.
  void Instant(std::vector<std::string> actions, const std::string& params = "[]") {
    Json o{{"actions", Json::array()}};
    for (const std::string& a : actions) {
      const std::size_t colon = a.find(':');
      o["actions"].push_back({{"actionId", a.substr(0, colon)},
                              {"actionType", a.substr(colon == a.npos ? 0 : colon + 1)},
                              {"blockingType", "HARD"},
                              {"actionParameters", Json::parse(params)}});
    }
    bridge.InstantActions(o.dump());
  }
};

TEST_F(vda5050Core, OrderIsDrivenInStretchesCutAtHeadings) {
  Online();
  bridge.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1.5, 0, 1.5}, {"c", 1.5, -0.25}}));
  On(EventType::WaypointPassed), On(EventType::ActionFinished);
  const Json s = bridge.State("t");  // stopped on b until the robot says it is free
  EXPECT_EQ(Json({s["edgeStates"][0]["edgeId"], s["driving"]}), Json({"e2", false}));
  // Free: the turn on b goes out. Reports sent before it arrived still say free.
  for (int state : {-1, -1, -1, 0}) Report(1.5, 0, state, 0.7f);
  EXPECT_EQ(robot.calls.str(), "drive 1500 0 0\nturn 1.5\n");
  Report(1.5, 0, -1, 1.5);
  EXPECT_EQ(robot.calls.str(), "drive 1500 0 0\nturn 1.5\ndrive 1500 -250 0\n");
  // One headerId sequence per topic; the charge is linear in the voltage.
  EXPECT_EQ(bridge.State("t")["headerId"], 1);
  EXPECT_EQ(bridge.Visualization("t")["headerId"], 0);
  EXPECT_NEAR(s["batteryState"]["batteryCharge"], 50.0, 1e-9);
  // Numbers as the robot wrote them; facing west it says 3.1416, published
  // within [-pi, pi]. An incomplete report changes nothing.
  bridge.OnEvent(At(0.1f, -0.25f, -1, 3.1416f));
  bridge.OnEvent(At(9, 9, 3, 0, false));
  for (const Json& m : {bridge.State("t"), bridge.Visualization("t")})
    EXPECT_EQ(m["agvPosition"].dump(),
              R"({"mapId":"map","positionInitialized":true,"theta":-3.1415853071795863,)"
              R"("x":0.1,"y":-0.25})");
  // Headings of exactly pi and -pi are valid; the robot takes pi in single precision.
  On(EventType::WaypointPassed), On(EventType::ActionFinished), Report(1.5, -0.25, -1, 1.5);
  bridge.Order(Order("p", 0, {{"c", 1.5, -0.25}, {"d", 1.5, 0, kPi}, {"e", 1.5, 1, -kPi}}));
  On(EventType::WaypointPassed), On(EventType::ActionFinished), Report(1.5, 0, -1, 1.5);
  EXPECT_EQ(Said(), "");
  EXPECT_EQ(robot.calls.str(),
            "drive 1500 0 0\nturn 1.5\ndrive 1500 -250 0\ndrive 1500 0 0\nturn 3.14159\n");
}

// A small frame limit: orders beyond it are refused, stretches stitched
// together by updates are cut at it, and the factsheet says so.
TEST_F(vda5050Core, LimitsFollowTheConfigurationAndTheFactsheetSaysThem) {
  vda::Config config;
  config.max_stretch = 2, config.state_interval = 5, config.visualization_interval = 0.1;
  vda::Bridge small(config, robot);
  small.OnEvent(Ev(EventType::InitAcknowledged)), small.OnEvent(At(0, 0, -1));
  small.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1, 0}, {"c", 2, 0}, {"d", 3, 0}}));
  EXPECT_EQ(small.State("t")["errors"][0]["errorDescription"],
            "this robot takes at most 3 nodes per order (one drive command carries 2 way-points)");
  small.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1, 0, 1}, {"c", 2, 0}}));
  small.Order(Order("o", 1, {{"c", 2, 0}, {"d", 3, 0}, {"e", 4, 0}}, 4));  // while driving to b
  for (tarn::Event e : {Ev(EventType::WaypointPassed), Ev(EventType::ActionFinished), At(1, 0, -1),
                        At(1, 0, 0, 0.5f), At(1, 0, -1, 1)})
    small.OnEvent(e);  // at b, turned
  for (int i = 0; i < 2; ++i) small.OnEvent(Ev(EventType::WaypointPassed));
  small.OnEvent(Ev(EventType::ActionFinished)), small.OnEvent(At(3, 0, -1, 1));
  EXPECT_EQ(robot.calls.str(), "drive 1000 0 0\nturn 1\ndrive 2000 0 0 3000 0 0\ndrive 4000 0 0\n");
  const Json f = small.Factsheet("t");
  EXPECT_EQ(f["protocolLimits"].dump(),
            R"({"maxArrayLens":{"order.edges":2,"order.nodes":3,"state.actionStates":64,)"
            R"("state.errors":32},"maxStringLens":{"enumLen":128,"idLen":128},"timing":)"
            R"({"defaultStateInterval":5.0,"minOrderInterval":0,"minStateInterval":0,)"
            R"("visualizationInterval":0.1}})");
  // No action may go on a node or an edge: every one is instant only.
  for (const Json& a : f["protocolFeatures"]["agvActions"])
    EXPECT_EQ(a["actionScopes"], Json({"INSTANT"})) << a["actionType"];
}

TEST_F(vda5050Core, RefusedOrdersLeaveTheRobotAloneAndSayWhy) {
  bridge.Order(Order("o", 0, {{"a", 0, 0}}));  // not initialised
  Online();
  bridge.Order(Order("o", 0, {{"a", 0, 0}}, 0, R"({"actions": [{"actionId": "k"}]})"));
  bridge.Order(Order("o", 0, {{"a", 0, 0}}, 0, R"({"nodePosition": {"allowedDeviationXY": "x"}})"));
  bridge.Order(R"({"orderId": "o", "orderUpdateId": 0, "edges": [{}], "nodes": [{"nodeId": "a",
      "sequenceId": 0, "released": true, "actions": []}]})");  // one edge too many
  bridge.Order("{\"orderId\":");
  bridge.Order(Order("o", 0, {{"a", 3, 0}}));
  // Beyond the standard's ranges, and beyond what the robot's millimetres carry.
  bridge.Order(Order("o", 4294967296, {{"a", 0, 0}}));
  bridge.Order(Order("o", 0, {{"a", 0, 0}}, 4294967296));
  bridge.Order(Order("o", 0, {{"a", 0, 0, 3.1416}}));
  bridge.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1e308, 0}}));
  EXPECT_EQ(Said(),
            "orderError; orderError; validationError; validationError; validationError; "
            "noRouteError; validationError; validationError; validationError; orderError; ");
  const Json errors = bridge.State("t")["errors"];
  EXPECT_EQ(errors[1]["errorReferences"][2]["referenceValue"], "k");
  EXPECT_EQ(Json({errors[6]["errorDescription"], errors[7]["errorDescription"]}),
            Json({"orderUpdateId must be an integer from 0 to 4294967295",
                  "a sequenceId must be an integer from 0 to 4294967295"}));
  // Ids beyond 128 bytes are refused and echoed cut, on a character boundary:
  // thirty refused orders with huge ids keep the state small.
  std::string accented = "a";
  for (int i = 0; i < 100; ++i) accented += "\xC3\xA9";
  bridge.Order(Order(accented, 0, {{"a", 0, 0}}));
  EXPECT_EQ(bridge.State("t")["errors"].back()["errorReferences"][1]["referenceValue"],
            accented.substr(0, 127) + "...");
  for (int i = 0; i < 30; ++i) bridge.Order(Order(std::string(1 << 16, 'x'), 0, {{"a", 0, 0}}));
  EXPECT_LT(bridge.State("t").dump().size(), 16u * 1024);
  bridge.Order(Order("o", 3, {{"a", 0, 0}, {"b", 1, 0}}));  // accepted: errors cleared
  bridge.Order(Order("o", 3, {{"a", 0, 0}, {"b", 1, 0}}));  // the same again: ignored
  bridge.Order(Order("o", 2, {{"b", 1, 0}}, 2));
  bridge.Order(Order("o", 4, {{"a", 0, 0}}));  // does not start at the decision point b
  bridge.Order(Order("p", 0, {{"a", 0, 0}}));  // a new order while one runs
  Report(0, 0, 3);                             // the robot's own error shows as well
  On(EventType::ActionFinished);               // the drive ended short of b
  EXPECT_EQ(Said(), "orderUpdateError; orderUpdateError; orderError; orderAborted; robotBusy; ");
  EXPECT_EQ(robot.calls.str(), "drive 1000 0 0\n");
  // Each error code is named after the robot's task-state table.
  std::string named;
  for (std::int32_t code : {2, 4, 5, 9, 0}) {
    Report(0, 0, code);
    const Json e = bridge.State("t")["errors"].back();
    named +=
        e["errorType"].get<std::string>() + ": " + e["errorDescription"].get<std::string>() + "\n";
  }
  EXPECT_EQ(named,
            "robotNotOnline: the robot reports error 2 (not online)\n"
            "robotUnsupportedAction: the robot reports error 4 (unsupported action)\n"
            "robotBadParameter: the robot reports error 5 (bad parameter)\n"
            "robotError: the robot reports error 9\n"
            "orderAborted: the robot ended the drive after 0 of 1 way-points\n");
}

TEST_F(vda5050Core, InstantActionsMapToRobotCommandsOrFail) {
  Instant({"cancelOrder"});
  // initPosition's parameters, x, y and theta as given.
  auto pose = [](const char* x, const char* y, const char* theta, const char* more = "") {
    return std::string(R"([{"key": "x", "value": )") + x + R"(}, {"key": "y", "value": )" + y +
           R"(}, {"key": "theta", "value": )" + theta + "}" + more + "]";
  };
  // Poses the robot cannot take are refused before Init, which kills it first;
  // an action the state could not echo is refused whole.
  Instant({"x:initPosition"}, pose("1e308", "0", "0"));
  Instant({"t:initPosition"}, pose("0", "0", "3.1416"));
  Instant({std::string(129, 'i') + ":stateRequest"});
  EXPECT_EQ(Said(),
            "noOrderToCancel; validationError; validationError; validationError; "
            "cancelOrder=FAILED; x=FAILED; t=FAILED; ");
  EXPECT_EQ(robot.calls.str(), "");
  Instant({"initPosition"}, pose("2", "-1", "0.5", R"(, {"key": "lastNodeId", "value": "n"})"));
  On(EventType::KillAcknowledged);
  EXPECT_EQ(bridge.State("t")["actionStates"][3]["actionStatus"], "RUNNING");
  On(EventType::InitAcknowledged);
  Report(2, -1, -1, 0.5);
  // Two requests in one message: one report answers both.
  Instant({"s1:stateRequest", "s2:stateRequest"});
  Report(2, -1, -1, 0.5);
  EXPECT_EQ(Said(),
            "noOrderToCancel; validationError; validationError; validationError; "
            "cancelOrder=FAILED; x=FAILED; t=FAILED; initPosition=FINISHED; s1=FINISHED; "
            "s2=FINISHED; ");
  EXPECT_EQ(bridge.State("t")["lastNodeId"], "n");
  bridge.Order(Order("o", 0, {{"a", 2, -1}, {"b", 3, -1}}));
  Report(2.5f, -1, 0, 0.5);
  Instant({"cancelOrder", "factsheetRequest"});
  EXPECT_TRUE(bridge.TakeFactsheetDue());
  EXPECT_TRUE(bridge.State("t")["nodeStates"].empty());
  On(EventType::KillAcknowledged);
  Report(2.5f, -1, 5);  // the initialisation refused
  // An initialisation acknowledged without its kill before it is not the answer.
  Instant({"again:initPosition"}, pose("0", "0", "0"));
  On(EventType::InitAcknowledged);
  EXPECT_EQ(Said(),
            "actionRefused; actionRefused; robotBadParameter; cancelOrder=FAILED; "
            "factsheetRequest=FINISHED; again=FAILED; ");
  // A stretch is driven in millimetres; a cancelled drive stops where the robot last was.
  EXPECT_EQ(robot.calls.str(),
            "init 2000 -1000 0.5\ndetail\ndrive 3000 -1000 0\ninit 2500 -1000 0.5\ninit 0 0 0\n");
  // Unreadable data from the control server is fatal, as a lost connection is.
  tarn::Event unreadable = Ev(EventType::Unreadable);
  unreadable.reason = "a frame of type 7";
  bridge.OnEvent(unreadable);
  Instant({"stateRequest"});
  const Json errors = bridge.State("t")["errors"];
  EXPECT_EQ(errors[errors.size() - 3]["errorDescription"],
            "the control server sent unreadable data: a frame of type 7");
  EXPECT_EQ(Said().substr(Said().size() - 21), "stateRequest=FAILED; ");
}

}  // namespace
