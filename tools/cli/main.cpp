// tarn: command the robot from a shell, one command (or a chain of commands)
// per invocation, each confirmed by the event the server or the robot sends
// back for it.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli.h"
#include "exit_status.h"
#include "robot/events.h"
#include "tarn_config.h"

namespace {

using Clock = tarn::Events::Clock;
using tarn::Event;
using tarn::EventType;
using tarn_cli::Verb;
namespace exit_status = tarn_tools;

// Set while an unbounded `watch` runs: Ctrl-C is how it is meant to end.
volatile std::sig_atomic_t g_watching = 0;

void WriteAll(const char* text) {
  std::size_t n = std::strlen(text);
  while (n > 0) {
    const ssize_t w = ::write(STDERR_FILENO, text, n);
    if (w <= 0) return;
    text += w;
    n -= static_cast<std::size_t>(w);
  }
}

// SIGINT and SIGTERM end the invocation at once, wherever it is: every line
// printed so far has been flushed (each ends with std::endl or std::flush),
// and the kernel closes the connection.
void OnStop(int sig) {
  if (sig == SIGINT && g_watching) ::_exit(exit_status::kOk);
  WriteAll("tarn: interrupted\n");
  ::_exit(exit_status::kInterrupted);
}

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

Clock::time_point After(double seconds) {
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// After the last command, the server gets this long to close its side.
constexpr std::chrono::milliseconds kLinger(300);

// The events of one connection, judged in arrival order, each once, against
// the deadline of the invocation. Each step is bounded, so no server keeps
// the tool from looking at its deadline.
class Session {
 public:
  Session(Robot& robot, double timeout_s, Clock::time_point deadline)
      : events_(robot), timeout_s_(timeout_s), deadline_(deadline) {}

  // Serves the connection until `done` accepts an event. Events behind the
  // one that ended a wait are kept for the next wait, so a chained command
  // sees everything in order.
  void Await(const std::string& what, const std::function<bool(const Event&)>& done) {
    Serve(what, done, [] { return false; });
  }

  // Serves the connection until every queued command has been written; what
  // arrives meanwhile answers nothing.
  void Flush() {
    Serve(
        "chance to send the command", [](const Event&) { return false; },
        [] { return !tarn::Events::unsent(); });
  }

  // Drops what arrived before a new command was queued: none of it answers
  // that command.
  void Forget() { pending_.clear(); }

  // From now on every event pushes the deadline to S ahead: an unbounded
  // watch is bounded by each silence of the server, not as a whole.
  void RenewOnEvents() {
    renew_ = true;
    deadline_ = After(timeout_s_);
  }

  // Ends the connection without losing the last commands (see hang_up).
  void HangUp() {
    events_.hang_up(std::min(deadline_, Clock::now() + kLinger), [](const Event&) {});
  }

 private:
  // Judges the events in order until `done` accepts one, or until
  // `settled()` holds once all have been judged. A lost connection and an
  // unreadable stream end every wait: no answer can come after them.
  void Serve(const std::string& what, const std::function<bool(const Event&)>& done,
             const std::function<bool()>& settled) {
    for (;;) {
      while (!pending_.empty()) {
        const Event e = std::move(pending_.front());
        pending_.pop_front();
        if (e.type == EventType::ConnectionLost)
          throw Stop{exit_status::kLost, "connection to the control server lost"};
        if (e.type == EventType::Unreadable) {
          throw Stop{exit_status::kUnreadable,
                     "unreadable data from the control server (" + e.reason + ")"};
        }
        if (done(e)) return;
      }
      if (settled()) return;
      if (Clock::now() >= deadline_)
        throw Stop{exit_status::kNoAnswer, "no " + what + " within " + Num(timeout_s_) + " s"};
      events_.wait(std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()));
      const std::size_t n = events_.step([this](const Event& e) { pending_.push_back(e); });
      if (renew_ && n > 0) deadline_ = After(timeout_s_);
    }
  }

  tarn::Events events_;
  double timeout_s_;
  Clock::time_point deadline_;
  bool renew_ = false;
  std::deque<Event> pending_;
};

bool IsReport(const Event& e) {
  return e.type == EventType::Report || e.type == EventType::Refused;
}

// Asks for a fresh report and waits for it, so that a server that sends no
// periodic reports still answers. The library's request needs its online
// flag, which it sets only when it sees an initialisation acknowledged in
// this process: a fresh invocation never has, although the robot may have
// been online for hours. The server is the authority: it answers the request
// whatever the robot's state, and refuses what an offline robot cannot do.
tarn::Report RequestReport(Session& s, Robot& robot) {
  robot.online = true;
  robot.GetDetial();
  tarn::Report report;
  s.Await("status report", [&](const Event& e) {
    if (IsReport(e)) report = e.report;
    return IsReport(e);
  });
  return report;
}

const char* const kInitHint = "; bring it online first: tarn init X Y Z";

// Orientation and motion commands need a free robot: ask, and refuse here
// with a precise reason rather than leave it to the server. An action this
// invocation sent (goto --no-wait) keeps the robot busy until the robot
// reports it finished, whatever a report that crossed it on the way says.
void RequireFree(Session& s, Robot& robot) {
  const tarn::Report r = RequestReport(s, robot);
  if (r.online.has_value() && !*r.online)
    throw Stop{exit_status::kRefused, std::string("robot is not online") + kInitHint};
  if (r.state == tarn::state_working || !acts.empty())
    throw Stop{exit_status::kRefused, "robot is busy (working); wait or run 'tarn kill'"};
  if (r.state != tarn::state_free) {
    throw Stop{exit_status::kRefused, "robot is in state " + tarn::describe_state(r.state) +
                                          "; 'tarn init X Y Z' clears it"};
  }
  s.Forget();
}

// A report showing an error code answers the command just sent.
void ThrowIfRefused(const Event& e) {
  if (!IsReport(e) || !tarn::is_error(e.report.state)) return;
  throw Stop{exit_status::kRefused,
             "robot refused the command: " + tarn::describe_state(e.report.state) +
                 (e.report.state == 2 ? kInitHint : "")};
}

// Waits for the robot to finish the action just sent: the action finished,
// then a report of a free robot. A refused action is also closed as
// finished, which is why the report decides and not that event alone.
void AwaitAction(Session& s) {
  bool finished = false;
  std::size_t shown = 0;
  s.Await("report of the action finished", [&](const Event& e) {
    ThrowIfRefused(e);
    if (e.type == EventType::WaypointPassed || e.type == EventType::ActionFinished) {
      for (; shown < e.passed; ++shown)
        std::cout << "passed way-point " << shown + 1 << " of " << e.total << std::endl;
    }
    if (e.type == EventType::ActionFinished && e.total > 0) finished = true;
    return finished && IsReport(e) && e.report.state == tarn::state_free;
  });
}

void RunCommand(const tarn_cli::Invocation& inv, const tarn_cli::Command& c, Session& s,
                Robot& robot) {
  const std::vector<float>& n = c.numbers;
  if (c.verb != Verb::kWatch) s.Forget();
  switch (c.verb) {
    case Verb::kStatus:
      std::cout << tarn_cli::FormatStatus(RequestReport(s, robot)) << std::flush;
      return;

    case Verb::kInit:
      robot.Init(n[0], n[1], n[2]);
      s.Await("acknowledgement of the initialisation",
              [](const Event& e) { return e.type == EventType::InitAcknowledged; });
      std::cout << "robot online at " << Num(n[0]) << " " << Num(n[1]) << " mm, z " << Num(n[2])
                << std::endl;
      return;

    case Verb::kKill:
      robot.Kill();
      s.Await("acknowledgement of the kill",
              [](const Event& e) { return e.type == EventType::KillAcknowledged; });
      std::cout << "robot offline" << std::endl;
      return;

    case Verb::kSpeed:
    case Verb::kAccel: {
      const int value = static_cast<int>(n[0]);
      const bool speed = c.verb == Verb::kSpeed;
      if (!(speed ? robot.SetVelocity(value) : robot.SetAcceleration(value))) {
        throw Stop{exit_status::kFailure, "the library refused the value"};
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
      std::string target;
      if (c.verb == Verb::kGoto) {
        queued = robot.SetPosition(n[0], n[1], 0.0f);
        target = "goal " + Num(n[0]) + " " + Num(n[1]) + " mm";
      } else {
        std::vector<std::array<float, 3>> points;
        for (std::size_t i = 0; i + 1 < n.size(); i += 2) points.push_back({n[i], n[i + 1], 0.0f});
        queued = tarn::set_path(robot, points);
        target = "path of " + std::to_string(points.size()) + " way-points";
      }
      if (!queued)
        throw Stop{exit_status::kRefused, "the library refused to send (robot not free)"};
      if (!inv.wait) {
        s.Flush();
        std::cout << target << " sent" << std::endl;
        return;
      }
      AwaitAction(s);
      std::cout << target << (c.verb == Verb::kGoto ? " reached" : " done") << std::endl;
      return;
    }

    case Verb::kTurn: {
      RequireFree(s, robot);
      const float r = n[0];
      if (!robot.SetOrientation(r))
        throw Stop{exit_status::kRefused, "the library refused to send"};
      if (!inv.wait) {
        s.Flush();
        std::cout << "heading " << Num(r) << " rad sent" << std::endl;
        return;
      }
      // Reports carry the heading to four decimals.
      s.Await("report of the new heading", [&](const Event& e) {
        ThrowIfRefused(e);
        return IsReport(e) && e.report.state == tarn::state_free &&
               tarn_cli::SameHeading(e.report.orientation, r, 1e-3);
      });
      std::cout << "heading " << Num(r) << " rad reached" << std::endl;
      return;
    }

    case Verb::kWatch: {
      long reports = 0;
      g_watching = inv.count == 0;
      if (inv.count == 0) s.RenewOnEvents();
      // What a watch prints for each event other than a report.
      static const std::pair<EventType, const char*> kLines[] = {
          {EventType::WaypointPassed, "passed a way-point"},
          {EventType::ActionFinished, "action finished"},
          {EventType::InitAcknowledged, "robot online"},
          {EventType::KillAcknowledged, "robot offline"},
      };
      s.Await("message from the control server", [&](const Event& e) {
        if (IsReport(e)) {
          std::cout << tarn_cli::FormatStatusLine(e.report) << std::endl;
          ++reports;
        }
        for (const auto& [type, line] : kLines)
          if (e.type == type) std::cout << line << std::endl;
        return inv.count > 0 && reports >= inv.count;
      });
      g_watching = 0;
      return;
    }
  }
}

int Run(const tarn_cli::Invocation& inv) {
  const Clock::time_point deadline = After(inv.timeout_s);
  const std::string server = TARN_SERVER_ADDRESS ":" + std::to_string(TARN_SERVER_PORT);
  // The library's connect blocks and retries without a bound of its own;
  // tarn::connect gives up at the invocation's deadline.
  std::unique_ptr<Robot> robot =
      tarn::connect(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
  if (!robot->connected) {
    // The library itself has printed "Can Not Connect Server !".
    if (Clock::now() >= deadline) {
      throw Stop{exit_status::kNoAnswer, "could not connect to the control server at " + server +
                                             " within " + Num(inv.timeout_s) + " s"};
    }
    throw Stop{exit_status::kUnreachable, "cannot reach the control server at " + server};
  }
  Session session(*robot, inv.timeout_s, deadline);
  for (const tarn_cli::Command& c : inv.commands) RunCommand(inv, c, session, *robot);
  session.HangUp();
  return exit_status::kOk;
}

}  // namespace

int main(int argc, char** argv) {
  const tarn_cli::ParseResult parsed =
      tarn_cli::Parse(std::vector<std::string>(argv + 1, argv + argc));
  if (!parsed.ok) {
    std::cerr << "tarn: " << parsed.error << std::endl;
    return exit_status::kUsage;
  }
  if (parsed.invocation.help) {
    std::cout << tarn_cli::HelpText(parsed.invocation.help_topic);
    return exit_status::kOk;
  }

  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  action.sa_handler = OnStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  try {
    return Run(parsed.invocation);
  } catch (const Stop& stop) {
    std::cerr << "tarn: " << stop.message << std::endl;
    return stop.status;
  } catch (const std::exception& e) {
    std::cerr << "tarn: " << e.what() << std::endl;
    return exit_status::kFailure;
  }
}
