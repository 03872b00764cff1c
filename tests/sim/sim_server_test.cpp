// tarn-sim's loop over real sockets (in-process), and its live view's encoding.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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

}  // namespace

TEST(SimServer, SilentClientMakesWayAndPipelinedFramesAreAllServed) {
  // tarn-sim on a free port without live view, reporting on events only.
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
  ::close(a), ::close(b);
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
