// Robot::Handle fed server bytes chosen by the fuzzer.
//
// One Robot lives for the whole run. Its constructor finds no server (or
// whatever listens on 6868; either way) and the harness then hands the shared
// connection one end of a fresh socket pair per input, marking the robot
// connected. The stream is written in fuzzer-chosen chunks with a Handle after
// each; flag bits choose the running actions, the robot's flags, a queued
// command and whether the peer closes at the end.
//
// Checked after every Handle:
// - only the contractual exceptions leave it (std::out_of_range for a length word
//   of -10, std::length_error for a negative text length);
// - every inbox vector holds at most one message, already handled (the
//   removal pass leaves at most one, and only at the front);
// - the running actions and their way-point lists never grow, and only
//   "action" reports remove an action;
// - the reassembly buffer holds no more than has arrived;
// - no report stalls the step: libFuzzer's -timeout turns a long countdown
//   into a failure.

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "fuzz_common.h"
#include "robot/robot.h"

namespace {

fuzz::NullBuffer null_buffer;
Robot* robot = nullptr;

std::deque<QrInfo_RTS> path_of(int n) {
  std::deque<QrInfo_RTS> path;
  for (int i = 0; i < n; ++i)
    path.emplace_back(std::to_string(i), 0.5f * i, 1.0f, SPACE_DEFAULT, 1);
  return path;
}

// The actions under way at the start of an input, chosen by two flag bits.
void seed_actions(std::uint8_t flags) {
  acts.clear();
  const int count = flags & 3;
  for (int i = 0; i < count; ++i) {
    Action_RTS action(1, path_of(3 - i));
    QrInfo_ARC arc;
    arc.qr_code = "7";
    action.arc_path.push_back(arc);
    action.arc_path.push_back(arc);
    acts.emplace_back(i != 1 || !(flags & 4), action);
  }
}

struct Shape {
  std::size_t actions;
  std::size_t paths[3];
  std::size_t arcs[3];
};

Shape shape() {
  Shape s{acts.size(), {0, 0, 0}, {0, 0, 0}};
  for (std::size_t i = 0; i < acts.size() && i < 3; ++i) {
    s.paths[i] = acts[i].second.path.size();
    s.arcs[i] = acts[i].second.arc_path.size();
  }
  return s;
}

void check_after_handle(const Shape& before, std::size_t arrived) {
  for (const auto& entry : m_msg.inbox) {
    fuzz::check(entry.second.size() <= 1, "an inbox vector keeps more than one message");
    for (const auto& message : entry.second) {
      fuzz::check(message.key == KEY_NONE, "a received message was left unhandled");
    }
  }
  const Shape after = shape();
  fuzz::check(after.actions <= before.actions, "running actions grew");
  if (after.actions == before.actions) {
    for (std::size_t i = 0; i < 3; ++i) {
      fuzz::check(after.paths[i] <= before.paths[i] && after.arcs[i] <= before.arcs[i],
                  "way-point lists grew");
      if (i > 0) {
        fuzz::check(after.paths[i] == before.paths[i] && after.arcs[i] == before.arcs[i],
                    "a report trimmed an action other than the oldest");
      }
    }
  }
  fuzz::check(m_socket.m_buffer.size() <= arrived, "the buffer holds more than has arrived");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::cout.rdbuf(&null_buffer);
  robot = new Robot();  // lives for the whole run, as an application's would
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::SplitInput input;
  if (!fuzz::parse_split(data, size, input)) return -1;
  if (!fuzz::stream_within_budget(input)) return -1;

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fuzz::fail("socketpair");
  // A connection that is still up from the previous input is closed here; one
  // the robot saw close was already closed by it, and its number may since
  // have been reused, so it is not closed again.
  if (robot->connected && m_socket.m_sock != -1) close(m_socket.m_sock);
  m_socket.m_buffer.clear();
  m_socket.Get(fds[0]);
  m_msg.inbox.clear();
  m_msg.outbox.clear();
  robot->connected = true;
  robot->online = (input.flags & 8) != 0;
  robot->state = (input.flags & 16) ? 0 : -1;
  seed_actions(input.flags);
  if (input.flags & 32) robot->SetVelocity(800);
  if (input.flags & 64) robot->Init(1500, -250, 0.5f);

  std::size_t arrived = 0;
  std::size_t begin = 0;
  auto handle = [&] {
    const Shape before = shape();
    try {
      robot->Handle();
    } catch (const std::out_of_range&) {
      return false;
    } catch (const std::length_error&) {
      return false;
    }
    check_after_handle(before, arrived);
    return true;
  };

  bool alive = true;
  for (std::size_t end : input.ends) {
    const std::string chunk = input.stream.substr(begin, end - begin);
    begin = end;
    if (write(fds[1], chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) {
      fuzz::fail("short write to the socket pair");
    }
    arrived += chunk.size();
    if (!(alive = handle())) break;
  }
  // Frames still buffered come out a few per step.
  for (int i = 0; alive && i < 8 && !m_socket.m_buffer.empty(); ++i) alive = handle();

  if (alive && (input.flags & 128)) {
    close(fds[1]);
    fds[1] = -1;
    alive = handle();
    if (alive) fuzz::check(!robot->connected, "a closed peer did not disconnect the robot");
  }
  if (fds[1] != -1) close(fds[1]);
  robot->DebugString();
  return 0;
}
