#include "robot/robot.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "msg/node_ids.h"
#include "robot/removal.h"
#include "tarn_config.h"

// Module-wide state, built after this file's node identifiers (included above)
// and destroyed in reverse order at unload.
Socket m_socket;
MailBox m_msg;
std::deque<std::pair<bool, Action_RTS>> acts;

// ---------------------------------------------------------------------------
// Queue maintenance

void remove_done(std::vector<Message_RTS>& queue) {
  if (queue.empty()) return;
  // The message at `keep` survives unexamined: the original first one when it
  // is pending, or the one behind a handled first message.
  const std::size_t keep = queue.front().key == KEY_NONE ? 1 : 0;
  std::size_t out = 0;
  for (std::size_t in = keep; in < queue.size(); ++in) {
    if (in != keep && queue[in].key == KEY_NONE) continue;
    if (out != in) queue[out] = std::move(queue[in]);
    ++out;
  }
  queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(out), queue.end());
}

// ---------------------------------------------------------------------------
// Module-private senders: they only queue; Robot::Handle writes. Everything
// internal to this file is file-static.

// The message every sender builds: from this client, to `receiver`, queued
// under this client's node id in the outbox.
static void Queue(const std::string& receiver, RTS_key key, int value, const std::string& text1,
                  const std::string& text2, const std::string& text3) {
  Message_RTS message;
  message.key = key;
  message.sender_id = rts_id;
  message.receiver_id = receiver;
  message.int_param = value;
  message.text_param1 = text1;
  message.text_param2 = text2;
  message.text_param3 = text3;
  m_msg.outbox[rts_id].push_back(message);
}

static void Send2server(RTS_key key, int value, const std::string& text1, const std::string& text2,
                        const std::string& text3) {
  Queue(server_id, key, value, text1, text2, text3);
}

static void Send2robot(RTS_key key, int value, const std::string& text1, const std::string& text2,
                       const std::string& text3) {
  Queue(robot_id, key, value, text1, text2, text3);
}

// `actions` must not be empty: int_param announces the way-point count of the
// first action.
static void Send2robot(std::deque<Action_RTS>& actions) {
  Message_RTS message;
  message.key = KEY_ACTION;
  message.sender_id = rts_id;
  message.receiver_id = robot_id;
  message.int_param = static_cast<std::int32_t>(actions.front().path.size());
  message.actions = actions;
  m_msg.outbox[rts_id].push_back(message);
}

// ---------------------------------------------------------------------------
// Helpers

// Closes the shared connection the way the Socket destructor does, without
// running that destructor on a global that will be destroyed again at exit.
// The closed number deliberately stays in m_sock.
static void TearDownSocket() {
  if (m_socket.m_sock != -1) close(m_socket.m_sock);
  std::string().swap(m_socket.m_buffer);
}

// "%f" rendering (six decimals) of a value promoted to double.
static std::string FormatFixed(float value) {
  const double v = value;
  char small[64];
  const int n = std::snprintf(small, sizeof small, "%f", v);
  if (n < 0) return std::string();
  if (static_cast<std::size_t>(n) < sizeof small)
    return std::string(small, static_cast<std::size_t>(n));
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(&big[0], big.size(), "%f", v);
  big.resize(static_cast<std::size_t>(n));
  return big;
}

// Applies a "path" progress report: the robot passed `count` way-points of the
// oldest running action (the count is an unsigned 32-bit countdown, so a
// negative value means a very large one). Each step drops at most one
// way-point from each list, so removing min(count, size) directly gives the
// same result as stepping, without stepping up to 2^32 - 1 times.
static void TrimFrontAction(std::uint32_t count) {
  auto& entry = acts.front();
  if (!entry.first) return;
  Action_RTS& action = entry.second;
  const auto drop_path = std::min<std::uint64_t>(count, action.path.size());
  action.path.erase(action.path.begin(),
                    action.path.begin() + static_cast<std::ptrdiff_t>(drop_path));
  const auto drop_arc = std::min<std::uint64_t>(count, action.arc_path.size());
  action.arc_path.erase(action.arc_path.begin(),
                        action.arc_path.begin() + static_cast<std::ptrdiff_t>(drop_arc));
}

// ---------------------------------------------------------------------------
// Robot

Robot::Robot()
    : name(undef),
      x(0),
      y(0),
      z(0),
      orientation(0),
      acceleration(0),
      velocity(0),
      voltage(0),
      connected(false),
      online(false),
      state(-1) {
  try {
    m_socket.Client_init(TARN_SERVER_ADDRESS, TARN_SERVER_PORT);
    connected = true;
  } catch (SocketException) {
    std::cout << "Can Not Connect Server !" << std::endl;
    connected = false;
  }
  if (connected) Send2server(KEY_CONNECT, 0, undef, undef, undef);
}

Robot::~Robot() {
  name = undef;
  x = y = z = 0;
  orientation = acceleration = velocity = voltage = 0;
  online = false;
  state = -1;
  TearDownSocket();
  acts.clear();
  m_msg.inbox.clear();
  m_msg.outbox.clear();
}

void Robot::Init(float x, float y, float z) {
  Kill();
  Send2server(KEY_INIT, 0, FormatFixed(x / 1000.0f), FormatFixed(y / 1000.0f), FormatFixed(z));
}

void Robot::Kill() {
  Send2server(KEY_KILL, 0, undef, undef, undef);
  online = false;
}

void Robot::Handle() {
  // Phase 1: drain the connection. Only the extra call after the loop decides
  // whether the peer has gone; the value that ended the loop is not examined.
  if (connected) {
    while (recv_msg(m_socket, m_msg) > 0) {
    }
    if (recv_msg(m_socket, m_msg) == -2) {
      std::cout << "socket dis connect" << std::endl;
      connected = false;
      TearDownSocket();
    }
  }

  // Phase 2: apply what arrived, from every sender. Every message is marked
  // handled, whether or not its key meant anything.
  for (auto& entry : m_msg.inbox) {
    for (Message_RTS& message : entry.second) {
      switch (message.key) {
        case KEY_INIT:
          online = true;
          break;
        case KEY_KILL:
          online = false;
          break;
        case KEY_DETAIL: {
          // Stream extraction semantics are the contract: a non-number zeroes
          // the failing field, an exhausted text leaves it, later fields keep
          // their values either way.
          std::istringstream report(message.text_param1);
          report >> voltage >> x >> y >> state >> orientation >> velocity >> acceleration;
          name = message.text_param2;
          break;
        }
        case KEY_ACTION:
          if (acts.empty()) break;
          if (message.text_param1 == "action") {
            acts.pop_front();
          } else if (message.text_param1 == "path") {
            if (message.int_param != 0) {
              TrimFrontAction(static_cast<std::uint32_t>(message.int_param));
              message.int_param = 0;  // the countdown ran out
            }
          }
          break;
        default:
          break;
      }
      message.key = KEY_NONE;
    }
    remove_done(entry.second);
  }

  // Phase 3: send the queue in order; the first failure leaves it and
  // everything behind it for the next step.
  std::vector<Message_RTS>& outgoing = m_msg.outbox[rts_id];
  for (Message_RTS& message : outgoing) {
    if (message.key == KEY_NONE) continue;
    if (!send_msg(m_socket, message)) break;
    message.key = KEY_NONE;
  }
  remove_done(outgoing);
}

bool Robot::SetPosition(float x, float y, float z) {
  // Names the single way-points "-1", "-2", ... for the life of the process.
  static std::int32_t num = -1;
  if (!connected || !online || state != -1) return false;

  QrInfo_RTS point;
  point.qr_code = std::to_string(num);
  // Wraps instead of overflowing after 2^31 names.
  num = static_cast<std::int32_t>(static_cast<std::uint32_t>(num) - 1u);
  point.x = x / 1000.0f;
  point.y = y / 1000.0f;
  point.z = z;
  point.space_type = SPACE_DEFAULT;
  point.flag = 1;

  Action_RTS action(1, std::deque<QrInfo_RTS>{point});
  acts.emplace_back(true, action);
  std::deque<Action_RTS> actions{action};
  Send2robot(actions);
  return true;
}

bool Robot::SetPosition(std::deque<float*> points) {
  if (!connected || !online || state != -1) return false;

  std::deque<QrInfo_RTS> path;
  int index = 0;
  for (const float* p : points) {
    QrInfo_RTS point(std::to_string(index++), p[0] / 1000.0f, p[1] / 1000.0f, SPACE_DEFAULT, 1);
    point.z = p[2];
    path.push_back(std::move(point));
  }

  Action_RTS action(1, path);
  acts.emplace_back(true, action);
  std::deque<Action_RTS> actions{action};
  Send2robot(actions);
  return true;
}

// The parameter setters share one shape: the connection guard, an inclusive
// integer range, then one KEY_SET_PARAM naming the parameter.
static bool QueueParameter(bool connected, const char* parameter, int value, int low, int high) {
  if (!connected) return false;
  if (value < low || value > high) {
    std::cout << "value illegality " << std::endl;
    return false;
  }
  Send2server(KEY_SET_PARAM, value, parameter, undef, undef);
  return true;
}

bool Robot::SetVelocity(int v) {
  return QueueParameter(connected, "Speed", v, 300, 1300);
}

bool Robot::SetAcceleration(int a) {
  return QueueParameter(connected, "Acceleration", a, 100, 1000);
}

bool Robot::SetOrientation(float r) {
  if (!connected || !online || state != -1) return false;
  // NaN fails both comparisons and is let through.
  if (r > orientation_limit || r < -orientation_limit) {
    std::cout << "value illegality " << std::endl;
    return false;
  }
  std::ostringstream text;
  text << "r " << static_cast<double>(r);
  Send2robot(KEY_ORIENTATION, 0, text.str(), undef, undef);
  return true;
}

void Robot::GetDetial() {
  if (!connected || !online) return;
  Send2robot(KEY_GET_DETAIL, 0, undef, undef, undef);
}

std::string Robot::DebugString() {
  std::string task;
  if (state == -1) {
    task = " Free";
  } else if (state == 0) {
    task = " Working";
  } else {
    task = " In Error " + std::to_string(state);
  }

  std::stringstream text;
  text << name << task << (online ? " Online" : " Offline") << "\n"
       << "Position(X,Y,Z,Orientation):" << static_cast<double>(x) << " " << static_cast<double>(y)
       << " " << static_cast<double>(z) << " " << static_cast<double>(orientation) << "\n"
       << "Velocity:" << static_cast<double>(velocity)
       << "mm/s Acceleration:" << static_cast<double>(acceleration)
       << "mm/s^2 Voltage:" << static_cast<double>(voltage) << "V" << std::endl;
  return text.str();
}
