#include "guarded_server.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/tcp.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace tarn_web {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kMaxBody = 4096;  // a control's body
constexpr auto kFirstRequestWait = seconds(2);
constexpr auto kNextRequestWait = seconds(5);  // an idle kept-alive connection
constexpr auto kRequestTime = seconds(2);      // from a request's first byte to its last
constexpr auto kStall = seconds(2);            // pending output that does not move
// After an answer that leaves input unread (a refused body, say), the
// connection is half-closed and drained for a moment before it is closed:
// closing with unread input resets it, and the client could lose the answer.
constexpr auto kLinger = seconds(1);
constexpr std::size_t kLingerBytes = 256 * 1024;
// Beyond this, a newcomer takes the place of the connection that has waited
// longest for a request, so a well-behaved client always gets in.
constexpr std::size_t kMaxConnections = 512;
constexpr int kMaxAcceptsPerWake = 64;
constexpr auto kAcceptPause = milliseconds(100);  // out of descriptors
constexpr int kMaxStreams = 8;
// Requests on one kept connection; cpp-httplib announces it in Keep-Alive.
constexpr std::size_t kMaxRequests = 1000;
// An idle event stream gets a comment line this often, so proxies keep it.
constexpr auto kStreamKeepAlive = seconds(15);
// A subscriber's own send buffer, small: a subscriber that stops reading is
// seen as stalled, and closed, only once this buffer and its own receive
// window are full, which the simulator's events at rest (some 30 KB a
// second) take about five seconds to do.
constexpr int kStreamSendBuffer = 16 * 1024;
// Output buffers that grew beyond this are given back once sent, so that
// memory returns to its idle level after large answers.
constexpr std::size_t kKeptCapacity = 16 * 1024;

const char* FaultText(int status) {
  return status == 408 ? "request not complete in time\n" : "request head too large\n";
}

std::string Text(const sockaddr_in& a) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
  return text;
}

}  // namespace

void Reply(httplib::Response& res, int status, const std::string& text) {
  res.status = status;
  res.set_content(text, "text/plain; charset=utf-8");
}

enum class Phase {
  kRequest,  // waiting for (the rest of) a request head
  kBody,     // a request let through from its head, its body arriving
  kWrite,    // an answer going out
  kStream,   // an event stream
  kLinger,   // answered and half-closed, input drained until the peer closes
};

struct GuardedServer::Conn {
  int fd = -1;
  Phase phase = Phase::kRequest;
  bool started = false;      // a byte of the current request has arrived
  bool close_after = false;  // close once the answer is out
  bool continued = false;    // 100 Continue sent for the request being read
  std::size_t served = 0;    // requests answered
  std::string in;
  std::string out;  // what cpp-httplib wrote, not yet sent
  std::size_t out_sent = 0;
  std::shared_ptr<const std::string> event;  // an event going out, shared with other streams
  std::size_t event_sent = 0;
  std::shared_ptr<const std::string> next;  // the newest event, after this one
  std::size_t drained = 0;                  // bytes discarded while lingering
  Clock::time_point since;                  // when it last began to wait for a request
  Clock::time_point deadline;
  sockaddr_in peer{}, self{};
  std::size_t pending() const {
    return out.size() - out_sent + (event ? event->size() - event_sent : 0);
  }
};

// One request of a connection as cpp-httplib processes it, and what the
// handlers decided about it.
struct GuardedServer::Exchange {
  Conn& conn;
  Framing framing;
  int fault = 0;            // 408 or 431: the answer, whatever the request says
  bool body_ready = false;  // the announced body is buffered whole
  bool body_open = false;   // the request is let through: cpp-httplib may read the body
  std::size_t read = 0;     // of conn.in
  bool routed = false;      // the head parsed and screened
  bool refused = false;     // answered by a refusal
  bool suspended = false;   // let through, but the body is still to come
  bool continued = false;   // 100 Continue sent
  bool stream = false;      // an event stream began
  bool close = false;       // the connection ends after this answer
};

// The buffers as cpp-httplib's Stream: reads come from the connection's
// input, the head only until the request is let through; writes go to its
// output, which the loop sends. While a request waits for its body, what
// cpp-httplib writes is dropped: it is processed again once the body is in.
class GuardedServer::Buffered final : public httplib::Stream {
 public:
  explicit Buffered(Exchange& ex) : ex_(ex) {}
  bool is_readable() const override { return ex_.read < Limit(); }
  bool is_writable() const override { return !ex_.suspended; }
  ssize_t read(char* ptr, size_t size) override {
    const std::size_t n = std::min(size, Limit() - ex_.read);
    std::memcpy(ptr, ex_.conn.in.data() + ex_.read, n);
    ex_.read += n;
    return static_cast<ssize_t>(n);
  }
  ssize_t write(const char* ptr, size_t size) override {
    if (!ex_.suspended) ex_.conn.out.append(ptr, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = Text(ex_.conn.peer);
    port = ntohs(ex_.conn.peer.sin_port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip = Text(ex_.conn.self);
    port = ntohs(ex_.conn.self.sin_port);
  }
  // Every byte goes through the buffers; nothing may use the socket itself.
  socket_t socket() const override { return INVALID_SOCKET; }

 private:
  std::size_t Limit() const {
    const Framing& f = ex_.framing;
    if (f.result != Framing::kComplete) return std::min(ex_.conn.in.size(), kMaxHead);
    return f.head + (ex_.body_open ? f.body : 0);
  }
  Exchange& ex_;
};

GuardedServer::GuardedServer() {
  set_default_headers({{"Cache-Control", "no-store"}, {"X-Content-Type-Options", "nosniff"}});
  set_keep_alive_timeout(std::chrono::duration_cast<seconds>(kNextRequestWait).count());
  set_keep_alive_max_count(kMaxRequests);
  // Ranges and compression: see the header. The Expect header is answered
  // only while the body is still to come.
  set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    Exchange& ex = *current_;
    ex.routed = true;
    if (const Verdict v = Screen(req)) {
      ex.refused = true;
      Reply(res, v.status, v.text);
      if (v.status == 405)
        res.set_header("Allow", policy_.controls.empty() ? "GET, HEAD" : "GET, HEAD, POST");
      return HandlerResponse::Handled;
    }
    if (!ex.body_ready) {
      ex.suspended = true;
      return HandlerResponse::Handled;
    }
    ex.body_open = true;
    return HandlerResponse::Unhandled;
  });
  set_expect_100_continue_handler([this](const httplib::Request& req, httplib::Response& res) {
    // Refused from the head, without inviting the body; otherwise asked for.
    if (const Verdict v = Screen(req)) {
      current_->refused = current_->routed = true;
      Reply(res, v.status, v.text);
      return v.status;
    }
    current_->continued = true;
    return 100;
  });
  set_error_handler(HandlerWithResponse([this](const httplib::Request&, httplib::Response& res) {
    if (current_->fault) {
      Reply(res, current_->fault, FaultText(current_->fault));
    } else if (res.body.empty() && (res.status == 400 || res.status == 404)) {
      Reply(res, res.status, res.status == 400 ? "malformed request\n" : "not found\n");
    }
    return HandlerResponse::Unhandled;  // the length is set below
  }));
  set_exception_handler(
      [this](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        current_->refused = true;
        Reply(res, 500, "internal error\n");
      });
  set_post_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    Exchange& ex = *current_;
    // An answer to anything not screened or refused closes the connection:
    // what follows the request in the input cannot be trusted to begin
    // another one.
    ex.close = ex.close || !ex.routed || ex.refused || WantsClose(req) ||
               res.get_header_value("Connection") == "close";
    if (ex.close) {
      res.headers.erase("Keep-Alive");
      res.headers.erase("Connection");
      res.set_header("Connection", "close");
    }
    if (!res.body.empty() && !res.has_header("Content-Length"))
      res.set_header("Content-Length", std::to_string(res.body.size()));
  });
}

GuardedServer::~GuardedServer() {
  svr_sock_ = INVALID_SOCKET;
  for (auto& c : conns_)
    if (c->fd >= 0) ::close(c->fd);
  if (listen_fd_ >= 0) ::close(listen_fd_);
}

bool GuardedServer::Listen(const Options& options, std::string& error) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(options.port));
  if (inet_pton(AF_INET, options.address.c_str(), &addr.sin_addr) != 1) {
    error = "'" + options.address + "' is not an IPv4 address";
    return false;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, SOMAXCONN) != 0) {
    ::close(fd);
    error = "port " + std::to_string(options.port) + " is in use or not available";
    return false;
  }
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  policy_.port = ntohs(addr.sin_port);
  policy_.controls = options.controls;
  policy_.max_body = kMaxBody;
  policy_.names = {"localhost", "127.0.0.1", "[::1]"};
  for (const std::string& name : options.names) {
    std::string lower = name;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    policy_.names.insert(lower);
  }
  if (addr.sin_addr.s_addr != htonl(INADDR_ANY)) {
    policy_.names.insert(options.address);
  } else {
    // Every address of this machine is the server's own.
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) == 0) {
      for (ifaddrs* i = list; i; i = i->ifa_next)
        if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET)
          policy_.names.insert(Text(*reinterpret_cast<sockaddr_in*>(i->ifa_addr)));
      ::freeifaddrs(list);
    }
  }
  if (options.token) {
    unsigned char bytes[16];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
      ::close(fd);
      error = "no random bytes for the controls' token";
      return false;
    }
    for (unsigned char b : bytes) {
      static const char kHex[] = "0123456789abcdef";
      policy_.token += kHex[b >> 4];
      policy_.token += kHex[b & 15];
    }
  }
  listen_fd_ = fd;
  // cpp-httplib ends a response without length early when this is invalid,
  // taking it for a server that stops.
  svr_sock_ = fd;
  return true;
}

void GuardedServer::Pages(const WebAsset* (*find)(const std::string& path)) {
  Get("/.*", [find](const httplib::Request& req, httplib::Response& res) {
    const WebAsset* a = find(req.path == "/" ? "/index.html" : req.path);
    if (!a) return Reply(res, 404, "not found\n");
    res.set_content(a->data, a->size, a->content_type);
    // The page may not be framed by another site, which could otherwise lay
    // it under its own buttons and have the user click them.
    res.set_header("Content-Security-Policy", "default-src 'self'; frame-ancestors 'none'");
    res.set_header("X-Frame-Options", "DENY");
  });
}

void GuardedServer::Events(const std::string& path,
                           std::function<std::shared_ptr<const std::string>()> newest,
                           const std::string& busy) {
  Get(path, [this, newest, busy](const httplib::Request&, httplib::Response& res) {
    current_->close = true;  // the stream, without length, ends with the connection
    if (streams_ >= kMaxStreams) return Reply(res, 503, busy);
    // Called for GET only (not HEAD): the first event, then the provider
    // says it is done, so that cpp-httplib returns and the loop here keeps
    // the connection as a subscriber.
    res.set_content_provider("text/event-stream", [this, newest](size_t, httplib::DataSink& sink) {
      current_->stream = true;
      Broadcast(newest());
      if (latest_) sink.write(latest_->data(), latest_->size());
      sink.done();
      return true;
    });
  });
}

int PollTimeout(GuardedServer::Clock::time_point wake) {
  if (wake == GuardedServer::Clock::time_point::max()) return -1;
  const auto wait = std::chrono::ceil<milliseconds>(wake - GuardedServer::Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(wait, 0, 24 * 3600 * 1000));
}

void GuardedServer::Broadcast(std::shared_ptr<const std::string> event) {
  if (!event || event == latest_) return;
  latest_ = std::move(event);
  now_ = Clock::now();
  for (auto& c : conns_) {
    if (c->fd < 0 || c->phase != Phase::kStream) continue;
    if (c->pending()) {
      c->next = latest_;
    } else {
      c->event = latest_;
      c->event_sent = 0;
      if (!Flush(*c)) Close(*c);
    }
  }
}

void GuardedServer::Prepare(std::vector<pollfd>& fds, Clock::time_point& wake) {
  Reap();
  now_ = Clock::now();
  fds.push_back({now_ >= accept_from_ ? listen_fd_ : -1, POLLIN, 0});
  if (now_ < accept_from_) wake = std::min(wake, accept_from_);
  for (const auto& c : conns_) {
    fds.push_back({c->fd, Events(*c), 0});
    wake = std::min(wake, c->deadline);
  }
  polled_ = conns_.size();
}

void GuardedServer::Service(const pollfd* fds) {
  now_ = Clock::now();
  // Connections accepted below are not in fds; they are served next time.
  for (std::size_t i = 0; i < polled_; ++i) {
    Conn& c = *conns_[i];
    if (c.fd >= 0 && fds[i + 1].revents) Service(c, fds[i + 1].revents);
    if (c.fd >= 0 && now_ >= c.deadline) Expire(c);
  }
  polled_ = 0;
  Reap();
  if (fds[0].revents & POLLIN) Accept();
}

void GuardedServer::Reap() {
  conns_.erase(
      std::remove_if(conns_.begin(), conns_.end(), [](const auto& c) { return c->fd < 0; }),
      conns_.end());
}

void GuardedServer::Accept() {
  for (int i = 0; i < kMaxAcceptsPerWake; ++i) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int fd = ::accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &len,
                             SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE) {
        // The queue stays readable while nothing can be accepted: make room,
        // or wait a moment, rather than wake for it again at once.
        if (conns_.empty()) accept_from_ = now_ + kAcceptPause;
        Evict();
      }
      return;
    }
    if (conns_.size() >= kMaxConnections) Evict();
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->peer = peer;
    len = sizeof c->self;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&c->self), &len);
    c->since = now_;
    c->deadline = now_ + kFirstRequestWait;
    conns_.push_back(std::move(c));
  }
}

// Closes the connection that has waited longest for a request, an event
// stream only when there is nothing else.
void GuardedServer::Evict() {
  const auto rank = [](const Conn& c) {
    return std::make_pair(c.phase == Phase::kStream, c.since);
  };
  Conn* oldest = nullptr;
  for (const auto& c : conns_)
    if (c->fd >= 0 && (!oldest || rank(*c) < rank(*oldest))) oldest = c.get();
  if (oldest) Close(*oldest);
}

void GuardedServer::Close(Conn& c) {
  if (c.fd < 0) return;
  if (c.phase == Phase::kStream) --streams_;
  // Output that may still be waiting for its reader is dropped with a reset,
  // rather than left to the kernel to retry for minutes after the close.
  if (c.phase == Phase::kStream || c.pending()) {
    const linger abort{1, 0};
    ::setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  ::close(c.fd);
  c.fd = -1;
  std::string().swap(c.in);
  std::string().swap(c.out);
  c.event.reset();
  c.next.reset();
}

short GuardedServer::Events(const Conn& c) const {
  switch (c.phase) {
    case Phase::kWrite:
      return POLLOUT;
    case Phase::kStream:
    case Phase::kBody:  // a 100 Continue may be on its way
      return static_cast<short>(POLLIN | (c.pending() ? POLLOUT : 0));
    default:
      return POLLIN;
  }
}

void GuardedServer::Service(Conn& c, short revents) {
  // A peer that has hung up entirely cannot read an answer either.
  if ((revents & (POLLERR | POLLNVAL)) || ((revents & POLLHUP) && c.phase == Phase::kWrite))
    return Close(c);
  if ((revents & POLLOUT) && c.pending()) {
    if (!Flush(c)) return Close(c);
    if (c.phase == Phase::kWrite && !c.pending()) {
      Finished(c);
      if (c.phase == Phase::kRequest && c.started) Serve(c);
    }
  }
  if (c.fd < 0 || !(revents & (POLLIN | POLLHUP)) || c.phase == Phase::kWrite) return;
  char chunk[16384];
  const bool keep = c.phase == Phase::kRequest || c.phase == Phase::kBody;
  // At most a head and a body are held. Serve leaves less than that behind
  // (a head without its end is refused at kMaxHead, a request is answered as
  // soon as its body is complete), so there is always room here.
  const std::size_t room = keep ? kMaxHead + kMaxBody - c.in.size() : sizeof chunk;
  if (room == 0) return Close(c);
  const ssize_t n = ::recv(c.fd, chunk, std::min(room, sizeof chunk), 0);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
    return Close(c);
  if (n < 0) return;
  if (c.phase == Phase::kLinger && (c.drained += static_cast<std::size_t>(n)) > kLingerBytes)
    return Close(c);
  if (!keep) return;  // what a subscriber or a lingering peer sends is not read
  if (!c.started) {
    c.started = true;
    c.deadline = now_ + kRequestTime;
  }
  c.in.append(chunk, static_cast<std::size_t>(n));
  Serve(c);
}

void GuardedServer::Expire(Conn& c) {
  if (c.phase == Phase::kStream && !c.pending()) {
    static const auto comment = std::make_shared<const std::string>(": idle\n\n");
    c.event = comment;
    c.event_sent = 0;
    if (!Flush(c)) Close(c);
    return;
  }
  // A request cut short is told why, if the socket takes it at once.
  if ((c.phase == Phase::kRequest && c.started) || c.phase == Phase::kBody) {
    Answer(c, Frame(c.in), 408);
    if (::send(c.fd, c.out.data() + c.out_sent, c.out.size() - c.out_sent,
               MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
      // The client is not reading either; it learns from the close.
    }
  }
  Close(c);
}

bool GuardedServer::Flush(Conn& c) {
  while (c.pending()) {
    iovec parts[2];
    int count = 0;
    if (c.out_sent < c.out.size())
      parts[count++] = {c.out.data() + c.out_sent, c.out.size() - c.out_sent};
    if (c.event && c.event_sent < c.event->size())
      parts[count++] = {const_cast<char*>(c.event->data()) + c.event_sent,
                        c.event->size() - c.event_sent};
    msghdr m{};
    m.msg_iov = parts;
    m.msg_iovlen = static_cast<std::size_t>(count);
    const ssize_t n = ::sendmsg(c.fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    std::size_t sent = static_cast<std::size_t>(n);
    const std::size_t from_out = std::min(sent, c.out.size() - c.out_sent);
    c.out_sent += from_out;
    sent -= from_out;
    if (c.event) c.event_sent += sent;
    // The body's deadline stays that of its request.
    if (c.phase != Phase::kBody) c.deadline = now_ + kStall;
    if (c.out_sent < c.out.size()) continue;
    c.out.clear();
    c.out_sent = 0;
    if (c.out.capacity() > kKeptCapacity) c.out.shrink_to_fit();
    if (!c.event || c.event_sent == c.event->size()) {
      c.event = std::move(c.next);
      c.event_sent = 0;
    }
  }
  if (c.phase == Phase::kStream) c.deadline = now_ + kStreamKeepAlive;
  return true;
}

// The answer is out: the connection closes, or waits for the next request,
// which may already be buffered behind this one (the caller serves it).
void GuardedServer::Finished(Conn& c) {
  if (c.close_after) {
    ::shutdown(c.fd, SHUT_WR);
    c.phase = Phase::kLinger;
    std::string().swap(c.in);
    c.deadline = now_ + kLinger;
    return;
  }
  c.phase = Phase::kRequest;
  c.started = !c.in.empty();
  c.since = now_;
  c.deadline = now_ + (c.started ? kRequestTime : kNextRequestWait);
}

// Answers the requests buffered on `c`, until one needs more input or its
// answer more room in the socket. Bounded by the input held, which is at most
// a head and a body.
void GuardedServer::Serve(Conn& c) {
  while (c.fd >= 0) {
    if (c.phase == Phase::kRequest || c.phase == Phase::kBody) {
      const Framing f = Frame(c.in);
      if (f.result == Framing::kPartial) return;
      if (c.phase == Phase::kBody && c.in.size() - f.head < f.body) return;
      Answer(c, f, f.result == Framing::kTooLarge ? 431 : 0);
      if (c.phase == Phase::kBody) {
        if (c.pending() && !Flush(c)) Close(c);
        return;
      }
    }
    if (c.phase == Phase::kStream) {
      if (!Flush(c)) Close(c);
      return;
    }
    if (c.phase != Phase::kWrite) return;
    if (!Flush(c)) return Close(c);
    if (c.pending()) return;  // the rest when the socket takes it
    Finished(c);
    if (c.phase != Phase::kRequest || !c.started) return;
  }
}

// cpp-httplib processes the request at the front of c.in, writing its answer
// to c.out; or, let through while its body is still to come, leaves it there
// for when the body is in (phase kBody).
void GuardedServer::Answer(Conn& c, const Framing& framing, int fault) {
  Exchange ex{c, framing};
  ex.fault = fault;
  ex.body_ready =
      framing.result == Framing::kComplete && c.in.size() - framing.head >= framing.body;
  ex.continued = c.continued;
  Buffered stream(ex);
  bool closed = false;
  current_ = &ex;
  process_request(stream, c.served + 1 >= kMaxRequests, closed, [&ex](httplib::Request& req) {
    req.ranges.clear();
    req.headers.erase("Accept-Encoding");
    if (ex.body_ready || ex.continued) req.headers.erase("Expect");
  });
  current_ = nullptr;
  if (ex.suspended) {
    c.phase = Phase::kBody;
    c.continued = ex.continued;
    return;
  }
  ++c.served;
  c.continued = false;
  c.in.erase(0, framing.result == Framing::kComplete ? framing.head + framing.body : c.in.size());
  c.close_after = ex.close || closed;
  c.deadline = now_ + kStall;
  if (!ex.stream) {
    c.phase = Phase::kWrite;
    return;
  }
  c.phase = Phase::kStream;
  c.since = now_;
  c.in.clear();
  ++streams_;
  ::setsockopt(c.fd, SOL_SOCKET, SO_SNDBUF, &kStreamSendBuffer, sizeof kStreamSendBuffer);
}

// Why the request cpp-httplib has just parsed is refused, if it is.
Verdict GuardedServer::Screen(const httplib::Request& req) const {
  const Exchange& ex = *current_;
  if (ex.fault) return {ex.fault, FaultText(ex.fault)};
  // cpp-httplib reads the head a byte at a time, and only the head is
  // readable so far: it must have ended the head where the framing did.
  if (ex.read != ex.framing.head) return {400, "malformed request\n"};
  return Check(req, ex.framing, policy_);
}

}  // namespace tarn_web
