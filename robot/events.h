#pragma once

/// @file
/// Every message the robot sends, seen once and in order: the event layer.
///
/// Robot::Handle() applies what arrives to the Robot's fields, and an
/// application that only reads those fields afterwards cannot tell an
/// acknowledgement from a report, a refusal from a fault, or see a way-point
/// that was passed between two looks. tarn::Events wraps the service step so
/// that each message the library applies is also handed to the application
/// as one tarn::Event: initialisation or kill acknowledged, report applied,
/// command refused, way-point k of n passed, action finished, connection
/// lost.
///
/// It is a header of inline code on top of the library's public interface:
/// Robot, recv_msg, Socket and the module-wide m_socket, m_msg and acts. The
/// library itself is unchanged.
///
/// Why nothing slips past: Handle() reads the connection only while
/// `connected` is true, and applies the inbox and sends the outbox either
/// way. Events::step() therefore does the reading itself, through
/// Socket::Recv into the connection's own reassembly buffer, and files frames
/// with recv_msg into a mailbox of its own. Each filed message is then put
/// alone into m_msg's inbox and applied by Handle() with `connected` held
/// false for that call, so Handle() never reads: every message the library
/// applies has passed through the layer first, one at a time, in arrival
/// order, and the Robot's fields seen with an event are exactly the
/// library's own result of applying it. When the peer has closed, the
/// buffered frames are delivered first; then one Handle() with `connected`
/// true lets the library notice the closed connection itself (a closed TCP
/// stream keeps answering end-of-file, so that call files nothing).
///
/// The step is bounded: it files at most Limits::messages messages and makes
/// at most Limits::reads receive calls, however fast the server sends.
/// Frames left in the buffer then wait for the next step, and backlog() says
/// so, because the socket will not wake a poll() for bytes already received.
/// It reads only while no complete frame is buffered, so the buffer stays
/// within one largest frame plus one receive.
///
/// Use one Events per Robot and call step() (or the serve helpers) instead
/// of Robot::Handle(); commands are queued on the Robot as usual.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "robot.h"

/// The event layer and the helpers that go with it.
namespace tarn {

/// @name Task states
/// The fourth number of a status report, kept in Robot::state.
/// @{

/// The robot is idle and takes motion commands.
constexpr std::int32_t state_free = -1;
/// The robot is driving or turning.
constexpr std::int32_t state_working = 0;

/// One row of the task-state table.
struct TaskState {
  std::int32_t code;  ///< the number in Robot::state
  const char* name;   ///< "free", "working", "busy", ...
  const char* ident;  ///< the name as one word, for identifiers: "Free", "NotOnline"
  const char* cause;  ///< what makes a robot report it
};

/// The task states an installation reports: -1 and 0 are the library's own
/// meanings; every other value is an error code, and these are the control
/// server's (tarn-sim uses them). A refused command is answered by a report
/// carrying its code.
inline constexpr TaskState task_states[] = {
    {-1, "free", "Free", "idle, ready for a command"},
    {0, "working", "Working", "driving a path or turning"},
    {2, "not online", "NotOnline", "a motion command while the robot is offline"},
    {3, "busy", "Busy", "a motion command while an action or a turn is under way"},
    {4, "unsupported action", "UnsupportedAction", "an action type other than travel"},
    {5, "bad parameter", "BadParameter",
     "a value that does not parse, is not finite or is "
     "out of range"},
};

/// The row for `code`, or nullptr for a code outside the table.
inline const TaskState* find_task_state(std::int32_t code) {
  for (const TaskState& s : task_states)
    if (s.code == code) return &s;
  return nullptr;
}

/// True for an error code: anything but free and working.
inline bool is_error(std::int32_t code) {
  return code != state_free && code != state_working;
}

/// The state in words: "free", "working", "error 3 (busy)", "error 9".
inline std::string describe_state(std::int32_t code) {
  const TaskState* s = find_task_state(code);
  if (!is_error(code)) return s->name;
  std::string text = "error " + std::to_string(code);
  if (s != nullptr) text += std::string(" (") + s->name + ")";
  return text;
}
/// @}

/// A status report as the library applied it.
struct Report {
  float voltage = 0;                ///< volts
  float x = 0;                      ///< metres
  float y = 0;                      ///< metres
  std::int32_t state = state_free;  ///< task state: free, working or an error code
  float orientation = 0;            ///< radians
  float velocity = 0;               ///< mm/s
  float acceleration = 0;           ///< mm/s^2
  std::string name;                 ///< the robot's node id
  /// All seven numbers parsed. When not, the fields from the first one that
  /// failed keep the values of the report before, as the library applies it.
  bool complete = false;
  /// What the server says of the online state in the report's third text
  /// ("online" or "offline"); empty when it does not say.
  std::optional<bool> online;
};

/// What one message meant, or what happened to the connection.
enum class EventType {
  InitAcknowledged,  ///< the server acknowledged an initialisation: online is true
  KillAcknowledged,  ///< the server acknowledged a kill: online is false
  Report,            ///< a status report was applied
  Refused,           ///< a status report turned the task state into an error code
  WaypointPassed,    ///< progress: way-points of the oldest running action passed
  ActionFinished,    ///< progress: the oldest running action ended
  ConnectionLost,    ///< the server closed the connection; connected is false
  Unreadable,        ///< the stream holds data that cannot be read; reading stopped
  Other,             ///< any other message (the library ignores it)
};

/// The event type in words: "init acknowledged", "way-point passed", ...
inline const char* event_name(EventType type) {
  switch (type) {
    case EventType::InitAcknowledged:
      return "init acknowledged";
    case EventType::KillAcknowledged:
      return "kill acknowledged";
    case EventType::Report:
      return "report";
    case EventType::Refused:
      return "refused";
    case EventType::WaypointPassed:
      return "way-point passed";
    case EventType::ActionFinished:
      return "action finished";
    case EventType::ConnectionLost:
      return "connection lost";
    case EventType::Unreadable:
      return "unreadable data";
    case EventType::Other:
      break;
  }
  return "other";
}

/// One message as the application sees it, after the library applied it.
struct Event {
  EventType type = EventType::Other;  ///< what the message meant
  /// The message as it arrived. Default for ConnectionLost and Unreadable.
  Message_RTS message;
  /// Report and Refused: the report as applied (the Robot's fields now).
  tarn::Report report;
  /// Refused: the error code (report.state).
  std::int32_t code = 0;
  /// WaypointPassed: the way-points of the oldest running action passed so
  /// far (k), counting this report. ActionFinished: those passed before it
  /// ended.
  std::size_t passed = 0;
  /// WaypointPassed and ActionFinished: the way-points that action was sent
  /// with (n); 0 when no action was running, and the library ignored the
  /// message.
  std::size_t total = 0;
  /// Unreadable: what is wrong with the stream.
  std::string reason;
};

/// The longest path one Robot::SetPosition list may carry: its message must
/// fit in the largest frame a receiver accepts (frame_max_size), and each
/// way-point takes 24 bytes of it. Computed from the library's own encoding
/// of such a message.
inline std::size_t max_path_points() {
  // The KEY_ACTION message that SetPosition(list) queues, as it travels: one
  // action of type 1 whose target is the last way-point, named by its index.
  auto frame_size = [](std::size_t points) {
    Message_RTS m;
    m.sender_id = "T-0";
    m.receiver_id = "R-0";
    m.key = KEY_ACTION;
    std::deque<QrInfo_RTS> one{QrInfo_RTS("0", 0, 0, SPACE_DEFAULT, 1)};
    m.actions.emplace_back(1, one);
    const std::size_t base = m.str().size() + frame_header_size + 1;
    // Every further point adds a 24-byte record; the target's name grows
    // with the digits of the last index.
    return base + 24 * (points - 1) + std::to_string(points - 1).size() - 1;
  };
  std::size_t n = (frame_max_size - frame_size(1)) / 24 + 1;
  while (n > 1 && frame_size(n) > frame_max_size) --n;
  return n;
}

/// Robot::SetPosition along `points` (x and y in millimetres, z), without the
/// pointer list the library takes. False when the robot's guard refuses, and
/// when the path is longer than max_path_points(): such a frame would be
/// discarded by its receiver, so it is never queued.
inline bool set_path(Robot& robot, std::vector<std::array<float, 3>> points) {
  if (points.size() > max_path_points()) return false;
  std::deque<float*> list;
  for (auto& p : points) list.push_back(p.data());
  return robot.SetPosition(list);
}

/// Creates the Robot with its connection attempts bounded by `limit`. The
/// library connects with a blocking socket and retries at once; against a
/// server whose accept queue is full the kernel keeps resending the
/// handshake for minutes. A SIGALRM timer interrupts those connects at the
/// limit, and every 10 ms after it, so the constructor gives up ("Can Not
/// Connect Server !") within the limit plus a few ms. The previous SIGALRM
/// disposition and interval timer are put back afterwards; a program that
/// relies on its own ITIMER_REAL while connecting should not use this.
inline std::unique_ptr<Robot> connect(std::chrono::milliseconds limit) {
  auto to_timeval = [](std::chrono::microseconds us) {
    timeval t{};
    t.tv_sec = static_cast<time_t>(us.count() / 1000000);
    t.tv_usec = static_cast<suseconds_t>(us.count() % 1000000);
    return t;
  };
  struct sigaction quiet {};
  struct sigaction previous {};
  quiet.sa_handler = [](int) {};
  sigemptyset(&quiet.sa_mask);
  quiet.sa_flags = 0;  // no SA_RESTART: the signal must end a waiting connect()
  ::sigaction(SIGALRM, &quiet, &previous);
  itimerval timer{}, previous_timer{};
  timer.it_value =
      to_timeval(std::max<std::chrono::microseconds>(limit, std::chrono::microseconds(1)));
  timer.it_interval = to_timeval(std::chrono::milliseconds(10));
  ::setitimer(ITIMER_REAL, &timer, &previous_timer);
  auto restore = [&] {
    ::setitimer(ITIMER_REAL, &previous_timer, nullptr);
    ::sigaction(SIGALRM, &previous, nullptr);
  };
  std::unique_ptr<Robot> robot;
  try {
    robot = std::make_unique<Robot>();
  } catch (...) {
    restore();
    throw;
  }
  restore();
  return robot;
}

/// The service step with events. See the file's description for how it
/// works and why no message escapes it.
class Events {
 public:
  /// The clock of every deadline the layer takes.
  using Clock = std::chrono::steady_clock;

  /// Bounds of one step.
  struct Limits {
    /// Frames filed (or cut as damaged) per step.
    std::size_t messages = 256;
    /// Receive calls per step, each at most socket_recv_limit bytes.
    int reads = 8;
  };

  /// Serves `robot`, which the layer keeps a reference to, with the default
  /// limits.
  explicit Events(Robot& robot) : Events(robot, Limits()) {}
  /// Serves `robot` with the given bounds per step.
  Events(Robot& robot, Limits limits)
      : robot_(robot), limits_(limits), was_connected_(robot.connected) {}
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /// One bounded service step: receives, files and applies what arrived,
  /// one message at a time, calling `on_event(const Event&)` after each is
  /// applied, then sends the queued commands. Returns the number of events.
  template <class OnEvent>
  std::size_t step(OnEvent&& on_event);

  /// The same, returning the events.
  std::vector<Event> step() {
    std::vector<Event> out;
    step([&](const Event& e) { out.push_back(e); });
    return out;
  }

  /// The last step stopped at its bound with frames still buffered: step
  /// again without waiting for the socket.
  bool backlog() const { return backlog_; }

  /// A queued command has not been written to the connection yet.
  static bool unsent() {
    for (const auto& entry : m_msg.outbox)
      for (const Message_RTS& m : entry.second)
        if (m.key != KEY_NONE) return true;
    return false;
  }

  /// The connection was up and is gone: reported once as ConnectionLost.
  bool lost() const { return lost_; }
  /// The stream held data that cannot be read (see Event::reason); the
  /// layer no longer reads it, though queued commands still go out.
  bool unreadable() const { return unreadable_; }

  /// What to watch in an application's own poll(): the socket for reading
  /// while the layer reads it, for writing while a command is unsent; fd -1
  /// when there is nothing to wait for. Use a timeout of 0 while backlog().
  pollfd poll_entry() const {
    pollfd p{-1, 0, 0};
    if (!robot_.connected || finished_) return p;
    p.events = static_cast<short>((reading() ? POLLIN : 0) | (unsent() ? POLLOUT : 0));
    if (p.events != 0) p.fd = m_socket.m_sock;
    return p;
  }

  /// Sleeps in poll() until the connection needs a step or `timeout`
  /// passes. Returns at once while backlog().
  void wait(std::chrono::milliseconds timeout) const {
    if (backlog_) return;
    pollfd p = poll_entry();
    const auto ms = std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, 1 << 30);
    ::poll(&p, 1, static_cast<int>(ms));
  }

  /// Steps, waiting between steps, until `done()` holds (true) or
  /// `deadline` passes or nothing more can happen: the connection is lost,
  /// or unreadable with nothing left to send (false).
  template <class OnEvent, class Done>
  bool serve_until(Clock::time_point deadline, OnEvent&& on_event, Done&& done) {
    for (;;) {
      step(on_event);
      if (done()) return true;
      const bool can_progress = reading() || (robot_.connected && !finished_ && unsent());
      const Clock::time_point now = Clock::now();
      if (!can_progress || now >= deadline) return false;
      wait(std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
    }
  }

  /// Steps until every queued command has been written (true), or as
  /// serve_until gives up (false).
  template <class OnEvent>
  bool flush(Clock::time_point deadline, OnEvent&& on_event) {
    return serve_until(deadline, on_event, [] { return !unsent(); });
  }

  /// Ends the conversation without losing its last commands: flushes, then
  /// half-closes and keeps delivering events until the server closes its
  /// side (true) or `deadline` passes (false). Closing a socket with unread
  /// data resets the connection, and a reset can overtake the commands the
  /// server has not read yet. A deliberate end is not a lost connection: no
  /// ConnectionLost, and the library prints nothing. Afterwards the
  /// connection is over; destroy the Robot or leave.
  template <class OnEvent>
  bool hang_up(Clock::time_point deadline, OnEvent&& on_event) {
    if (!flush(deadline, on_event) || !robot_.connected) return false;
    if (::shutdown(m_socket.m_sock, SHUT_WR) != 0) return false;
    hanging_up_ = true;
    return serve_until(deadline, on_event, [this] { return finished_; });
  }

 private:
  enum class Filed { Message, Cut, Nothing, Unreadable };

  // Keeps Handle()'s read phase off for one call; `connected` is restored
  // whatever happens.
  struct ReadPhaseOff {
    explicit ReadPhaseOff(Robot& r) : robot(r), was(r.connected) { robot.connected = false; }
    ~ReadPhaseOff() { robot.connected = was; }
    ReadPhaseOff(const ReadPhaseOff&) = delete;
    ReadPhaseOff& operator=(const ReadPhaseOff&) = delete;
    Robot& robot;
    bool was;
  };

  bool reading() const { return robot_.connected && !unreadable_ && !finished_ && !lost_; }

  static std::int32_t word(const std::string& b, std::size_t at) {
    std::int32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
  }

  // One receive into the connection's reassembly buffer, as recv_msg does
  // it. False when nothing arrived.
  bool read_once() {
    std::string chunk;
    const int n = m_socket.Recv(chunk);
    if (n > 0) m_socket.m_buffer.append(chunk);
    if (n == 0) peer_closed_ = true;
    return n >= 0;
  }

  // Looks at the frame in front of the buffer before the library decodes
  // it. Returns an empty text, or why the stream cannot be read: a frame of
  // another type, which recv_msg would leave in front for good, or a message
  // whose counts or lengths ask for more than its frame holds. The lenient
  // decoder builds every announced action and way-point from nothing and
  // allocates every action text as asked, and it reads on past the frame's
  // end into whatever follows; so the whole body is walked here, as the
  // decoder will read it, and every count and length must fit in what is
  // left of the frame. Bodies an encoder wrote always do. Negative lengths
  // are left to the library, which throws before it allocates.
  std::string screen() {
    std::string& b = m_socket.m_buffer;
    const std::size_t at = b.find(header);
    if (at == std::string::npos) {
      // recv_msg keeps bytes without a marker only to drop them once one
      // comes; dropping them now has the same outcome and bounds the buffer.
      b.clear();
      return std::string();
    }
    if (b.size() - at < frame_header_size) return std::string();
    const std::int32_t length = word(b, at + 5);
    if (length < 0 || static_cast<std::uint32_t>(length) + 10u > frame_max_size) return {};
    const std::size_t end = at + frame_header_size + static_cast<std::size_t>(length);
    if (end >= b.size() || b[end] != ender) return std::string();
    const std::int32_t type = word(b, at + 1);
    if (type != frame_type) return "a frame of type " + std::to_string(type);
    // The body as the decoder reads it: the head word, sender, receiver,
    // key, three texts, int_param, '%', the action count and the actions.
    std::size_t pos = at + frame_header_size;
    std::int32_t v = 0;
    auto next = [&] {  // the word at pos into v; false when it lies past the frame
      if (end - pos < 4) return false;
      v = word(b, pos);
      pos += 4;
      return true;
    };
    auto skip =
        [&](std::size_t size) {  // past v records of `size`; false when not all in the frame
          if (v <= 0) return true;
          if (static_cast<std::size_t>(v) > (end - pos) / size) return false;
          pos += static_cast<std::size_t>(v) * size;
          return true;
        };
    auto announcing = [&](const char* what, const char* unit) {
      return "a message announcing " + std::string(what) + std::to_string(v) + unit + " in " +
             std::to_string(end - pos) + " bytes";
    };
    const std::string past = "a message that runs past its frame";
    if (!next()) return past;
    for (int field = 0; field < 6; ++field) {
      if (!next()) return past;
      if (field == 2) continue;  // the key
      if (v < 0) return std::string();
      if (!skip(1)) return past;
    }
    if (!next() || pos == end) return past;  // int_param, then the opening '%'
    if (b[pos++] != '%') return std::string();
    if (!next()) return past;
    // Each action takes at least 32 bytes: an action count is checked
    // before the actions are walked, so the walk stays within the frame.
    if (v > 0 && static_cast<std::size_t>(v) > (end - pos) / 32) return announcing("", " actions");
    for (std::int32_t actions = v, i = 0; i < actions; ++i) {
      if (!next() || !next()) return past;  // type, way-point count
      if (!skip(24)) return announcing("", " way-points");
      if (!next()) return past;
      if (!skip(40)) return announcing("", " arc way-points");
      for (int text = 0; text < 2; ++text) {  // the target's label, then x, y, space; param
        if (!next()) return past;
        if (v < 0) return std::string();
        if (!skip(1)) return announcing("a text of ", " bytes");
        if (text == 0 && end - pos < 12) return past;
        if (text == 0) pos += 12;
      }
    }
    return std::string();
  }

  // Files at most one frame from the buffer with recv_msg, without reading:
  // a Socket without a descriptor has nothing to receive, so recv_msg works
  // on the bytes buffered alone.
  Filed file_one(Message_RTS& out) {
    std::string& b = m_socket.m_buffer;
    if (b.empty()) return Filed::Nothing;
    std::string why = screen();
    if (!why.empty()) return stop_reading(why);
    if (b.empty()) return Filed::Nothing;
    const std::size_t before = b.size();
    int result;
    detached_.m_buffer.swap(b);
    try {
      result = recv_msg(detached_, inbox_);
    } catch (const std::exception& e) {
      detached_.m_buffer.swap(b);
      return stop_reading(std::string("the library could not decode a frame: ") + e.what());
    }
    detached_.m_buffer.swap(b);
    if (result != 0) {
      auto entry = inbox_.inbox.begin();
      out = std::move(entry->second.front());
      inbox_.inbox.clear();
      return Filed::Message;
    }
    if (b.size() != before) return Filed::Cut;
    // Nothing filed, nothing cut: a complete frame in front that did not
    // decode stays there for good.
    if (b.size() >= frame_header_size && b[0] == header) {
      const std::int32_t length = word(b, 5);
      if (length >= 0 && static_cast<std::size_t>(length) + 10 <= b.size())
        return stop_reading("a message that does not decode");
    }
    return Filed::Nothing;
  }

  Filed stop_reading(const std::string& why) {
    unreadable_ = true;
    reason_ = why;
    return Filed::Unreadable;
  }

  // Keeps one way-point count per running action, as each was sent: the
  // library trims the counts it keeps as progress arrives.
  void sync_totals() {
    if (totals_.size() > acts.size()) totals_.clear();
    for (std::size_t i = totals_.size(); i < acts.size(); ++i)
      totals_.push_back(acts[i].second.path.size());
  }

  // Has the library apply one message, and says what it meant.
  Event apply(Message_RTS&& message) {
    Event e;
    e.message = message;
    sync_totals();
    const std::int32_t state_before = robot_.state;
    const bool running = !acts.empty();
    const std::size_t remaining_before = running ? acts.front().second.path.size() : 0;

    auto slot = m_msg.inbox.try_emplace(message.sender_id);
    slot.first->second.push_back(std::move(message));
    {
      ReadPhaseOff off(robot_);
      robot_.Handle();
    }
    // A sender the library had not heard from before gets no lasting inbox
    // entry: a server naming a new sender in every frame would otherwise
    // grow the map for good.
    if (slot.second && slot.first->second.empty()) m_msg.inbox.erase(slot.first);

    const Message_RTS& m = e.message;
    switch (m.key) {
      case KEY_INIT:
        e.type = EventType::InitAcknowledged;
        break;
      case KEY_KILL:
        e.type = EventType::KillAcknowledged;
        break;
      case KEY_DETAIL:
        e.report = applied_report(m);
        e.type = is_error(robot_.state) && robot_.state != state_before ? EventType::Refused
                                                                        : EventType::Report;
        e.code = e.type == EventType::Refused ? robot_.state : 0;
        break;
      case KEY_ACTION:
        if (m.text_param1 == "path") {
          e.type = EventType::WaypointPassed;
        } else if (m.text_param1 == "action") {
          e.type = EventType::ActionFinished;
        } else {
          break;
        }
        if (running && !totals_.empty()) {
          e.total = totals_.front();
          const std::size_t left = e.type == EventType::WaypointPassed
                                       ? acts.front().second.path.size()
                                       : remaining_before;
          e.passed = e.total - std::min(e.total, left);
          if (e.type == EventType::ActionFinished) totals_.pop_front();
        }
        break;
      default:
        break;
    }
    return e;
  }

  // The Robot's fields after a report, with what the texts say beyond them.
  Report applied_report(const Message_RTS& m) const {
    Report r;
    r.voltage = robot_.voltage;
    r.x = robot_.x;
    r.y = robot_.y;
    r.state = robot_.state;
    r.orientation = robot_.orientation;
    r.velocity = robot_.velocity;
    r.acceleration = robot_.acceleration;
    r.name = robot_.name;
    // The library's own extraction, with its own types, only to learn
    // whether it read all seven numbers.
    std::istringstream text(m.text_param1);
    float f;
    std::int32_t i;
    text >> f >> f >> f >> i >> f >> f >> f;
    r.complete = !text.fail();
    if (m.text_param3 == "online") r.online = true;
    if (m.text_param3 == "offline") r.online = false;
    return r;
  }

  Robot& robot_;
  Limits limits_;
  bool was_connected_;
  bool backlog_ = false;
  bool peer_closed_ = false;
  bool hanging_up_ = false;
  bool finished_ = false;
  bool lost_ = false;
  bool unreadable_ = false;
  std::string reason_;
  Socket detached_;
  MailBox inbox_;
  std::deque<std::size_t> totals_;
};

template <class OnEvent>
std::size_t Events::step(OnEvent&& on_event) {
  backlog_ = false;
  std::size_t delivered = 0;
  auto emit = [&](Event&& e) {
    ++delivered;
    on_event(static_cast<const Event&>(e));
  };
  // Lost outside the layer: a plain Handle() noticed the closed connection.
  if (was_connected_ && !robot_.connected && !lost_ && !finished_) {
    lost_ = true;
    Event e;
    e.type = EventType::ConnectionLost;
    emit(std::move(e));
  }
  std::size_t work = 0;
  int reads = 0;
  while (reading()) {
    if (work == limits_.messages) {
      backlog_ = true;
      break;
    }
    ++work;
    Message_RTS message;
    const Filed filed = file_one(message);
    if (filed == Filed::Message) {
      emit(apply(std::move(message)));
      continue;
    }
    if (filed == Filed::Cut) continue;
    if (filed == Filed::Unreadable) {
      Event e;
      e.type = EventType::Unreadable;
      e.reason = reason_;
      emit(std::move(e));
      break;
    }
    // Nothing complete is buffered.
    if (peer_closed_) {
      if (hanging_up_) {
        finished_ = true;
        break;
      }
      // Everything buffered has been delivered; the library's own read
      // phase now finds the end of the stream and tears the connection down.
      robot_.Handle();
      lost_ = true;
      Event e;
      e.type = EventType::ConnectionLost;
      emit(std::move(e));
      break;
    }
    if (reads == limits_.reads) break;
    ++reads;
    if (!read_once()) break;
  }
  // Sends what the application queued, whether or not anything arrived.
  {
    ReadPhaseOff off(robot_);
    robot_.Handle();
  }
  return delivered;
}

}  // namespace tarn
