// tarn-sim's loop over real sockets (in-process), and its live view's encoding.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "msg/frame.h"
#include "server.h"
#include "web.h"

namespace {

std::atomic<int> g_port{0};
volatile std::sig_atomic_t g_stop = 0;

// tarn-sim on a free port without live view, reporting on events only, for
// the test's scope.
struct Sim {
  Sim() {
    g_port = 0, g_stop = 0;
    tarn_sim::ServerOptions o;
    o.port = 0, o.rate_hz = 0, o.quiet = true, o.idle_timeout = 0.5, o.web = false;
    thread = std::thread([o] { tarn_sim::RunServer(o, g_stop, [](int p) { g_port = p; }); });
    while (g_port == 0) std::this_thread::yield();
  }
  ~Sim() {
    g_stop = 1;
    thread.join();
  }
  std::thread thread;
};

int Connect() {
  sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(g_port.load())), {htonl(INADDR_LOOPBACK)}, {}};
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  return ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? fd : -1;
}

std::string Request(RTS_key key, const char* speed = "N") {
  Message_RTS m;
  m.sender_id = "T-0", m.key = key, m.int_param = 400, m.text_param1 = speed;
  return make_frame(m.str());
}

// The key of the next message on fd: KEY_NONE when it closes, -1 after 20 s.
RTS_key Next(int fd, std::string& buffer) {
  MailBox box;
  while (file_frame(buffer, box, 1) == 0) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 20000) != 1) return static_cast<RTS_key>(-1);
    char chunk[4096];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return KEY_NONE;
    buffer.append(chunk, static_cast<std::size_t>(n));
  }
  return box.inbox.begin()->second.front().key;
}

}  // namespace

TEST(SimServer, SilentClientMakesWayAndPipelinedFramesAreAllServed) {
  Sim sim;
  std::string a_in, b_in;
  const int a = Connect();
  const std::string hello = Request(KEY_CONNECT);
  ::send(a, hello.data(), hello.size(), 0);
  pollfd silence{a, POLLIN, 0};
  EXPECT_EQ(::poll(&silence, 1, 700), 0);
  // a has been silent for longer than the idle timeout: it gives way to b.
  const int b = Connect();
  EXPECT_EQ(Next(a, a_in), KEY_NONE);
  ::send(b, hello.data(), hello.size(), 0);
  // b: over 2 MB of valid frames sent without reading, then a question.
  std::string flood;
  while (flood.size() < 3000000) flood += Request(KEY_SET_PARAM, "Speed");
  flood += Request(KEY_GET_DETAIL);
  std::thread writer([&] { ::send(b, flood.data(), flood.size(), 0); });
  EXPECT_EQ(Next(b, b_in), KEY_DETAIL);
  writer.join();
  ::close(a), ::close(b);
}

TEST(SimView, SnapshotEncodingAndControls) {
  tarn_sim::Snapshot s;
  s.seq = 7, s.state = 3, s.x = 1.5, s.client = "a\"b";
  s.route = {{"0", 1, 2, true}};
  s.messages = {{0.5, true, "T-0 -> SV-0 KEY_INIT\n"}};
  const std::string json =
      R"({"accel_limit":0.0,"acceleration":0.0,"client":"a\"b",)"
      R"("heading":0.0,"messages":[{"dir":"in","t":0.5,"text":"T-0 -> SV-0 KEY_INIT\n"}],)"
      R"("online":false,"paused":false,"route":[{"code":"0","passed":true,"x":1.0,"y":2.0}],)"
      R"("seq":7,"speed_limit":0.0,"state":3,"state_text":"busy","target":-1,"time":0.0,)"
      R"("trail":[],"velocity":0.0,"voltage":0.0,"voltage_history":[],"x":1.5,"y":0.0})";
  EXPECT_EQ(tarn_sim::ToJson(s), json);
  EXPECT_EQ(tarn_sim::ToEvent(s), "event: state\nid: 7\ndata: " + json + "\n\n");
  EXPECT_EQ(tarn_sim::StateName(5) + "|" + tarn_sim::StateName(9), "bad parameter|error 9");
  tarn_sim::Control c{};
  EXPECT_TRUE(tarn_sim::ParseControl("/control/error", "4", c) && c.code == 4);

  for (const char* bad : {"0", "100", "4x", ""})
    EXPECT_FALSE(tarn_sim::ParseControl("/control/error", bad, c));
  EXPECT_FALSE(tarn_sim::ParseControl("/control/reboot", "", c));
}
