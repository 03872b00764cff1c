#pragma once

// The fleet map's model, without sockets or a broker: VDA 5050 messages in
// (connection, state, visualization, factsheet, as MQTT delivers them), one
// entry per vehicle, and the snapshot the page draws, as JSON.
//
// Whoever can publish on the broker can feed it, so everything is bounded:
// the number of vehicles, a message's size, every id's length, the nodes,
// edges and errors kept per vehicle. A message that is too large, not JSON,
// or carries a value of the wrong type or an id too long is ignored whole
// and counted; nothing is half-applied.
//
// When vehicles come and go:
//   - A vehicle appears with its first message: a connection message saying
//     ONLINE or CONNECTIONBROKEN, or any live state, visualization or
//     factsheet.
//   - OFFLINE says it left in order: it stays, marked, for
//     Limits::offline_keep, then vanishes.
//   - CONNECTIONBROKEN (its last will, published by the broker) is an
//     alarm: it stays, marked, for Limits::broken_keep unless it comes back.
//   - A vehicle without a connection message (its broker retains none)
//     stays while it talks, and for broken_keep after its last message.
//   - Retained messages describe the past. A retained OFFLINE removes the
//     vehicle at once: it left before the view started. A retained state,
//     visualization or factsheet updates a vehicle already shown but never
//     creates one, so that a factsheet retained for a vehicle long gone does
//     not bring it back. (The connection topic is subscribed first, so a
//     broker hands its retained connection states over before the others.)
//   - When Limits::max_vehicles are shown, a newcomer takes the place of the
//     vehicle that is not ONLINE and due to vanish first; when all of them
//     are ONLINE, the newcomer is turned away and counted.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace fleet {

struct Limits {
  std::size_t max_vehicles = 500;
  std::size_t max_payload = 256 * 1024;  // bytes of one MQTT message
  std::size_t max_id = 128;              // bytes of an id: topic level, order, node, edge, map
  std::size_t max_route = 256;           // nodes and edges kept per vehicle; the rest counted
  std::size_t max_errors = 16;           // per vehicle; the rest dropped
  std::size_t max_text = 256;            // bytes of an error's type or description, cut beyond
  double offline_keep = 10;              // seconds an OFFLINE vehicle stays shown
  double broken_keep = 600;              // seconds a CONNECTIONBROKEN one stays shown
};

struct Pose {
  double x = 0, y = 0, theta = 0;  // metres, radians
  std::string map;
};

struct Node {
  std::string id;
  unsigned long seq = 0;
  bool released = false;
  bool placed = false;  // x and y known
  double x = 0, y = 0;
};

struct Edge {
  std::string id;
  unsigned long seq = 0;
  bool released = false;
};

struct Fault {
  std::string type, level, text;
};

struct Vehicle {
  std::string manufacturer, serial;
  std::string connection;  // ONLINE, OFFLINE, CONNECTIONBROKEN; empty: none heard
  double expires = 0;      // when it vanishes; infinity while ONLINE
  bool posed = false;
  Pose pose;
  std::string order_id, last_node;
  unsigned long order_update = 0, last_node_seq = 0;
  bool driving = false, paused = false;
  std::string mode;         // operatingMode
  double battery = -1;      // batteryCharge in percent; -1 unknown
  std::vector<Node> nodes;  // the order's remaining nodes, in sequence
  std::vector<Edge> edges;  // and edges
  std::size_t cut = 0;      // nodes and edges beyond Limits::max_route
  std::vector<Fault> errors;
  std::string series;            // factsheet: typeSpecification.seriesName
  double length = 0, width = 0;  // factsheet: physicalParameters; 0 unknown
};

class Fleet {
 public:
  explicit Fleet(std::string interface_name, Limits limits = {});

  // The topic filters to subscribe to, the connection topic first.
  std::vector<std::string> Subscriptions() const;

  // One message as MQTT delivered it, `now` in seconds on a steady clock.
  void Message(const std::string& topic, const std::string& payload, bool retained, double now);
  // Removes the vehicles whose time is up; false when none was.
  bool Expire(double now);
  // When Expire will next remove one (infinity when never).
  double NextExpiry() const;

  // Whether the view's own link to the broker is up, for the page.
  void Broker(bool up);

  // Changes with every change of the snapshot.
  unsigned long seq() const { return seq_; }
  const std::map<std::string, Vehicle>& vehicles() const { return vehicles_; }
  // The snapshot: {"broker", "full", "ignored", "seq", "vehicles": [...]},
  // vehicles by manufacturer and serial.
  std::string Snapshot() const;

 private:
  enum class Topic { kConnection, kState, kVisualization, kFactsheet };
  Vehicle* Admit(const std::string& manufacturer, const std::string& serial, double now);

  std::string interface_;
  Limits limits_;
  std::map<std::string, Vehicle> vehicles_;  // by "manufacturer/serial"
  unsigned long seq_ = 0;
  unsigned long ignored_ = 0;  // malformed, too large or off-topic
  unsigned long full_ = 0;     // newcomers turned away
  bool broker_ = false;
};

}  // namespace fleet
