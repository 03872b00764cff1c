// The fleet map's model without a broker: what VDA 5050 messages become,
// when vehicles come and go, and what a hostile publisher cannot do to it.

#include "fleet.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

const std::string kOnline = R"({"connectionState":"ONLINE"})";

struct Feed {
  fleet::Fleet fleet;
  explicit Feed(fleet::Limits limits = {}) : fleet("uagv", limits) {}
  // `to`: "<manufacturer>/<serial>/<topic>" under uagv/v2/.
  Feed& Send(const std::string& to, const std::string& payload, double now = 0,
             bool retained = false) {
    fleet.Message("uagv/v2/" + to, payload, retained, now);
    return *this;
  }
  std::string Vehicles() const {
    std::string out;
    for (const auto& [id, v] : fleet.vehicles()) out += id + "=" + v.connection + " ";
    return out;
  }
  std::string Counts() const {
    const std::string s = fleet.Snapshot();
    return s.substr(s.find("\"full\""), s.find(",\"seq\"") - s.find("\"full\""));
  }
};

const std::string kState =
    R"({"headerId":7,"orderId":"o1","orderUpdateId":2,"lastNodeId":"a","lastNodeSequenceId":0,)"
    R"("driving":true,"operatingMode":"AUTOMATIC","batteryState":{"batteryCharge":81.5},)"
    R"("nodeStates":[{"nodeId":"c","sequenceId":4,"released":false},)"
    R"({"nodeId":"b","sequenceId":2,"released":true,"nodePosition":{"x":1.5,"y":-2,"mapId":"m"}}],)"
    R"("edgeStates":[{"edgeId":"bc","sequenceId":3,"released":false},)"
    R"({"edgeId":"ab","sequenceId":1,"released":true}],)"
    R"("agvPosition":{"x":0.25,"y":-0.5,"theta":-3.14,"mapId":"m","positionInitialized":true},)"
    R"("errors":[{"errorType":"orderError","errorLevel":"WARNING","errorDescription":"no"}]})";

}  // namespace

TEST(FleetCore, MessagesBecomeOneVehicleInTheSnapshot) {
  Feed f;
  f.Send("acme/r1/connection", kOnline)
      .Send(
          "acme/r1/factsheet",
          R"({"typeSpecification":{"seriesName":"T1"},"physicalParameters":{"length":1.2,"width":0.8}})")
      .Send("acme/r1/state", kState)
      // A visualization moves the vehicle and leaves the rest.
      .Send("acme/r1/visualization", R"({"agvPosition":{"x":0.5,"y":-1,"theta":0.5,"mapId":"m"}})")
      // One without a place leaves it where it was.
      .Send("acme/r1/visualization", R"({"agvPosition":{"theta":1,"mapId":"m"}})");
  EXPECT_EQ(
      f.fleet.Snapshot(),
      R"({"broker":false,"full":0,"ignored":0,"seq":5,"vehicles":[{"battery":81.5,)"
      R"("connection":"ONLINE","cut":0,"driving":true,"edges":[{"id":"ab","released":true,"seq":1},)"
      R"({"id":"bc","released":false,"seq":3}],"errors":[{"level":"WARNING","text":"no",)"
      R"("type":"orderError"}],"id":"acme/r1","lastNodeId":"a","lastNodeSeq":0,"manufacturer":"acme",)"
      R"("mode":"AUTOMATIC","nodes":[{"id":"b","released":true,"seq":2,"x":1.5,"y":-2.0},)"
      R"({"id":"c","released":false,"seq":4,"x":null,"y":null}],"orderId":"o1","orderUpdateId":2,)"
      R"("paused":false,"pose":{"map":"m","theta":0.5,"x":0.5,"y":-1.0},"serial":"r1","series":"T1",)"
      R"("size":[1.2,0.8]}]})");
  // The next state replaces the route and the errors whole.
  f.Send("acme/r1/state", R"({"orderId":"o1","lastNodeId":"c","lastNodeSequenceId":4,)"
                          R"("nodeStates":[],"edgeStates":[],"errors":[]})");
  const fleet::Vehicle& v = f.fleet.vehicles().at("acme/r1");
  EXPECT_TRUE(v.nodes.empty() && v.edges.empty() && v.errors.empty());
  EXPECT_EQ(v.last_node + "/" + std::to_string(v.last_node_seq) + "/" + std::to_string(v.pose.x),
            "c/4/0.500000");
  EXPECT_EQ(v.battery, -1);
  f.fleet.Broker(true);
  EXPECT_EQ(f.fleet.Snapshot().substr(0, 43), R"({"broker":true,"full":0,"ignored":0,"seq":7)");
}

TEST(FleetCore, VehiclesComeAndGoByTheirConnectionAndRetainedMessagesDoNotRaiseTheDead) {
  fleet::Limits limits;
  limits.offline_keep = 10, limits.broken_keep = 100;
  Feed f(limits);
  // Retained: an OFFLINE vehicle's factsheet brings nothing back, a broken
  // one is shown, an online one too.
  f.Send("acme/gone/connection", kOnline, 0, true)
      .Send("acme/gone/connection", R"({"connectionState":"OFFLINE"})", 0, true)
      .Send("acme/gone/factsheet", R"({"typeSpecification":{"seriesName":"T1"}})", 0, true)
      .Send("acme/lost/connection", R"({"connectionState":"CONNECTIONBROKEN"})", 0, true)
      .Send("acme/r1/connection", kOnline, 0, true)
      .Send("acme/r1/factsheet", R"({"typeSpecification":{"seriesName":"T1"}})", 0, true);
  EXPECT_EQ(f.Vehicles(), "acme/lost=CONNECTIONBROKEN acme/r1=ONLINE ");
  EXPECT_EQ(f.fleet.vehicles().at("acme/r1").series, "T1");
  // Live: one that only talks, one that leaves, one whose link breaks.
  f.Send("acme/quiet/visualization", "{}", 5)
      .Send("acme/quiet/visualization", "{}", 20)
      .Send("acme/r1/connection", R"({"connectionState":"OFFLINE"})", 30)
      .Send("acme/r2/connection", kOnline, 30)
      .Send("acme/r2/connection", R"({"connectionState":"CONNECTIONBROKEN"})", 40);
  EXPECT_EQ(f.Vehicles(),
            "acme/lost=CONNECTIONBROKEN acme/quiet= acme/r1=OFFLINE acme/r2=CONNECTIONBROKEN ");
  EXPECT_EQ(f.fleet.NextExpiry(), 40);  // r1: OFFLINE at 30, kept 10 s
  EXPECT_FALSE(f.fleet.Expire(39.9));
  EXPECT_TRUE(f.fleet.Expire(40));
  EXPECT_EQ(f.fleet.NextExpiry(), 100);  // lost: retained at 0
  EXPECT_TRUE(f.fleet.Expire(120));      // and quiet, 100 s after its last message
  EXPECT_EQ(f.Vehicles(), "acme/r2=CONNECTIONBROKEN ");
  // Back before its time is up: online for good.
  f.Send("acme/r2/connection", kOnline, 130);
  EXPECT_EQ(f.fleet.NextExpiry(), std::numeric_limits<double>::infinity());
  EXPECT_FALSE(f.fleet.Expire(1e9));
  // An OFFLINE for a vehicle never seen changes nothing.
  const unsigned long seq = f.fleet.seq();
  f.Send("acme/r9/connection", R"({"connectionState":"OFFLINE"})", 131);
  EXPECT_EQ(f.fleet.seq(), seq);
  EXPECT_EQ(f.Vehicles(), "acme/r2=ONLINE ");
}

TEST(FleetCore, HostileMessagesAreIgnoredWholeAndTheFleetStaysBounded) {
  fleet::Limits limits;
  limits.max_vehicles = 3, limits.max_payload = 2048, limits.max_id = 9, limits.max_route = 2;
  limits.max_errors = 1, limits.max_text = 5;
  Feed f(limits);
  f.Send("acme/r1/connection", kOnline).Send("acme/r1/state", kState);
  const std::string before = f.fleet.Snapshot();
  const std::string huge = R"({"orderId":"o2","x":")" + std::string(2048, 'x') + "\"}";
  for (const auto& [to, payload] : std::vector<std::pair<std::string, std::string>>{
           {"acme/r1/state", huge},
           {"acme/r1/state", "{\"orderId\":"},
           {"acme/r1/state", "[]"},
           {"acme/r1/state", R"({"orderId":"1234567890"})"},  // an id beyond 9 bytes
           {"acme/r1/state", R"({"orderId":7})"},
           {"acme/r1/state", R"({"nodeStates":[{"nodeId":"b","sequenceId":-1}]})"},
           {"acme/r1/state", R"({"nodeStates":[{"nodeId":"b","sequenceId":4294967296}]})"},
           {"acme/r1/state", R"({"nodeStates":[{"nodeId":"b","released":"yes"}]})"},
           {"acme/r1/state", R"({"nodeStates":{"nodeId":"b"}})"},
           {"acme/r1/state", R"({"errors":[{"errorType":7}]})"},
           {"acme/r1/visualization", R"({"agvPosition":{"x":1e7,"y":0}})"},
           {"acme/r1/visualization", R"({"agvPosition":{"x":0,"y":0,"theta":7}})"},
           {"acme/r1/factsheet", R"({"physicalParameters":{"length":1000}})"},
           {"acme/r1/connection", R"({"connectionState":"online"})"},
           {"acme/r1/connection", "{}"},
           {"acme/r1/order", R"({"orderId":"o2"})"},
           {"acme/1234567890/state", "{}"},
           {"acme//state", "{}"},
           {"acme/r1/state/x", "{}"}})
    f.Send(to, payload);
  f.fleet.Message("other/v2/acme/r1/state", "{}", false, 0);
  f.fleet.Message("uagv/v1/acme/r1/state", "{}", false, 0);
  EXPECT_EQ(f.Counts(), R"("full":0,"ignored":21)");
  const std::string after = f.fleet.Snapshot();
  EXPECT_EQ(after.substr(after.find("\"vehicles\"")), before.substr(before.find("\"vehicles\"")))
      << "a refused message changed the vehicle";

  // Beyond the limits: the route is cut and counted, errors dropped, texts
  // cut on a character boundary.
  f.Send("acme/r1/state",
         R"({"nodeStates":[{"nodeId":"a","sequenceId":0},{"nodeId":"b","sequenceId":2},)"
         R"({"nodeId":"c","sequenceId":4}],"edgeStates":[{"edgeId":"ab","sequenceId":1}],)"
         R"("errors":[{"errorType":"t","errorLevel":"FATAL","errorDescription":"abcd\u00e9f"},)"
         R"({"errorType":"u"}]})");
  const fleet::Vehicle& v = f.fleet.vehicles().at("acme/r1");
  EXPECT_EQ(v.nodes.size() + 10 * v.edges.size() + 100 * v.cut + 1000 * v.errors.size(), 1112u);
  EXPECT_EQ(v.errors[0].text, "abcd");

  // A topic level that is not UTF-8 still makes a snapshot.
  f.Send("acme/\xff\xfe/connection", kOnline);
  EXPECT_NE(f.fleet.Snapshot().find("\"serial\":\"\xEF\xBF\xBD\xEF\xBF\xBD\""), std::string::npos);
  // Three shown: a newcomer takes the place of one not online, then none is left.
  f.Send("acme/r3/connection", R"({"connectionState":"CONNECTIONBROKEN"})", 1)
      .Send("acme/r4/connection", kOnline, 2)
      .Send("acme/r5/connection", kOnline, 3)
      .Send("acme/r5/state", "{}", 3);
  EXPECT_EQ(f.Vehicles(), "acme/r1=ONLINE acme/r4=ONLINE acme/\xff\xfe=ONLINE ");
  EXPECT_EQ(f.Counts(), R"("full":2,"ignored":21)");
}
