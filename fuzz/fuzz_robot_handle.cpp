// Robot::Handle fed server bytes chosen by the fuzzer. One Robot lives for the
// whole run (its constructor finds no server); each input hands the shared
// connection one end of a fresh socket pair and marks the robot connected.
// Flag bits choose the running actions, the robot's flags, queued commands
// and whether the peer closes before a last Handle. Checked after every Handle:
// - only the contractual exceptions leave it (std::out_of_range for a length
//   word of -10, std::length_error for a negative text length);
// - every inbox vector keeps at most one message, already handled;
// - running actions and their way-point lists never grow, only "action"
//   reports remove actions, and only the oldest action is trimmed;
// - no report stalls the step (libFuzzer's -timeout).

#include "fuzz_common.h"
#include "robot/robot.h"

namespace {

// The number of running actions, then each one's way-point and arc counts.
std::vector<std::size_t> shape() {
  std::vector<std::size_t> s{acts.size()};
  for (const auto& a : acts) s.insert(s.end(), {a.second.path.size(), a.second.arc_path.size()});
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::SplitInput input(data, size);
  if (input.ends.empty()) return -1;
  static Robot* robot = new Robot();  // lives for the whole run, as an application's would
  // A connection the robot saw close was closed by it, and its number may
  // have been reused since: only a live one is closed here.
  if (robot->connected && m_socket.m_sock != -1) close(m_socket.m_sock);
  m_socket.m_buffer.clear();
  m_socket.Get(input.fds[0]);
  m_msg = MailBox();
  acts.clear();
  for (int i = 0; i < (input.flags & 3); ++i) {
    Action_RTS action(
        1, {QrInfo_RTS("1", 0, 0, SPACE_DEFAULT, 1), QrInfo_RTS("2", 1, 0, SPACE_DEFAULT, 1)});
    action.arc_path.resize(static_cast<std::size_t>(i + 1));
    acts.emplace_back(i != 1 || !(input.flags & 4), action);
  }
  robot->connected = true;
  robot->online = input.flags & 8;
  robot->state = (input.flags & 16) ? 0 : -1;
  if (input.flags & 32) robot->SetVelocity(800);
  if (input.flags & 64) robot->Init(1500, -250, 0.5f);

  bool alive = true;
  auto handle = [&] {
    const std::vector<std::size_t> before = shape();
    alive = fuzz::run([] { return robot->Handle(), 0; }) == 0;
    if (!alive) return;
    for (const auto& entry : m_msg.inbox)
      fuzz::check(entry.second.empty() || (entry.second.size() == 1 && !entry.second[0].key),
                  "an inbox vector keeps more than one message, or one unhandled");
    const std::vector<std::size_t> after = shape();
    fuzz::check(after[0] <= before[0], "running actions grew");
    for (std::size_t i = 1; after[0] == before[0] && i < after.size(); ++i)
      fuzz::check(after[i] <= before[i] && (i < 3 || after[i] == before[i]),
                  "a report grew an action or trimmed one other than the oldest");
  };
  for (std::size_t i = 0; alive && i < input.ends.size(); ++i) input.send(i), handle();
  for (int i = 0; alive && i < 8 && !m_socket.m_buffer.empty(); ++i) handle();  // a few per step
  close(input.fds[1]);
  if (alive && (input.flags & 128)) handle();
  robot->DebugString();
  return 0;
}
