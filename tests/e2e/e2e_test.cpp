// tarn-sim and tarn-demo run as separate processes on 127.0.0.1:6868, plus
// raw clients built from the library's own socket and exchange functions.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "child_process.h"
#include "msg/msg.h"
#include "net/Socket.h"

namespace {

const std::string kSim = TARN_SIM_PATH;
const std::string kDemo = TARN_DEMO_PATH;

// Starts the simulator and waits until it listens.
std::unique_ptr<ChildProcess> StartSim() {
  auto sim = std::make_unique<ChildProcess>(std::vector<std::string>{kSim});
  EXPECT_TRUE(sim->WaitForOutput("Server started success, listen at 127.0.0.1:6868", 10))
      << sim->Out() << sim->Err();
  return sim;
}

// Stops the simulator the way a user does and checks that it went cleanly.
void StopSim(ChildProcess& sim) {
  sim.Signal(SIGTERM);
  ASSERT_TRUE(sim.Wait(5));
  EXPECT_TRUE(sim.ExitedWith(0)) << sim.status() << sim.Err();
  EXPECT_NE(sim.Out().find("] stopped\n"), std::string::npos);
}

std::string Int32(std::int32_t v) {
  char b[4];
  std::memcpy(b, &v, 4);
  return std::string(b, 4);
}

std::string Frame(const std::string& body, std::int32_t type = 11) {
  return "#" + Int32(type) + Int32(static_cast<std::int32_t>(body.size())) + body + ";";
}

Message_RTS Request(RTS_key key, const std::string& to) {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = to;
  m.key = key;
  return m;
}

std::unique_ptr<Socket> Connect() {
  auto s = std::make_unique<Socket>();
  s->Client_init("127.0.0.1", 6868);
  return s;
}

// Waits until the simulator has logged `n` dropped clients in all, so that
// the next connection is not refused for a client it has not yet noticed.
bool WaitForDrops(ChildProcess& sim, int n) {
  for (int i = 0; i < 500; ++i) {
    const std::string log = sim.Out();
    int count = 0;
    for (auto at = log.find("client dropped:"); at != std::string::npos;
         at = log.find("client dropped:", at + 1)) {
      ++count;
    }
    if (count >= n) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

enum class Outcome { kArrived, kClosed, kTimeout };

// Reads until a message with `key` from `sender` is filed, the peer closes or
// `seconds` pass.
Outcome Await(Socket& s, MailBox& box, RTS_key key, const std::string& sender, double seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
  while (std::chrono::steady_clock::now() < deadline) {
    if (recv_msg(s, box) == -2) return Outcome::kClosed;
    for (const Message_RTS& m : box.inbox[sender]) {
      if (m.key == key) return Outcome::kArrived;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return Outcome::kTimeout;
}

}  // namespace

TEST(EndToEnd, DemoCompletesItsMissionAgainstTheSimulator) {
  auto sim = StartSim();
  ChildProcess demo({kDemo});
  ASSERT_TRUE(demo.Wait(40)) << demo.Out();
  EXPECT_TRUE(demo.ExitedWith(0)) << demo.Out() << demo.Err();
  const std::string out = demo.Out();
  for (const char* line :
       {"tarn-demo: connecting to the control server at 127.0.0.1:6868\n", "\nrobot online\n",
        "\nway-point 1/4 reached (800, 0) mm\n", "\nway-point 2/4 reached (800, 600) mm\n",
        "\nway-point 3/4 reached (0, 600) mm\n", "\nway-point 4/4 reached (0, 0) mm\n",
        "\nway-point 1/1 reached (400, 300) mm\n", "  | R-0 Working Online\n",
        "  | Position(X,Y,Z,Orientation):0.4 0.3 0 1.5708\n", "  | R-0 Free Offline\n",
        "\nrobot offline\ntarn-demo: mission complete\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << "missing: " << line << "\n" << out;
  }
  // Online before the first way-point, offline after the last.
  EXPECT_LT(out.find("robot online"), out.find("way-point 1/4"));
  EXPECT_LT(out.find("way-point 1/1"), out.find("R-0 Free Offline"));
  EXPECT_TRUE(demo.Err().empty()) << demo.Err();

  // The simulator logged both directions with their senders.
  const std::string log = sim->Out();
  EXPECT_NE(log.find("recv T-0 -> SV-0 KEY_SET_PARAM int=1000 \"Speed\""), std::string::npos);
  EXPECT_NE(log.find("send SV-0 -> T-0 KEY_INIT"), std::string::npos);
  EXPECT_NE(log.find("send R-0 -> T-0 KEY_ACTION int=1 \"path\" \"3\""), std::string::npos);
  EXPECT_NE(log.find("recv T-0 -> SV-0 KEY_KILL"), std::string::npos);
  EXPECT_NE(log.find("client dropped: client closed the connection"), std::string::npos);
  StopSim(*sim);
}

TEST(EndToEnd, DemoReportsALostConnectionAndRunsAgainAfterARestart) {
  {
    auto sim = StartSim();
    ChildProcess demo({kDemo});
    ASSERT_TRUE(demo.WaitForOutput("way-point 1/4 reached", 15)) << demo.Out();
    sim->Signal(SIGKILL);
    ASSERT_TRUE(demo.Wait(5)) << demo.Out();
    EXPECT_TRUE(demo.ExitedWith(4)) << demo.status();
    EXPECT_EQ(demo.Err(), "tarn-demo: connection to the control server lost\n");
    EXPECT_NE(demo.Out().find("socket dis connect\n"), std::string::npos);
    EXPECT_EQ(demo.Out().find("mission complete"), std::string::npos);
  }
  // A fresh simulator on the same port and a fresh demo: a full mission.
  auto sim = StartSim();
  ChildProcess demo({kDemo});
  ASSERT_TRUE(demo.Wait(40));
  EXPECT_TRUE(demo.ExitedWith(0)) << demo.Out() << demo.Err();
  EXPECT_NE(demo.Out().find("tarn-demo: mission complete"), std::string::npos);
  StopSim(*sim);
}

TEST(EndToEnd, DemoExplainsAnUnreachableServer) {
  ChildProcess demo({kDemo});
  ASSERT_TRUE(demo.Wait(10));
  EXPECT_TRUE(demo.ExitedWith(2)) << demo.status();
  EXPECT_EQ(demo.Err(), "tarn-demo: cannot reach the control server at 127.0.0.1:6868\n");
  EXPECT_NE(demo.Out().find("Can Not Connect Server !\n"), std::string::npos);
}

TEST(EndToEnd, SimulatorSurvivesMalformedClientsAndKeepsServing) {
  auto sim = StartSim();
  {
    // Stray bytes, then a frame whose terminator is wrong, then sound frames,
    // all in one write: the damage is discarded and the requests still answered.
    auto s = Connect();
    Message_RTS connect = Request(KEY_CONNECT, "SV-0");
    Message_RTS detail = Request(KEY_GET_DETAIL, "R-0");
    std::string bytes =
        "hello" + Frame("abc").substr(0, 12) + "X;" + Frame(connect.str()) + Frame(detail.str());
    ASSERT_TRUE(s->Send(bytes));
    MailBox box;
    EXPECT_EQ(Await(*s, box, KEY_DETAIL, "R-0", 3), Outcome::kArrived);
  }
  ASSERT_TRUE(WaitForDrops(*sim, 1));
  {
    // A frame of another type blocks the receive path for good: the
    // simulator gives up on that client after a while.
    auto s = Connect();
    ASSERT_TRUE(s->Send(Frame(Request(KEY_CONNECT, "SV-0").str(), 12)));
    MailBox box;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Await(*s, box, KEY_DETAIL, "R-0", 6), Outcome::kClosed);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1500));
  }
  {
    // Inputs that make the receive path throw: a length word of -10, and a
    // body with a negative text length. The client is dropped at once.
    int drops = 2;
    for (const std::string& bytes :
         {"#" + Int32(11) + Int32(-10), Frame(Int32(0) + Int32(-5) + "xxxxxxxxxxxxxxxx")}) {
      ASSERT_TRUE(WaitForDrops(*sim, drops++));
      auto s = Connect();
      ASSERT_TRUE(s->Send(bytes));
      MailBox box;
      EXPECT_EQ(Await(*s, box, KEY_DETAIL, "R-0", 2), Outcome::kClosed);
    }
  }
  ASSERT_TRUE(WaitForDrops(*sim, 4));
  const std::string log = sim->Out();
  EXPECT_NE(log.find("malformed input: discarded"), std::string::npos) << log;
  EXPECT_NE(log.find("client dropped: no message readable from"), std::string::npos) << log;
  EXPECT_NE(log.find("client dropped: malformed input ("), std::string::npos) << log;

  // Still serving.
  auto s = Connect();
  Message_RTS connect = Request(KEY_CONNECT, "SV-0");
  ASSERT_TRUE(send_msg(*s, connect));
  MailBox box;
  EXPECT_EQ(Await(*s, box, KEY_DETAIL, "R-0", 3), Outcome::kArrived);
  s.reset();
  StopSim(*sim);
}

TEST(EndToEnd, SimulatorServesOneClientAtATime) {
  auto sim = StartSim();
  auto first = Connect();
  Message_RTS connect = Request(KEY_CONNECT, "SV-0");
  ASSERT_TRUE(send_msg(*first, connect));
  MailBox first_box;
  ASSERT_EQ(Await(*first, first_box, KEY_DETAIL, "R-0", 3), Outcome::kArrived);

  auto second = Connect();  // accepted, then closed straight away
  MailBox second_box;
  EXPECT_EQ(Await(*second, second_box, KEY_DETAIL, "R-0", 3), Outcome::kClosed);
  first_box.inbox.clear();
  EXPECT_EQ(Await(*first, first_box, KEY_DETAIL, "R-0", 3), Outcome::kArrived);

  // Once the first leaves, the next one is served.
  first.reset();
  ASSERT_TRUE(WaitForDrops(*sim, 1));
  auto third = Connect();
  ASSERT_TRUE(send_msg(*third, connect));
  MailBox third_box;
  EXPECT_EQ(Await(*third, third_box, KEY_DETAIL, "R-0", 3), Outcome::kArrived);
  EXPECT_NE(sim->Out().find("refused a second client"), std::string::npos);
  third.reset();
  StopSim(*sim);
}

TEST(EndToEnd, SimulatorRefusesABusyPortAndStopsCleanlyOnSigint) {
  // --quiet silences the message log, not the socket layer's startup line.
  ChildProcess sim({kSim, "--quiet"});
  ASSERT_TRUE(sim.WaitForOutput("listen at", 10));
  ChildProcess clash({kSim});
  ASSERT_TRUE(clash.Wait(10));
  EXPECT_TRUE(clash.ExitedWith(1));
  EXPECT_EQ(clash.Err(),
            "tarn-sim: cannot listen on 127.0.0.1:6868: Server Could not bind to port.\n");
  sim.Signal(SIGINT);
  ASSERT_TRUE(sim.Wait(5));
  EXPECT_TRUE(sim.ExitedWith(0));
  EXPECT_EQ(sim.Out(), "Server started success, listen at 127.0.0.1:6868\n");
}
