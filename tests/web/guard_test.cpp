// The guarded server's decisions from plain values: where a request ends,
// and which requests are refused, for a server with controls and for one
// without. Over sockets, the live view's tests cover the same server.

#include "guard.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tarn_web::Framing;

std::string Frame(const std::string& in) {
  const Framing f = tarn_web::Frame(in);
  return std::to_string(f.result) + " " + std::to_string(f.head) + " " + std::to_string(f.body) +
         (f.bad_length ? " bad length" : "") + (f.transfer_encoding ? " transfer-encoding" : "");
}

struct Case {
  std::string method, path;
  httplib::Headers headers;
  std::string verdict;
  std::size_t body = 0;
};

std::string Check(const Case& c, const tarn_web::Policy& policy) {
  httplib::Request r;
  r.method = c.method, r.path = c.path, r.version = "HTTP/1.1", r.headers = c.headers;
  Framing f;
  f.result = Framing::kComplete, f.body = c.body;
  const tarn_web::Verdict v = tarn_web::Check(r, f, policy);
  return std::to_string(v.status) + " " + v.text;
}

}  // namespace

TEST(Guard, FramingFindsTheHeadAndTheAnnouncedBodyAndFlagsWhatItWillNotRead) {
  const std::string post = "POST /c HTTP/1.1\r\n";  // 18 bytes
  EXPECT_EQ(Frame("GET / HTTP/1.1\r\nHost: a\r\n"), "0 0 0");
  EXPECT_EQ(Frame("GET / HTTP/1.1\r\n\r\nGET"), "1 18 0");
  EXPECT_EQ(Frame(post + "content-LENGTH:\t 12 \r\n\r\n{}"), "1 42 12");
  // Only where the name begins the line: cpp-httplib reads a folded line
  // as a header named " Content-Length", which is then refused.
  EXPECT_EQ(Frame(post + " Content-Length: 12\r\n\r\n"), "1 41 0");
  for (const char* length : {"", "+1", "0x10", "1 2", "1234567890123"})
    EXPECT_EQ(Frame(post + "Content-Length: " + length + "\r\n\r\n"),
              "1 " + std::to_string(38 + std::string(length).size()) + " 0 bad length")
        << length;
  EXPECT_EQ(Frame(post + "Content-Length: 2\r\ncontent-length: 2\r\n\r\n"), "1 58 0 bad length");
  EXPECT_EQ(Frame(post + "Transfer-Encoding: chunked\r\n\r\n"), "1 48 0 transfer-encoding");
  EXPECT_EQ(Frame(std::string(tarn_web::kMaxHead - 1, 'a')), "0 0 0");
  EXPECT_EQ(Frame(std::string(tarn_web::kMaxHead, 'a')), "2 0 0");
  EXPECT_EQ(Frame(post + std::string(tarn_web::kMaxHead - 21, 'a') + "\r\n\r\n"), "2 0 0");
}

TEST(Guard, RequestsAreRefusedByNameOriginTypeTokenSizeAndMethod) {
  tarn_web::Policy view;
  view.names = {"localhost", "127.0.0.1", "[::1]", "robot.lan"};
  view.port = 6869, view.controls = "/control/", view.token = "t0k";
  const httplib::Headers own = {{"Host", "127.0.0.1:6869"}};
  const httplib::Headers control = {{"Host", "Robot.LAN"},
                                    {"Origin", "http://robot.lan"},
                                    {"Content-Type", "application/json; charset=utf-8"},
                                    {"X-Tarn-Token", "t0k"}};
  auto with = [](httplib::Headers h, const std::string& name, const std::string& value) {
    h.erase(name);
    if (!value.empty()) h.emplace(name, value);
    return h;
  };
  const std::string misdirected = "421 not served under this host name\n";
  const std::string cross = "403 cross-origin request refused\n";
  for (const Case& c : std::vector<Case>{
           {"GET", "/", own, "0 "},
           {"HEAD", "/state", {{"Host", "LOCALHOST"}}, "0 "},
           {"GET", "/", {{"Host", "[::1]:6869"}}, "0 "},
           {"GET", "/", {{"Host", "[::1]x"}}, misdirected},
           {"GET", "/", {{"Host", "127.0.0.1:6870"}}, misdirected},
           {"GET", "/", {{"Host", "127.0.0.1:"}}, misdirected},
           {"GET", "/", {{"Host", "robot.lan.evil.example"}}, misdirected},
           {"GET", "/", {}, "400 one Host header expected\n"},
           {"GET",
            "/",
            {{"Host", "localhost"}, {"host", "localhost"}},
            "400 one Host header expected\n"},
           {"GET", "/", with(own, " folded", "x"), "400 malformed request\n"},
           {"GET", "/", with(own, "X-A", "a\rb"), "400 malformed request\n"},
           {"GET", "/", own, "413 this request takes no body\n", 1},
           {"POST", "/control/pause", control, "0 ", 4096},
           {"POST", "/control/pause", control, "413 a control's body is limited to 4 KiB\n", 4097},
           {"POST", "/control/pause", with(control, "Origin", ""), "0 "},
           {"POST", "/control/pause", with(control, "Origin", "http://robot.lan:6869"), cross},
           {"POST", "/control/pause", with(control, "Origin", "null"), cross},
           {"POST", "/control/pause",
            with(with(control, "Origin", ""), "Referer", "http://robot.lan/x"), "0 "},
           {"POST", "/control/pause",
            with(with(control, "Origin", ""), "Referer", "http://robot.lan.evil.example/"), cross},
           {"POST", "/control/pause", with(control, "Content-Type", "text/plain; application/json"),
            "403 controls need Content-Type: application/json\n"},
           {"POST", "/control/pause", with(control, "X-Tarn-Token", "t0K"),
            "403 controls need the token printed at start, in X-Tarn-Token\n"},
           {"POST", "/state", control, "405 only GET, HEAD, and POST for controls\n"},
           {"PUT", "/control/pause", control, "405 only GET, HEAD, and POST for controls\n"}})
    EXPECT_EQ(Check(c, view), c.verdict) << c.method << " " << c.path << " " << c.body;

  // Without controls, nothing but reading is let through.
  tarn_web::Policy map = view;
  map.controls.clear(), map.token.clear();
  EXPECT_EQ(Check({"POST", "/control/pause", control, ""}, map), "405 only GET and HEAD\n");
  EXPECT_EQ(Check({"POST", "/", own, ""}, map), "405 only GET and HEAD\n");
  EXPECT_EQ(Check({"POST", "/", own, "", 1}, map), "413 this request takes no body\n");

  httplib::Request r;
  r.version = "HTTP/1.0";
  EXPECT_TRUE(tarn_web::WantsClose(r));
  r.headers = {{"Connection", "Keep-Alive"}};
  EXPECT_FALSE(tarn_web::WantsClose(r));
  r.version = "HTTP/1.1", r.headers = {{"Connection", "Close"}};
  EXPECT_TRUE(tarn_web::WantsClose(r));
}
