// tarn-demo: drives the robot through a short mission with the Robot API.
//
// Connects to the control server, initialises the robot at the origin, sets
// its speed and acceleration limits, sends a patrol along four way-points,
// then a single goal and a heading, and finally kills the robot. The robot's
// status text is shown as its reports arrive, and every way-point passed is
// announced.
//
// Exit status: 0 when the mission completed, 2 when the control server cannot
// be reached, 3 when the robot does not answer in time, 4 when the connection
// is lost, 5 when the robot refuses a command or reports an error.

#include <chrono>
#include <cmath>
#include <deque>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "robot/robot.h"
#include "tarn_config.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kServer =
    std::string(TARN_SERVER_ADDRESS) + ":" + std::to_string(TARN_SERVER_PORT);
// Handle() never blocks, so the loop sleeps between service steps: fast
// enough to follow reports at any sensible rate, without spinning a core.
constexpr std::chrono::milliseconds kPollPeriod(5);
// The status text is shown at most this often while it keeps changing.
constexpr double kStatusInterval = 0.5;

enum ExitCode { kOk = 0, kUnreachable = 2, kNoAnswer = 3, kLost = 4, kRefused = 5 };

// Ends the mission with an exit status and the reason.
struct Abort {
  int code;
  std::string message;
};

class Mission {
 public:
  explicit Mission(Robot& robot) : robot_(robot), last_status_time_(Clock::now()) {}

  // One service step, then whatever the step taught us: lost connection,
  // robot errors, way-points passed, a changed status text.
  void Pump() {
    robot_.Handle();
    if (!robot_.connected) throw Abort{kLost, "connection to the control server lost"};
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
    for (;;) {
      Pump();
      if (done()) return;
      if (Clock::now() >= deadline) throw Abort{kNoAnswer, timeout_message};
      std::this_thread::sleep_for(kPollPeriod);
    }
  }

  // Pumps for a while regardless, e.g. to let queued messages go out.
  void PumpFor(double seconds) {
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
      Pump();
      std::this_thread::sleep_for(kPollPeriod);
    }
  }

  // Sends the robot along `points` (millimetres) and waits until it has
  // passed them all and is free again.
  void Travel(const std::string& what, const std::vector<std::vector<float>>& points,
              double seconds) {
    std::cout << "sending " << what << ':';
    for (const auto& p : points) std::cout << " (" << p[0] << ", " << p[1] << ")";
    std::cout << " mm" << std::endl;
    bool accepted = false;
    if (points.size() == 1) {
      accepted = robot_.SetPosition(points[0][0], points[0][1], points[0][2]);
    } else {
      std::vector<std::vector<float>> storage = points;
      std::deque<float*> list;
      for (auto& p : storage) list.push_back(p.data());
      accepted = robot_.SetPosition(list);
    }
    if (!accepted) throw Abort{kRefused, "robot is not ready for " + what};
    route_ = points;
    passed_ = 0;
    // The action stays in the running list until the robot reports it done;
    // the status that follows that report says whether the robot is free.
    WaitFor([&] { return acts.empty() && robot_.state == -1; }, seconds,
            "robot did not finish the " + what + " within " + std::to_string(int(seconds)) + " s");
    ShowProgress();
    route_.clear();
    ShowStatus(true);
  }

  void Turn(float radians, double seconds) {
    std::cout << "turning to " << radians << " rad" << std::endl;
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

 private:
  // Way-points of the running action that the robot has reported passing:
  // the library trims them from the front of its running action.
  void ShowProgress() {
    if (route_.empty()) return;
    const std::size_t remaining = acts.empty() ? 0 : acts.front().second.path.size();
    const std::size_t done = route_.size() - std::min(remaining, route_.size());
    while (passed_ < done) {
      const auto& p = route_[passed_];
      ++passed_;
      std::cout << "way-point " << passed_ << '/' << route_.size() << " reached (" << p[0] << ", "
                << p[1] << ") mm" << std::endl;
    }
  }

  Robot& robot_;
  std::string last_status_;
  Clock::time_point last_status_time_;
  std::vector<std::vector<float>> route_;
  std::size_t passed_ = 0;
};

int RunMission() {
  std::cout << "tarn-demo: connecting to the control server at " << kServer << std::endl;
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

  if (!robot.SetVelocity(1000) || !robot.SetAcceleration(800)) {
    throw Abort{kRefused, "could not set the speed and acceleration limits"};
  }
  std::cout << "limits set: 1000 mm/s, 800 mm/s^2" << std::endl;

  mission.Travel("patrol", {{800, 0, 0}, {800, 600, 0}, {0, 600, 0}, {0, 0, 0}}, 30);
  mission.Travel("goal", {{400, 300, 0}}, 15);
  mission.Turn(1.5708f, 10);

  robot.Kill();
  // Let the kill go out and its acknowledgement and last report come back.
  mission.PumpFor(0.3);
  mission.ShowStatus(true);
  std::cout << "robot offline" << std::endl;
  std::cout << "tarn-demo: mission complete" << std::endl;
  return kOk;
}

}  // namespace

int main() {
  try {
    return RunMission();
  } catch (const Abort& abort) {
    std::cout << std::flush;
    std::cerr << "tarn-demo: " << abort.message << std::endl;
    return abort.code;
  }
}
