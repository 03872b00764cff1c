#include "fleet.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace fleet {
namespace {

using Json = nlohmann::json;

constexpr double kNever = std::numeric_limits<double>::infinity();
// Beyond this a coordinate is not a place on a shop floor, and one such
// value would shrink every other vehicle on the map to a point.
constexpr double kMaxCoordinate = 1e6;
constexpr double kMaxExtent = 100;           // metres: a vehicle's length or width
constexpr double kTurn = 6.283185307179586;  // beyond a full turn, a heading is an error

// Typed reads from one JSON object. A field that is absent is a default; one
// that is present with the wrong type, out of range or an id beyond the
// limit spoils the whole message (ok() turns false), so that it is ignored
// rather than half-applied.
class Fields {
 public:
  Fields(const Json& object, const Limits& limits, bool& ok)
      : object_(object), limits_(limits), ok_(ok) {
    if (!object_.is_object()) ok_ = false;
  }

  const Json* Find(const char* key) const {
    if (!ok_) return nullptr;
    const auto it = object_.find(key);
    return it == object_.end() || it->is_null() ? nullptr : &*it;
  }
  const Json* Object(const char* key) { return Typed(key, Json::value_t::object); }
  const Json* Array(const char* key) { return Typed(key, Json::value_t::array); }

  std::string Id(const char* key) {
    const Json* j = Find(key);
    if (!j) return "";
    if (!j->is_string() || j->get_ref<const std::string&>().size() > limits_.max_id)
      return Fail("");
    return j->get<std::string>();
  }
  // Cut at the limit, on a character boundary.
  std::string Text(const char* key) {
    const Json* j = Find(key);
    if (!j) return "";
    if (!j->is_string()) return Fail("");
    std::string s = j->get<std::string>();
    if (s.size() > limits_.max_text) {
      std::size_t end = limits_.max_text;
      while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
      s.resize(end);
    }
    return s;
  }
  double Number(const char* key, double fallback, double bound) {
    const Json* j = Find(key);
    if (!j) return fallback;
    if (!j->is_number() || !std::isfinite(j->get<double>()) || std::fabs(j->get<double>()) > bound)
      return Fail(fallback);
    return j->get<double>();
  }
  // VDA 5050's uint32.
  unsigned long Count(const char* key) {
    const Json* j = Find(key);
    if (!j) return 0;
    if (!j->is_number_integer() || j->get<long long>() < 0 || j->get<long long>() > 4294967295LL)
      return Fail(0ul);
    return j->get<unsigned long>();
  }
  bool Flag(const char* key) {
    const Json* j = Find(key);
    if (!j) return false;
    if (!j->is_boolean()) return Fail(false);
    return j->get<bool>();
  }

 private:
  template <typename T>
  T Fail(T value) {
    ok_ = false;
    return value;
  }
  const Json* Typed(const char* key, Json::value_t type) {
    const Json* j = Find(key);
    if (j && j->type() != type) return Fail<const Json*>(nullptr);
    return j;
  }

  const Json& object_;
  const Limits& limits_;
  bool& ok_;
};

// An agvPosition (state, visualization) or a nodePosition.
bool ReadPose(Fields& f, Pose& pose) {
  const double nan = std::nan("");
  pose.x = f.Number("x", nan, kMaxCoordinate);
  pose.y = f.Number("y", nan, kMaxCoordinate);
  pose.theta = f.Number("theta", 0, kTurn);
  pose.map = f.Id("mapId");
  return !std::isnan(pose.x) && !std::isnan(pose.y);
}

// What one state message says, read whole before any of it is applied.
struct StateReading {
  bool posed = false;
  Pose pose;
  std::string order_id, last_node, mode;
  unsigned long order_update = 0, last_node_seq = 0;
  bool driving = false, paused = false;
  double battery = -1;
  std::vector<Node> nodes;
  std::vector<Edge> edges;
  std::size_t cut = 0;
  std::vector<Fault> errors;
};

bool ReadState(const Json& j, const Limits& limits, StateReading& s) {
  bool ok = true;
  Fields f(j, limits, ok);
  s.order_id = f.Id("orderId");
  s.order_update = f.Count("orderUpdateId");
  s.last_node = f.Id("lastNodeId");
  s.last_node_seq = f.Count("lastNodeSequenceId");
  s.driving = f.Flag("driving");
  s.paused = f.Flag("paused");
  s.mode = f.Id("operatingMode");
  if (const Json* p = f.Object("agvPosition")) {
    Fields pf(*p, limits, ok);
    s.posed = ReadPose(pf, s.pose);
  }
  if (const Json* b = f.Object("batteryState")) {
    Fields bf(*b, limits, ok);
    s.battery = bf.Number("batteryCharge", -1, 1000);
  }
  if (const Json* list = f.Array("nodeStates")) {
    for (const Json& n : *list) {
      Fields nf(n, limits, ok);
      Node node;
      node.id = nf.Id("nodeId");
      node.seq = nf.Count("sequenceId");
      node.released = nf.Flag("released");
      if (const Json* p = nf.Object("nodePosition")) {
        Fields pf(*p, limits, ok);
        Pose at;
        node.placed = ReadPose(pf, at);
        node.x = at.x, node.y = at.y;
      }
      if (s.nodes.size() < limits.max_route)
        s.nodes.push_back(std::move(node));
      else
        ++s.cut;
    }
  }
  if (const Json* list = f.Array("edgeStates")) {
    for (const Json& e : *list) {
      Fields ef(e, limits, ok);
      Edge edge{ef.Id("edgeId"), ef.Count("sequenceId"), ef.Flag("released")};
      if (s.edges.size() < limits.max_route)
        s.edges.push_back(std::move(edge));
      else
        ++s.cut;
    }
  }
  if (const Json* list = f.Array("errors")) {
    for (const Json& e : *list) {
      Fields ef(e, limits, ok);
      Fault fault{ef.Text("errorType"), ef.Text("errorLevel"), ef.Text("errorDescription")};
      if (s.errors.size() < limits.max_errors) s.errors.push_back(std::move(fault));
    }
  }
  const auto by_seq = [](const auto& a, const auto& b) { return a.seq < b.seq; };
  std::stable_sort(s.nodes.begin(), s.nodes.end(), by_seq);
  std::stable_sort(s.edges.begin(), s.edges.end(), by_seq);
  return ok;
}

}  // namespace

Fleet::Fleet(std::string interface_name, Limits limits)
    : interface_(std::move(interface_name)), limits_(limits) {}

std::vector<std::string> Fleet::Subscriptions() const {
  std::vector<std::string> out;
  for (const char* topic : {"connection", "state", "visualization", "factsheet"})
    out.push_back(interface_ + "/v2/+/+/" + topic);
  return out;
}

void Fleet::Broker(bool up) {
  if (up != broker_) ++seq_;
  broker_ = up;
}

Vehicle* Fleet::Admit(const std::string& manufacturer, const std::string& serial, double now) {
  const std::string key = manufacturer + "/" + serial;
  const auto found = vehicles_.find(key);
  if (found != vehicles_.end()) return &found->second;
  if (vehicles_.size() >= limits_.max_vehicles) {
    auto victim = vehicles_.end();
    for (auto it = vehicles_.begin(); it != vehicles_.end(); ++it)
      if (it->second.connection != "ONLINE" &&
          (victim == vehicles_.end() || it->second.expires < victim->second.expires))
        victim = it;
    if (victim == vehicles_.end()) {
      ++full_;
      ++seq_;
      return nullptr;
    }
    vehicles_.erase(victim);
  }
  Vehicle& v = vehicles_[key];
  v.manufacturer = manufacturer;
  v.serial = serial;
  v.expires = now + limits_.broken_keep;
  return &v;
}

void Fleet::Message(const std::string& topic, const std::string& payload, bool retained,
                    double now) {
  const auto ignore = [this] {
    ++ignored_;
    ++seq_;
  };
  // <interface>/v2/<manufacturer>/<serialNumber>/<topic>
  std::vector<std::string> level;
  for (std::size_t at = 0, slash; level.size() < 6; at = slash + 1) {
    slash = topic.find('/', at);
    level.push_back(topic.substr(at, slash - at));
    if (slash == std::string::npos) break;
  }
  static const std::map<std::string, Topic> kTopics = {{"connection", Topic::kConnection},
                                                       {"state", Topic::kState},
                                                       {"visualization", Topic::kVisualization},
                                                       {"factsheet", Topic::kFactsheet}};
  if (level.size() != 5 || level[0] != interface_ || level[1] != "v2" || !kTopics.count(level[4]))
    return ignore();
  const std::string &manufacturer = level[2], &serial = level[3];
  if (manufacturer.empty() || serial.empty() || manufacturer.size() > limits_.max_id ||
      serial.size() > limits_.max_id || payload.size() > limits_.max_payload)
    return ignore();
  const Json j = Json::parse(payload, nullptr, false);
  if (!j.is_object()) return ignore();
  const std::string key = manufacturer + "/" + serial;
  auto known = vehicles_.find(key);

  const Topic kind = kTopics.at(level[4]);
  if (kind == Topic::kConnection) {
    const auto state = j.find("connectionState");
    if (state == j.end() || !state->is_string()) return ignore();
    const std::string said = state->get<std::string>();
    if (said == "OFFLINE") {
      if (known == vehicles_.end()) return;
      if (retained) {
        vehicles_.erase(known);
      } else {
        known->second.connection = said;
        known->second.expires = now + limits_.offline_keep;
      }
    } else if (said == "ONLINE" || said == "CONNECTIONBROKEN") {
      Vehicle* v = Admit(manufacturer, serial, now);
      if (!v) return;
      v->connection = said;
      v->expires = said == "ONLINE" ? kNever : now + limits_.broken_keep;
    } else {
      return ignore();
    }
    ++seq_;
    return;
  }

  bool ok = true;
  Fields f(j, limits_, ok);
  StateReading s;
  std::string series;
  double length = 0, width = 0;
  if (kind == Topic::kState) {
    ok = ReadState(j, limits_, s);
  } else if (kind == Topic::kVisualization) {
    if (const Json* p = f.Object("agvPosition")) {
      Fields pf(*p, limits_, ok);
      s.posed = ReadPose(pf, s.pose);
    }
  } else {
    if (const Json* type = f.Object("typeSpecification")) {
      Fields tf(*type, limits_, ok);
      series = tf.Text("seriesName");
    }
    if (const Json* physical = f.Object("physicalParameters")) {
      Fields pf(*physical, limits_, ok);
      length = pf.Number("length", 0, kMaxExtent);
      width = pf.Number("width", 0, kMaxExtent);
    }
  }
  if (!ok) return ignore();
  if (known == vehicles_.end() && retained) return;
  Vehicle* v = Admit(manufacturer, serial, now);
  if (!v) return;
  if (v->connection.empty()) v->expires = now + limits_.broken_keep;
  if (s.posed) {
    v->posed = true;
    v->pose = s.pose;
  }
  if (kind == Topic::kState) {
    v->order_id = std::move(s.order_id);
    v->order_update = s.order_update;
    v->last_node = std::move(s.last_node);
    v->last_node_seq = s.last_node_seq;
    v->driving = s.driving;
    v->paused = s.paused;
    v->mode = std::move(s.mode);
    v->battery = s.battery;
    v->nodes = std::move(s.nodes);
    v->edges = std::move(s.edges);
    v->cut = s.cut;
    v->errors = std::move(s.errors);
  } else if (kind == Topic::kFactsheet) {
    v->series = std::move(series);
    v->length = length;
    v->width = width;
  }
  ++seq_;
}

bool Fleet::Expire(double now) {
  const std::size_t before = vehicles_.size();
  for (auto it = vehicles_.begin(); it != vehicles_.end();)
    it = it->second.expires <= now ? vehicles_.erase(it) : std::next(it);
  if (vehicles_.size() == before) return false;
  ++seq_;
  return true;
}

double Fleet::NextExpiry() const {
  double next = kNever;
  for (const auto& [key, v] : vehicles_) next = std::min(next, v.expires);
  return next;
}

std::string Fleet::Snapshot() const {
  Json list = Json::array();
  for (const auto& [key, v] : vehicles_) {
    Json nodes = Json::array(), edges = Json::array(), errors = Json::array();
    for (const Node& n : v.nodes)
      nodes.push_back({{"id", n.id},
                       {"seq", n.seq},
                       {"released", n.released},
                       {"x", n.placed ? Json(n.x) : Json()},
                       {"y", n.placed ? Json(n.y) : Json()}});
    for (const Edge& e : v.edges)
      edges.push_back({{"id", e.id}, {"seq", e.seq}, {"released", e.released}});
    for (const Fault& e : v.errors)
      errors.push_back({{"type", e.type}, {"level", e.level}, {"text", e.text}});
    Json pose;
    if (v.posed)
      pose = {{"x", v.pose.x}, {"y", v.pose.y}, {"theta", v.pose.theta}, {"map", v.pose.map}};
    list.push_back({{"id", key},
                    {"manufacturer", v.manufacturer},
                    {"serial", v.serial},
                    {"connection", v.connection},
                    {"pose", pose},
                    {"orderId", v.order_id},
                    {"orderUpdateId", v.order_update},
                    {"lastNodeId", v.last_node},
                    {"lastNodeSeq", v.last_node_seq},
                    {"driving", v.driving},
                    {"paused", v.paused},
                    {"mode", v.mode},
                    {"battery", v.battery >= 0 ? Json(v.battery) : Json()},
                    {"nodes", nodes},
                    {"edges", edges},
                    {"cut", v.cut},
                    {"errors", errors},
                    {"series", v.series},
                    {"size", v.length > 0 && v.width > 0 ? Json{v.length, v.width} : Json()}});
  }
  const Json out = {{"broker", broker_},
                    {"full", full_},
                    {"ignored", ignored_},
                    {"seq", seq_},
                    {"vehicles", list}};
  // Ids come from topic levels, which MQTT does not check for UTF-8.
  return out.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace fleet
