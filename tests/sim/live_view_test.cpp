// The live view's HTTP side against hostile pages and clients, in-process on
// a free loopback port: who may read and control, and what a request may
// cost.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/peer.h"
#include "web.h"

namespace {

using Clock = std::chrono::steady_clock;

int Open(int port) {
  sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  return fd;
}

void Write(int fd, const std::string& bytes) {
  EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

// Everything the view sends until it closes; empty when it has not closed
// within 5 s of the last byte.
std::string ReadToClose(int fd) {
  std::string got;
  char chunk[65536];
  for (ssize_t n; loopback::wait_readable(fd, 5000);) {
    if ((n = ::recv(fd, chunk, sizeof chunk, 0)) <= 0) return got;
    got.append(chunk, static_cast<std::size_t>(n));
  }
  return "";
}

// The status line and the body of the answer to `request`, sent on a
// connection of its own; the request asks for the connection to be closed.
std::string Ask(int port, const std::string& request) {
  const int fd = Open(port);
  Write(fd, request);
  const std::string answer = ReadToClose(fd);
  ::close(fd);
  const std::size_t body = answer.find("\r\n\r\n");
  if (body == std::string::npos) return "no answer: " + answer;
  return answer.substr(0, answer.find("\r\n")) + " | " + answer.substr(body + 4);
}

std::string Post(const std::string& host, const std::string& path, const std::string& headers) {
  return "POST " + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + headers +
         "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

std::string Get(const std::string& host, const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n";
}

void Publish(tarn_sim::WebServer& web, std::shared_ptr<const tarn_sim::Snapshot> s) {
  while (!web.Publish(s)) poll(nullptr, 0, 1);  // the HTTP thread holds the lock a moment
}

std::vector<tarn_sim::Control> Controls(tarn_sim::WebServer& web) {
  std::vector<tarn_sim::Control> out;
  while (!web.TakeControls(out)) poll(nullptr, 0, 1);
  return out;
}

const std::string kJson = "Content-Type: application/json\r\n";

}  // namespace

TEST(LiveView, ControlsComeOnlyFromItsOwnOriginAndEveryRouteOnlyUnderItsOwnNames) {
  tarn_sim::WebServer web;
  tarn_sim::WebOptions o;
  o.port = 0, o.names = {"Robot.Lan"};
  std::string error;
  ASSERT_TRUE(web.Start(o, error)) << error;
  EXPECT_EQ(web.token(), "");
  const int port = web.port();
  const std::string self = "127.0.0.1:" + std::to_string(port);
  auto snap = std::make_shared<tarn_sim::Snapshot>();
  snap->seq = 3, snap->x = 1.5;
  Publish(web, snap);

  // A page elsewhere: refused, in full, with the reason (cpp-httplib writes
  // the headers in the order of their names).
  const int fd = Open(port);
  Write(fd, Post(self, "/control/pause", "Origin: http://evil.example\r\n" + kJson));
  EXPECT_EQ(ReadToClose(fd),
            "HTTP/1.1 403 Forbidden\r\nCache-Control: no-store\r\nConnection: close\r\n"
            "Content-Length: 29\r\nContent-Type: text/plain; charset=utf-8\r\n"
            "X-Content-Type-Options: nosniff\r\n\r\ncross-origin request refused\n");
  ::close(fd);
  const std::string cross = "HTTP/1.1 403 Forbidden | cross-origin request refused\n";
  const std::string typed =
      "HTTP/1.1 403 Forbidden | controls need Content-Type: application/json\n";
  for (const auto& [headers, refusal] : std::vector<std::pair<std::string, std::string>>{
           {"Origin: null\r\n" + kJson, cross},
           {"Origin: http://" + self + ".evil.example\r\n" + kJson, cross},
           {"Origin: https://" + self + "\r\n" + kJson, cross},
           {"Referer: http://evil.example/" + self + "/\r\n" + kJson, cross},
           {"Referer: http://" + self + ".evil.example/\r\n" + kJson, cross},
           // What a page may send anywhere without asking first.
           {"", typed},
           {"Content-Type: text/plain\r\n", typed},
           {"Content-Type: application/x-www-form-urlencoded\r\n", typed},
           {"Content-Type: multipart/form-data; boundary=x\r\n", typed},
           {"Content-Type: text/plain; application/json\r\n", typed}})
    EXPECT_EQ(Ask(port, Post(self, "/control/error?code=5", headers)), refusal) << headers;
  // A preflight is never granted.
  EXPECT_EQ(Ask(port, "OPTIONS /control/pause HTTP/1.1\r\nHost: " + self +
                          "\r\nOrigin: http://evil.example\r\nAccess-Control-Request-Method: "
                          "POST\r\nConnection: close\r\n\r\n"),
            "HTTP/1.1 405 Method Not Allowed | only GET, HEAD, and POST for controls\n");

  // A name rebound to this address, or another port: no route answers.
  const std::string misdirected =
      "HTTP/1.1 421 Misdirected Request | not served under this host name\n";
  for (const std::string& host :
       std::vector<std::string>{"evil.example", "evil.example:" + std::to_string(port),
                                "127.0.0.1:" + std::to_string(port + 1), "localhost.evil.example",
                                "127.0.0.1:" + std::to_string(port) + "0", "[::1]x"}) {
    for (const char* path : {"/", "/state", "/events", "/view.js"})
      EXPECT_EQ(Ask(port, Get(host, path)), misdirected) << host << path;
    EXPECT_EQ(Ask(port, Post(host, "/control/pause", kJson)), misdirected) << host;
  }
  EXPECT_EQ(Ask(port, "GET /state HTTP/1.1\r\nConnection: close\r\n\r\n"),
            "HTTP/1.1 400 Bad Request | one Host header expected\n");
  EXPECT_TRUE(Controls(web).empty()) << "a refused control was queued";

  // The view's own page, a script without a browser, and its other names.
  const std::string queued = "HTTP/1.1 202 Accepted | queued\n";
  const std::string local = "localhost:" + std::to_string(port);
  EXPECT_EQ(Ask(port, Post(local, "/control/pause", "Origin: http://" + local + "\r\n" + kJson)),
            queued);
  EXPECT_EQ(
      Ask(port,
          Post("[::1]", "/control/error?code=4",
               "Referer: http://[::1]/\r\nContent-Type: Application/JSON; charset=utf-8\r\n")),
      queued);
  EXPECT_EQ(Ask(port, Post("robot.lan:" + std::to_string(port), "/control/drop", kJson)), queued);
  EXPECT_EQ(Ask(port, Post(self, "/control/error?code=100", kJson)),
            "HTTP/1.1 400 Bad Request | unknown control or bad code\n");
  EXPECT_EQ(Ask(port, Get("LOCALHOST", "/state")), "HTTP/1.1 200 OK | " + ToJson(*snap));
  // Whole and as it is, whatever ranges or encodings the client would take.
  EXPECT_EQ(Ask(port,
                "GET /state HTTP/1.1\r\nHost: localhost\r\nRange: bytes=0-1,2-3\r\n"
                "Accept-Encoding: gzip\r\nConnection: close\r\n\r\n"),
            "HTTP/1.1 200 OK | " + ToJson(*snap));
  EXPECT_EQ(Ask(port, "HEAD /state HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"),
            "HTTP/1.1 200 OK | ");
  pollfd ready{web.control_fd(), POLLIN, 0};
  EXPECT_EQ(::poll(&ready, 1, 5000), 1);
  const std::vector<tarn_sim::Control> got = Controls(web);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].kind, tarn_sim::Control::kPause);
  EXPECT_TRUE(got[1].kind == tarn_sim::Control::kInject && got[1].code == 4);
  EXPECT_EQ(got[2].kind, tarn_sim::Control::kDrop);

  // With a token, as beyond loopback: reading stays open, controls need it.
  tarn_sim::WebServer guarded;
  o.token = true;
  ASSERT_TRUE(guarded.Start(o, error)) << error;
  const std::string token = guarded.token();
  EXPECT_EQ(token.size(), 32u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  const int gport = guarded.port();
  const std::string gself = "127.0.0.1:" + std::to_string(gport);
  const std::string untokened =
      "HTTP/1.1 403 Forbidden | controls need the token printed at start, in X-Tarn-Token\n";
  EXPECT_EQ(Ask(gport, Post(gself, "/control/pause", kJson)), untokened);
  std::string wrong = token;
  wrong[31] = wrong[31] == '0' ? '1' : '0';
  EXPECT_EQ(Ask(gport, Post(gself, "/control/pause", kJson + "X-Tarn-Token: " + wrong + "\r\n")),
            untokened);
  EXPECT_EQ(Ask(gport, Post(gself, "/control/pause", kJson + "X-Tarn-Token: " + token + "x\r\n")),
            untokened);
  EXPECT_TRUE(Controls(guarded).empty());
  EXPECT_EQ(Ask(gport, Post(gself, "/control/pause", kJson + "X-Tarn-Token: " + token + "\r\n")),
            queued);
  EXPECT_EQ(Ask(gport, Get(gself, "/state")), "HTTP/1.1 200 OK | {}");
  EXPECT_EQ(Controls(guarded).size(), 1u);
}

TEST(LiveView, RequestsAreBoundedAndStateIsAnsweredWhileSlowIdleAndStalledClientsHoldOn) {
  tarn_sim::WebServer web;
  tarn_sim::WebOptions o;
  o.port = 0;
  std::string error;
  ASSERT_TRUE(web.Start(o, error)) << error;
  const int port = web.port();
  const std::string self = "127.0.0.1:" + std::to_string(port);
  // A snapshot with a long trail: about 100 KB per event.
  auto snap = std::make_shared<tarn_sim::Snapshot>();
  for (int i = 0; i < 4000; ++i) snap->trail.emplace_back(i * 0.001234567, -i * 0.007654321);
  Publish(web, snap);

  // Refused from the announced length alone (no byte of a body is sent), a
  // length that is not one, or a head beyond 8 KiB.
  const std::string post = "POST /control/pause HTTP/1.1\r\nHost: " + self + "\r\n" + kJson;
  const std::string get = "GET /state HTTP/1.1\r\nHost: " + self + "\r\n";
  const std::string large =
      "HTTP/1.1 413 Payload Too Large | a control's body is limited to 4 KiB\n";
  const std::string bodiless = "HTTP/1.1 413 Payload Too Large | this request takes no body\n";
  const std::string bad = "HTTP/1.1 400 Bad Request | bad Content-Length\n";
  for (const auto& [request, answer] : std::vector<std::pair<std::string, std::string>>{
           {post + "Content-Length: 104857600\r\n\r\n", large},
           {post + "Content-Length: 4097\r\n\r\n", large},
           {"POST /state HTTP/1.1\r\nHost: " + self + "\r\nContent-Length: 104857600\r\n\r\n",
            bodiless},
           {get + "Content-Length: 1\r\n\r\n", bodiless},
           {post + "Content-Length: abc\r\n\r\n", bad},
           {post + "Content-Length: -1\r\n\r\n", bad},
           {post + "Content-Length: 0x10\r\n\r\n", bad},
           {post + "Content-Length: 4 0\r\n\r\n", bad},
           {post + "Content-Length:\r\n\r\n", bad},
           {post + "Content-Length: 2\r\nContent-Length: 0\r\n\r\n{}", bad},
           {post + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
            "HTTP/1.1 501 Not Implemented | no Transfer-Encoding is accepted; send "
            "Content-Length\n"},
           {get + "X-Pad: " + std::string(9000, 'a') + "\r\n\r\n",
            "HTTP/1.1 431 Request Header Fields Too Large | request head too large\n"},
           {get + " folded: x\r\n\r\n", "HTTP/1.1 400 Bad Request | malformed request\n"},
           // A head that cpp-httplib would end elsewhere (at a line without
           // its CR) than the framing does.
           {get + "X-A: b\n\r\n\r\n", "HTTP/1.1 400 Bad Request | malformed request\n"},
           // Asking whether to send a body too large: refused, not invited.
           {post + "Expect: 100-continue\r\nContent-Length: 5000\r\n\r\n", large}})
    EXPECT_EQ(Ask(port, request), answer) << request.substr(0, 100);
  EXPECT_TRUE(Controls(web).empty());
  // A body within the limit is invited, and taken.
  const int invited = Open(port);
  Write(invited, post + "Expect: 100-continue\r\nContent-Length: 2\r\nConnection: close\r\n\r\n");
  char interim[26] = {};
  EXPECT_TRUE(loopback::wait_readable(invited, 5000) &&
              ::recv(invited, interim, 25, MSG_WAITALL) == 25);
  EXPECT_STREQ(interim, "HTTP/1.1 100 Continue\r\n\r\n");
  Write(invited, "{}");
  EXPECT_EQ(ReadToClose(invited).substr(0, 22), "HTTP/1.1 202 Accepted\r");
  ::close(invited);
  EXPECT_EQ(Controls(web).size(), 1u);
  // Within the limit, the body is read and the next request on the same
  // connection is answered too.
  const int kept = Open(port);
  Write(kept, post + "Content-Length: 4096\r\n\r\n" + std::string(4096, ' ') +
                  "GET /nothing HTTP/1.1\r\nHost: " + self + "\r\nConnection: close\r\n\r\n");
  const std::string both = ReadToClose(kept);
  ::close(kept);
  EXPECT_EQ(both.substr(0, 22), "HTTP/1.1 202 Accepted\r");
  EXPECT_NE(both.find("\r\n\r\nqueued\nHTTP/1.1 404 Not Found\r\n"), std::string::npos) << both;
  EXPECT_EQ(Controls(web).size(), 1u);

  // 200 requests written a byte at a time, 200 connections that say nothing,
  // and event subscribers that never read, as many as are let in (8).
  std::vector<int> slow, idle, stalled;
  for (int i = 0; i < 200; ++i) {
    slow.push_back(Open(port));
    Write(slow.back(), "GET /state HTTP/1.1\r\nHost: " + self + "\r\nX-Slow: a");
    idle.push_back(Open(port));
  }
  for (int i = 0; i < 8; ++i) {
    stalled.push_back(Open(port));
    Write(stalled.back(), Get(self, "/events"));
  }
  EXPECT_EQ(Ask(port, Get(self, "/events")),
            "HTTP/1.1 503 Service Unavailable | too many live views open\n");
  // The snapshot is encoded once, by its first reader; what follows is what
  // every later reader of /state waits for.
  EXPECT_EQ(Ask(port, Get(self, "/state")), "HTTP/1.1 200 OK | " + ToJson(*snap));
  const auto asked = Clock::now();
  EXPECT_EQ(Ask(port, Get(self, "/state")), "HTTP/1.1 200 OK | " + ToJson(*snap));
  EXPECT_LT(Clock::now() - asked, std::chrono::seconds(1));

  // Each of them is closed by the view, the slow ones although they keep
  // sending, the stalled subscribers once their output stops moving (with a
  // reset: their unread events are dropped).
  auto closed = [](int fd, bool read) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) != 1) return false;
    if (p.revents & (POLLHUP | POLLERR)) return true;
    char sink[4096];
    return read && ::recv(fd, sink, sizeof sink, MSG_DONTWAIT) <= 0;
  };
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  std::size_t open = 1;
  for (unsigned long seq = 1; open > 0 && Clock::now() < deadline; ++seq) {
    auto next = std::make_shared<tarn_sim::Snapshot>(*snap);
    next->seq = seq;
    Publish(web, next);
    open = 0;
    for (int fd : slow) {
      const bool gone = closed(fd, true);
      open += !gone;
      if (!gone) ::send(fd, "a", 1, MSG_NOSIGNAL);
    }
    for (int fd : idle) open += !closed(fd, true);
    for (int fd : stalled) open += !closed(fd, false);
    poll(nullptr, 0, 20);
  }
  EXPECT_EQ(open, 0u) << "connections still open after 30 s";
  for (const auto& group : {slow, idle, stalled})
    for (int fd : group) ::close(fd);
  // Their places are free again.
  const int fresh = Open(port);
  Write(fresh, Get(self, "/events"));
  char head[16] = {};
  EXPECT_TRUE(loopback::wait_readable(fresh, 5000) && ::recv(fresh, head, 15, MSG_WAITALL) == 15);
  EXPECT_STREQ(head, "HTTP/1.1 200 OK");
  ::close(fresh);
}
