// A minimal application: bring the robot online, send it to one position,
// tell whether it got there, and take it offline. Copy this to start your own.
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <iostream>

#include "robot/robot.h"

// True while a command waits in the outbox; Handle() sends it when it can.
bool Unsent() {
  for (const Message_RTS& m : m_msg.outbox["T-0"])
    if (m.key != KEY_NONE) return true;
  return false;
}

// Calls Handle() until done() holds, sleeping in poll() on the library's
// socket: POLLIN for the server's messages, POLLOUT only while a command is
// unsent. False when the connection is lost or `seconds` pass first.
template <class Done>
bool ServeUntil(Robot& robot, Done done, int seconds) {
  using namespace std::chrono;
  const auto deadline = steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
    if (!robot.connected || left <= 0) return false;
    pollfd p{m_socket.m_sock, static_cast<short>(POLLIN | (Unsent() ? POLLOUT : 0)), 0};
    poll(&p, 1, static_cast<int>(left));
    robot.Handle();
  }
  return true;
}

int main() {
  Robot robot;                     // connects to the control server compiled into the library
  if (!robot.connected) return 1;  // the library printed "Can Not Connect Server !"

  robot.Init(0, 0, 0);  // x and y in millimetres; queued, sent by Handle()
  if (!ServeUntil(
          robot, [&] { return robot.online; }, 5)) {
    std::cerr << "robot did not come online\n";
    return 1;
  }

  // Accepted is not arrived: true only means the goal is queued (false: the
  // robot is not online and free). The goal stays in `acts` until the robot
  // reports the action finished, and then a state of -1 (free) means arrived.
  // A state other than -1 and 0 (working) is the server's error code; tarn-sim
  // uses 2 not online, 3 busy, 4 unsupported action, 5 bad parameter.
  bool ok = robot.SetPosition(500, 0, 0);
  const auto ended = [&] { return robot.state != 0 && (acts.empty() || robot.state != -1); };
  ok = ok && ServeUntil(robot, ended, 10) && robot.state == -1;
  std::cout << robot.DebugString();
  if (!ok) std::cerr << "goal not reached, state " << robot.state << "\n";

  // Leave only once the kill has gone out. Then half-close and read until
  // the server closes: closing with unread data would reset the connection,
  // and a reset can overtake the kill.
  robot.Kill();
  if (!ServeUntil(
          robot, [] { return !Unsent(); }, 2))
    return 1;
  shutdown(m_socket.m_sock, SHUT_WR);
  char sink[512];
  pollfd p{m_socket.m_sock, POLLIN, 0};
  while (poll(&p, 1, 1000) > 0 && recv(m_socket.m_sock, sink, sizeof sink, 0) > 0) {
  }
  return ok ? 0 : 1;
}
