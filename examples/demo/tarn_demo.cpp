// tarn-demo: drives the robot through a short mission on the event layer.
//
// Connects to the control server, initialises the robot at the origin, sets
// its speed and acceleration limits, sends a patrol along four way-points,
// then a single goal and a heading, and finally kills the robot. The robot's
// status text is shown as its reports arrive, every way-point is announced
// as the robot reports passing it, and a summary closes the run. With --plot
// FILE.svg the driven trajectory is drawn with the way-points and the goal.
// --timeout S bounds the whole run, connecting included. The exit statuses
// are the table shared with tarn and tarn-vda5050 (--help prints it).

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "exit_status.h"
#include "plot.h"
#include "robot/events.h"
#include "tarn_config.h"

namespace {

using Clock = tarn::Events::Clock;
using tarn::Event;
using tarn::EventType;
namespace exit_status = tarn_tools;

const std::string kServer =
    std::string(TARN_SERVER_ADDRESS) + ":" + std::to_string(TARN_SERVER_PORT);
// The status text is shown at most this often while it keeps changing.
constexpr double kStatusInterval = 0.5;
// The mission takes about 12 s against tarn-sim (3.3 m at up to 1000 mm/s,
// two turns in place, the acknowledgements). 60 s leaves a real robot, a
// loaded machine or a run under valgrind five times that, and still ends a
// run against a server that never answers within a minute.
constexpr double kDefaultTimeout = 60;
// After the kill, the server gets this long to close its side.
constexpr std::chrono::milliseconds kLinger(300);

// Ends the mission with an exit status and the reason.
struct Abort {
  int code;
  std::string message;
};

std::string Fixed(double v, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

std::string Seconds(double s) {
  char text[64];
  std::snprintf(text, sizeof text, "%g", s);
  return text;
}

class Mission {
 public:
  Mission(Robot& robot, Clock::time_point deadline, double timeout_s)
      : robot_(robot),
        events_(robot),
        deadline_(deadline),
        timeout_s_(timeout_s),
        start_(Clock::now()),
        last_status_time_(start_) {}

  // Serves the connection until `done` accepts an event; every event is
  // also shown, drawn and counted on the way. Ends the mission when the
  // robot refuses, the connection is lost or unreadable, or the run's
  // deadline passes first.
  template <class Done>
  void WaitFor(const std::string& what, Done done) {
    bool met = false;
    events_.serve_until(
        deadline_,
        [&](const Event& e) {
          Note(e);
          met = met || done(e);
        },
        [&] { return met || refusal_ != 0; });
    if (refusal_ != 0) {
      ShowStatus(true);
      throw Abort{exit_status::kRefused, "robot reported " + tarn::describe_state(refusal_) +
                                             " while waiting for the " + what};
    }
    if (met) return;
    if (events_.lost()) throw Abort{exit_status::kLost, "connection to the control server lost"};
    if (events_.unreadable()) {
      throw Abort{exit_status::kUnreadable,
                  "unreadable data from the control server (" + unreadable_ + ")"};
    }
    throw Abort{exit_status::kNoAnswer, "no " + what + " within " + Seconds(timeout_s_) + " s"};
  }

  // Sends the robot along `points` (millimetres) and waits until it reports
  // the action finished and then a free state.
  void Travel(const std::string& what, const std::vector<std::array<float, 3>>& points) {
    std::cout << "\nsending the " << what << ':';
    for (const auto& p : points) std::cout << " (" << p[0] << ", " << p[1] << ")";
    std::cout << " mm" << std::endl;
    bool accepted = false;
    if (points.size() == 1) {
      accepted = robot_.SetPosition(points[0][0], points[0][1], points[0][2]);
      plot_.targets.push_back({points[0][0] / 1000.0, points[0][1] / 1000.0});
    } else {
      accepted = tarn::set_path(robot_, points);
      for (const auto& p : points) plot_.waypoints.push_back({p[0] / 1000.0, p[1] / 1000.0});
    }
    // Accepted means queued, not arrived: arrival is the robot's report that
    // the action is finished and a free state after it. A refused action is
    // closed as finished too, with an error state.
    if (!accepted) throw Abort{exit_status::kRefused, "robot is not ready for the " + what};
    route_ = points;
    passed_ = 0;
    bool finished = false;
    WaitFor("report of the " + what + " finished", [&](const Event& e) {
      if (e.type == EventType::ActionFinished && e.total > 0) finished = true;
      return finished && e.type == EventType::Report && e.report.state == tarn::state_free;
    });
    route_.clear();
    ShowStatus(true);
  }

  void Turn(float radians) {
    std::cout << "\nturning to " << radians << " rad" << std::endl;
    if (!robot_.SetOrientation(radians))
      throw Abort{exit_status::kRefused, "robot is not ready to turn"};
    WaitFor("report of the new heading", [&](const Event& e) {
      return e.type == EventType::Report && e.report.state == tarn::state_free &&
             std::fabs(e.report.orientation - radians) < 0.01f;
    });
    ShowStatus(true);
  }

  void ShowStatus(bool force) {
    const auto now = Clock::now();
    if (!force && std::chrono::duration<double>(now - last_status_time_).count() < kStatusInterval)
      return;
    const std::string text = robot_.DebugString();
    if (text == last_status_ && !force) return;
    last_status_ = text;
    last_status_time_ = now;
    std::string indented = "  | ";
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
      indented += text[i];
      if (text[i] == '\n') indented += "  | ";
    }
    std::cout << indented << std::endl;
  }

  // Ends the connection without losing the kill (see Events::hang_up).
  void HangUp() {
    events_.hang_up(std::min(deadline_, Clock::now() + kLinger), [](const Event&) {});
  }

  void Summary(const char* plot_file) const {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    std::string first_line = robot_.DebugString();
    first_line.resize(first_line.find('\n'));
    std::cout << "\nsummary\n"
              << "  time             " << Fixed(seconds, 1) << " s\n"
              << "  distance driven  " << Fixed(distance_, 2) << " m\n"
              << "  way-points       " << total_passed_ << " passed\n"
              << "  final state      " << first_line << "\n";
    if (plot_file != nullptr) std::cout << "  plot             " << plot_file << "\n";
    std::cout << std::flush;
  }

  const tarn_demo::Plot& plot() const { return plot_; }

 private:
  // What every event teaches, whichever wait it arrives in: positions for
  // the trajectory, way-points passed, refusals, and the status display.
  void Note(const Event& e) {
    switch (e.type) {
      case EventType::Report:
      case EventType::Refused:
        if (tarn::is_error(e.report.state)) refusal_ = e.report.state;
        Track(e.report);
        ShowStatus(false);
        break;
      case EventType::WaypointPassed:
      case EventType::ActionFinished:
        Announce(e.passed);
        break;
      case EventType::Unreadable:
        unreadable_ = e.reason;
        break;
      default:
        break;
    }
  }

  // Positions as reported: the trajectory and the distance driven.
  void Track(const tarn::Report& r) {
    const tarn_demo::Point here{r.x, r.y};
    std::vector<tarn_demo::Point>& path = plot_.trajectory;
    if (!path.empty() && path.back().x == here.x && path.back().y == here.y) return;
    if (!path.empty()) distance_ += std::hypot(here.x - path.back().x, here.y - path.back().y);
    path.push_back(here);
  }

  // Announces the way-points of the running route up to the `passed`-th.
  void Announce(std::size_t passed) {
    for (; passed_ < std::min(passed, route_.size()); ++passed_, ++total_passed_) {
      const auto& p = route_[passed_];
      std::cout << "way-point " << passed_ + 1 << '/' << route_.size() << " reached (" << p[0]
                << ", " << p[1] << ") mm" << std::endl;
    }
  }

  Robot& robot_;
  tarn::Events events_;
  Clock::time_point deadline_;
  double timeout_s_;
  Clock::time_point start_;
  std::string last_status_;
  Clock::time_point last_status_time_;
  std::vector<std::array<float, 3>> route_;
  std::size_t passed_ = 0;
  std::size_t total_passed_ = 0;
  double distance_ = 0;
  std::int32_t refusal_ = 0;
  std::string unreadable_;
  tarn_demo::Plot plot_;
};

int RunMission(const char* plot_file, double timeout_s) {
  std::cout << "tarn-demo: a short mission through the control server at " << kServer << "\n"
            << "  1. bring the robot online at (0, 0) mm\n"
            << "  2. limit it to 1000 mm/s and 800 mm/s^2\n"
            << "  3. patrol four way-points: (800, 0) (800, 600) (0, 600) (0, 0) mm\n"
            << "  4. drive to the goal (400, 300) mm\n"
            << "  5. turn to 1.5708 rad\n"
            << "  6. take the robot offline\n"
            << std::endl;
  const Clock::time_point deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                        std::chrono::duration<double>(timeout_s));
  std::unique_ptr<Robot> robot =
      tarn::connect(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
  if (!robot->connected) {
    if (Clock::now() >= deadline) {
      throw Abort{exit_status::kNoAnswer, "could not connect to the control server at " + kServer +
                                              " within " + Seconds(timeout_s) + " s"};
    }
    throw Abort{exit_status::kUnreachable, "cannot reach the control server at " + kServer};
  }
  std::cout << "connected" << std::endl;
  Mission mission(*robot, deadline, timeout_s);

  robot->Init(0, 0, 0);
  mission.WaitFor("acknowledgement of the initialisation",
                  [](const Event& e) { return e.type == EventType::InitAcknowledged; });
  std::cout << "robot online" << std::endl;
  robot->GetDetial();
  mission.WaitFor("status report", [](const Event& e) { return e.type == EventType::Report; });
  mission.ShowStatus(true);

  // The protocol has no answer to the limits: queued is all we can know.
  if (!robot->SetVelocity(1000) || !robot->SetAcceleration(800)) {
    throw Abort{exit_status::kRefused, "could not set the speed and acceleration limits"};
  }
  std::cout << "limits set: 1000 mm/s, 800 mm/s^2" << std::endl;

  mission.Travel("patrol", {{{800, 0, 0}}, {{800, 600, 0}}, {{0, 600, 0}}, {{0, 0, 0}}});
  mission.Travel("goal", {{{400, 300, 0}}});
  mission.Turn(1.5708f);

  // The server reports the robot offline, then acknowledges the kill.
  robot->Kill();
  mission.WaitFor("acknowledgement of the kill",
                  [](const Event& e) { return e.type == EventType::KillAcknowledged; });
  mission.ShowStatus(true);
  std::cout << "robot offline" << std::endl;
  mission.HangUp();

  if (plot_file != nullptr) {
    std::ofstream out(plot_file);
    out << tarn_demo::RenderSvg(mission.plot());
    if (!out.flush()) throw Abort{exit_status::kFailure, std::string("cannot write ") + plot_file};
  }
  mission.Summary(plot_file);
  std::cout << "tarn-demo: mission complete" << std::endl;
  return exit_status::kOk;
}

void Usage(std::ostream& out) {
  out << "usage: tarn-demo [--plot FILE.svg] [--timeout S]\n"
      << "Runs a short mission against the control server at " << kServer << ".\n"
      << "  --plot FILE.svg  draw the driven trajectory, the way-points and the goal\n"
      << "  --timeout S      end the whole run, connecting included, after S seconds\n"
      << "                   (default " << Seconds(kDefaultTimeout)
      << "; the mission takes about 12 s against tarn-sim)\n"
      << "\n"
      << exit_status::kExitStatusHelp << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  const char* plot_file = nullptr;
  double timeout_s = kDefaultTimeout;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--plot" && i + 1 < argc) {
      plot_file = argv[++i];
      continue;
    }
    if (arg == "--timeout" && i + 1 < argc) {
      char* end = nullptr;
      timeout_s = std::strtod(argv[++i], &end);
      if (*end == '\0' && timeout_s > 0 && timeout_s <= 86400) continue;
      std::cerr << "tarn-demo: --timeout needs a number of seconds, greater than 0 and at most "
                   "86400"
                << std::endl;
      return exit_status::kUsage;
    }
    const bool help = arg == "--help" || arg == "-h";
    Usage(help ? std::cout : std::cerr);
    return help ? exit_status::kOk : exit_status::kUsage;
  }
  try {
    return RunMission(plot_file, timeout_s);
  } catch (const Abort& abort) {
    std::cout << std::flush;
    std::cerr << "tarn-demo: " << abort.message << std::endl;
    return abort.code;
  } catch (const std::exception& e) {
    std::cout << std::flush;
    std::cerr << "tarn-demo: " << e.what() << std::endl;
    return exit_status::kFailure;
  }
}
