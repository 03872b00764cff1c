// A minimal application: connect, bring the robot online, send it to one
// position, print its status, take it offline. Copy this to start your own.

#include <chrono>
#include <iostream>
#include <thread>

#include "robot/robot.h"

int main() {
  Robot robot;  // connects to the control server compiled into the library
  if (!robot.connected) return 1;

  robot.Init(0, 0, 0);  // x and y in millimetres
  // Handle() does all the talking; call it often from your own loop.
  auto step = [&robot] {
    robot.Handle();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return robot.connected;
  };
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!robot.online && step() && std::chrono::steady_clock::now() < deadline) {
  }
  if (!robot.online) return 1;

  robot.SetPosition(500, 0, 0);  // queued; sent by the next Handle()
  deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (step() && !(acts.empty() && robot.state == -1) &&
         std::chrono::steady_clock::now() < deadline) {
  }
  std::cout << robot.DebugString();

  robot.Kill();
  robot.Handle();  // sends the kill
  return 0;
}
