// tarn-demo: drives the robot through a short mission with the Robot API.
//
// Connects to the control server, initialises the robot at the origin, sets
// its speed and acceleration limits, sends a patrol along four way-points,
// then a single goal and a heading, and finally kills the robot. The robot's
// status text is shown as its reports arrive, every way-point passed is
// announced, and a summary closes the run. With --plot FILE.svg the driven
// trajectory is drawn with the way-points and the goal.
//
// Exit status: 0 mission completed; 1 bad arguments or the plot could not be
// written; 2 the control server cannot be reached; 3 the robot does not answer
// in time; 4 the connection is lost; 5 the robot refuses a command or reports
// an error; 6 unreadable data from the control server (the library passes a
// malformed frame on as an exception).

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "plot.h"
#include "robot/robot.h"
#include "tarn_config.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kServer =
    std::string(TARN_SERVER_ADDRESS) + ":" + std::to_string(TARN_SERVER_PORT);
// The status text is shown at most this often while it keeps changing.
constexpr double kStatusInterval = 0.5;

enum ExitCode {
  kOk = 0,
  kUsage = 1,
  kUnreachable = 2,
  kNoAnswer = 3,
  kLost = 4,
  kRefused = 5,
  kBadData = 6
};

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

// Whether a command is still queued: only then is the socket's writability
// worth waking for.
bool OutboxPending() {
  auto it = m_msg.outbox.find("T-0");
  if (it == m_msg.outbox.end()) return false;
  for (const Message_RTS& m : it->second) {
    if (m.key != KEY_NONE) return true;
  }
  return false;
}

class Mission {
 public:
  explicit Mission(Robot& robot) : robot_(robot), start_(Clock::now()), last_status_time_(start_) {}

  // Sleeps in poll() until the connection has something for us, can take a
  // queued command, or `deadline` comes; then one service step and whatever
  // it taught us: lost connection, robot errors, way-points passed, a changed
  // status text.
  void Pump(Clock::time_point deadline) {
    if (robot_.connected) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{m_socket.m_sock, static_cast<short>(POLLIN | (OutboxPending() ? POLLOUT : 0)), 0};
      ::poll(&p, 1, static_cast<int>(std::clamp<long long>(left + 1, 0, 1000)));
    }
    robot_.Handle();
    if (!robot_.connected) throw Abort{kLost, "connection to the control server lost"};
    Track();
    if (robot_.state != -1 && robot_.state != 0) {
      ShowStatus(true);
      throw Abort{kRefused, "robot reported error " + std::to_string(robot_.state)};
    }
    ShowProgress();
    ShowStatus(false);
  }

  // Pumps until `done` holds; gives up with `timeout_message` after `seconds`.
  template <class Done>
  void WaitFor(Done done, double seconds, const std::string& timeout_message) {
    const Clock::time_point deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                          std::chrono::duration<double>(seconds));
    while (!done()) {
      if (Clock::now() >= deadline) throw Abort{kNoAnswer, timeout_message};
      Pump(deadline);
    }
  }

  // Sends the robot along `points` (millimetres) and waits until it has
  // passed them all and is free again.
  void Travel(const std::string& what, const std::vector<std::vector<float>>& points,
              double seconds) {
    std::cout << "\nsending the " << what << ':';
    for (const auto& p : points) std::cout << " (" << p[0] << ", " << p[1] << ")";
    std::cout << " mm" << std::endl;
    bool accepted = false;
    if (points.size() == 1) {
      accepted = robot_.SetPosition(points[0][0], points[0][1], points[0][2]);
      plot_.targets.push_back({points[0][0] / 1000.0, points[0][1] / 1000.0});
    } else {
      std::vector<std::vector<float>> storage = points;
      std::deque<float*> list;
      for (auto& p : storage) list.push_back(p.data());
      accepted = robot_.SetPosition(list);
      for (const auto& p : points) plot_.waypoints.push_back({p[0] / 1000.0, p[1] / 1000.0});
    }
    // Accepted means queued, not arrived: arrival is the robot's report that
    // the action is finished (the library then drops it from `acts`) and a
    // free state after it; an error state is the robot's refusal.
    if (!accepted) throw Abort{kRefused, "robot is not ready for the " + what};
    route_ = points;
    passed_ = 0;
    WaitFor([&] { return acts.empty() && robot_.state == -1; }, seconds,
            "robot did not finish the " + what + " within " + std::to_string(int(seconds)) + " s");
    ShowProgress();
    route_.clear();
    ShowStatus(true);
  }

  void Turn(float radians, double seconds) {
    std::cout << "\nturning to " << radians << " rad" << std::endl;
    if (!robot_.SetOrientation(radians)) throw Abort{kRefused, "robot is not ready to turn"};
    WaitFor([&] { return robot_.state == -1 && std::fabs(robot_.orientation - radians) < 0.01f; },
            seconds, "robot did not turn within " + std::to_string(int(seconds)) + " s");
    ShowStatus(true);
  }

  void ShowStatus(bool force) {
    const std::string text = robot_.DebugString();
    const double since = std::chrono::duration<double>(Clock::now() - last_status_time_).count();
    if (text == last_status_ && !force) return;
    if (!force && since < kStatusInterval) return;
    last_status_ = text;
    last_status_time_ = Clock::now();
    std::string indented = "  | ";
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
      indented += text[i];
      if (text[i] == '\n') indented += "  | ";
    }
    std::cout << indented << std::endl;
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
  // Positions as reported: the trajectory and the distance driven.
  void Track() {
    if (robot_.name == "N") return;  // no report yet
    const tarn_demo::Point here{robot_.x, robot_.y};
    std::vector<tarn_demo::Point>& path = plot_.trajectory;
    if (!path.empty() && path.back().x == here.x && path.back().y == here.y) return;
    if (!path.empty()) distance_ += std::hypot(here.x - path.back().x, here.y - path.back().y);
    path.push_back(here);
  }

  // Way-points of the running action that the robot has reported passing:
  // the library trims them from the front of its running action.
  void ShowProgress() {
    if (route_.empty()) return;
    const std::size_t remaining = acts.empty() ? 0 : acts.front().second.path.size();
    const std::size_t done = route_.size() - std::min(remaining, route_.size());
    while (passed_ < done) {
      const auto& p = route_[passed_];
      ++passed_;
      ++total_passed_;
      std::cout << "way-point " << passed_ << '/' << route_.size() << " reached (" << p[0] << ", "
                << p[1] << ") mm" << std::endl;
    }
  }

  Robot& robot_;
  Clock::time_point start_;
  std::string last_status_;
  Clock::time_point last_status_time_;
  std::vector<std::vector<float>> route_;
  std::size_t passed_ = 0;
  std::size_t total_passed_ = 0;
  double distance_ = 0;
  tarn_demo::Plot plot_;
};

int RunMission(const char* plot_file) {
  std::cout << "tarn-demo: a short mission through the control server at " << kServer << "\n"
            << "  1. bring the robot online at (0, 0) mm\n"
            << "  2. limit it to 1000 mm/s and 800 mm/s^2\n"
            << "  3. patrol four way-points: (800, 0) (800, 600) (0, 600) (0, 0) mm\n"
            << "  4. drive to the goal (400, 300) mm\n"
            << "  5. turn to 1.5708 rad\n"
            << "  6. take the robot offline\n"
            << std::endl;
  Robot robot;
  if (!robot.connected) throw Abort{kUnreachable, "cannot reach the control server at " + kServer};
  std::cout << "connected" << std::endl;
  Mission mission(robot);

  robot.Init(0, 0, 0);
  mission.WaitFor([&] { return robot.online; }, 5, "robot did not come online within 5 s");
  std::cout << "robot online" << std::endl;
  robot.GetDetial();
  mission.WaitFor([&] { return robot.name != "N"; }, 5, "robot sent no status report within 5 s");
  mission.ShowStatus(true);

  // The protocol has no answer to the limits: queued is all we can know.
  if (!robot.SetVelocity(1000) || !robot.SetAcceleration(800)) {
    throw Abort{kRefused, "could not set the speed and acceleration limits"};
  }
  std::cout << "limits set: 1000 mm/s, 800 mm/s^2" << std::endl;

  mission.Travel("patrol", {{800, 0, 0}, {800, 600, 0}, {0, 600, 0}, {0, 0, 0}}, 30);
  mission.Travel("goal", {{400, 300, 0}}, 15);
  mission.Turn(1.5708f, 10);

  // Kill clears the online flag locally at once. Once the kill has gone out,
  // a short while lets its acknowledgement and the last report come back.
  robot.Kill();
  mission.WaitFor([] { return !OutboxPending(); }, 5, "the kill could not be sent within 5 s");
  const Clock::time_point settle = Clock::now() + std::chrono::milliseconds(300);
  while (Clock::now() < settle) mission.Pump(settle);
  mission.ShowStatus(true);
  std::cout << "robot offline" << std::endl;

  if (plot_file != nullptr) {
    std::ofstream out(plot_file);
    out << tarn_demo::RenderSvg(mission.plot());
    if (!out.flush()) throw Abort{kUsage, std::string("cannot write ") + plot_file};
  }
  mission.Summary(plot_file);
  std::cout << "tarn-demo: mission complete" << std::endl;
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  const char* plot_file = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--plot" && i + 1 < argc) {
      plot_file = argv[++i];
    } else {
      const bool help = arg == "--help" || arg == "-h";
      (help ? std::cout : std::cerr)
          << "usage: tarn-demo [--plot FILE.svg]\n"
          << "Runs a short mission against the control server at " << kServer << ".\n"
          << "Exit status: 0 done, 1 bad arguments or plot not written, 2 server\n"
          << "unreachable, 3 no answer in time, 4 connection lost, 5 robot refused,\n"
          << "6 unreadable data from the server." << std::endl;
      return help ? kOk : kUsage;
    }
  }
  try {
    return RunMission(plot_file);
  } catch (const Abort& abort) {
    std::cout << std::flush;
    std::cerr << "tarn-demo: " << abort.message << std::endl;
    return abort.code;
  } catch (const std::exception& e) {
    // Malformed frames reach us as the standard library's exceptions (out of
    // range, length error, allocation failure): the library passes them on.
    std::cout << std::flush;
    std::cerr << "tarn-demo: unreadable data from the control server (" << e.what() << ")"
              << std::endl;
    return kBadData;
  }
}
