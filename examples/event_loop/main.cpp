// The robot's connection as one descriptor among others in an application's
// own poll() loop: lines typed on standard input become commands ("goto X Y",
// "turn R", "quit"), every message the robot sends is printed once, as the
// event it is, and a once-a-second tick asks for a fresh report. Nothing
// spins: between events the process sleeps in poll().
//
// epoll, or an ASIO-style reactor, works the same way: before each wait,
// watch what Events::poll_entry() names (POLLIN while the connection is read,
// POLLOUT only while a command is unsent, fd -1 once it is over), call
// Events::step() after every wake-up, and do not sleep while backlog(): the
// frames it left are already received, and the socket will not wake anyone
// for them.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>

#include "robot/events.h"

namespace {

// One typed line; false to leave.
bool Command(Robot& robot, const std::string& line) {
  std::istringstream in(line);
  std::string verb;
  float a = 0, b = 0;
  in >> verb;
  if (verb == "quit") return false;
  bool queued = false;
  if (verb == "goto" && in >> a >> b) queued = robot.SetPosition(a, b, 0);
  if (verb == "turn" && in >> a) queued = robot.SetOrientation(a);
  std::cout << (queued ? "sent" : "not sent (robot busy, offline, or a typo)") << std::endl;
  return true;
}

// Prints an event; a report only when it says something new, since the
// server may repeat the same one many times a second.
void Show(const tarn::Event& e) {
  static std::string last_report;
  std::ostringstream line;
  line << tarn::event_name(e.type);
  if (e.type == tarn::EventType::Report || e.type == tarn::EventType::Refused) {
    line << ": " << tarn::describe_state(e.report.state) << " at " << e.report.x * 1000 << " "
         << e.report.y * 1000 << " mm, heading " << e.report.orientation << " rad";
    if (line.str() == last_report) return;
    last_report = line.str();
  }
  if (e.type == tarn::EventType::WaypointPassed || e.type == tarn::EventType::ActionFinished)
    line << ": " << e.passed << " of " << e.total << " way-points";
  if (e.type == tarn::EventType::Unreadable) line << ": " << e.reason;
  std::cout << line.str() << std::endl;
}

}  // namespace

int main() {
  using Clock = tarn::Events::Clock;
  auto robot = tarn::connect(std::chrono::seconds(5));
  if (!robot->connected) return 1;
  tarn::Events events(*robot);
  robot->Init(0, 0, 0);

  auto next_tick = Clock::now();
  std::string typed;
  for (;;) {
    const auto now = Clock::now();
    if (now >= next_tick) {
      if (robot->online) robot->GetDetial();
      next_tick = now + std::chrono::seconds(1);
    }
    const auto wait =
        std::chrono::duration_cast<std::chrono::milliseconds>(next_tick - now).count() + 1;
    pollfd fds[2] = {events.poll_entry(), {STDIN_FILENO, POLLIN, 0}};
    if (poll(fds, 2, events.backlog() ? 0 : static_cast<int>(wait)) < 0 && errno != EINTR) return 1;

    // Step whether the socket woke us or not: commands queued by the last
    // line or the tick go out here.
    events.step(Show);
    if (events.lost() || events.unreadable()) {
      // No reconnection: the library's connection is over for good. Leave,
      // and let a fresh process (or a fresh start of the application) begin.
      return 1;
    }

    // Standard input is read with read(), not std::cin: a stream's buffer
    // could hold a line that poll() knows nothing about.
    if (fds[1].revents & (POLLIN | POLLHUP)) {
      char chunk[256];
      const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
      if (n <= 0) break;  // end of input
      typed.append(chunk, static_cast<std::size_t>(n));
      bool go_on = true;
      for (std::size_t end; go_on && (end = typed.find('\n')) != std::string::npos;) {
        go_on = Command(*robot, typed.substr(0, end));
        typed.erase(0, end + 1);
      }
      if (!go_on) break;
    }
  }
  // Stop the robot, and leave once the kill is written and the server has
  // closed its side too.
  robot->Kill();
  return events.hang_up(Clock::now() + std::chrono::seconds(2), Show) ? 0 : 1;
}
