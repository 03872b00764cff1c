#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "msg/frame.h"
#include "msg/msg.h"
#include "net/Socket.h"
#include "sim_core.h"
#include "view.h"
#include "web.h"

namespace tarn_sim {
namespace {

using Clock = std::chrono::steady_clock;

// Longest sleep: even with nothing scheduled the loop samples the battery and
// refreshes the live view once a second.
constexpr double kMaxSleep = 1.0;
// The live view gets at most this many snapshots per second.
constexpr double kPublishPeriod = 0.04;
// Bytes read ahead of the frame cutter. More than the largest frame, so a
// frame of any accepted size can complete; a pipelining client simply waits
// in the kernel's buffers beyond that, which is backpressure, not an error.
constexpr std::size_t kReadAhead = 1100000;
// Bytes read ahead while the frame in front is small: the frame cutter moves
// the rest of the buffer forward for every frame it takes, so the buffer is
// kept short unless a large frame needs the room.
constexpr std::size_t kSmallReadAhead = 65536;
// Messages handled per wake-up before the simulation gets its turn.
constexpr int kMaxMessagesPerWake = 5000;
// Unsent output beyond this means the client stopped reading long ago.
constexpr std::size_t kMaxPending = 8 * 1000000;
// Connections taken from the accept queue per wake-up: enough to empty it
// during a storm of short connections, few enough that the client being
// served and the simulation get their turn between batches.
constexpr int kMaxAcceptsPerWake = 64;

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// How many bytes to hold before cutting frames: room for the frame in front
// when it is a large one still arriving, otherwise a short read-ahead.
std::size_t ReadAhead(const std::string& in) {
  if (in.size() < frame_header_size || in[0] != header) return kSmallReadAhead;
  return std::min(kReadAhead, std::max(kSmallReadAhead, std::size_t{get_word(in.data() + 5)} + 10));
}

struct Peer {
  int fd = -1;
  std::string name;  // "127.0.0.1:40312"
  std::string in;
  std::string out;
  Clock::time_point last_input;
  Clock::time_point last_output;  // last time pending output moved
};

class Server {
 public:
  Server(const ServerOptions& options, volatile std::sig_atomic_t& stop)
      : opt_(options), stop_(stop), sim_(MakeConfig(options)), start_(Clock::now()) {}
  ~Server() { Close(client_); }

  int Run(void (*on_ready)(int));

 private:
  static SimConfig MakeConfig(const ServerOptions& o) {
    SimConfig c;
    c.report_rate_hz = o.rate_hz;
    return c;
  }

  void Log(const std::string& line) {
    if (opt_.quiet) return;
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%9.3f] ", Seconds(Clock::now() - start_));
    std::cout << stamp << line << std::endl;
  }

  static void Close(Peer& p) {
    if (p.fd >= 0) ::close(p.fd);
    p = Peer();
  }

  enum class Accepted { kNone, kClient, kRefused };
  Accepted Accept();
  void ReadClient();
  void HandleInput();
  void Handle(const Message_RTS& m, std::uint32_t announced);
  void Deliver(const std::vector<Message_RTS>& messages);
  void Flush();
  void DropClient(const std::string& why);
  void CheckTimeouts(Clock::time_point now);
  void ApplyControls();
  void Advance(Clock::time_point now);
  void Publish();
  double NextWake(Clock::time_point now) const;

  ServerOptions opt_;
  volatile std::sig_atomic_t& stop_;
  RobotSim sim_;
  ViewLog view_;
  WebServer web_;
  bool web_on_ = false;
  Clock::time_point start_;
  Clock::time_point last_advance_;
  Clock::time_point last_publish_;
  bool dirty_ = true;
  bool paused_ = false;
  bool more_input_ = false;
  bool controls_pending_ = false;  // the queue's lock was busy: retry
  unsigned long seq_ = 0;
  Socket listener_;
  Peer client_;
};

int Server::Run(void (*on_ready)(int)) {
  try {
    listener_.Server_init(opt_.address, opt_.port);
  } catch (const SocketException& e) {
    std::cerr << "tarn-sim: cannot listen on " << opt_.address << ':' << opt_.port << ": "
              << e.m_message << std::endl;
    return 1;
  }
  // The library listens with a backlog of 3, enough for the one client it
  // expects. Connecting costs a client nothing until accept(), so a burst of
  // them overflows such a queue, and every refused handshake is retried only
  // a second later. listen() on a listening socket just resizes its queue.
  ::listen(listener_.m_sock, SOMAXCONN);
  sockaddr_in bound{};
  socklen_t len = sizeof bound;
  ::getsockname(listener_.m_sock, reinterpret_cast<sockaddr*>(&bound), &len);
  if (opt_.web) {
    std::string error;
    WebOptions web;
    web.address = opt_.http_address;
    web.port = opt_.http_port;
    web.names = opt_.http_names;
    web.token = !IsLoopback(opt_.http_address);
    web_on_ = web_.Start(web, error);
    // Scripts and people look for this line, so it is printed even when
    // quiet; without the view the simulator still serves its control port.
    if (web_on_) {
      if (!web_.token().empty())
        std::cerr << "tarn-sim: warning: the live view listens on " << opt_.http_address
                  << ", beyond this machine's loopback: whoever reaches it sees the robot. "
                     "Its controls need the token in the address below."
                  << std::endl;
      std::cout << "live view: http://" << opt_.http_address << ':' << web_.port() << '/'
                << (web_.token().empty() ? "" : "?token=" + web_.token()) << std::endl;
    } else {
      std::cerr << "tarn-sim: live view not available: " << error << std::endl;
    }
  }
  char ready[96];
  std::snprintf(ready, sizeof ready, "simulated robot R-0 ready; status reports at %g Hz",
                opt_.rate_hz);
  Log(ready);
  if (on_ready) on_ready(ntohs(bound.sin_port));

  last_advance_ = last_publish_ = Clock::now();
  Publish();
  while (!stop_) {
    Clock::time_point now = Clock::now();
    const int timeout = more_input_ ? 0 : static_cast<int>(std::ceil(NextWake(now) * 1000));
    pollfd fds[3] = {
        {listener_.m_sock, POLLIN, 0},
        {client_.fd, static_cast<short>(POLLIN | (client_.out.empty() ? 0 : POLLOUT)), 0},
        {web_on_ ? web_.control_fd() : -1, POLLIN, 0}};
    // Input is not read while a full buffer of it waits to be cut: the rest
    // stays in the kernel and the client is slowed down, not dropped.
    if (client_.in.size() >= ReadAhead(client_.in)) fds[1].events &= ~POLLIN;
    const int ready_count = ::poll(fds, 3, timeout);
    if (opt_.wakeups) ++*opt_.wakeups;
    if (ready_count < 0 && errno != EINTR) {
      std::cerr << "tarn-sim: poll: " << std::strerror(errno) << std::endl;
      return 1;
    }
    if (stop_) break;
    now = Clock::now();
    Advance(now);
    if (ready_count > 0) {
      if (fds[2].revents & POLLIN) ApplyControls();
      // The current client first: if it has just hung up, a client waiting
      // to be accepted in the same wake-up is then served instead.
      if (client_.fd >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) ReadClient();
      if (client_.fd >= 0 && (fds[1].revents & POLLOUT)) Flush();

      // Newcomers refused while a client is served leave in one batch. A new
      // client ends the batch: its input, or its leaving in a storm of short
      // connections, is read before anyone queued behind it is judged.
      if (fds[0].revents & POLLIN)
        for (int i = 0; i < kMaxAcceptsPerWake && Accept() == Accepted::kRefused; ++i) {
        }
    }
    if (controls_pending_) ApplyControls();
    if (more_input_ && client_.fd >= 0) HandleInput();
    // One write per wake-up for everything the client is owed, so the
    // replies to pipelined requests leave together.
    if (client_.fd >= 0 && !client_.out.empty()) Flush();
    CheckTimeouts(now);
    if (dirty_ && Seconds(Clock::now() - last_publish_) >= kPublishPeriod) Publish();
  }
  if (client_.fd >= 0) DropClient("simulator stopping");
  web_.Stop();
  Log("stopped");
  return 0;
}

double Server::NextWake(Clock::time_point now) const {
  double next = kMaxSleep;
  if (!paused_) next = std::min(next, sim_.NextEventIn() - Seconds(now - last_advance_));
  if (dirty_ || controls_pending_)
    next = std::min(next, kPublishPeriod - Seconds(now - last_publish_));
  if (client_.fd >= 0 && !client_.out.empty())
    next = std::min(next, opt_.idle_timeout - Seconds(now - client_.last_output));
  return std::max(next, 0.0);
}

void Server::Advance(Clock::time_point now) {
  const double dt = Seconds(now - last_advance_);
  last_advance_ = now;
  if (paused_) return;
  const std::vector<Message_RTS> reports = sim_.Advance(dt);
  view_.Sample(sim_);
  dirty_ = true;
  Deliver(reports);
}

void Server::Publish() {
  if (!web_on_) {
    dirty_ = false;
    return;
  }
  auto snap = std::make_shared<Snapshot>(MakeSnapshot(sim_, view_));
  snap->seq = ++seq_;
  snap->paused = paused_;
  if (client_.fd >= 0) snap->client = client_.name + " (" + sim_.client() + ")";
  // When the lock is busy the snapshot stays due and is retried a period on.
  dirty_ = !web_.Publish(std::move(snap));
  last_publish_ = Clock::now();
}

void Server::ApplyControls() {
  std::vector<Control> controls;
  controls_pending_ = !web_.TakeControls(controls);
  for (const Control& c : controls) {
    switch (c.kind) {
      case Control::kPause:
        Log("live view: simulation paused");
        paused_ = true;
        break;
      case Control::kResume:
        Log("live view: simulation resumed");
        paused_ = false;
        break;
      case Control::kInject:
        Log("live view: injected error " + std::to_string(c.code));
        Deliver(sim_.Inject(c.code));
        break;
      case Control::kDrop:
        if (client_.fd >= 0) DropClient("dropped from the live view");
        break;
    }
    dirty_ = true;
  }
}

Server::Accepted Server::Accept() {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  const int fd = ::accept4(listener_.m_sock, reinterpret_cast<sockaddr*>(&peer), &len,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return Accepted::kNone;
  // Replies are written once per wake-up; Nagle's delay would only hold the
  // second of two back-to-back writes until the first is acknowledged.
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  Peer p;
  p.fd = fd;
  p.name = std::string(inet_ntoa(peer.sin_addr)) + ':' + std::to_string(ntohs(peer.sin_port));
  p.last_input = p.last_output = Clock::now();
  dirty_ = true;
  if (client_.fd >= 0) {
    // One client at a time. A newcomer is told at once by the close, rather
    // than left hanging without any report, unless the current client has
    // fallen silent: then it gives way, so that a forgotten connection
    // cannot hold the robot for good.
    if (Seconds(p.last_input - client_.last_input) < opt_.idle_timeout) {
      ::close(fd);
      Log("refused a second client (" + p.name + "): already serving one");
      return Accepted::kRefused;
    }
    char why[96];
    std::snprintf(why, sizeof why, "silent for %g s while another client connects",
                  opt_.idle_timeout);
    DropClient(why);
  }
  client_ = std::move(p);
  Log("client connected (" + client_.name + ")");
  return Accepted::kClient;
}

void Server::ReadClient() {
  char chunk[65536];
  while (client_.fd >= 0 && client_.in.size() < ReadAhead(client_.in)) {
    const ssize_t n = ::recv(client_.fd, chunk, sizeof chunk, 0);
    if (n == 0) {
      DropClient("client closed the connection");
      return;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      // A reset is how a peer's close arrives when replies were still on
      // their way to it: the client left all the same.
      if (errno == ECONNRESET)
        DropClient("client closed the connection");
      else if (errno != EAGAIN && errno != EWOULDBLOCK)
        DropClient(std::string("receive failed: ") + std::strerror(errno));
      break;
    }
    client_.in.append(chunk, static_cast<std::size_t>(n));
    client_.last_input = Clock::now();
    if (static_cast<std::size_t>(n) < sizeof chunk) break;
  }
  if (client_.fd >= 0) HandleInput();
}

void Server::HandleInput() {
  more_input_ = false;
  std::string& in = client_.in;
  for (int handled = 0; client_.fd >= 0; ++handled) {
    if (handled == kMaxMessagesPerWake) {
      more_input_ = true;  // the rest after the simulation had its turn
      return;
    }
    const std::size_t before = in.size();
    std::uint32_t announced = 0;
    if (ScreenFrame(in, announced) == Screen::kDiscard) {
      DropClient("malformed input (a text length reaches outside its frame)");
      return;
    }
    MailBox box;
    try {
      file_frame(in, box, 1);
    } catch (const std::exception& e) {
      DropClient(std::string("malformed input (") + e.what() + ")");
      return;
    }
    bool filed = false;
    for (auto& entry : box.inbox) {
      for (const Message_RTS& m : entry.second) {
        filed = true;
        Handle(m, announced);
      }
    }
    if (filed) continue;
    if (in.size() != before) {
      Log("malformed input: discarded " + std::to_string(before - in.size()) + " bytes");
      continue;
    }
    // Nothing filed and nothing cut. A complete frame at the front that the
    // cutter leaves in place is of another type or does not decode, and
    // would block everything behind it for good; otherwise a frame is still
    // arriving or bytes wait for a frame marker, which is given up once the
    // read-ahead is full (no frame can be that long).
    if (in.size() >= frame_header_size && in[0] == header) {
      const std::uint32_t length = get_word(in.data() + 5);
      if (in.size() >= std::size_t{length} + 10) {
        const std::uint32_t type = get_word(in.data() + 1);
        DropClient("no message readable from " + std::to_string(in.size()) + " buffered bytes: " +
                   (static_cast<std::int32_t>(type) != frame_type
                        ? "a frame of unknown type " + std::to_string(type)
                        : "a frame whose message does not decode") +
                   " is in front");
        return;
      }
    }
    if (in.size() >= ReadAhead(in))
      DropClient("no message readable from " + std::to_string(in.size()) + " buffered bytes: " +
                 (in[0] == header ? "no frame can be that long" : "no frame marker"));
    return;
  }
}

void Server::Handle(const Message_RTS& m, std::uint32_t announced) {
  // Described only when logged: a pipelining client sends tens of thousands
  // of messages a second.
  if (!opt_.quiet)
    Log("recv " + Describe(m) +
        (announced ? " (announcing " + std::to_string(announced) + " actions, not decoded)" : ""));
  view_.Message(sim_.time(), true, m);
  dirty_ = true;
  const std::vector<Message_RTS> replies = sim_.Receive(m, announced);
  if (replies.empty() && m.key != KEY_CONNECT && m.key != KEY_SET_PARAM)
    Log("   ignored: not a request this robot serves");
  Deliver(replies);
}

void Server::Deliver(const std::vector<Message_RTS>& messages) {
  if (client_.fd < 0 || !sim_.registered()) return;
  for (Message_RTS m : messages) {
    if (!opt_.quiet) Log("send " + Describe(m));
    view_.Message(sim_.time(), false, m);
    if (client_.out.empty()) client_.last_output = Clock::now();
    client_.out += make_frame(m.str());
  }
  if (!messages.empty()) dirty_ = true;
}

void Server::Flush() {
  while (client_.fd >= 0 && !client_.out.empty()) {
    const ssize_t n = ::send(client_.fd, client_.out.data(), client_.out.size(), MSG_NOSIGNAL);
    if (n > 0) {
      client_.out.erase(0, static_cast<std::size_t>(n));
      client_.last_output = Clock::now();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (client_.out.size() > kMaxPending)
        DropClient("client stopped reading (" + std::to_string(client_.out.size()) +
                   " bytes unsent)");
      return;
    }
    DropClient(errno == EPIPE || errno == ECONNRESET
                   ? std::string("client closed the connection")
                   : std::string("send failed: ") + std::strerror(errno));
  }
}

void Server::CheckTimeouts(Clock::time_point now) {
  if (client_.fd < 0 || client_.out.empty()) return;
  if (Seconds(now - client_.last_output) >= opt_.idle_timeout) {
    char why[96];
    std::snprintf(why, sizeof why, "client has not read for %g s", opt_.idle_timeout);
    DropClient(why);
  }
}

void Server::DropClient(const std::string& why) {
  Log("client dropped: " + why + " (" + client_.name + ")");
  Close(client_);
  more_input_ = false;
  sim_.ClientLeft();
  dirty_ = true;
}

}  // namespace

int RunServer(const ServerOptions& options, volatile std::sig_atomic_t& stop,
              void (*on_ready)(int)) {
  Server server(options, stop);
  return server.Run(on_ready);
}

}  // namespace tarn_sim
