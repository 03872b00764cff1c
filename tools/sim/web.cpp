#include "web.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>

#include "web_assets.h"

namespace tarn_sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// One thread waiting in poll() on every connection, rather than a pool of
// threads that each own a connection while it lasts: with a pool, every
// connection held open, written slowly or never read takes a thread, a few
// of them silence the view, and a bigger pool only raises the number. Here
// a connection costs a descriptor and at most kMaxHead + kMaxBody bytes
// until its deadline, every answer is at hand (the page compiled in, the
// state encoded once per snapshot and shared by all readers), and no client
// can make the thread wait for it.
constexpr std::size_t kMaxHead = 8192;  // request line and headers
constexpr std::size_t kMaxBody = 4096;  // a control's body, which is not used
constexpr auto kFirstRequestWait = seconds(2);
constexpr auto kNextRequestWait = seconds(5);  // an idle kept-alive connection
constexpr auto kRequestTime = seconds(2);      // from a request's first byte to its last
constexpr auto kStall = seconds(2);            // pending output that does not move
// After a refusal that leaves input unread, the connection is half-closed and
// drained for a moment before it is closed: closing with unread input resets
// it, and the client could lose the answer.
constexpr auto kLinger = seconds(1);
constexpr std::size_t kLingerBytes = 256 * 1024;
// Beyond this, a newcomer takes the place of the connection that has waited
// longest for a request, so a well-behaved client always gets in.
constexpr std::size_t kMaxConnections = 512;
constexpr int kMaxAcceptsPerWake = 64;
constexpr auto kAcceptPause = milliseconds(100);  // out of descriptors
constexpr int kMaxSubscribers = 8;
// An idle event stream gets a comment line this often, so proxies keep it.
constexpr auto kStreamKeepAlive = seconds(15);
// A subscriber's own send buffer, small: a subscriber that stops reading is
// seen as stalled, and closed, only once this buffer and its own receive
// window are full, which the robot's events at rest (some 30 KB a second)
// take about five seconds to do.
constexpr int kStreamSendBuffer = 16 * 1024;
// Queued controls beyond this are refused: a page cannot click faster.
constexpr std::size_t kMaxControls = 64;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string Trim(const std::string& s) {
  const std::size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

bool IsToken(const std::string& s) {
  if (s.empty()) return false;
  for (unsigned char c : s)
    if (c <= ' ' || c >= 0x7f || std::strchr("\"(),/:;<=>?@[\\]{}", c)) return false;
  return true;
}

// Compares without stopping at the first difference, so the time a wrong
// token takes tells nothing about the right one.
bool SameSecret(const std::string& a, const std::string& b) {
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < a.size(); ++i)
    diff |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
  return diff == 0;
}

std::string QueryValue(const std::string& query, const std::string& key) {
  std::size_t at = 0;
  while (at <= query.size()) {
    const std::size_t end = std::min(query.find('&', at), query.size());
    const std::string item = query.substr(at, end - at);
    if (item.compare(0, key.size() + 1, key + "=") == 0) return item.substr(key.size() + 1);
    at = end + 1;
  }
  return "";
}

struct Request {
  std::string method;
  std::string path;
  std::string query;
  bool http10 = false;
  std::vector<std::pair<std::string, std::string>> headers;  // names in lower case

  int Count(const char* name) const {
    return static_cast<int>(std::count_if(headers.begin(), headers.end(),
                                          [&](const auto& h) { return h.first == name; }));
  }
  const std::string* Find(const char* name) const {
    for (const auto& h : headers)
      if (h.first == name) return &h.second;
    return nullptr;
  }
};

// The request line and headers, `head` ending before the blank line.
bool ParseHead(const std::string& head, Request& r) {
  std::size_t eol = head.find("\r\n");
  const std::string line = head.substr(0, eol);
  const std::size_t s1 = line.find(' ');
  const std::size_t s2 = s1 == std::string::npos ? s1 : line.find(' ', s1 + 1);
  if (s2 == std::string::npos || line.find(' ', s2 + 1) != std::string::npos) return false;
  r.method = line.substr(0, s1);
  const std::string target = line.substr(s1 + 1, s2 - s1 - 1);
  const std::string version = line.substr(s2 + 1);
  if (!IsToken(r.method) || target.empty() || target[0] != '/') return false;
  for (unsigned char c : target)
    if (c <= ' ' || c >= 0x7f) return false;
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return false;
  r.http10 = version == "HTTP/1.0";
  const std::size_t q = target.find('?');
  r.path = target.substr(0, q);
  if (q != std::string::npos) r.query = target.substr(q + 1);
  while (eol != std::string::npos) {
    const std::size_t start = eol + 2;
    eol = head.find("\r\n", start);
    const std::string h = head.substr(start, eol == std::string::npos ? eol : eol - start);
    const std::size_t colon = h.find(':');
    // A line folded onto the one before, a name with blanks in it, or a
    // control byte in a value is how requests are smuggled past a parser
    // that reads them otherwise; none of them has a place here.
    if (colon == std::string::npos || !IsToken(h.substr(0, colon))) return false;
    const std::string value = Trim(h.substr(colon + 1));
    for (unsigned char c : value)
      if ((c < ' ' && c != '\t') || c == 0x7f) return false;
    r.headers.emplace_back(Lower(h.substr(0, colon)), value);
  }
  return true;
}

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 202:
      return "Accepted";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 421:
      return "Misdirected Request";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
  }
  return "Error";
}

}  // namespace

bool ParseControl(const std::string& path, const std::string& code, Control& out) {
  if (path == "/control/pause") {
    out = Control{Control::kPause, 0};
  } else if (path == "/control/resume") {
    out = Control{Control::kResume, 0};
  } else if (path == "/control/drop") {
    out = Control{Control::kDrop, 0};
  } else if (path == "/control/error") {
    char* end = nullptr;
    const long n = std::strtol(code.c_str(), &end, 10);
    if (code.empty() || *end != '\0' || n < 1 || n > 99) return false;
    out = Control{Control::kInject, static_cast<int>(n)};
  } else {
    return false;
  }
  return true;
}

bool IsLoopback(const std::string& address) {
  in_addr a{};
  return inet_pton(AF_INET, address.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

struct WebServer::Loop {
  enum class Phase {
    kRequest,  // waiting for (the rest of) a request head
    kBody,     // a control's head accepted, its body arriving
    kWrite,    // an answer going out
    kStream,   // an event stream
    kLinger,   // answered and half-closed, input drained until the peer closes
  };
  struct Conn {
    int fd = -1;
    Phase phase = Phase::kRequest;
    bool started = false;      // a byte of the current request has arrived
    bool close_after = false;  // close once the answer is out
    std::string in;
    std::size_t body_length = 0;
    std::string path, query;                  // of the control whose body arrives
    std::string out;                          // answer head, and small bodies
    std::shared_ptr<const std::string> body;  // a large body shared with other answers
    std::size_t sent = 0;                     // of out + body
    std::size_t drained = 0;                  // bytes discarded while lingering
    Clock::time_point since;                  // when it last began to wait for a request
    Clock::time_point deadline;
    unsigned long seq = 0;  // of the last event streamed
    std::size_t pending() const { return out.size() + (body ? body->size() : 0) - sent; }
  };

  WebServer& owner;
  int listen_fd = -1;
  int port = 0;
  std::set<std::string> names;  // lower case, without the port
  std::vector<std::unique_ptr<Conn>> conns;
  Clock::time_point accept_from;  // accepting paused until then
  Clock::time_point now;
  std::shared_ptr<const Snapshot> snap;
  std::shared_ptr<const std::string> json, event;  // of snap, made when first needed

  explicit Loop(WebServer& o) : owner(o) {}
  ~Loop() {
    for (auto& c : conns)
      if (c->fd >= 0) ::close(c->fd);
    if (listen_fd >= 0) ::close(listen_fd);
  }

  const std::shared_ptr<const std::string>& Json() {
    if (!json) json = std::make_shared<const std::string>(snap ? ToJson(*snap) : "{}");
    return json;
  }

  void Run();
  bool TakeSnapshot();  // the newest snapshot; false once the server stops
  void Accept();
  void Evict();
  void Close(Conn& c);
  short Events(const Conn& c) const;
  void Service(Conn& c, short revents);
  void Expire(Conn& c);
  bool Flush(Conn& c);
  void Finished(Conn& c);
  void Serve(Conn& c);
  void Decide(Conn& c, const Request& r);
  bool HostAllowed(const std::string& host) const;
  const char* ControlRefusal(const Request& r) const;
  void QueueControl(Conn& c);
  void Feed(Conn& c);
  void Respond(Conn& c, int status, const std::string& text, bool close = false);
  void Respond(Conn& c, int status, const char* type, std::shared_ptr<const std::string> body,
               const std::string& extra = "", bool close = false);
};

bool WebServer::Loop::TakeSnapshot() {
  std::lock_guard<std::mutex> lock(owner.mutex_);
  if (owner.stopping_) return false;
  if (owner.snapshot_ != snap) {
    snap = owner.snapshot_;
    json.reset();
    event.reset();
  }
  return true;
}

void WebServer::Loop::Run() {
  std::vector<pollfd> fds;
  while (true) {
    now = Clock::now();
    auto wake = Clock::time_point::max();
    fds.clear();
    fds.push_back({owner.wake_fd_, POLLIN, 0});
    fds.push_back({now >= accept_from ? listen_fd : -1, POLLIN, 0});
    if (now < accept_from) wake = accept_from;
    for (const auto& c : conns) {
      fds.push_back({c->fd, Events(*c), 0});
      wake = std::min(wake, c->deadline);
    }
    int timeout = -1;
    if (wake != Clock::time_point::max())
      timeout = static_cast<int>(
          std::max<std::int64_t>(0, std::chrono::ceil<milliseconds>(wake - now).count()));
    if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) return;
    now = Clock::now();
    if (fds[0].revents & POLLIN) {
      std::uint64_t count;
      if (::read(owner.wake_fd_, &count, sizeof count) < 0) {
        // Already drained: the wake-up it announced is this one.
      }
      if (!TakeSnapshot()) return;
    }
    // Connections accepted below are not in fds; they are served next time.
    const std::size_t polled = conns.size();
    for (std::size_t i = 0; i < polled; ++i) {
      Conn& c = *conns[i];
      if (c.fd >= 0 && fds[i + 2].revents) Service(c, fds[i + 2].revents);
      if (c.fd >= 0 && now >= c.deadline) Expire(c);
      if (c.fd >= 0 && c.phase == Phase::kStream) Feed(c);
    }
    conns.erase(std::remove_if(conns.begin(), conns.end(), [](const auto& c) { return c->fd < 0; }),
                conns.end());
    if (fds[1].revents & POLLIN) Accept();
  }
}

void WebServer::Loop::Accept() {
  for (int i = 0; i < kMaxAcceptsPerWake; ++i) {
    const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE) {
        // The queue stays readable while nothing can be accepted: make room,
        // or wait a moment, rather than wake for it again at once.
        if (conns.empty()) accept_from = now + kAcceptPause;
        Evict();
      }
      return;
    }
    if (conns.size() >= kMaxConnections) Evict();
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->since = now;
    c->deadline = now + kFirstRequestWait;
    conns.push_back(std::move(c));
  }
}

// Closes the connection that has waited longest for a request, an event
// stream only when there is nothing else.
void WebServer::Loop::Evict() {
  const auto rank = [](const Conn& c) {
    return std::make_pair(c.phase == Phase::kStream, c.since);
  };
  Conn* oldest = nullptr;
  for (const auto& c : conns)
    if (c->fd >= 0 && (!oldest || rank(*c) < rank(*oldest))) oldest = c.get();
  if (oldest) Close(*oldest);
}

void WebServer::Loop::Close(Conn& c) {
  if (c.fd < 0) return;
  if (c.phase == Phase::kStream) --owner.subscribers_;
  // Output that may still be waiting for its reader is dropped with a reset,
  // rather than left to the kernel to retry for minutes after the close.
  if (c.phase == Phase::kStream || c.pending()) {
    const linger abort{1, 0};
    ::setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  ::close(c.fd);
  c.fd = -1;
  c.in.clear();
  c.out.clear();
  c.body.reset();
}

short WebServer::Loop::Events(const Conn& c) const {
  switch (c.phase) {
    case Phase::kWrite:
      return POLLOUT;
    case Phase::kStream:
      return static_cast<short>(POLLIN | (c.pending() ? POLLOUT : 0));
    default:
      return POLLIN;
  }
}

void WebServer::Loop::Service(Conn& c, short revents) {
  // A peer that has hung up entirely cannot read an answer either.
  if ((revents & (POLLERR | POLLNVAL)) || ((revents & POLLHUP) && c.phase == Phase::kWrite))
    return Close(c);
  if ((revents & POLLOUT) && (c.phase == Phase::kWrite || c.phase == Phase::kStream)) {
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
  // (a head without its end is refused at kMaxHead, a body is taken as soon
  // as it is complete), so there is always room here.
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
    c.deadline = now + kRequestTime;
  }
  c.in.append(chunk, static_cast<std::size_t>(n));
  Serve(c);
}

void WebServer::Loop::Expire(Conn& c) {
  if (c.phase == Phase::kStream && !c.pending()) {
    static const auto comment = std::make_shared<const std::string>(": idle\n\n");
    c.body = comment;
    c.deadline = now + kStall;
    if (!Flush(c)) Close(c);
    return;
  }
  // A request cut short is told why, if the socket takes it at once.
  if ((c.phase == Phase::kRequest && c.started) || c.phase == Phase::kBody) {
    static const char kLate[] =
        "HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    if (::send(c.fd, kLate, sizeof kLate - 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
      // The client is not reading either; it learns from the close.
    }
  }
  Close(c);
}

bool WebServer::Loop::Flush(Conn& c) {
  while (c.pending()) {
    iovec parts[2];
    int count = 0;
    if (c.sent < c.out.size())
      parts[count++] = {const_cast<char*>(c.out.data()) + c.sent, c.out.size() - c.sent};
    if (c.body) {
      const std::size_t done = c.sent > c.out.size() ? c.sent - c.out.size() : 0;
      parts[count++] = {const_cast<char*>(c.body->data()) + done, c.body->size() - done};
    }
    msghdr m{};
    m.msg_iov = parts;
    m.msg_iovlen = static_cast<std::size_t>(count);
    const ssize_t n = ::sendmsg(c.fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    c.sent += static_cast<std::size_t>(n);
    c.deadline = now + kStall;
  }
  c.out.clear();
  c.body.reset();
  c.sent = 0;
  if (c.phase == Phase::kStream) c.deadline = now + kStreamKeepAlive;
  return true;
}

// The answer is out: the connection closes, or waits for the next request,
// which may already be buffered behind this one (the caller serves it).
void WebServer::Loop::Finished(Conn& c) {
  if (c.close_after) {
    ::shutdown(c.fd, SHUT_WR);
    c.phase = Phase::kLinger;
    c.in.clear();
    c.deadline = now + kLinger;
    return;
  }
  c.phase = Phase::kRequest;
  c.started = !c.in.empty();
  c.since = now;
  c.deadline = now + (c.started ? kRequestTime : kNextRequestWait);
}

// Answers the requests buffered on `c`, until one needs more input or its
// answer more room in the socket. Bounded by the input held, which is at most
// a head and a body.
void WebServer::Loop::Serve(Conn& c) {
  while (c.fd >= 0) {
    if (c.phase == Phase::kRequest) {
      const std::size_t end = c.in.find("\r\n\r\n");
      if (end == std::string::npos || end + 4 > kMaxHead) {
        if (c.in.size() >= kMaxHead) Respond(c, 431, "request head too large\n", true);
        if (c.phase == Phase::kRequest) return;
      } else {
        Request r;
        const bool ok = ParseHead(c.in.substr(0, end), r);
        c.in.erase(0, end + 4);
        if (ok)
          Decide(c, r);
        else
          Respond(c, 400, "malformed request\n", true);
      }
    }
    if (c.phase == Phase::kBody) {
      if (c.in.size() < c.body_length) return;
      c.in.erase(0, c.body_length);
      QueueControl(c);
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

void WebServer::Loop::Decide(Conn& c, const Request& r) {
  c.close_after = r.http10;
  if (const std::string* connection = r.Find("connection"))
    if (Lower(*connection).find("close") != std::string::npos) c.close_after = true;
  const std::string* host = r.Find("host");
  if (r.Count("host") != 1) return Respond(c, 400, "one Host header expected\n", true);
  if (!HostAllowed(*host)) return Respond(c, 421, "not served under this host name\n", true);
  if (r.Find("transfer-encoding"))
    return Respond(c, 501, "no Transfer-Encoding is accepted; send Content-Length\n", true);
  std::size_t length = 0;
  if (const std::string* text = r.Find("content-length")) {
    if (r.Count("content-length") != 1 || text->empty() || text->size() > 12 ||
        text->find_first_not_of("0123456789") != std::string::npos)
      return Respond(c, 400, "bad Content-Length\n", true);
    length = std::strtoull(text->c_str(), nullptr, 10);
  }
  const bool control = r.method == "POST" && r.path.compare(0, 9, "/control/") == 0;
  // Decided from the announced length, before a byte of the body is read.
  if (length > (control ? kMaxBody : 0))
    return Respond(
        c, 413, control ? "a control's body is limited to 4 KiB\n" : "this request takes no body\n",
        true);
  if (control) {
    if (const char* why = ControlRefusal(r)) return Respond(c, 403, why, true);
    c.path = r.path;
    c.query = r.query;
    c.body_length = length;
    c.phase = Phase::kBody;
    return;
  }
  if (r.method != "GET") {
    return Respond(c, 405, "text/plain; charset=utf-8",
                   std::make_shared<const std::string>("only GET, and POST for controls\n"),
                   "Allow: GET, POST\r\n", true);
  }
  if (r.path == "/state") {
    TakeSnapshot();
    return Respond(c, 200, "application/json", Json());
  }
  if (r.path == "/events") {
    if (owner.subscribers_ >= kMaxSubscribers)
      return Respond(c, 503, "too many live views open\n", true);
    ++owner.subscribers_;
    TakeSnapshot();  // the newest, which no wake-up announced while nobody subscribed
    ::setsockopt(c.fd, SOL_SOCKET, SO_SNDBUF, &kStreamSendBuffer, sizeof kStreamSendBuffer);
    // Delimited by the connection's end: nothing follows on it.
    c.out =
        "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
        "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n";
    c.sent = 0;
    c.phase = Phase::kStream;
    c.since = now;
    c.deadline = now + kStall;
    c.in.clear();
    return;
  }
  const WebAsset* a = FindAsset(r.path == "/" ? "/index.html" : r.path);
  if (!a) return Respond(c, 404, "not found\n", c.close_after);
  // The page may not be framed by another site, which could otherwise lay
  // it under its own buttons and have the user click the controls.
  Respond(c, 200, a->content_type, std::make_shared<const std::string>(a->data, a->size),
          "Content-Security-Policy: default-src 'self'; frame-ancestors 'none'\r\n"
          "X-Frame-Options: DENY\r\n",
          c.close_after);
}

bool WebServer::Loop::HostAllowed(const std::string& value) const {
  const std::string host = Lower(value);
  std::size_t colon = std::string::npos;
  if (!host.empty() && host[0] == '[') {
    const std::size_t close = host.find(']');
    if (close == std::string::npos) return false;
    if (close + 1 < host.size()) {
      if (host[close + 1] != ':') return false;
      colon = close + 1;
    }
  } else {
    colon = host.find(':');
  }
  if (colon != std::string::npos && host.substr(colon + 1) != std::to_string(port)) return false;
  return names.count(host.substr(0, colon)) > 0;
}

// Why a control is refused, or nullptr. The Host is already known to be one
// of the view's names, so the view's own origin is http:// and that Host.
const char* WebServer::Loop::ControlRefusal(const Request& r) const {
  const std::string own = "http://" + Lower(*r.Find("host"));
  if (const std::string* origin = r.Find("origin")) {
    if (Lower(*origin) != own) return "cross-origin request refused\n";
  } else if (const std::string* referer = r.Find("referer")) {
    const std::string from = Lower(*referer);
    if (from != own && from.compare(0, own.size() + 1, own + "/") != 0)
      return "cross-origin request refused\n";
  }
  const std::string* type = r.Find("content-type");
  if (!type || Lower(Trim(type->substr(0, type->find(';')))) != "application/json")
    return "controls need Content-Type: application/json\n";
  if (!owner.token_.empty()) {
    const std::string* token = r.Find("x-tarn-token");
    if (!token || !SameSecret(*token, owner.token_))
      return "controls need the token printed at start, in X-Tarn-Token\n";
  }
  return nullptr;
}

void WebServer::Loop::QueueControl(Conn& c) {
  Control control{Control::kPause, 0};
  if (!ParseControl(c.path, QueryValue(c.query, "code"), control))
    return Respond(c, 400, "unknown control or bad code\n", c.close_after);
  {
    std::lock_guard<std::mutex> lock(owner.mutex_);
    if (owner.controls_.size() >= kMaxControls)
      return Respond(c, 503, "too many controls queued\n", c.close_after);
    owner.controls_.push_back(control);
  }
  const std::uint64_t one = 1;
  if (::write(owner.control_fd_, &one, sizeof one) < 0) {
    // The counter is saturated only if the loop has stopped reading it.
  }
  Respond(c, 202, "queued\n", c.close_after);
}

// Only the newest snapshot is ever pending for a subscriber: one that falls
// behind skips states instead of queueing them.
void WebServer::Loop::Feed(Conn& c) {
  if (c.pending() || !snap || snap->seq == c.seq) return;
  if (!event) event = std::make_shared<const std::string>(ToEvent(*snap));
  c.seq = snap->seq;
  c.body = event;
  c.deadline = now + kStall;
  if (!Flush(c)) Close(c);
}

void WebServer::Loop::Respond(Conn& c, int status, const std::string& text, bool close) {
  Respond(c, status, "text/plain; charset=utf-8", std::make_shared<const std::string>(text), "",
          close);
}

void WebServer::Loop::Respond(Conn& c, int status, const char* type,
                              std::shared_ptr<const std::string> body, const std::string& extra,
                              bool close) {
  c.close_after = c.close_after || close;
  c.out = "HTTP/1.1 " + std::to_string(status) + ' ' + Reason(status) +
          "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body->size()) +
          "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n" + extra +
          (c.close_after ? "Connection: close\r\n" : "") + "\r\n";
  c.body = std::move(body);
  c.sent = 0;
  c.phase = Phase::kWrite;
  c.deadline = now + kStall;
}

WebServer::WebServer() {
  control_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

WebServer::~WebServer() {
  Stop();
  if (control_fd_ >= 0) ::close(control_fd_);
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

// The loop never waits for the lock: the HTTP thread holding it may have
// been preempted (it runs at a lower priority), and the simulation must not
// wait for it to be scheduled again.
bool WebServer::Publish(std::shared_ptr<const Snapshot> snapshot) {
  {
    std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    snapshot_ = std::move(snapshot);
  }
  // Only streams need to hear of it; a reader of /state takes the newest
  // snapshot when it asks.
  const std::uint64_t one = 1;
  if (subscribers_ > 0 && ::write(wake_fd_, &one, sizeof one) < 0) {
    // Saturated: the HTTP thread has a wake-up pending anyway.
  }
  return true;
}

bool WebServer::TakeControls(std::vector<Control>& out) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock) return false;
  std::uint64_t count = 0;
  if (::read(control_fd_, &count, sizeof count) < 0) {
    // Nothing signalled: the queue was emptied by an earlier call.
  }
  out = std::move(controls_);
  controls_.clear();
  return true;
}

bool WebServer::Start(const WebOptions& options, std::string& error) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(options.port));
  if (inet_pton(AF_INET, options.address.c_str(), &addr.sin_addr) != 1) {
    error = "'" + options.address + "' is not an IPv4 address";
    return false;
  }
  auto loop = std::make_unique<Loop>(*this);
  loop->listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(loop->listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (::bind(loop->listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(loop->listen_fd, SOMAXCONN) != 0) {
    error = "port " + std::to_string(options.port) + " is in use or not available";
    return false;
  }
  socklen_t len = sizeof addr;
  ::getsockname(loop->listen_fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = loop->port = ntohs(addr.sin_port);

  loop->names = {"localhost", "127.0.0.1", "[::1]"};
  for (const std::string& name : options.names) loop->names.insert(Lower(name));
  if (addr.sin_addr.s_addr != htonl(INADDR_ANY)) {
    loop->names.insert(options.address);
  } else {
    // Every address of this machine is the view's own.
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) == 0) {
      for (ifaddrs* i = list; i; i = i->ifa_next) {
        char text[INET_ADDRSTRLEN];
        if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET &&
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, text,
                      sizeof text))
          loop->names.insert(text);
      }
      ::freeifaddrs(list);
    }
  }
  if (options.token) {
    unsigned char bytes[16];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
      error = "no random bytes for the controls' token";
      return false;
    }
    for (unsigned char b : bytes) {
      static const char kHex[] = "0123456789abcdef";
      token_ += kHex[b >> 4];
      token_ += kHex[b & 15];
    }
  }
  loop_ = std::move(loop);
  thread_ = std::thread([this] {
    // A lower priority than the simulation's (nice 10 for this thread only):
    // whenever the loop or a control client wants a processor it comes
    // first, so a flood of requests slows the view rather than the robot.
    // Not the idle class: two busy programs on two cores held a /state
    // answer back for seconds there, the view must stay usable on a busy
    // machine too.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
    loop_->Run();
  });
  return true;
}

void WebServer::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  const std::uint64_t one = 1;
  if (::write(wake_fd_, &one, sizeof one) < 0) {
    // Saturated: a wake-up is pending anyway.
  }
  if (thread_.joinable()) thread_.join();
  loop_.reset();
}

}  // namespace tarn_sim
