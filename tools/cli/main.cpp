// tarn: command the robot from a shell, one command (or a chain of commands)
// per invocation, each confirmed by what the server or the robot sends back.

#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "cli.h"
#include "robot/robot.h"
#include "tarn_config.h"

namespace {

using Clock = std::chrono::steady_clock;
using tarn_cli::Verb;

volatile std::sig_atomic_t g_interrupted = 0;
// Set while `watch` runs: Ctrl-C is how a watch is meant to end.
volatile std::sig_atomic_t g_watching = 0;

void OnInterrupt(int) {
  g_interrupted = 1;
}

// The library queues everything it sends under its own node id.
const char* const kOwnNodeId = "T-0";
// Pause between service steps: quick enough for a human, far from spinning.
constexpr long kStepNanos = 5 * 1000 * 1000;
// A flood of frames must not keep one step from ever ending.
constexpr int kMaxFramesPerStep = 1000;

// Ends the invocation with an exit status and a message for standard error.
struct Stop {
  int status;
  std::string message;
};

std::string Num(double v) {
  std::ostringstream out;
  out << v;
  return out.str();
}

// What a wait makes of one arrived message.
enum class Seen { kNothing, kProgress, kDone };

class Session {
 public:
  Session(Robot& robot, double timeout_s) : robot_(robot), timeout_s_(timeout_s) {}

  // One service step. The frames that have arrived are filed into the
  // mailbox first, so that each message can be looked at in arrival order;
  // Handle then applies them to the Robot as usual (it marks them done,
  // after which only their combined effect on the fields would be visible)
  // and writes the queued commands. A closed connection is left for Handle's
  // own read to notice.
  std::vector<Message_RTS> Step() {
    std::vector<Message_RTS> arrived;
    if (robot_.connected) {
      std::unordered_map<std::string, std::size_t> before;
      for (const auto& entry : m_msg.inbox) before[entry.first] = entry.second.size();
      for (int i = 0; i < kMaxFramesPerStep; ++i) {
        const int result = recv_msg(m_socket, m_msg);
        if (result == 0 || result == -2) break;
        for (const auto& entry : m_msg.inbox) {
          std::size_t& seen = before[entry.first];
          for (; seen < entry.second.size(); ++seen) arrived.push_back(entry.second[seen]);
        }
      }
    }
    robot_.Handle();
    for (const Message_RTS& m : arrived) {
      if (m.key == KEY_DETAIL) {
        tarn_cli::ReadReport(m.text_param1, m.text_param2, report_);
        have_report_ = true;
      }
    }
    if (!robot_.connected)
      throw Stop{tarn_cli::kUnreachable, "connection to the control server lost"};
    return arrived;
  }

  // Judges arrived messages in order until `judge` says done, stepping when
  // it has seen them all. Messages behind the one that ended a wait are kept
  // for the next wait, so a chained command sees everything in order. Every
  // sign of progress restarts the timeout, so a long drive is not cut short
  // while the robot moves.
  void Await(const std::string& what, const std::function<Seen(const Message_RTS&)>& judge) {
    Clock::time_point deadline = Deadline();
    for (;;) {
      while (!unjudged_.empty()) {
        const Message_RTS m = unjudged_.front();
        unjudged_.pop_front();
        if (m.key == KEY_DETAIL) tarn_cli::ReadReport(m.text_param1, m.text_param2, current_);
        const Seen seen = judge(m);
        if (seen == Seen::kDone) return;
        if (seen == Seen::kProgress) deadline = Deadline();
      }
      Pause(deadline, what);
      std::vector<Message_RTS> arrived = Step();
      unjudged_.insert(unjudged_.end(), arrived.begin(), arrived.end());
    }
  }

  // Steps until every queued command has been written to the connection.
  void Flush() {
    const Clock::time_point deadline = Deadline();
    for (;;) {
      std::vector<Message_RTS> arrived = Step();
      unjudged_.insert(unjudged_.end(), arrived.begin(), arrived.end());
      if (Flushed()) return;
      Pause(deadline, "chance to send the command");
    }
  }

  // Drops what arrived before a new command was queued: none of it can
  // answer that command.
  void Forget() { unjudged_.clear(); }

  // The report being judged by Await (each report in turn), and the latest
  // to arrive.
  const tarn_cli::Report& current() const { return current_; }
  const tarn_cli::Report& latest() const { return report_; }
  bool have_report() const { return have_report_; }

  // Ends the connection so that the last commands are not lost: closing a
  // socket that still holds unread data makes the kernel reset the
  // connection, and a reset can overtake data the server has not read yet.
  // Half-close, then read until the server closes too (or briefly, if not).
  void Linger() {
    if (!robot_.connected || m_socket.m_sock < 0) return;
    if (::shutdown(m_socket.m_sock, SHUT_WR) != 0) return;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(300);
    char sink[4096];
    while (Clock::now() < end) {
      const ssize_t n = ::recv(m_socket.m_sock, sink, sizeof sink, 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return;
      if (n < 0) Sleep();
    }
  }

 private:
  Clock::time_point Deadline() const {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_s_));
  }

  static void Sleep() {
    const timespec pause = {0, kStepNanos};
    nanosleep(&pause, nullptr);
  }

  void Pause(Clock::time_point deadline, const std::string& what) const {
    if (g_interrupted) throw Stop{130, "interrupted"};
    if (Clock::now() >= deadline) {
      throw Stop{tarn_cli::kTimeout, "no " + what + " within " + Num(timeout_s_) + " s"};
    }
    Sleep();
  }

  static bool Flushed() {
    auto it = m_msg.outbox.find(kOwnNodeId);
    if (it == m_msg.outbox.end()) return true;
    for (const Message_RTS& m : it->second) {
      if (m.key != KEY_NONE) return false;
    }
    return true;
  }

  Robot& robot_;
  double timeout_s_;
  tarn_cli::Report report_;
  tarn_cli::Report current_;
  bool have_report_ = false;
  std::deque<Message_RTS> unjudged_;
};

void WaitForReport(Session& s) {
  s.Await("status report",
          [](const Message_RTS& m) { return m.key == KEY_DETAIL ? Seen::kDone : Seen::kNothing; });
}

// Orientation and motion commands need a free robot. The library also needs
// its online flag, which it sets only when it sees an initialisation being
// acknowledged: a fresh invocation never does, even when the robot has been
// online for hours. The server is the authority here: it refuses a command
// for a robot that is not online, and the wait below reports that refusal.
void RequireFree(Session& s, Robot& robot) {
  if (!s.have_report()) WaitForReport(s);
  const int state = s.latest().state;
  if (state == 0)
    throw Stop{tarn_cli::kRefused, "robot is busy (working); wait or run 'tarn kill'"};
  if (state != -1) {
    throw Stop{tarn_cli::kRefused, "robot is in state " + tarn_cli::DescribeState(state) +
                                       "; 'tarn init X Y Z' clears it"};
  }
  robot.online = true;
  s.Forget();
}

Stop Refusal(int state) {
  std::string hint;
  if (state == 2) hint = "; initialise it in the same invocation: tarn init X Y Z then ...";
  return Stop{tarn_cli::kRefused,
              "robot refused the command: " + tarn_cli::DescribeState(state) + hint};
}

// Waits for the robot to finish the action just sent: progress reports
// restart the wait; an "action" report followed by a free state ends it, and
// an error state means the robot refused. A refused action is also closed
// with an "action" report, which is why the state decides and not that
// report alone.
void AwaitAction(Session& s, std::size_t points) {
  bool closed = false;
  std::size_t passed = 0;
  bool have_position = false;
  float last_x = 0;
  float last_y = 0;
  float last_heading = 0;
  s.Await("progress report", [&](const Message_RTS& m) {
    if (m.key == KEY_ACTION && m.text_param1 == "path") {
      ++passed;
      std::cout << "passed way-point " << passed << " of " << points << std::endl;
      return Seen::kProgress;
    }
    if (m.key == KEY_ACTION && m.text_param1 == "action") {
      closed = true;
      return Seen::kProgress;
    }
    if (m.key != KEY_DETAIL) return Seen::kNothing;
    const tarn_cli::Report& r = s.current();
    if (r.state != -1 && r.state != 0) throw Refusal(r.state);
    if (closed && r.state == -1) return Seen::kDone;
    const bool moved =
        have_position && (r.x != last_x || r.y != last_y || r.orientation != last_heading);
    have_position = true;
    last_x = r.x;
    last_y = r.y;
    last_heading = r.orientation;
    return moved ? Seen::kProgress : Seen::kNothing;
  });
}

void RunCommand(const tarn_cli::Invocation& inv, const tarn_cli::Command& c, Session& s,
                Robot& robot) {
  const std::vector<float>& n = c.numbers;
  switch (c.verb) {
    case Verb::kStatus:
      WaitForReport(s);
      std::cout << tarn_cli::FormatStatus(s.latest()) << std::flush;
      return;

    case Verb::kInit:
      robot.Init(n[0], n[1], n[2]);
      s.Await("acknowledgement of the initialisation", [](const Message_RTS& m) {
        return m.key == KEY_INIT ? Seen::kDone : Seen::kNothing;
      });
      std::cout << "robot online at " << Num(n[0]) << " " << Num(n[1]) << " mm, z " << Num(n[2])
                << std::endl;
      return;

    case Verb::kKill:
      robot.Kill();
      s.Await("acknowledgement of the kill", [](const Message_RTS& m) {
        return m.key == KEY_KILL ? Seen::kDone : Seen::kNothing;
      });
      std::cout << "robot offline" << std::endl;
      return;

    case Verb::kSpeed:
    case Verb::kAccel: {
      const int value = static_cast<int>(n[0]);
      const bool speed = c.verb == Verb::kSpeed;
      if (!(speed ? robot.SetVelocity(value) : robot.SetAcceleration(value))) {
        throw Stop{tarn_cli::kFailure, "the library refused the value"};
      }
      // The server does not answer parameter changes: written is as far as
      // anyone can tell.
      s.Flush();
      std::cout << (speed ? "velocity limit " : "acceleration limit ") << value
                << (speed ? " mm/s" : " mm/s^2") << " sent" << std::endl;
      return;
    }

    case Verb::kGoto:
    case Verb::kPath: {
      RequireFree(s, robot);
      bool queued = false;
      std::size_t points = 1;
      std::string target;
      if (c.verb == Verb::kGoto) {
        queued = robot.SetPosition(n[0], n[1], 0.0f);
        target = "goal " + Num(n[0]) + " " + Num(n[1]) + " mm";
      } else {
        // The library reads each point through a pointer: keep them alive
        // and in place until the call returns.
        std::vector<float> xyz;
        points = n.size() / 2;
        for (std::size_t i = 0; i < points; ++i) {
          xyz.insert(xyz.end(), {n[2 * i], n[2 * i + 1], 0.0f});
        }
        std::deque<float*> list;
        for (std::size_t i = 0; i < points; ++i) list.push_back(&xyz[3 * i]);
        queued = robot.SetPosition(list);
        target = "path of " + std::to_string(points) + " way-points";
      }
      if (!queued) throw Stop{tarn_cli::kRefused, "the library refused to send (robot not free)"};
      if (!inv.wait) {
        s.Flush();
        std::cout << target << " sent" << std::endl;
        return;
      }
      AwaitAction(s, points);
      std::cout << target << (c.verb == Verb::kGoto ? " reached" : " done") << std::endl;
      return;
    }

    case Verb::kTurn: {
      RequireFree(s, robot);
      const float r = n[0];
      if (!robot.SetOrientation(r)) throw Stop{tarn_cli::kRefused, "the library refused to send"};
      if (!inv.wait) {
        s.Flush();
        std::cout << "heading " << Num(r) << " rad sent" << std::endl;
        return;
      }
      // Reports carry the heading to four decimals.
      s.Await("report of the new heading", [&](const Message_RTS& m) {
        if (m.key != KEY_DETAIL) return Seen::kNothing;
        const tarn_cli::Report& rep = s.current();
        if (rep.state != -1 && rep.state != 0) throw Refusal(rep.state);
        if (rep.state == -1 && tarn_cli::SameHeading(rep.orientation, r, 1e-3)) return Seen::kDone;
        return rep.state == 0 ? Seen::kProgress : Seen::kNothing;
      });
      std::cout << "heading " << Num(r) << " rad reached" << std::endl;
      return;
    }

    case Verb::kWatch: {
      long reports = 0;
      g_watching = 1;
      // Every message restarts the timeout: only a silent server ends the
      // watch with an error.
      s.Await("status report", [&](const Message_RTS& m) {
        if (m.key == KEY_DETAIL) {
          std::cout << tarn_cli::FormatStatusLine(s.current()) << std::endl;
          ++reports;
        } else if (m.key == KEY_ACTION && m.text_param1 == "path") {
          std::cout << "passed a way-point" << std::endl;
        } else if (m.key == KEY_ACTION && m.text_param1 == "action") {
          std::cout << "action finished" << std::endl;
        } else if (m.key == KEY_INIT) {
          std::cout << "robot online" << std::endl;
        } else if (m.key == KEY_KILL) {
          std::cout << "robot offline" << std::endl;
        }
        return inv.count > 0 && reports >= inv.count ? Seen::kDone : Seen::kProgress;
      });
      g_watching = 0;
      return;
    }
  }
}

int Run(const tarn_cli::Invocation& inv) {
  Robot robot;  // on failure the library itself prints "Can Not Connect Server !"
  if (!robot.connected) {
    throw Stop{tarn_cli::kUnreachable, "cannot reach the control server at " TARN_SERVER_ADDRESS
                                       ":" +
                                           std::to_string(TARN_SERVER_PORT)};
  }
  Session session(robot, inv.timeout_s);
  for (const tarn_cli::Command& c : inv.commands) RunCommand(inv, c, session, robot);
  session.Linger();
  return tarn_cli::kOk;
}

}  // namespace

int main(int argc, char** argv) {
  const tarn_cli::ParseResult parsed =
      tarn_cli::Parse(std::vector<std::string>(argv + 1, argv + argc));
  if (!parsed.ok) {
    std::cerr << "tarn: " << parsed.error << std::endl;
    return tarn_cli::kUsage;
  }
  if (parsed.invocation.help) {
    std::cout << tarn_cli::HelpText(parsed.invocation.help_topic);
    return tarn_cli::kOk;
  }

  // No SA_RESTART: Ctrl-C also cuts a pause short.
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  try {
    return Run(parsed.invocation);
  } catch (const Stop& stop) {
    if (stop.status == 130 && g_watching) return tarn_cli::kOk;
    std::cerr << "tarn: " << stop.message << std::endl;
    return stop.status;
  } catch (const std::exception& e) {
    // The receive path passes malformed input on as standard exceptions.
    std::cerr << "tarn: unreadable data from the control server (" << e.what() << ")" << std::endl;
    return tarn_cli::kFailure;
  }
}
