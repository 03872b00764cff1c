#pragma once

// The VDA 5050 face of one robot, as a pure state machine: order and instant
// action payloads in, the robot's messages in as the event layer hands them
// over (tarn::Event), commands out through RobotPort, and the JSON of the
// state, visualization, connection and factsheet topics on demand. No
// sockets, no clock, no MQTT: tarn-vda5050's main loop owns all of that.
//
// Units: VDA 5050 speaks metres, radians and m/s; the robot takes way-points
// in millimetres and reports x and y in metres, velocity in mm/s.

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "robot/events.h"

namespace vda {

using Json = nlohmann::json;

// What the bridge needs from the robot; tarn-vda5050 implements it with Robot.
// The bool results are the Robot commands' own (false: refused by its guard).
struct RobotPort {
  virtual ~RobotPort() = default;
  virtual bool Drive(const std::vector<std::array<float, 3>>& points_mm) = 0;
  virtual bool Turn(float theta) = 0;
  virtual bool Speed(int mm_per_s) = 0;
  virtual void Init(float x_mm, float y_mm, float theta) = 0;
  virtual void Detail() = 0;
};

struct Config {
  std::string interface_name = "uagv";
  std::string manufacturer = "tarn";
  std::string serial = "robot-1";
  std::string map_id = "map";
  // Linear state-of-charge estimate between these voltages (the simulator's
  // battery runs from 26.4 V full down to a 22.0 V floor).
  double battery_empty_v = 22.0;
  double battery_full_v = 26.4;
  // How often the main loop sends the state and visualization topics
  // (seconds; 0: no visualization). Only the factsheet reads them.
  double state_interval = 30;
  double visualization_interval = 1;
  // The most way-points one drive command may carry: its frame must stay
  // within the receiver's frame limit. Orders are refused beyond one node
  // more than this, and the factsheet announces that limit.
  std::size_t max_stretch = tarn::max_path_points();
};

// Longest id, action type or key the bridge takes (bytes): everything it
// echoes in the state is bounded by it.
inline constexpr std::size_t kMaxIdLen = 128;

// Fixed texts of the protocol.
inline constexpr const char* kVersion = "2.1.0";
inline constexpr const char* kMajor = "v2";

class Bridge {
 public:
  Bridge(Config config, RobotPort& robot);

  // Payloads of the order and instantActions topics.
  void Order(const std::string& payload);
  void InstantActions(const std::string& payload);

  // The robot's messages, each once and in arrival order, as tarn::Events
  // hands them over. A lost connection or an unreadable stream is a fatal
  // error from then on.
  void OnEvent(const tarn::Event& e);

  // Whether something the state topic carries changed since the last call;
  // likewise whether a factsheet was asked for.
  bool TakeStateDue();
  bool TakeFactsheetDue();

  // Complete messages of each topic (header included); each call uses up
  // the topic's next headerId.
  Json State(const std::string& timestamp);
  Json Visualization(const std::string& timestamp);
  Json Connection(const std::string& timestamp, const char* state);
  Json Factsheet(const std::string& timestamp);

  std::string Topic(const std::string& name) const;

 private:
  struct Node {
    std::string id;
    unsigned seq = 0;
    bool released = true;
    double x = 0, y = 0;
    std::optional<double> theta;
    Json position;  // nodePosition as echoed in nodeStates: its known fields only
  };
  struct Edge {
    std::string id;
    unsigned seq = 0;
    bool released = true;
    std::optional<double> max_speed;
  };
  struct ActionState {
    std::string id, type, status, result;
  };
  enum class Phase { kIdle, kDriving, kSettling, kTurnSent, kTurning, kResetting };

  void OnReport(const tarn::Report& r);
  void OnPassed();
  void OnActionEnded();
  void OnInitAck();
  void OnKillAck();
  void OnServerLost(const std::string& why);

  Json Header(const std::string& topic, const std::string& timestamp);
  void Error(const std::string& type, const std::string& text,
             std::vector<std::pair<std::string, std::string>> refs, const char* level = "WARNING");
  bool Valid(const Json& o, std::vector<Node>& nodes, std::vector<Edge>& edges);
  void Accept(const Json& o, std::vector<Node> nodes, std::vector<Edge> edges, bool update);
  void Step();
  void Fail(const std::string& why);
  void SetAction(const std::string& id, const char* status);
  bool HasOrder() const;
  void Reset(const std::string& id, double x, double y, double theta);
  Json Position() const;

  Config cfg_;
  RobotPort& robot_;
  std::map<std::string, unsigned> header_ids_;
  // The last complete status report, in the published units: x, y and theta
  // as the robot wrote them (theta within [-pi, pi]), velocity in m/s.
  struct Pose {
    double x = 0, y = 0, theta = 0, velocity = 0, voltage = 0;
    std::int32_t state = tarn::state_free;
    bool offline = false;  // the server said "offline"
  } report_;
  bool have_report_ = false;
  bool initialized_ = false;  // an initialisation was acknowledged
  bool lost_ = false;
  bool state_due_ = true;
  bool factsheet_due_ = false;

  std::string order_id_;
  unsigned order_update_ = 0;
  std::string last_node_;
  unsigned last_seq_ = 0;
  std::vector<Node> nodes_;  // still to traverse, front first
  std::vector<Edge> edges_;
  std::vector<ActionState> actions_;
  std::vector<Json> errors_;  // bridge errors, kept until an order is accepted

  Phase phase_ = Phase::kIdle;
  std::size_t segment_ = 0;  // way-points in the running drive
  std::size_t passed_ = 0;
  std::optional<double> turn_;               // heading to take before driving on
  std::string reset_action_;                 // initPosition or cancelOrder awaiting the robot
  std::string reset_node_;                   // lastNodeId given with initPosition
  bool killed_ = false;                      // the reset's kill was acknowledged
  std::vector<std::string> detail_actions_;  // stateRequests awaiting the robot's report
};

}  // namespace vda
