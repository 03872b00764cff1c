#pragma once

// The simulated robot and control server behind tarn-sim, as a pure state
// machine: messages in, messages out, time advanced explicitly. No sockets, no
// clock, no output, so that every behaviour can be replayed deterministically.
//
// Units on the wire, chosen to match what the client sends:
//   - positions in metres (the client divides its millimetres by 1000 before
//     sending INIT texts and way-points), so the x and y of a status report
//     are metres as well and read back as the same numbers the client sent;
//   - headings in radians, counter-clockwise from the x axis, in (-pi, pi];
//   - velocity in mm/s and acceleration in mm/s^2 (the client prints those
//     units), voltage in volts.

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "msg/msg.h"

namespace tarn_sim {

// Task state reported in the fourth number of a status report. -1 and 0 are
// the client's own meanings; the error codes are this simulator's.
//
// The error model, as tarn-sim --help states it:
//   - A refused command is answered at once with a status report carrying
//     the error code; the actions of a refused message are closed after the
//     running ones, so the client's list of running actions stays in step.
//   - The code stays in the task state while the robot is still moving and
//     for at least error_hold seconds, so that an application polling at any
//     sensible rate sees it; then it clears to -1 and a status report says
//     so. An accepted command (INIT, KILL, motion, parameter) clears it at
//     once. A loop waiting for -1 therefore always ends.
enum TaskState : int {
  kFree = -1,
  kWorking = 0,
  kNotOnline = 2,    // motion command while the robot is offline
  kBusy = 3,         // motion command while an action or a turn is under way
  kUnsupported = 4,  // action type other than 1 (travel along a path)
  kBadParameter = 5  // unparsable, non-finite or out-of-range value, unknown
                     // parameter, too many actions in one message
};

struct SimConfig {
  double report_rate_hz = 10;   // periodic status reports; 0 disables them
  double speed_limit = 500;     // mm/s until the client sets "Speed"
  double accel_limit = 300;     // mm/s^2 until the client sets "Acceleration"
  double turn_rate = 3.0;       // rad/s when turning in place
  double voltage_full = 26.4;   // V at start
  double voltage_empty = 22.0;  // V floor: the battery never drains below it
  double drain_idle = 0.002;    // V/s whatever the robot does
  double drain_per_mps = 0.01;  // extra V/s per m/s of travel speed
  double step = 0.005;          // s, integration step of advance()
  // A refusal's error code stays in the task state at least this long, and
  // until the robot is at rest (s of simulated time).
  double error_hold = 1.0;
};

// A message with more actions than this is refused as a whole (error 5) with
// a single report, without one closure per action: no client tracks that many
// running actions, and a few bytes on the wire can announce millions.
constexpr std::size_t kMaxActions = 64;

// One way-point of the current route, as the live view draws it.
struct RoutePoint {
  std::string code;
  double x;  // metres
  double y;
  bool passed;
};

// Node ids the simulator speaks for, and the client it expects by default.
extern const char* const kServerId;  // "SV-0": acknowledgements
extern const char* const kRobotId;   // "R-0": status and progress reports
extern const char* const kClientId;  // "T-0"

class RobotSim {
 public:
  explicit RobotSim(SimConfig config = SimConfig());

  // Applies one message from the client; returns the replies in send order.
  // `announced` is the action count of a message whose actions were not
  // decoded (see ScreenFrame); more than kMaxActions is refused.
  std::vector<Message_RTS> Receive(const Message_RTS& in, std::uint32_t announced = 0);

  // Advances simulated time by `seconds`; returns the reports produced on
  // the way (way-point progress, finished actions, periodic status), in order.
  std::vector<Message_RTS> Advance(double seconds);

  // The status report as it would be sent now.
  Message_RTS StatusReport() const;

  // The controlling client went away. The robot finishes what it was told to
  // do, as a real robot finishes its order when an operator's session ends,
  // and stays online, so that `goto --no-wait` really moves it and the next
  // client can command it without initialising it again. Pose, limits and
  // battery are kept; progress of the orphaned actions is reported to nobody.
  void ClientLeft();

  // A refusal that no message caused (the live view's fault injection): the
  // same error report and latch as a refused command, without closures.
  std::vector<Message_RTS> Inject(int code);

  // Simulated seconds until something would change without any input: the
  // next integration step while moving, the next periodic report, or, at
  // rest, the end of an error's hold. Infinity when nothing is scheduled.
  // Zero only for an event that the next Advance, of any length, handles: a
  // loop that sleeps this long between calls never spins.
  double NextEventIn() const;

  bool registered() const { return registered_; }
  bool online() const { return online_; }
  int task_state() const;
  double x() const { return x_mm_ / 1000.0; }  // metres
  double y() const { return y_mm_ / 1000.0; }  // metres
  double heading() const { return heading_; }
  double velocity() const { return velocity_; }
  double acceleration() const { return accel_; }
  double speed_limit() const { return speed_limit_; }
  double accel_limit() const { return accel_limit_; }
  double voltage() const { return voltage_; }
  double time() const { return time_; }
  bool moving() const { return busy(); }
  const std::string& client() const { return client_; }
  const std::vector<RoutePoint>& route() const { return route_; }

 private:
  struct Point {
    std::string code;
    double x_mm;
    double y_mm;
  };
  struct Run {
    std::deque<Point> path;
    bool reported = true;  // false once its client has left
  };

  bool busy() const { return !runs_.empty() || turning_; }
  void Step(double h, std::vector<Message_RTS>& out);
  void DriveStep(double h, std::vector<Message_RTS>& out);
  void Arrive(std::vector<Message_RTS>& out);
  void Refuse(int code, std::size_t actions, std::vector<Message_RTS>& out);
  void SetError(int code);
  void ClearErrorIfDue(std::vector<Message_RTS>& out);
  void Finished(std::vector<Message_RTS>& out);
  void StopAll(std::vector<Message_RTS>& out);
  void FlushClosures(std::vector<Message_RTS>& out);
  Message_RTS FromServer(RTS_key key) const;
  Message_RTS Progress(const std::string& what, int count, const std::string& code) const;

  SimConfig cfg_;
  std::string client_ = kClientId;
  bool registered_ = false;
  bool online_ = false;
  int error_ = 0;           // latched error code, 0 when none
  double error_until_ = 0;  // earliest simulated time at which it clears
  double x_mm_ = 0;
  double y_mm_ = 0;
  double heading_ = 0;
  double velocity_ = 0;  // mm/s, along the path
  double accel_ = 0;     // mm/s^2, signed: negative while braking
  double speed_limit_;
  double accel_limit_;
  double voltage_;
  double time_ = 0;
  double next_report_ = 0;
  std::deque<Run> runs_;
  // Refused actions still in the client's list of running actions: each one
  // is closed with an "action" report once the actions ahead of it are done,
  // so that the client's list stays in step with the robot's.
  int pending_closures_ = 0;
  bool turning_ = false;  // a commanded turn in place
  double turn_target_ = 0;
  std::vector<RoutePoint> route_;  // the last accepted path, passed points marked
  std::size_t route_next_ = 0;     // index of the next point to reach
};

// Screens the complete frame at the front of a receive buffer before the
// library's decoder sees it, because that decoder trusts its input: it
// allocates whatever a text length asks for and builds every action a count
// announces, so a few bytes can cost gigabytes. Returns kDiscard (the frame
// is to be dropped) when a text length is negative or reaches past the
// frame; sets `announced` and zeroes the count in place when a message
// announces more than kMaxActions actions, so that it decodes without them
// and can be refused as a whole. kPass otherwise, and for anything that is
// not a complete frame (the cutter deals with those).
enum class Screen { kPass, kDiscard };
Screen ScreenFrame(std::string& buffer, std::uint32_t& announced);

// One readable line describing a message, for the simulator's log:
// sender, receiver, key name, integer, the three texts and the actions.
std::string Describe(const Message_RTS& m);

// The key's name ("KEY_DETAIL"), or "KEY_<number>" outside the table.
std::string KeyName(RTS_key key);

}  // namespace tarn_sim
