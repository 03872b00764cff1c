#include "bridge.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

namespace vda {

namespace {

constexpr double kPi = 3.14159265358979323846;
// The standard's integers (orderUpdateId, sequenceId) are uint32.
constexpr std::uint64_t kMaxUint32 = 0xFFFFFFFF;
// Positions the bridge passes on (metres from the map's origin): the robot
// takes single-precision millimetres, which resolve a millimetre up to here.
constexpr double kMaxCoordinate = 10000;
// The robot's speed limit can be set from 300 to 1300 mm/s.
constexpr double kSpeedMin = 0.3, kSpeedMax = 1.3;
// A first node closer than this counts as reached when the order gives no
// allowedDeviationXY (the robot reports its position to the millimetre).
constexpr double kDefaultDeviation = 0.1;
// Headings closer than this need no turn (reports carry four decimals).
constexpr double kThetaTolerance = 1e-3;
// A master that keeps sending what is refused must not grow the state without
// bound: the oldest bridge errors and settled action states make room. The
// factsheet announces the limits (one more error: the robot's own).
constexpr std::size_t kMaxErrors = 31, kMaxActionStates = 64;

bool Str(const Json& j, const char* k) {
  return j.contains(k) && j[k].is_string();
}
bool Num(const Json& j, const char* k) {
  return j.contains(k) && j[k].is_number();
}
bool Uint32(const Json& j, const char* k) {
  return j.contains(k) && j[k].is_number_unsigned() && j[k].get<std::uint64_t>() <= kMaxUint32;
}
// An id or enum the state may echo: a string of 1 to kMaxIdLen bytes.
bool Id(const Json& j, const char* k) {
  return Str(j, k) && !j[k].get_ref<const std::string&>().empty() &&
         j[k].get_ref<const std::string&>().size() <= kMaxIdLen;
}
const std::string kIdRule = "1 to " + std::to_string(kMaxIdLen) + " bytes";
const std::string kUint32Rule = "an integer from 0 to " + std::to_string(kMaxUint32);
const std::string kCoordinateRule =
    std::to_string(static_cast<int>(kMaxCoordinate)) + " m of the origin";

// At most kMaxIdLen bytes of a text, cut on a character boundary (the JSON
// writer refuses broken UTF-8), with "..." when cut.
std::string Bounded(const std::string& text) {
  if (text.size() <= kMaxIdLen) return text;
  std::size_t n = kMaxIdLen;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return text.substr(0, n) + "...";
}

// A number the robot reported, as the decimal it wrote: the shortest text
// that reads back as the same float, so 3.1416f publishes as 3.1416 and not
// as 3.14159989356994.
double Decimal(float f) {
  char text[32];
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, f);
  double d = 0;
  std::from_chars(text, end.ptr, d);
  return d;
}

// A heading in [-pi, pi], the standard's range; the robot reports pi as
// 3.1416 when facing west.
double Heading(double theta) {
  return std::remainder(theta, 2 * kPi);
}
bool Bool(const Json& j, const char* k) {
  return j.contains(k) && j[k].is_boolean();
}
bool Arr(const Json& j, const char* k) {
  return j.contains(k) && j[k].is_array();
}

// The robot's error code as an error type: "robot" and the task state's
// name as one word (robotBusy), robotError for a code outside the table.
std::string RobotErrorType(std::int32_t code) {
  const tarn::TaskState* s = tarn::find_task_state(code);
  return s != nullptr ? std::string("robot") + s->ident : "robotError";
}

}  // namespace

Bridge::Bridge(Config config, RobotPort& robot) : cfg_(std::move(config)), robot_(robot) {}

std::string Bridge::Topic(const std::string& name) const {
  return cfg_.interface_name + "/" + kMajor + "/" + cfg_.manufacturer + "/" + cfg_.serial + "/" +
         name;
}

Json Bridge::Header(const std::string& topic, const std::string& timestamp) {
  return Json{{"headerId", header_ids_[topic]++},
              {"timestamp", timestamp},
              {"version", kVersion},
              {"manufacturer", cfg_.manufacturer},
              {"serialNumber", cfg_.serial}};
}

void Bridge::Error(const std::string& type, const std::string& text,
                   std::vector<std::pair<std::string, std::string>> refs, const char* level) {
  // Whatever a master sent, an error stays small: every echoed value is bounded.
  Json r = Json::array();
  for (auto& [k, v] : refs) r.push_back({{"referenceKey", k}, {"referenceValue", Bounded(v)}});
  if (errors_.size() == kMaxErrors) errors_.erase(errors_.begin());
  errors_.push_back({{"errorType", type},
                     {"errorLevel", level},
                     {"errorDescription", text},
                     {"errorReferences", r}});
  state_due_ = true;
}

bool Bridge::TakeStateDue() {
  return std::exchange(state_due_, false);
}
bool Bridge::TakeFactsheetDue() {
  return std::exchange(factsheet_due_, false);
}

bool Bridge::HasOrder() const {
  return !nodes_.empty() || turn_ || (phase_ != Phase::kIdle && phase_ != Phase::kResetting);
}

void Bridge::SetAction(const std::string& id, const char* status) {
  for (ActionState& a : actions_)
    if (a.id == id) a.status = status;
  state_due_ = true;
}

// Checks an order against the standard's structure and ranges and against
// what this robot can do; reports the first problem found. The robot needs a
// position for every node it is to drive to, drives straight lines facing
// forwards, and has no load handling or other devices, so node and edge
// actions, edge trajectories, corridors and fixed orientations are refused,
// not ignored. Ids longer than kMaxIdLen are refused before anything holds or
// echoes them.
bool Bridge::Valid(const Json& o, std::vector<Node>& nodes, std::vector<Edge>& edges) {
  using Refs = std::vector<std::pair<std::string, std::string>>;
  auto bad = [&](const char* type, const std::string& text, Refs refs) {
    refs.insert(refs.begin(), {"topic", "order"});
    Error(type, text, refs);
    return false;
  };
  if (!Str(o, "orderId") || !o.contains("orderUpdateId") || !Arr(o, "nodes") || !Arr(o, "edges"))
    return bad("validationError", "orderId, orderUpdateId, nodes and edges are required", {});
  const Refs order{{"orderId", o["orderId"].get<std::string>()}};
  if (!Id(o, "orderId")) return bad("validationError", "an orderId needs " + kIdRule, order);
  if (!Uint32(o, "orderUpdateId"))
    return bad("validationError", "orderUpdateId must be " + kUint32Rule, order);
  const Json& jn = o["nodes"];
  const Json& je = o["edges"];
  if (jn.empty() || je.size() + 1 != jn.size())
    return bad("validationError", "an order needs one node more than edges", order);
  // The first node is where the robot stands; the others may all be driven
  // as one stretch, which one command must carry.
  if (jn.size() > cfg_.max_stretch + 1)
    return bad("orderError",
               "this robot takes at most " + std::to_string(cfg_.max_stretch + 1) +
                   " nodes per order (one drive command carries " +
                   std::to_string(cfg_.max_stretch) + " way-points)",
               order);
  bool horizon = false;
  for (std::size_t i = 0; i < jn.size(); ++i) {
    const Json& n = jn[i];
    if (!n.is_object() || !Str(n, "nodeId") || !n.contains("sequenceId") || !Bool(n, "released") ||
        !Arr(n, "actions"))
      return bad("validationError", "node " + std::to_string(i) + " is malformed", order);
    if (!Id(n, "nodeId"))
      return bad("validationError", "a nodeId needs " + kIdRule, {{"nodeId", n["nodeId"]}});
    const Refs ref{{"nodeId", n["nodeId"]}};
    if (!Uint32(n, "sequenceId"))
      return bad("validationError", "a sequenceId must be " + kUint32Rule, ref);
    Node node{n["nodeId"], n["sequenceId"], n["released"], 0, 0, {}, Json()};
    if (i > 0) {
      const Json& e = je[i - 1];
      if (!e.is_object() || !Str(e, "edgeId") || !e.contains("sequenceId") ||
          !Bool(e, "released") || !Str(e, "startNodeId") || !Str(e, "endNodeId") ||
          !Arr(e, "actions") || e["startNodeId"] != jn[i - 1]["nodeId"] ||
          e["endNodeId"] != node.id)
        return bad("validationError", "edge " + std::to_string(i - 1) + " is malformed", ref);
      if (!Id(e, "edgeId"))
        return bad("validationError", "an edgeId needs " + kIdRule, {{"edgeId", e["edgeId"]}});
      if (!Uint32(e, "sequenceId"))
        return bad("validationError", "a sequenceId must be " + kUint32Rule,
                   {{"edgeId", e["edgeId"]}});
      Edge edge{e["edgeId"], e["sequenceId"], e["released"], {}};
      const Refs eref{{"edgeId", edge.id}};
      if (edge.released && (!node.released || horizon))
        return bad("validationError", "a released edge needs released nodes", eref);
      horizon = horizon || !edge.released;
      if (!e["actions"].empty())
        return bad("orderError", "this robot has no edge actions",
                   {{"edgeId", edge.id}, {"actionId", e["actions"][0].value("actionId", "")}});
      for (const char* field : {"trajectory", "corridor"})
        if (e.contains(field))
          return bad("orderError", std::string("this robot cannot follow an edge ") + field,
                     {{"edgeId", edge.id}, {"field", field}});
      if (e.contains("orientation") &&
          (e.value("orientationType", "TANGENTIAL") != "TANGENTIAL" ||
           !e["orientation"].is_number() || std::fabs(e["orientation"].get<double>()) > 1e-9))
        return bad("orderError", "this robot always drives facing forwards",
                   {{"edgeId", edge.id}, {"field", "orientation"}});
      if (e.contains("maxSpeed")) {
        if (!e["maxSpeed"].is_number() || e["maxSpeed"].get<double>() < kSpeedMin)
          return bad("orderError", "this robot cannot drive slower than 0.3 m/s",
                     {{"edgeId", edge.id}, {"field", "maxSpeed"}});
        edge.max_speed = e["maxSpeed"].get<double>();
      }
      edges.push_back(edge);
    }
    if (node.released && horizon)
      return bad("validationError", "no released node may follow the horizon", ref);
    horizon = horizon || !node.released;
    if (i == 0 && !node.released)
      return bad("validationError", "the first node must be released", ref);
    if (!n["actions"].empty())
      return bad("orderError", "this robot cannot perform node actions",
                 {{"nodeId", node.id},
                  {"actionId", n["actions"][0].value("actionId", "")},
                  {"actionType", n["actions"][0].value("actionType", "")}});
    if (n.contains("nodePosition")) {
      const Json& p = n["nodePosition"];
      if (!p.is_object() || !Num(p, "x") || !Num(p, "y") || !Str(p, "mapId"))
        return bad("validationError", "nodePosition needs x, y and mapId", ref);
      if (p["mapId"] != cfg_.map_id)
        return bad("orderError", "this robot knows only the map " + cfg_.map_id, ref);
      node.x = p["x"];
      node.y = p["y"];
      if (std::fabs(node.x) > kMaxCoordinate || std::fabs(node.y) > kMaxCoordinate)
        return bad("orderError", "this robot's positions lie within " + kCoordinateRule, ref);
      node.position = {{"x", node.x}, {"y", node.y}, {"mapId", cfg_.map_id}};
      if (p.contains("theta")) {
        if (!Num(p, "theta") || std::fabs(p["theta"].get<double>()) > kPi)
          return bad("validationError", "theta must lie in [-pi, pi]", ref);
        node.theta = p["theta"].get<double>();
        node.position["theta"] = *node.theta;
      }
      for (const char* field : {"allowedDeviationXY", "allowedDeviationTheta"}) {
        if (!p.contains(field)) continue;
        if (!Num(p, field)) return bad("validationError", std::string(field) + " is a number", ref);
        node.position[field] = p[field];
      }
    } else if (node.released) {
      return bad("orderError", "this robot needs the nodePosition of every released node", ref);
    }
    nodes.push_back(node);
  }
  return true;
}

// A field of an unexpected type that the checks above let through (the
// library of JSON throws on it) makes the order malformed, not the bridge fail.
void Bridge::Order(const std::string& payload) try {
  state_due_ = true;
  const Json o = Json::parse(payload, nullptr, false);
  std::vector<Node> nodes;
  std::vector<Edge> edges;
  if (!o.is_object()) return Error("validationError", "not a JSON object", {{"topic", "order"}});
  if (!Valid(o, nodes, edges)) return;
  const std::string id = o["orderId"];
  const unsigned update = o["orderUpdateId"];
  const std::vector<std::pair<std::string, std::string>> refs{
      {"orderId", id}, {"orderUpdateId", std::to_string(update)}};
  if (lost_) return Error("orderError", "the control server is lost", refs);
  if (id == order_id_) {
    if (update < order_update_)
      return Error("orderUpdateError", "orderUpdateId is lower than the current one", refs);
    if (update == order_update_) return;  // a resend of the order held: ignored
    // The update must go on from the decision point: the last released node
    // still ahead, or the last node reached when the base is done.
    std::string at = last_node_;
    unsigned seq = last_seq_;
    for (const Node& n : nodes_)
      if (n.released) at = n.id, seq = n.seq;
    if (nodes[0].id != at || nodes[0].seq != seq)
      return Error("orderUpdateError", "the update does not start at node " + at, refs);
    return Accept(o, std::move(nodes), std::move(edges), true);
  }
  if (HasOrder() || phase_ != Phase::kIdle)
    return Error("orderError", "an order is still running: cancel it first", refs);
  if (!initialized_)
    return Error("orderError", "the position is not initialised: send initPosition", refs);
  if (report_.state != tarn::state_free)
    return Error("orderError", "the robot reports " + tarn::describe_state(report_.state), refs);
  const Json& p = o["nodes"][0]["nodePosition"];
  const double allowed = p.value("allowedDeviationXY", 0.0);
  const double off = std::hypot(nodes[0].x - report_.x, nodes[0].y - report_.y);
  if (off > (allowed > 0 ? allowed : kDefaultDeviation))
    return Error("noRouteError", "the first node is not where the robot stands", refs);
  Accept(o, std::move(nodes), std::move(edges), false);
} catch (const Json::exception& e) {
  Error("validationError", e.what(), {{"topic", "order"}});
}

void Bridge::Accept(const Json& o, std::vector<Node> nodes, std::vector<Edge> edges, bool update) {
  errors_.clear();
  if (update) {
    // The horizon is replaced; the first node of the update is the decision
    // point already held, so its contents are not taken again.
    auto horizon = [](const auto& x) { return !x.released; };
    nodes_.erase(std::remove_if(nodes_.begin(), nodes_.end(), horizon), nodes_.end());
    edges_.erase(std::remove_if(edges_.begin(), edges_.end(), horizon), edges_.end());
  } else {
    // Action states go, except instant actions still under way.
    actions_.erase(std::remove_if(actions_.begin(), actions_.end(),
                                  [](const ActionState& a) { return a.status != "RUNNING"; }),
                   actions_.end());
    order_id_ = o["orderId"];
    // The robot stands on the first node: it is reached at once.
    last_node_ = nodes[0].id;
    last_seq_ = nodes[0].seq;
    turn_ = nodes[0].theta;
  }
  order_update_ = o["orderUpdateId"];
  nodes_.insert(nodes_.end(), nodes.begin() + 1, nodes.end());
  edges_.insert(edges_.end(), edges.begin(), edges.end());
  Step();
}

// Starts the next move when the robot is free: the pending turn, else the
// released nodes up to the next one with a heading, driven as one list of
// way-points. The robot stops on every way-point anyway, so cutting the base
// at a heading costs no motion, and neither does cutting it after
// max_stretch way-points: an order is refused beyond that, but an update
// stitched to a base still ahead can make the released nodes longer.
void Bridge::Step() {
  if (phase_ != Phase::kIdle || lost_) return;
  if (turn_ && std::fabs(std::remainder(*turn_ - report_.theta, 2 * kPi)) < kThetaTolerance)
    turn_.reset();
  if (turn_) {
    if (!robot_.Turn(static_cast<float>(*turn_))) return Fail("the robot refused to turn");
    phase_ = Phase::kTurnSent;
    state_due_ = true;
    return;
  }
  std::size_t n = 0;
  std::optional<double> speed;
  while (n < nodes_.size() && n < cfg_.max_stretch && nodes_[n].released) {
    if (n < edges_.size() && edges_[n].max_speed)
      speed = std::min(speed.value_or(kSpeedMax), *edges_[n].max_speed);
    if (nodes_[n++].theta) break;
  }
  if (n == 0) return;
  // The robot has one speed limit, not one per edge: the stretch is driven at
  // the lowest maxSpeed of its edges, and the limit stays set afterwards.
  if (speed && !robot_.Speed(static_cast<int>(std::lround(std::min(*speed, kSpeedMax) * 1000))))
    return Fail("the robot refused the speed limit");
  std::vector<std::array<float, 3>> points;
  for (std::size_t i = 0; i < n; ++i)
    points.push_back(
        {static_cast<float>(nodes_[i].x * 1000), static_cast<float>(nodes_[i].y * 1000), 0.0f});
  if (!robot_.Drive(points)) return Fail("the robot refused to drive");
  phase_ = Phase::kDriving;
  segment_ = n;
  passed_ = 0;
  state_due_ = true;
}

// The robot could not finish what the order asked: the order is dropped
// (nothing of it is driven any more) and stays visible as an error.
void Bridge::Fail(const std::string& why) {
  Error("orderAborted", why, {{"orderId", order_id_}, {"lastNodeId", last_node_}});
  nodes_.clear();
  edges_.clear();
  turn_.reset();
  phase_ = Phase::kIdle;
}

void Bridge::OnPassed() {
  if (phase_ != Phase::kDriving || nodes_.empty()) return;
  ++passed_;
  last_node_ = nodes_.front().id;
  last_seq_ = nodes_.front().seq;
  if (passed_ == segment_) turn_ = nodes_.front().theta;
  nodes_.erase(nodes_.begin());
  if (!edges_.empty()) edges_.erase(edges_.begin());
  state_due_ = true;
}

void Bridge::OnActionEnded() {
  if (phase_ != Phase::kDriving) return;
  if (passed_ < segment_)
    return Fail("the robot ended the drive after " + std::to_string(passed_) + " of " +
                std::to_string(segment_) + " way-points");
  // Wait for the report that follows the drive before the next command: the
  // robot accepts motion only once it reports itself free.
  phase_ = Phase::kSettling;
  state_due_ = true;
}

void Bridge::OnEvent(const tarn::Event& e) {
  using tarn::EventType;
  switch (e.type) {
    case EventType::InitAcknowledged:
      return OnInitAck();
    case EventType::KillAcknowledged:
      return OnKillAck();
    case EventType::Report:
    case EventType::Refused:
      return OnReport(e.report);
    // Progress while no action runs is ignored by the library: no total.
    case EventType::WaypointPassed:
      if (e.total > 0) OnPassed();
      return;
    case EventType::ActionFinished:
      if (e.total > 0) OnActionEnded();
      return;
    case EventType::ConnectionLost:
      return OnServerLost("the connection to the control server is closed");
    case EventType::Unreadable:
      return OnServerLost("the control server sent unreadable data: " + e.reason);
    case EventType::Other:
      return;
  }
}

// An incomplete report is ignored whole: the library keeps the values from
// the first number it could not read onwards, so its fields would mix two
// reports. The next complete report brings the bridge up to date.
void Bridge::OnReport(const tarn::Report& r) {
  if (!r.complete) return;
  if (r.state != report_.state || !have_report_) state_due_ = true;
  report_ = {Decimal(r.x),        Decimal(r.y),       Heading(Decimal(r.orientation)),
             Decimal(r.velocity), Decimal(r.voltage), r.state,
             r.online == false};
  have_report_ = true;
  for (const std::string& id : detail_actions_) SetAction(id, "FINISHED");
  detail_actions_.clear();
  switch (phase_) {
    case Phase::kSettling:
    case Phase::kTurning:
      if (r.state == tarn::state_free) {
        if (phase_ == Phase::kTurning) turn_.reset();
        phase_ = Phase::kIdle;
        state_due_ = true;
        Step();
      } else if (tarn::is_error(r.state)) {
        Fail("the robot reports " + tarn::describe_state(r.state));
      }
      break;
    case Phase::kTurnSent:
      // Reports sent before the turn arrived still say free; the turn's own
      // report says working.
      if (r.state == tarn::state_working) phase_ = Phase::kTurning;
      if (tarn::is_error(r.state)) Fail("the robot refused to turn");
      break;
    case Phase::kResetting:
      // After the kill's acknowledgement the error can only be the
      // initialisation's refusal.
      if (killed_ && tarn::is_error(r.state)) {
        SetAction(reset_action_, "FAILED");
        Error("actionRefused", "the robot refused the pose", {{"actionId", reset_action_}});
        phase_ = Phase::kIdle;
      }
      break;
    default:
      break;
  }
}

void Bridge::OnKillAck() {
  initialized_ = false;
  killed_ = true;
  state_due_ = true;
}

// Init sends a kill and then the initialisation, and the server answers each
// in that order. An initialisation acknowledged before the reset's kill was
// is not the answer to this reset: the robot's pose is then unknown.
void Bridge::OnInitAck() {
  initialized_ = true;
  state_due_ = true;
  if (phase_ != Phase::kResetting) return;
  phase_ = Phase::kIdle;
  if (!killed_) {
    SetAction(reset_action_, "FAILED");
    return Error("actionRefused",
                 "the robot acknowledged an initialisation but not the kill before it",
                 {{"actionId", reset_action_}});
  }
  SetAction(reset_action_, "FINISHED");
  if (!reset_node_.empty()) last_node_ = reset_node_, last_seq_ = 0;
}

void Bridge::OnServerLost(const std::string& why) {
  if (lost_) return;
  lost_ = true;
  Error("controlServerLost", why, {}, "FATAL");
  for (ActionState& a : actions_)
    if (a.status == "RUNNING" || a.status == "WAITING") a.status = "FAILED";
  nodes_.clear();
  edges_.clear();
  turn_.reset();
  phase_ = Phase::kIdle;
}

void Bridge::InstantActions(const std::string& payload) try {
  state_due_ = true;
  const Json o = Json::parse(payload, nullptr, false);
  const std::vector<std::pair<std::string, std::string>> topic{{"topic", "instantActions"}};
  if (!o.is_object() || !Arr(o, "actions"))
    return Error("validationError", "instantActions needs an actions array", topic);
  // Everything the state would echo is checked before any action is taken.
  for (const Json& a : o["actions"]) {
    if (!a.is_object() || !Id(a, "actionId") || !Id(a, "actionType") || !Id(a, "blockingType"))
      return Error("validationError",
                   "an action needs actionId, actionType and blockingType of " + kIdRule, topic);
    if (Arr(a, "actionParameters"))
      for (const Json& p : a["actionParameters"])
        if (p.is_object() && Str(p, "key") && !Id(p, "key"))
          return Error("validationError", "an actionParameter key needs " + kIdRule, topic);
  }
  for (const Json& a : o["actions"]) {
    const std::string id = a["actionId"], type = a["actionType"];
    const std::vector<std::pair<std::string, std::string>> refs{{"actionId", id},
                                                                {"actionType", type}};
    if (actions_.size() >= kMaxActionStates) {
      auto settled = std::find_if(actions_.begin(), actions_.end(), [](const ActionState& s) {
        return s.status == "FINISHED" || s.status == "FAILED";
      });
      if (settled == actions_.end()) {
        Error("actionRefused", "too many actions under way", refs);
        continue;
      }
      actions_.erase(settled);
    }
    actions_.push_back({id, type, "WAITING", ""});
    std::map<std::string, Json> params;
    if (Arr(a, "actionParameters"))
      for (const Json& p : a["actionParameters"])
        if (p.is_object() && Str(p, "key") && p.contains("value")) params[p["key"]] = p["value"];
    auto fail = [&](const char* type, const std::string& text) {
      SetAction(id, "FAILED");
      Error(type, text, refs);
    };
    if (lost_) {
      fail("actionRefused", "the control server is lost");
    } else if (type == "factsheetRequest") {
      factsheet_due_ = true;
      SetAction(id, "FINISHED");
    } else if (type == "stateRequest") {
      // The state goes out with the fresh report the robot is asked for;
      // an offline robot is not asked and the state goes out at once.
      SetAction(id, "RUNNING");
      if (initialized_) {
        // One report answers every request still waiting for one.
        if (detail_actions_.empty()) robot_.Detail();
        detail_actions_.push_back(id);
      } else {
        SetAction(id, "FINISHED");
      }
    } else if (type == "initPosition") {
      // Checked before anything is sent: Init kills the robot first, and a
      // pose it then refuses would leave it offline.
      auto within = [&](const char* k, double limit) {
        return params.count(k) && params[k].is_number() &&
               std::fabs(params[k].get<double>()) <= limit;
      };
      const bool node_ok = !params.count("lastNodeId") ||
                           (params["lastNodeId"].is_string() &&
                            params["lastNodeId"].get_ref<const std::string&>().size() <= kMaxIdLen);
      if (!within("x", kMaxCoordinate) || !within("y", kMaxCoordinate) || !within("theta", kPi) ||
          (params.count("mapId") && params["mapId"] != cfg_.map_id) || !node_ok) {
        fail("validationError", "initPosition needs x and y within " + kCoordinateRule +
                                    ", theta in [-pi, pi], this robot's mapId and a lastNodeId of "
                                    "at most " +
                                    std::to_string(kMaxIdLen) + " bytes");
      } else if (HasOrder() || phase_ != Phase::kIdle) {
        fail("actionRefused", "an order is running: cancel it first");
      } else {
        reset_node_ = params.count("lastNodeId") ? params["lastNodeId"].get<std::string>() : "";
        Reset(id, params["x"].get<double>(), params["y"].get<double>(),
              params["theta"].get<double>());
      }
    } else if (type == "cancelOrder") {
      if (!HasOrder()) {
        fail("noOrderToCancel", "there is no order to cancel");
      } else {
        const bool moving = phase_ != Phase::kIdle && phase_ != Phase::kSettling;
        nodes_.clear();
        edges_.clear();
        turn_.reset();
        // The robot's protocol cannot stop a drive or a turn: it is killed and
        // initialised again where it last reported itself.
        reset_node_.clear();
        if (moving)
          Reset(id, report_.x, report_.y, report_.theta);
        else
          phase_ = Phase::kIdle, SetAction(id, "FINISHED");
      }
    } else {
      fail("unsupportedAction", "this robot cannot perform " + type);
    }
  }
} catch (const Json::exception& e) {
  Error("validationError", e.what(), {{"topic", "instantActions"}});
}

void Bridge::Reset(const std::string& id, double x, double y, double theta) {
  robot_.Init(static_cast<float>(x * 1000), static_cast<float>(y * 1000),
              static_cast<float>(theta));
  phase_ = Phase::kResetting;
  reset_action_ = id;
  killed_ = false;
  SetAction(id, "RUNNING");
}

Json Bridge::Position() const {
  return {{"x", report_.x},
          {"y", report_.y},
          {"theta", report_.theta},
          {"mapId", cfg_.map_id},
          {"positionInitialized", initialized_ && !report_.offline}};
}

Json Bridge::State(const std::string& timestamp) {
  Json s = Header("state", timestamp);
  s["orderId"] = order_id_;
  s["orderUpdateId"] = order_update_;
  s["lastNodeId"] = last_node_;
  s["lastNodeSequenceId"] = last_seq_;
  s["nodeStates"] = Json::array();
  for (const Node& n : nodes_) {
    Json j{{"nodeId", n.id}, {"sequenceId", n.seq}, {"released", n.released}};
    if (!n.position.is_null()) j["nodePosition"] = n.position;
    s["nodeStates"].push_back(j);
  }
  s["edgeStates"] = Json::array();
  for (const Edge& e : edges_)
    s["edgeStates"].push_back({{"edgeId", e.id}, {"sequenceId", e.seq}, {"released", e.released}});
  s["driving"] =
      phase_ == Phase::kDriving || phase_ == Phase::kTurnSent || phase_ == Phase::kTurning;
  s["actionStates"] = Json::array();
  for (const ActionState& a : actions_)
    s["actionStates"].push_back(
        {{"actionId", a.id}, {"actionType", a.type}, {"actionStatus", a.status}});
  s["agvPosition"] = Position();
  s["velocity"] = {{"vx", report_.velocity / 1000}, {"vy", 0.0}};
  const double span = cfg_.battery_full_v - cfg_.battery_empty_v;
  const double charge = span > 0 ? (report_.voltage - cfg_.battery_empty_v) / span * 100 : 0;
  s["batteryState"] = {{"batteryCharge", std::clamp(charge, 0.0, 100.0)},
                       {"batteryVoltage", report_.voltage},
                       {"charging", false}};
  s["operatingMode"] = "AUTOMATIC";
  s["errors"] = errors_;
  if (tarn::is_error(report_.state))
    s["errors"].push_back(
        {{"errorType", RobotErrorType(report_.state)},
         {"errorLevel", "WARNING"},
         {"errorDescription", "the robot reports " + tarn::describe_state(report_.state)},
         {"errorReferences",
          {{{"referenceKey", "robotErrorCode"},
            {"referenceValue", std::to_string(report_.state)}}}}});
  s["safetyState"] = {{"eStop", "NONE"}, {"fieldViolation", false}};
  return s;
}

Json Bridge::Visualization(const std::string& timestamp) {
  Json v = Header("visualization", timestamp);
  v["agvPosition"] = Position();
  v["velocity"] = {{"vx", report_.velocity / 1000}, {"vy", 0.0}};
  return v;
}

Json Bridge::Connection(const std::string& timestamp, const char* state) {
  Json c = Header("connection", timestamp);
  c["connectionState"] = state;
  return c;
}

Json Bridge::Factsheet(const std::string& timestamp) {
  auto instant = [](const char* type, const char* what, Json params) {
    Json a{{"actionType", type}, {"actionDescription", what}, {"actionScopes", {"INSTANT"}}};
    if (!params.empty()) a["actionParameters"] = params;
    return a;
  };
  auto param = [](const char* key, const char* type, bool optional) {
    return Json{{"key", key}, {"valueDataType", type}, {"isOptional", optional}};
  };
  Json f = Header("factsheet", timestamp);
  f["typeSpecification"] = {
      {"seriesName", "TarnSDK robot"},
      {"seriesDescription",
       "A robot behind a TarnSDK control server: drives straight between way-points, turns in "
       "place, no load handling"},
      {"agvKinematic", "DIFF"},
      {"agvClass", "CARRIER"},
      {"maxLoadMass", 0},
      {"localizationTypes", {"DMC"}},
      {"navigationTypes", {"VIRTUAL_LINE_GUIDED"}}};
  // The robot's protocol tells neither its size nor its height: zero here
  // means unknown, not nothing.
  f["physicalParameters"] = {{"speedMin", kSpeedMin},
                             {"speedMax", kSpeedMax},
                             {"accelerationMax", 1.0},
                             {"decelerationMax", 1.0},
                             {"heightMax", 0},
                             {"width", 0},
                             {"length", 0}};
  // Zero or absent means "no explicit limit" in the standard, so node.actions
  // and edge.actions are left out: that no action may be put on a node or an
  // edge is said by agvActions, where every action is INSTANT only.
  Json timing{{"minOrderInterval", 0},
              {"minStateInterval", 0},
              {"defaultStateInterval", cfg_.state_interval}};
  if (cfg_.visualization_interval > 0)
    timing["visualizationInterval"] = cfg_.visualization_interval;
  f["protocolLimits"] = {{"maxStringLens", {{"idLen", kMaxIdLen}, {"enumLen", kMaxIdLen}}},
                         {"maxArrayLens",
                          {{"order.nodes", cfg_.max_stretch + 1},
                           {"order.edges", cfg_.max_stretch},
                           {"state.errors", kMaxErrors + 1},
                           {"state.actionStates", kMaxActionStates}}},
                         {"timing", timing}};
  f["protocolFeatures"] = {
      {"optionalParameters",
       {{{"parameter", "order.nodes.nodePosition"}, {"support", "REQUIRED"}},
        {{"parameter", "order.nodes.nodePosition.theta"}, {"support", "SUPPORTED"}},
        {{"parameter", "order.nodes.nodePosition.allowedDeviationXY"}, {"support", "SUPPORTED"}},
        {{"parameter", "order.edges.maxSpeed"}, {"support", "SUPPORTED"}}}},
      {"agvActions",
       {instant(
            "initPosition", "kill the robot and initialise it at the pose",
            {param("x", "FLOAT", false), param("y", "FLOAT", false), param("theta", "FLOAT", false),
             param("mapId", "STRING", true), param("lastNodeId", "STRING", true)}),
        instant("stateRequest", "ask the robot for a status report, then send the state", {}),
        instant("factsheetRequest", "send this factsheet", {}),
        instant("cancelOrder",
                "drop the order; a moving robot is killed and initialised where it is", {})}}};
  f["agvGeometry"] = Json::object();
  f["loadSpecification"] = Json::object();
  return f;
}

}  // namespace vda
