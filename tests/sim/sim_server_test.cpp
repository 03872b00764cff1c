// tarn-sim's loop over real sockets (in-process), and its live view's encoding.

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "server.h"
#include "support/peer.h"
#include "support/wire.h"
#include "web.h"

namespace {

std::atomic<int> g_port{0};
volatile std::sig_atomic_t g_stop = 0;

// A client of the simulator that has said hello (KEY_CONNECT).
int Join() {
  sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(g_port.load())), {htonl(INADDR_LOOPBACK)}, {}};
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const std::string hello = wire::frame(wire::body("T-0", "SV-0", KEY_CONNECT));
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  EXPECT_GT(::send(fd, hello.data(), hello.size(), 0), 0);
  return fd;
}

// Reads from `fd` into `got` until `needle` appears in it; false after 20 s
// without it, or when the peer closes.
bool Await(int fd, std::string& got, const std::string& needle) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  char chunk[4096];
  while (got.find(needle) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !loopback::wait_readable(fd, static_cast<int>(left.count())))
      return false;
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    got.append(chunk, static_cast<std::size_t>(n));
  }
  return true;
}

void Send(int fd, const std::string& body) {
  const std::string frame = wire::frame(body);
  EXPECT_EQ(::send(fd, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
}

}  // namespace

TEST(SimServer, HeldErrorWhileDrivingSleepsBetweenStepsAndAConnectionStormIsQueued) {
  std::atomic<unsigned long> wakeups{0};
  g_port = 0, g_stop = 0;
  tarn_sim::ServerOptions o;
  o.port = 0, o.rate_hz = 0, o.quiet = true, o.web = false, o.wakeups = &wakeups;
  std::thread sim([o] { tarn_sim::RunServer(o, g_stop, [](int p) { g_port = p; }); });
  while (g_port == 0) std::this_thread::yield();

  // A 3 m drive at 2 m/s and 2 m/s^2 (2.5 s), refused a second action at
  // once: error 3 is held past its 1 s hold until the robot stops.
  const int a = Join();
  Send(a, wire::body("T-0", "SV-0", KEY_INIT, "0", "0", "0"));
  Send(a, wire::body("T-0", "SV-0", KEY_SET_PARAM, "Speed", "N", "N", 2000));
  Send(a, wire::body("T-0", "SV-0", KEY_SET_PARAM, "Acceleration", "N", "N", 2000));
  const std::string travel = wire::body("T-0", "SV-0", KEY_ACTION, "N", "N", "N", 1, 1,
                                        wire::Bytes()
                                            .i32(1)  // type: travel
                                            .i32(1)  // one way-point: code 0 at (3, 0), flag 1
                                            .i32(0)
                                            .f32(3)
                                            .f32(0)
                                            .f32(0)
                                            .i32(1)
                                            .i32(0)
                                            .i32(0)  // no arc way-points
                                            .text("0")
                                            .f32(3)
                                            .f32(0)
                                            .i32(0)
                                            .text("f")
                                            .s);
  Send(a, travel);
  Send(a, travel);
  std::string got;
  ASSERT_TRUE(Await(a, got, " 3 0.0000 ")) << "no refusal reported";
  const unsigned long before = wakeups;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(Await(a, got, "3.000 0.000 -1 ")) << "no arrival with the error cleared";
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // A motion step every 10 ms and a few replies; a loop that spins once the
  // hold has passed wakes tens of thousands of times a second instead.
  EXPECT_LT(wakeups - before, 150 * seconds + 50) << "over " << seconds << " s";
  ::close(a);

  // Connections opened and closed in a row, faster than one a wake-up: the
  // queue holds them all, so no handshake is dropped and retried a second
  // later. The simulator serves the next client afterwards.
  for (int i = 0; i < 1000; ++i) {
    sockaddr_in to{
        AF_INET, htons(static_cast<uint16_t>(g_port.load())), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    tcp_info info{};
    socklen_t len = sizeof info;
    ASSERT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len), 0);
    ASSERT_EQ(info.tcpi_total_retrans, 0u) << "connection " << i << " was retried";
    ::close(fd);
  }
  const int b = Join();
  Send(b, wire::body("T-0", "SV-0", KEY_GET_DETAIL));
  got.clear();
  EXPECT_TRUE(Await(b, got, " -1 0.0000 "));
  ::close(b);
  g_stop = 1;
  sim.join();
}

TEST(SimServer, SilentClientMakesWayAndPipelinedFramesAreAllServed) {
  // tarn-sim on a free port without live view, reporting on events only.
  g_port = 0, g_stop = 0;
  tarn_sim::ServerOptions o;
  o.port = 0, o.rate_hz = 0, o.quiet = true, o.idle_timeout = 0.5, o.web = false;
  std::thread sim([o] { tarn_sim::RunServer(o, g_stop, [](int p) { g_port = p; }); });
  while (g_port == 0) std::this_thread::yield();
  const int a = Join();
  EXPECT_FALSE(loopback::wait_readable(a, 700));
  // a has been silent for longer than the idle timeout: it gives way to b
  // and is closed.
  const int b = Join();
  char got[4096];
  EXPECT_TRUE(loopback::wait_readable(a, 20000) && ::recv(a, got, sizeof got, 0) == 0);
  // b: over 2 MB of valid frames sent without reading, then a question; the
  // answer, a status report, is the first thing b receives.
  std::string flood;
  while (flood.size() < 3000000)
    flood += wire::frame(wire::body("T-0", "SV-0", KEY_SET_PARAM, "Speed", "N", "N", 400));
  flood += wire::frame(wire::body("T-0", "SV-0", KEY_GET_DETAIL));
  std::thread writer([&] { ::send(b, flood.data(), flood.size(), 0); });
  EXPECT_TRUE(loopback::wait_readable(b, 20000) && ::recv(b, got, 31, MSG_WAITALL) == 31);
  EXPECT_EQ(std::string(got + 9, 22),
            wire::Bytes().i32(0).text("R-0").text("T-0").i32(KEY_DETAIL).s);
  writer.join();
  // b is not silent: a newcomer is closed at once and b keeps the robot.
  Send(b, wire::body("T-0", "SV-0", KEY_SET_PARAM, "Speed", "N", "N", 400));
  const int c = Join();  // closed with its greeting unread: a reset or an end of file
  EXPECT_TRUE(loopback::wait_readable(c, 20000) && ::recv(c, got, sizeof got, 0) <= 0);
  // The read-ahead makes room for a large frame in front, and gives up on
  // bytes that can never start one.
  std::string big = wire::frame(
      wire::body("T-0", "SV-0", KEY_SET_PARAM, "Speed", "N", std::string(300000, 'x'), 400));
  big += wire::frame(wire::body("T-0", "SV-0", KEY_GET_DETAIL));
  std::string answer;
  std::thread big_writer([&] { ::send(b, big.data(), big.size(), 0); });
  EXPECT_TRUE(Await(b, answer, wire::Bytes().text("R-0").text("T-0").i32(KEY_DETAIL).s));
  big_writer.join();
  const std::string junk(70000, 'x');
  EXPECT_EQ(::send(b, junk.data(), junk.size(), 0), static_cast<ssize_t>(junk.size()));
  for (bool open = true; open && loopback::wait_readable(b, 20000);)
    open = ::recv(b, got, sizeof got, 0) > 0;
  EXPECT_EQ(::recv(b, got, sizeof got, MSG_DONTWAIT), 0) << "dropped for its junk";
  ::close(a), ::close(b), ::close(c);
  g_stop = 1;
  sim.join();
}

TEST(SimView, SnapshotEncodingAndControls) {
  tarn_sim::Snapshot s;
  s.seq = 7, s.state = 3, s.x = 1.5, s.client = "a\"b";
  s.route = {{"0", 1, 2, true}};
  s.messages = {{0.5, true, "T-0 -> SV-0 KEY_INIT\n"}};
  // The event carries the document that /state serves.
  EXPECT_EQ(tarn_sim::ToEvent(s),
            "event: state\nid: 7\ndata: "
            R"({"accel_limit":0.0,"acceleration":0.0,"client":"a\"b","heading":0.0,)"
            R"("messages":[{"dir":"in","t":0.5,"text":"T-0 -> SV-0 KEY_INIT\n"}],"online":false,)"
            R"("paused":false,"route":[{"code":"0","passed":true,"x":1.0,"y":2.0}],"seq":7,)"
            R"("speed_limit":0.0,"state":3,"state_text":"busy","target":-1,"time":0.0,"trail":[],)"
            R"("velocity":0.0,"voltage":0.0,"voltage_history":[],"x":1.5,"y":0.0})"
            "\n\n");
  EXPECT_EQ(tarn_sim::StateName(5) + "|" + tarn_sim::StateName(9), "bad parameter|error 9");
  tarn_sim::Control c{};
  EXPECT_TRUE(tarn_sim::ParseControl("/control/error", "4", c) && c.code == 4);

  for (const char* bad : {"0", "100", "4x", ""})
    EXPECT_FALSE(tarn_sim::ParseControl("/control/error", bad, c));
  EXPECT_FALSE(tarn_sim::ParseControl("/control/reboot", "", c));
}
