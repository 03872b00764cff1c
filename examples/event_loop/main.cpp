// The robot's connection as one descriptor among others in an application's
// own poll() loop: lines typed on standard input become commands ("goto X Y",
// "turn R", "quit"), the robot's reports are printed as they change, and a
// once-a-second tick asks for a fresh report. Nothing spins: between events
// the process sleeps in poll().
//
// epoll, or an ASIO-style reactor, works the same way: watch m_socket.m_sock
// for reading always and for writing only while a command is unsent, call
// Handle() when it fires, and stop watching once `connected` turns false.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>

#include "robot/robot.h"

namespace {

bool Unsent() {
  for (const Message_RTS& m : m_msg.outbox["T-0"])
    if (m.key != KEY_NONE) return true;
  return false;
}

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

}  // namespace

int main() {
  Robot robot;
  if (!robot.connected) return 1;
  robot.Init(0, 0, 0);

  using Clock = std::chrono::steady_clock;
  auto next_tick = Clock::now();
  std::string shown, typed;
  for (;;) {
    const auto now = Clock::now();
    if (now >= next_tick) {
      if (robot.online) robot.GetDetial();
      next_tick = now + std::chrono::seconds(1);
    }
    const auto wait =
        std::chrono::duration_cast<std::chrono::milliseconds>(next_tick - now).count() + 1;
    pollfd fds[2] = {
        {m_socket.m_sock, static_cast<short>(POLLIN | (Unsent() ? POLLOUT : 0)), 0},
        {STDIN_FILENO, POLLIN, 0},
    };
    if (poll(fds, 2, static_cast<int>(wait)) < 0) return 1;

    // Handle() whether the socket woke us or not: commands queued by the
    // last line or the tick go out here.
    robot.Handle();
    if (!robot.connected) {
      // No reconnection: the library's connection is gone for good. Leave,
      // and let a fresh process (or a fresh start of the application) begin.
      std::cerr << "connection lost\n";
      return 1;
    }
    if (robot.DebugString() != shown) std::cout << (shown = robot.DebugString()) << std::flush;

    // Standard input is read with read(), not std::cin: a stream's buffer
    // could hold a line that poll() knows nothing about.
    if (fds[1].revents & (POLLIN | POLLHUP)) {
      char chunk[256];
      const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
      if (n <= 0) break;  // end of input
      typed.append(chunk, static_cast<std::size_t>(n));
      bool go_on = true;
      for (std::size_t end; go_on && (end = typed.find('\n')) != std::string::npos;) {
        go_on = Command(robot, typed.substr(0, end));
        typed.erase(0, end + 1);
      }
      if (!go_on) break;
    }
  }
  robot.Kill();
  while (robot.connected && Unsent()) {
    pollfd p{m_socket.m_sock, POLLOUT, 0};
    poll(&p, 1, 1000);
    robot.Handle();
  }
  return 0;
}
