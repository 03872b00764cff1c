#pragma once

/// @file
/// The application's handle on one robot, reached through the control server.
///
/// Create a Robot (it connects to the compiled-in server address, port 6868,
/// and queues its announcement), then call Handle() from the application's
/// own loop, or let tarn::Events (robot/events.h) call it and hand over every
/// message it applies. Commands only queue messages; Handle() is the one
/// place where bytes move, and nothing runs in the background. The connection
/// is non-blocking once up, but Handle() keeps receiving for as long as the
/// server keeps sending, and the constructor's connection attempts are
/// blocking.
///
/// All Robot objects of a process share the module-wide connection, mailbox
/// and list of running actions below.

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "../msg/msg.h"
#include "../net/Socket.h"

/// SetOrientation accepts headings from -orientation_limit to
/// orientation_limit radians: pi rounded to single precision, so that the
/// float nearest to pi is still a valid heading.
constexpr float orientation_limit = 3.14159274f;

/// One robot, commanded through the control server.
class TARN_API Robot {
 public:
  /// Connects; prints "Can Not Connect Server !" and stays disconnected for
  /// good when the server cannot be reached.
  Robot();
  /// Resets the fields, closes the shared socket, drops the running actions and
  /// every queued message. Sends nothing.
  ~Robot();

  /// A copy's destructor would tear down the connection every Robot shares.
  Robot(const Robot&) = delete;
  /// A copy's destructor would tear down the connection every Robot shares.
  Robot& operator=(const Robot&) = delete;

  /// Queues KEY_KILL, then KEY_INIT with the pose (x and y in millimetres).
  void Init(float x, float y, float z);
  /// Queues KEY_KILL and clears online.
  void Kill();
  /// One service step: receive, apply received messages, send the queue.
  void Handle();

  /// Go to one position (x and y in millimetres). Needs an online, free robot.
  bool SetPosition(float x, float y, float z);
  /// Go along way-points; each pointer addresses at least three floats (x, y
  /// in millimetres, z). Needs an online, free robot.
  bool SetPosition(std::deque<float*> points);
  /// 300 to 1300 mm/s. Needs a connection.
  bool SetVelocity(int v);
  /// 100 to 1000 mm/s^2. Needs a connection.
  bool SetAcceleration(int a);
  /// -orientation_limit to orientation_limit radians. Needs an online, free robot.
  bool SetOrientation(float r);
  /// Asks the robot for an immediate status report. Needs an online robot.
  void GetDetial();

  /// Three lines: name, task state and online word; position; velocity,
  /// acceleration and voltage.
  std::string DebugString();

  std::string name;    ///< the robot's node id, from the last status report ("N" before)
  float x;             ///< position X as reported (metres)
  float y;             ///< position Y as reported (metres)
  float z;             ///< never written after construction: always 0
  float orientation;   ///< heading as reported (radians)
  float acceleration;  ///< as reported (mm/s^2)
  float velocity;      ///< as reported (mm/s)
  float voltage;       ///< supply voltage as reported (V)
  /// The TCP connection is up: false from a failed constructor on, or from
  /// the step that finds the server gone. Nothing reconnects.
  bool connected;
  /// Set by an acknowledged initialisation; cleared by an acknowledged kill,
  /// by Kill() and by the destructor.
  bool online;
  /// Task state: -1 free, 0 working, any other value an error code (see
  /// tarn::task_states).
  std::int32_t state;
};

// Module-wide state shared by every Robot.

/// The connection to the control server, shared by every Robot.
extern TARN_API Socket m_socket;
/// The mailbox: what arrived, by sender, and what waits to be sent.
extern TARN_API MailBox m_msg;
/// The actions sent and not yet reported finished, oldest first; the bool
/// lets "path" progress reports trim the action's way-points.
extern TARN_API std::deque<std::pair<bool, Action_RTS>> acts;
