// The bridge's order and state logic against a recording robot: which
// commands it issues when, and what the state then says.

#include <gtest/gtest.h>

#include <sstream>

#include "bridge.h"

namespace {

using vda::Json;

struct FakeRobot : vda::RobotPort {
  std::vector<std::string> calls;
  bool Log(const char* what, std::vector<float> values) {
    std::ostringstream out;
    out << what;
    for (float v : values) out << ' ' << v;
    return calls.push_back(out.str()), true;
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

vda::Report At(double x, double y, int state, double theta = 0, double voltage = 24.2) {
  vda::Report r;
  r.voltage = voltage, r.x = x, r.y = y, r.state = state, r.theta = theta;
  return r;
}

// Nodes "name x y [theta]" joined by released edges; orderUpdateId upd.
std::string Order(const std::string& id, int upd, std::vector<Json> nodes, unsigned seq0 = 0) {
  Json o = Json::parse(R"({"nodes":[],"edges":[]})");
  o["orderId"] = id, o["orderUpdateId"] = upd;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    Json n = Json::parse(R"({"released":true,"actions":[],"nodePosition":{"mapId":"map"}})");
    n["nodeId"] = nodes[i][0], n["sequenceId"] = seq0 + 2 * i;
    n["nodePosition"]["x"] = nodes[i][1], n["nodePosition"]["y"] = nodes[i][2];
    if (nodes[i].size() > 3) n["nodePosition"]["theta"] = nodes[i][3];
    o["nodes"].push_back(n);
    if (i == 0) continue;
    Json e = Json::parse(R"({"released":true,"actions":[]})");
    e["edgeId"] = "e" + std::to_string(i), e["sequenceId"] = seq0 + 2 * i - 1;
    e["startNodeId"] = nodes[i - 1][0], e["endNodeId"] = nodes[i][0];
    o["edges"].push_back(e);
  }
  return o.dump();
}

std::vector<std::string> Errors(vda::Bridge& b) {
  std::vector<std::string> out;
  const Json state = b.State("t");
  for (const Json& e : state["errors"]) out.push_back(e["errorType"]);
  return out;
}

struct vda5050Core : ::testing::Test {
  FakeRobot robot;
  vda::Bridge bridge{vda::Config(), robot};
  void Online() { bridge.OnInitAck(), bridge.OnReport(At(0, 0, -1)); }
};

TEST_F(vda5050Core, OrderIsDrivenInStretchesCutAtHeadings) {
  Online();
  bridge.Order(Order("o", 0, {{"a", 0, 0}, {"b", 1.5, 0, 1.5}, {"c", 1.5, -0.25}}));
  EXPECT_EQ(robot.calls, std::vector<std::string>{"drive 1500 0 0"});
  bridge.OnPassed();
  Json s = bridge.State("2026-01-01T00:00:00.000Z");
  EXPECT_EQ(Json({s["lastNodeId"], s["lastNodeSequenceId"], s["nodeStates"].size(),
                  s["edgeStates"][0]["edgeId"], s["driving"]}),
            Json({"b", 2, 1, "e2", true}));
  bridge.OnActionEnded();
  EXPECT_FALSE(bridge.State("t")["driving"]);
  bridge.OnReport(At(1.5, 0, -1));  // the robot is free again: the turn on node b
  bridge.OnReport(At(1.5, 0, -1));  // reports sent before the turn arrived
  bridge.OnReport(At(1.5, 0, -1));
  bridge.OnReport(At(1.5, 0, 0, 0.7));
  EXPECT_EQ(robot.calls.size(), 2u);
  bridge.OnReport(At(1.5, 0, -1, 1.5));
  EXPECT_EQ(robot.calls,
            (std::vector<std::string>{"drive 1500 0 0", "turn 1.5", "drive 1500 -250 0"}));
  bridge.OnPassed(), bridge.OnActionEnded();
  bridge.OnReport(At(1.5, -0.25, -1));
  s = bridge.State("t");
  EXPECT_EQ(s["lastNodeId"], "c");
  EXPECT_TRUE(s["nodeStates"].empty() && !s["driving"] && s["errors"].empty());
  // One headerId sequence per topic; the charge is linear in the voltage.
  EXPECT_EQ(s["headerId"], 2);
  EXPECT_EQ(bridge.Visualization("t")["headerId"], 0);
  EXPECT_NEAR(s["batteryState"]["batteryCharge"], 50.0, 1e-9);
}

TEST_F(vda5050Core, RefusedOrdersLeaveTheRobotAloneAndSayWhy) {
  bridge.Order(Order("o", 0, {{"a", 0, 0}}));
  EXPECT_EQ(Errors(bridge), std::vector<std::string>{"orderError"});  // not initialised
  Online();
  Json act = Json::parse(Order("o", 0, {{"a", 0, 0}}));
  act["nodes"][0]["actions"] = Json::array({Json{{"actionId", "k"}, {"actionType", "pick"}}});
  Json lonely = Json::parse(Order("o", 0, {{"a", 0, 0}, {"b", 1, 0}}));
  lonely["edges"] = Json::array();
  bridge.Order(act.dump());
  act["nodes"][0]["actions"] = Json::array(),
  act["nodes"][0]["nodePosition"]["allowedDeviationXY"] = "far";
  bridge.Order(act.dump());  // a field of the wrong type
  bridge.Order(lonely.dump());
  bridge.Order("{\"orderId\":");
  bridge.Order(Order("o", 0, {{"a", 3, 0}}));
  EXPECT_EQ(Errors(bridge),
            (std::vector<std::string>{"orderError", "orderError", "validationError",
                                      "validationError", "validationError", "noRouteError"}));
  EXPECT_EQ(bridge.State("t")["errors"][1]["errorReferences"][2]["referenceValue"], "k");
  EXPECT_TRUE(robot.calls.empty());
  bridge.Order(Order("o", 3, {{"a", 0, 0}, {"b", 1, 0}}));  // accepted: errors cleared
  bridge.Order(Order("o", 2, {{"b", 1, 0}}, 2));
  bridge.Order(Order("o", 4, {{"a", 0, 0}}));  // does not start at the decision point b
  EXPECT_EQ(Errors(bridge), (std::vector<std::string>{"orderUpdateError", "orderUpdateError"}));
  bridge.Order(Order("p", 0, {{"a", 0, 0}}));
  EXPECT_EQ(Errors(bridge).back(), "orderError");  // a new order while one runs
  bridge.OnActionEnded();                          // the drive ended short of b
  bridge.OnReport(At(0, 0, 3));
  EXPECT_EQ(Errors(bridge).back(), "robotBusy");
  EXPECT_EQ(Errors(bridge)[3], "orderAborted");
  EXPECT_EQ(robot.calls, std::vector<std::string>{"drive 1000 0 0"});
}

TEST_F(vda5050Core, InstantActionsMapToRobotCommandsOrFail) {
  auto actions = [&](std::vector<std::string> types, const char* params = "[]") {
    Json o{{"actions", Json::array()}};
    for (auto& type : types)
      o["actions"].push_back({{"actionId", type},
                              {"actionType", type},
                              {"blockingType", "HARD"},
                              {"actionParameters", Json::parse(params)}});
    bridge.InstantActions(o.dump());
  };
  auto status = [&](const std::string& id) {
    const Json state = bridge.State("t");
    for (const Json& a : state["actionStates"])
      if (a["actionId"] == id) return a["actionStatus"].get<std::string>();
    return std::string("none");
  };
  actions({"startPause", "cancelOrder"});
  EXPECT_EQ(status("startPause") + status("cancelOrder"), "FAILEDFAILED");
  EXPECT_EQ(Errors(bridge), (std::vector<std::string>{"unsupportedAction", "noOrderToCancel"}));
  actions({"initPosition"}, R"([{"key": "x", "value": 2}, {"key": "y", "value": -1},
      {"key": "theta", "value": 0.5}, {"key": "lastNodeId", "value": "n"}])");
  EXPECT_EQ(robot.calls.back(), "init 2000 -1000 0.5");
  bridge.OnKillAck();
  EXPECT_EQ(status("initPosition"), "RUNNING");
  bridge.OnInitAck();
  bridge.OnReport(At(2, -1, -1, 0.5));
  EXPECT_EQ(status("initPosition"), "FINISHED");
  EXPECT_EQ(bridge.State("t")["lastNodeId"], "n");
  bridge.Order(Order("o", 0, {{"a", 2, -1}, {"b", 3, -1}}));
  bridge.OnReport(At(2.5, -1, 0, 0.5));
  actions({"cancelOrder", "factsheetRequest"});
  EXPECT_EQ(robot.calls.back(), "init 2500 -1000 0.5");  // killed and set down where it is
  EXPECT_TRUE(bridge.TakeFactsheetDue());
  EXPECT_TRUE(bridge.State("t")["nodeStates"].empty());
  bridge.OnKillAck();
  bridge.OnReport(At(2.5, -1, 5));  // the initialisation refused
  EXPECT_EQ(status("cancelOrder") + status("factsheetRequest"), "FAILEDFINISHED");
  bridge.OnServerLost();
  EXPECT_EQ(Errors(bridge),
            (std::vector<std::string>{"actionRefused", "controlServerLost", "robotBadParameter"}));
  EXPECT_EQ(bridge.State("t")["errors"][1]["errorLevel"], "FATAL");
}

}  // namespace
