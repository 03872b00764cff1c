#pragma once

// What the live view shows, kept apart from sockets and threads: the history
// the simulator itself does not keep (trail, battery samples, the last
// messages) and the immutable snapshot the HTTP side encodes as JSON.

#include <cstddef>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "sim_core.h"

namespace tarn_sim {

struct LoggedMessage {
  double time;       // simulated seconds
  bool incoming;     // from the client (true) or to it
  std::string text;  // Describe()
};

// Everything the page draws, copied out of the loop's live state. Once
// published it is never changed, so the HTTP threads read it without locks.
struct Snapshot {
  unsigned long seq = 0;
  double time = 0;
  bool paused = false;
  bool online = false;
  int state = -1;
  double x = 0, y = 0, heading = 0;  // metres, radians
  double velocity = 0, acceleration = 0, voltage = 0;
  double speed_limit = 0, accel_limit = 0;
  std::string client;  // peer and node id, empty when none
  std::vector<RoutePoint> route;
  int target = -1;  // index into route of the point being driven to, -1 none
  std::vector<std::pair<double, double>> trail;
  std::vector<std::pair<double, double>> voltage_history;  // (time, volts)
  std::vector<LoggedMessage> messages;                     // oldest first
};

// The name of a task state as the tools print it: "free", "working", "not
// online", "busy", "unsupported action", "bad parameter", "error N".
std::string StateName(int state);

// The snapshot as one JSON object (field names as in Snapshot).
std::string ToJson(const Snapshot& s);

// One server-sent event carrying the snapshot: "event: state", the id and
// the JSON on one data line, then a blank line.
std::string ToEvent(const Snapshot& s);

// Bounded history recorded by the loop as the simulation advances.
class ViewLog {
 public:
  static constexpr std::size_t kTrailPoints = 4000;
  static constexpr std::size_t kVoltageSamples = 300;
  static constexpr std::size_t kMessages = 24;

  // Adds the pose to the trail when it moved at least 1 cm, and a battery
  // sample at most once per simulated second.
  void Sample(const RobotSim& sim);
  void Message(double time, bool incoming, const Message_RTS& m);

  // Fills the history fields of a snapshot.
  void Fill(Snapshot& s) const;

 private:
  std::deque<std::pair<double, double>> trail_;
  std::deque<std::pair<double, double>> voltage_;
  struct Entry {
    double time;
    bool incoming;
    Message_RTS message;  // described only when a snapshot is taken
  };
  std::deque<Entry> messages_;
};

// A snapshot of the simulator's state with this history.
Snapshot MakeSnapshot(const RobotSim& sim, const ViewLog& log);

}  // namespace tarn_sim
