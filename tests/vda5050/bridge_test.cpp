// The bridge's order and state logic against a recording robot: which
// commands it issues when, and what the state then says.

#include <gtest/gtest.h>

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
std::string Order(const std::string& id, int upd, std::vector<Json> nodes, unsigned seq0 = 0,
                  const char* first = "{}") {
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

struct vda5050Core : ::testing::Test {
  FakeRobot robot;
  vda::Bridge bridge{vda::Config(), robot};
  // A status report; 24.2 V lies halfway between the default empty and full voltages.
  static vda::Report At(double x, double y, int s, double t = 0) {
    return {24.2, x, y, s, t, 0, 0, ""};
  }
  void Online() { bridge.OnInitAck(), bridge.OnReport(At(0, 0, -1)); }
  // The state's error types, then its action states as "actionId=status".
  std::string Said() {
    const Json state = bridge.State("t");
    std::string out;
    for (const Json& e : state["errors"]) out += e["errorType"].get<std::string>() + "; ";
    for (const Json& a : state["actionStates"])
      out += a["actionId"].get<std::string>() + "=" + a["actionStatus"].get<std::string>() + "; ";
    return out;
  }
  // One instant action of each type, its actionId the type's name.
  void Instant(std::vector<std::string> types, const char* params = "[]") {
    Json o{{"actions", Json::array()}};
    for (auto& type : types)
      o["actions"].push_back({{"actionId", type},
                              {"actionType", type},
                              {"blockingType", "HARD"},
                              {"actionParameters", Json::parse(params)}});
    bridge.InstantActions(o.dump());
  }
};

TEST_F(vda5050Core, OrderIsDrivenInStretchesCutAtHeadings) {
  Online();
  bridge.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1.5, 0, 1.5}, {"c", 1.5, -0.25}}));
  bridge.OnPassed(), bridge.OnActionEnded();
  const Json s = bridge.State("t");  // stopped on b until the robot says it is free
  EXPECT_EQ(Json({s["edgeStates"][0]["edgeId"], s["driving"]}), Json({"e2", false}));
  // Free: the turn on b goes out. Reports sent before it arrived still say free.
  for (int state : {-1, -1, -1, 0}) bridge.OnReport(At(1.5, 0, state, 0.7));
  EXPECT_EQ(robot.calls.str(), "drive 1500 0 0\nturn 1.5\n");
  bridge.OnReport(At(1.5, 0, -1, 1.5));
  EXPECT_EQ(robot.calls.str(), "drive 1500 0 0\nturn 1.5\ndrive 1500 -250 0\n");
  // One headerId sequence per topic; the charge is linear in the voltage.
  EXPECT_EQ(bridge.State("t")["headerId"], 1);
  EXPECT_EQ(bridge.Visualization("t")["headerId"], 0);
  EXPECT_NEAR(s["batteryState"]["batteryCharge"], 50.0, 1e-9);
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
  EXPECT_EQ(Said(),
            "orderError; orderError; validationError; validationError; validationError; "
            "noRouteError; ");
  EXPECT_EQ(bridge.State("t")["errors"][1]["errorReferences"][2]["referenceValue"], "k");
  bridge.Order(Order("o", 3, {{"a", 0, 0}, {"b", 1, 0}}));  // accepted: errors cleared
  bridge.Order(Order("o", 2, {{"b", 1, 0}}, 2));
  bridge.Order(Order("o", 4, {{"a", 0, 0}}));  // does not start at the decision point b
  bridge.Order(Order("p", 0, {{"a", 0, 0}}));  // a new order while one runs
  bridge.OnReport(At(0, 0, 3));                // the robot's own error shows as well
  bridge.OnActionEnded();                      // the drive ended short of b
  EXPECT_EQ(Said(), "orderUpdateError; orderUpdateError; orderError; orderAborted; robotBusy; ");
  EXPECT_EQ(robot.calls.str(), "drive 1000 0 0\n");
}

TEST_F(vda5050Core, InstantActionsMapToRobotCommandsOrFail) {
  Instant({"cancelOrder"});
  EXPECT_EQ(Said(), "noOrderToCancel; cancelOrder=FAILED; ");
  Instant({"initPosition"}, R"([{"key": "x", "value": 2}, {"key": "y", "value": -1},
      {"key": "theta", "value": 0.5}, {"key": "lastNodeId", "value": "n"}])");
  bridge.OnKillAck();
  EXPECT_EQ(Said(), "noOrderToCancel; cancelOrder=FAILED; initPosition=RUNNING; ");
  bridge.OnInitAck();
  bridge.OnReport(At(2, -1, -1, 0.5));
  EXPECT_EQ(Said(), "noOrderToCancel; cancelOrder=FAILED; initPosition=FINISHED; ");
  EXPECT_EQ(bridge.State("t")["lastNodeId"], "n");
  bridge.Order(Order("o", 0, {{"a", 2, -1}, {"b", 3, -1}}));
  bridge.OnReport(At(2.5, -1, 0, 0.5));
  Instant({"cancelOrder", "factsheetRequest"});
  EXPECT_TRUE(bridge.TakeFactsheetDue());
  EXPECT_TRUE(bridge.State("t")["nodeStates"].empty());
  bridge.OnKillAck();
  bridge.OnReport(At(2.5, -1, 5));  // the initialisation refused
  EXPECT_EQ(Said(),
            "actionRefused; robotBadParameter; cancelOrder=FAILED; factsheetRequest=FINISHED; ");
  // A stretch is driven in millimetres; a cancelled drive stops where the robot last was.
  EXPECT_EQ(robot.calls.str(), "init 2000 -1000 0.5\ndrive 3000 -1000 0\ninit 2500 -1000 0.5\n");
}

}  // namespace
