// tarn: command the robot from a shell, one command (or a chain of commands)
// per invocation, each confirmed by what the server or the robot sends back.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

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

// Set while an unbounded `watch` runs: Ctrl-C is how it is meant to end.
volatile std::sig_atomic_t g_watching = 0;
// What the invocation timer prints when it fires. It points into a string
// that the Session keeps alive for the whole invocation; a handler cannot
// build text.
const char* volatile g_timeout_text = "tarn: no answer in time\n";

void WriteAll(const char* text) {
  std::size_t n = 0;
  while (text[n] != '\0') ++n;
  while (n > 0) {
    const ssize_t w = ::write(STDERR_FILENO, text, n);
    if (w <= 0) return;
    text += w;
    n -= static_cast<std::size_t>(w);
  }
}

// The library may be anywhere when a deadline or a signal strikes: blocked in
// its connect attempts, or kept in its drain loop by a server that never
// stops sending. Neither returns to this tool's loop, so both handlers end
// the process themselves. Every line already printed has been flushed (each
// ends with std::endl or std::flush), and the kernel closes the connection.
void OnTimer(int) {
  WriteAll(g_timeout_text);
  ::_exit(tarn_cli::kTimeout);
}

void OnStop(int sig) {
  if (sig == SIGINT && g_watching) ::_exit(tarn_cli::kOk);
  WriteAll("tarn: interrupted\n");
  ::_exit(tarn_cli::kInterrupted);
}

// Arms the process's one-shot real-time timer to fire at `at`; a time already
// past fires at once. `at` == time_point::max() disarms it.
void ArmTimer(Clock::time_point at) {
  itimerval t{};
  if (at != Clock::time_point::max()) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(at - Clock::now());
    const long long us = std::max<long long>(left.count(), 1);
    t.it_value.tv_sec = static_cast<time_t>(us / 1000000);
    t.it_value.tv_usec = static_cast<suseconds_t>(us % 1000000);
  }
  ::setitimer(ITIMER_REAL, &t, nullptr);
}

// The library queues everything it sends under its own node id.
const char* const kOwnNodeId = "T-0";
// A flood of frames must not keep this tool's own read from ever ending.
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

class Session {
 public:
  // `deadline` ends the whole invocation; `renew` > 0 makes every arrived
  // message push it to that many seconds ahead (an unbounded watch).
  Session(Robot& robot, double timeout_s, Clock::time_point deadline, double renew)
      : robot_(robot), timeout_s_(timeout_s), deadline_(deadline), renew_s_(renew) {}

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
        tarn_cli::ReadReport(m.text_param1, m.text_param2, m.text_param3, report_);
        have_report_ = true;
      }
    }
    if (!robot_.connected)
      throw Stop{tarn_cli::kUnreachable, "connection to the control server lost"};
    if (renew_s_ > 0 && !arrived.empty()) {
      deadline_ = After(renew_s_);
      ArmTimer(deadline_);
    }
    return arrived;
  }

  // Judges arrived messages in order until `judge` says done, sleeping in
  // poll() until the connection has something for us (or can take what is
  // queued). Messages behind the one that ended a wait are kept for the next
  // wait, so a chained command sees everything in order.
  void Await(const std::string& what, const std::function<bool(const Message_RTS&)>& done) {
    Expect(what);
    for (;;) {
      while (!unjudged_.empty()) {
        const Message_RTS m = unjudged_.front();
        unjudged_.pop_front();
        if (m.key == KEY_DETAIL)
          tarn_cli::ReadReport(m.text_param1, m.text_param2, m.text_param3, current_);
        if (done(m)) return;
      }
      WaitForIo();
      std::vector<Message_RTS> arrived = Step();
      unjudged_.insert(unjudged_.end(), arrived.begin(), arrived.end());
    }
  }

  // Steps until every queued command has been written to the connection.
  void Flush() {
    Expect("chance to send the command");
    for (;;) {
      std::vector<Message_RTS> arrived = Step();
      unjudged_.insert(unjudged_.end(), arrived.begin(), arrived.end());
      if (!Pending()) return;
      WaitForIo();
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
  // Half-close, then read until the server closes too (or briefly, if not;
  // never past the invocation's deadline).
  void Linger() {
    ArmTimer(Clock::time_point::max());
    if (!robot_.connected || m_socket.m_sock < 0) return;
    if (::shutdown(m_socket.m_sock, SHUT_WR) != 0) return;
    const Clock::time_point end =
        std::min(deadline_, Clock::now() + std::chrono::milliseconds(300));
    char sink[4096];
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
      const ssize_t n = ::recv(m_socket.m_sock, sink, sizeof sink, 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return;
      if (n > 0) continue;
      pollfd p{m_socket.m_sock, POLLIN, 0};
      ::poll(&p, 1, MillisUntil(end));
    }
  }

 private:
  static Clock::time_point After(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }

  static int MillisUntil(Clock::time_point t) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(t - Clock::now()).count();
    if (us <= 0) return 0;
    return static_cast<int>(std::min<long long>((us + 999) / 1000, 1 << 30));
  }

  // Names what the current wait is for, in the main loop's timeout message
  // and in the timer's (which fires if the library keeps us from looking).
  void Expect(const std::string& what) {
    timeout_texts_.push_back("tarn: no " + what + " within " + Num(timeout_s_) + " s\n");
    g_timeout_text = timeout_texts_.back().c_str();
  }

  // Sleeps until the connection is readable, or writable while a command
  // waits to go out, or the deadline comes. A descriptor the library has
  // closed is never polled: Step stops the invocation first.
  void WaitForIo() const {
    if (Clock::now() >= deadline_) {
      const std::string& text = timeout_texts_.back();
      throw Stop{tarn_cli::kTimeout, text.substr(6, text.size() - 7)};
    }
    pollfd p{m_socket.m_sock, static_cast<short>(POLLIN | (Pending() ? POLLOUT : 0)), 0};
    ::poll(&p, 1, MillisUntil(deadline_));
  }

  // Whether the outbox still holds a message that Handle has not sent.
  static bool Pending() {
    auto it = m_msg.outbox.find(kOwnNodeId);
    if (it == m_msg.outbox.end()) return false;
    for (const Message_RTS& m : it->second) {
      if (m.key != KEY_NONE) return true;
    }
    return false;
  }

  Robot& robot_;
  double timeout_s_;
  Clock::time_point deadline_;
  double renew_s_;
  std::deque<std::string> timeout_texts_;  // never shrinks: g_timeout_text points into it
  tarn_cli::Report report_;
  tarn_cli::Report current_;
  bool have_report_ = false;
  std::deque<Message_RTS> unjudged_;
};

// Asks for a fresh report and waits for it, so that a server that sends no
// periodic reports still answers. The library's request needs its online
// flag, which it sets only when it sees an initialisation acknowledged in
// this process: a fresh invocation never has, although the robot may have
// been online for hours. The server is the authority: it answers the request
// whatever the robot's state, and refuses what an offline robot cannot do.
void RequestReport(Session& s, Robot& robot) {
  robot.online = true;
  robot.GetDetial();
  s.Forget();
  s.Await("status report", [](const Message_RTS& m) { return m.key == KEY_DETAIL; });
}

const char* const kInitHint = "; bring it online first: tarn init X Y Z";

// Orientation and motion commands need a free robot: ask, and refuse here
// with a precise reason rather than leave it to the server. The library's
// guard wants the online flag, set by RequestReport.
void RequireFree(Session& s, Robot& robot) {
  RequestReport(s, robot);
  const tarn_cli::Report& r = s.current();
  if (r.online == "offline")
    throw Stop{tarn_cli::kRefused, std::string("robot is not online") + kInitHint};
  if (r.state == 0)
    throw Stop{tarn_cli::kRefused, "robot is busy (working); wait or run 'tarn kill'"};
  if (r.state != -1) {
    throw Stop{tarn_cli::kRefused, "robot is in state " + tarn_cli::DescribeState(r.state) +
                                       "; 'tarn init X Y Z' clears it"};
  }
  s.Forget();
}

Stop Refusal(int state) {
  return Stop{tarn_cli::kRefused, "robot refused the command: " + tarn_cli::DescribeState(state) +
                                      (state == 2 ? kInitHint : "")};
}

// Waits for the robot to finish the action just sent: an "action" report
// followed by a free state ends it, and an error state means the robot
// refused. A refused action is also closed with an "action" report, which is
// why the state decides and not that report alone.
void AwaitAction(Session& s, std::size_t points) {
  bool closed = false;
  std::size_t passed = 0;
  s.Await("report of the action finished", [&](const Message_RTS& m) {
    if (m.key == KEY_ACTION && m.text_param1 == "path") {
      ++passed;
      std::cout << "passed way-point " << passed << " of " << points << std::endl;
      return false;
    }
    if (m.key == KEY_ACTION && m.text_param1 == "action") closed = true;
    if (m.key != KEY_DETAIL) return false;
    const tarn_cli::Report& r = s.current();
    if (r.state != -1 && r.state != 0) throw Refusal(r.state);
    return closed && r.state == -1;
  });
}

void RunCommand(const tarn_cli::Invocation& inv, const tarn_cli::Command& c, Session& s,
                Robot& robot) {
  const std::vector<float>& n = c.numbers;
  switch (c.verb) {
    case Verb::kStatus:
      RequestReport(s, robot);
      std::cout << tarn_cli::FormatStatus(s.current()) << std::flush;
      return;

    case Verb::kInit:
      robot.Init(n[0], n[1], n[2]);
      s.Await("acknowledgement of the initialisation",
              [](const Message_RTS& m) { return m.key == KEY_INIT; });
      std::cout << "robot online at " << Num(n[0]) << " " << Num(n[1]) << " mm, z " << Num(n[2])
                << std::endl;
      return;

    case Verb::kKill:
      robot.Kill();
      s.Await("acknowledgement of the kill",
              [](const Message_RTS& m) { return m.key == KEY_KILL; });
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
        if (m.key != KEY_DETAIL) return false;
        const tarn_cli::Report& rep = s.current();
        if (rep.state != -1 && rep.state != 0) throw Refusal(rep.state);
        return rep.state == -1 && tarn_cli::SameHeading(rep.orientation, r, 1e-3);
      });
      std::cout << "heading " << Num(r) << " rad reached" << std::endl;
      return;
    }

    case Verb::kWatch: {
      long reports = 0;
      g_watching = inv.count == 0;
      s.Await("message from the control server", [&](const Message_RTS& m) {
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
        return inv.count > 0 && reports >= inv.count;
      });
      g_watching = 0;
      return;
    }
  }
}

int Run(const tarn_cli::Invocation& inv) {
  // An unbounded watch runs until Ctrl-C: its timeout bounds connecting and
  // each silence of the server, not the whole invocation.
  const bool endless = inv.count == 0 && inv.commands.back().verb == Verb::kWatch;
  const Clock::time_point deadline =
      Clock::now() +
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(inv.timeout_s));
  const std::string server = TARN_SERVER_ADDRESS ":" + std::to_string(TARN_SERVER_PORT);
  static const std::string connect_text = "tarn: could not connect to the control server at " +
                                          server + " within " + Num(inv.timeout_s) + " s\n";
  g_timeout_text = connect_text.c_str();
  // The library's connect blocks (and retries) without a bound of its own:
  // the timer is what keeps the promise of --timeout while it does.
  ArmTimer(deadline);
  Robot robot;  // on failure the library itself prints "Can Not Connect Server !"
  if (!robot.connected) {
    throw Stop{tarn_cli::kUnreachable, "cannot reach the control server at " + server};
  }
  Session session(robot, inv.timeout_s, deadline, endless ? inv.timeout_s : 0);
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

  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  action.sa_handler = OnStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = OnTimer;
  sigaction(SIGALRM, &action, nullptr);

  try {
    return Run(parsed.invocation);
  } catch (const Stop& stop) {
    ArmTimer(Clock::time_point::max());
    std::cerr << "tarn: " << stop.message << std::endl;
    return stop.status;
  } catch (const std::exception& e) {
    // The receive path passes malformed input on as standard exceptions
    // (out of range, length error, allocation failure).
    ArmTimer(Clock::time_point::max());
    std::cerr << "tarn: unreadable data from the control server (" << e.what() << ")" << std::endl;
    return tarn_cli::kFailure;
  }
}
