// A minimal application: bring the robot online, send it to one position,
// tell whether it arrived, was refused or failed, and take it offline. Copy
// this to start your own.
#include <chrono>
#include <iostream>
#include <optional>

#include "robot/events.h"

using namespace std::chrono_literals;
using tarn::Event;
using tarn::EventType;

int main() {
  auto robot = tarn::connect(5s);   // the server compiled into the library; at most 5 s
  if (!robot->connected) return 1;  // the library printed "Can Not Connect Server !"
  tarn::Events events(*robot);      // serves the connection instead of Robot::Handle()

  // Serves the connection until `answer` accepts an event, for at most
  // `limit`. No event: no answer in time, or the connection failed.
  auto await = [&](auto answer, std::chrono::seconds limit) {
    std::optional<Event> found;
    auto judge = [&](const Event& e) {
      if (!found && answer(e)) found = e;
    };
    events.serve_until(tarn::Events::Clock::now() + limit, judge,
                       [&] { return found.has_value(); });
    return found;
  };
  auto failed = [&](const char* what) {
    std::cerr << what << ": " << (events.lost() ? "connection lost" : "no answer in time") << "\n";
    return 1;
  };

  robot->Init(0, 0, 0);  // x and y in millimetres; queued, sent by the next step
  if (!await([](const Event& e) { return e.type == EventType::InitAcknowledged; }, 5s))
    return failed("init");

  // Accepted is not arrived: true only means queued (false: not online and free).
  if (!robot->SetPosition(500, 0, 0)) return 1;
  // Arrived: the action finished, then a report shows the robot free.
  // Refused: a report carries the server's error code instead.
  bool finished = false;
  const auto end = await(
      [&](const Event& e) {
        finished = finished || e.type == EventType::ActionFinished;
        return e.type == EventType::Refused ||
               (finished && e.type == EventType::Report && e.report.state == tarn::state_free);
      },
      20s);
  if (!end) return failed("goto");
  if (end->type == EventType::Refused)
    std::cerr << "refused: " << tarn::describe_state(end->code) << "\n";
  else
    std::cout << "arrived at " << end->report.x * 1000 << " " << end->report.y * 1000 << " mm\n";

  robot->Kill();  // stop and go offline; leave once the server has closed too
  if (!await([](const Event& e) { return e.type == EventType::KillAcknowledged; }, 5s))
    return failed("kill");
  const bool closed = events.hang_up(tarn::Events::Clock::now() + 1s, [](const Event&) {});
  return closed && end->type != EventType::Refused ? 0 : 1;
}
