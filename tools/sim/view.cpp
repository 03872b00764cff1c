#include "view.h"

#include <cmath>

#include <nlohmann/json.hpp>

namespace tarn_sim {

std::string StateName(int state) {
  switch (state) {
    case kFree:
      return "free";
    case kWorking:
      return "working";
    case kNotOnline:
      return "not online";
    case kBusy:
      return "busy";
    case kUnsupported:
      return "unsupported action";
    case kBadParameter:
      return "bad parameter";
  }
  return "error " + std::to_string(state);
}

std::string ToJson(const Snapshot& s) {
  using nlohmann::json;
  json route = json::array();
  for (const RoutePoint& p : s.route)
    route.push_back({{"code", p.code}, {"x", p.x}, {"y", p.y}, {"passed", p.passed}});
  json trail = json::array();
  for (const auto& p : s.trail) trail.push_back({p.first, p.second});
  json volts = json::array();
  for (const auto& p : s.voltage_history) volts.push_back({p.first, p.second});
  json messages = json::array();
  for (const LoggedMessage& m : s.messages)
    messages.push_back({{"t", m.time}, {"dir", m.incoming ? "in" : "out"}, {"text", m.text}});
  json j = {{"seq", s.seq},
            {"time", s.time},
            {"paused", s.paused},
            {"online", s.online},
            {"state", s.state},
            {"state_text", StateName(s.state)},
            {"x", s.x},
            {"y", s.y},
            {"heading", s.heading},
            {"velocity", s.velocity},
            {"acceleration", s.acceleration},
            {"voltage", s.voltage},
            {"speed_limit", s.speed_limit},
            {"accel_limit", s.accel_limit},
            {"client", s.client.empty() ? json(nullptr) : json(s.client)},
            {"route", route},
            {"target", s.target},
            {"trail", trail},
            {"voltage_history", volts},
            {"messages", messages}};
  // Texts come from the wire: invalid UTF-8 is replaced rather than thrown on.
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string ToEvent(const Snapshot& s) {
  // dump() escapes control characters, so the JSON is one line and cannot
  // end the event early.
  return "event: state\nid: " + std::to_string(s.seq) + "\ndata: " + ToJson(s) + "\n\n";
}

void ViewLog::Sample(const RobotSim& sim) {
  const std::pair<double, double> here{sim.x(), sim.y()};
  if (trail_.empty() ||
      std::hypot(here.first - trail_.back().first, here.second - trail_.back().second) >= 0.01) {
    trail_.push_back(here);
    if (trail_.size() > kTrailPoints) trail_.pop_front();
  }
  if (voltage_.empty() || sim.time() - voltage_.back().first >= 1.0) {
    voltage_.emplace_back(sim.time(), sim.voltage());
    if (voltage_.size() > kVoltageSamples) voltage_.pop_front();
  }
}

void ViewLog::Message(double time, bool incoming, const Message_RTS& m) {
  messages_.push_back(Entry{time, incoming, m});
  if (messages_.size() > kMessages) messages_.pop_front();
}

void ViewLog::Fill(Snapshot& s) const {
  s.trail.assign(trail_.begin(), trail_.end());
  s.voltage_history.assign(voltage_.begin(), voltage_.end());
  s.messages.clear();
  for (const Entry& e : messages_) s.messages.push_back({e.time, e.incoming, Describe(e.message)});
}

Snapshot MakeSnapshot(const RobotSim& sim, const ViewLog& log) {
  Snapshot s;
  s.time = sim.time();
  s.online = sim.online();
  s.state = sim.task_state();
  s.x = sim.x();
  s.y = sim.y();
  s.heading = sim.heading();
  s.velocity = sim.velocity();
  s.acceleration = sim.acceleration();
  s.voltage = sim.voltage();
  s.speed_limit = sim.speed_limit();
  s.accel_limit = sim.accel_limit();
  s.route = sim.route();
  if (sim.moving()) {
    for (std::size_t i = 0; i < s.route.size(); ++i) {
      if (!s.route[i].passed) {
        s.target = static_cast<int>(i);
        break;
      }
    }
  }
  log.Fill(s);
  return s;
}

}  // namespace tarn_sim
