// tarn-sim and tarn-demo run as separate processes on 127.0.0.1:6868, plus
// raw clients built from the library's own socket and exchange functions.
// The demo's plain successful mission is the `demo` test's job; these cover
// failures on either side and the simulator's handling of its clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "msg/msg.h"
#include "net/Socket.h"

namespace {

bool Until(const std::function<bool()>& done, double seconds) {
  for (int ms = 0; !done(); ms += 10) {
    if (ms >= seconds * 1000) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// A program in its own process, its output captured in files. The destructor
// kills it if still running, so a failed assertion never leaves a process
// holding port 6868.
class Child {
 public:
  static constexpr int kRunning = -2;
  int status = kRunning;  // the exit status once ended, -1 if ended by a signal

  explicit Child(std::vector<std::string> argv) : pid_(::fork()) {
    if (pid_ != 0) return;
    if (!std::freopen(out_.c_str(), "w", stdout) || !std::freopen(err_.c_str(), "w", stderr))
      ::_exit(126);
    std::vector<char*> args;
    for (std::string& a : argv) args.push_back(&a[0]);
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ~Child() {
    Signal(SIGKILL);
    Wait(5);
    ::unlink(out_.c_str());
    ::unlink(err_.c_str());
  }
  // Never signals a reaped process, whose number may have been reused.
  void Signal(int sig) {
    if (status == kRunning) ::kill(pid_, sig);
  }
  bool Wait(double seconds) {
    return Until(
        [this] {
          int s;
          if (status == kRunning && ::waitpid(pid_, &s, WNOHANG) == pid_)
            status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
          return status != kRunning;
        },
        seconds);
  }
  // Waits until `needle` has appeared `times` times on the standard output.
  bool WaitForOutput(const std::string& needle, double seconds, int times = 1) {
    return Until(
        [&] {
          const std::string out = Out();
          int n = 0;
          for (auto at = out.find(needle); at != std::string::npos; at = out.find(needle, at + 1))
            ++n;
          return n >= times;
        },
        seconds);
  }
  std::string Out() const { return Read(out_); }
  std::string Err() const { return Read(err_); }

 private:
  static std::string TempFile() {
    char name[] = "/tmp/tarn-e2e-XXXXXX";
    ::close(::mkstemp(name));
    return name;
  }
  static std::string Read(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
  }
  std::string out_ = TempFile(), err_ = TempFile();
  pid_t pid_;
};

std::unique_ptr<Child> StartSim() {
  auto sim = std::make_unique<Child>(std::vector<std::string>{TARN_SIM_PATH});
  EXPECT_TRUE(sim->WaitForOutput("Server started success, listen at 127.0.0.1:6868", 10))
      << sim->Err();
  return sim;
}

// Stops the simulator with Ctrl-C and checks that it went cleanly.
void StopSim(Child& sim) {
  sim.Signal(SIGINT);
  ASSERT_TRUE(sim.Wait(5));
  EXPECT_EQ(sim.status, 0) << sim.Err();
  EXPECT_NE(sim.Out().find("] stopped\n"), std::string::npos);
}

std::string Int32(std::int32_t v) {
  return std::string(reinterpret_cast<const char*>(&v), 4);
}

std::string Frame(const std::string& body, std::int32_t type = 11) {
  return "#" + Int32(type) + Int32(static_cast<std::int32_t>(body.size())) + body + ";";
}

std::string Connect() {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_CONNECT;
  return m.str();
}

// Reads until the robot's status report is filed ("report"), the simulator
// closes the connection ("closed") or `seconds` pass ("timeout").
std::string Await(Socket& s, double seconds = 3) {
  MailBox box;
  std::string result = "timeout";
  Until(
      [&] {
        if (recv_msg(s, box) == -2) return (result = "closed"), true;
        for (const Message_RTS& m : box.inbox["R-0"])
          if (m.key == KEY_DETAIL) result = "report";
        return result != "timeout";
      },
      seconds);
  return result;
}

// A fresh client that sends `bytes` (if any), then awaits as above.
std::string Session(const std::string& bytes, double seconds = 3) {
  Socket s;
  s.Client_init("127.0.0.1", 6868);
  EXPECT_TRUE(bytes.empty() || s.Send(bytes));
  return Await(s, seconds);
}

// The simulator must have noticed that the previous client left before
// another may connect: each drop is logged.
bool WaitForDrops(Child& sim, int n) {
  return sim.WaitForOutput("client dropped:", 5, n);
}

}  // namespace

TEST(EndToEnd, DemoReportsALostConnectionAndRunsAgainAfterARestart) {
  {
    auto sim = StartSim();
    Child demo({TARN_DEMO_PATH});
    ASSERT_TRUE(demo.WaitForOutput("way-point 1/4 reached", 15)) << demo.Out();
    sim->Signal(SIGKILL);
    ASSERT_TRUE(demo.Wait(5)) << demo.Out();
    EXPECT_EQ(demo.status, 4);
    EXPECT_EQ(demo.Err(), "tarn-demo: connection to the control server lost\n");
    EXPECT_NE(demo.Out().find("socket dis connect\n"), std::string::npos);
    EXPECT_EQ(demo.Out().find("mission complete"), std::string::npos);
  }
  // A fresh simulator on the same port and a fresh demo: a full mission, with
  // both directions in the simulator's log.
  auto sim = StartSim();
  Child demo({TARN_DEMO_PATH});
  ASSERT_TRUE(demo.Wait(40));
  EXPECT_EQ(demo.status, 0) << demo.Out() << demo.Err();
  EXPECT_NE(demo.Out().find("\nrobot offline\ntarn-demo: mission complete\n"), std::string::npos);
  for (const char* line : {"recv T-0 -> SV-0 KEY_SET_PARAM int=1000 \"Speed\"",
                           "send R-0 -> T-0 KEY_ACTION int=1 \"path\" \"3\"",
                           "client dropped: client closed the connection"})
    EXPECT_NE(sim->Out().find(line), std::string::npos) << line;
  StopSim(*sim);
}

TEST(EndToEnd, DemoExplainsAnUnreachableServer) {
  Child demo({TARN_DEMO_PATH});
  ASSERT_TRUE(demo.Wait(10));
  EXPECT_EQ(demo.status, 2);
  EXPECT_EQ(demo.Err(), "tarn-demo: cannot reach the control server at 127.0.0.1:6868\n");
  EXPECT_NE(demo.Out().find("Can Not Connect Server !\n"), std::string::npos);
}

TEST(EndToEnd, SimulatorSurvivesMalformedClientsAndKeepsServing) {
  auto sim = StartSim();
  // Stray bytes, then a frame whose terminator is wrong, then sound frames,
  // all in one write: the damage is discarded and the requests still answered.
  EXPECT_EQ(Session("hello" + Frame("abc").substr(0, 12) + "X;" + Frame(Connect())), "report");
  // A frame of another type blocks the receive path for good: the simulator
  // gives up on that client after a while.
  ASSERT_TRUE(WaitForDrops(*sim, 1));
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(Session(Frame(Connect(), 12), 6), "closed");
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1500));
  // Inputs that make the receive path throw: a length word of -10, and a
  // body with a negative text length. The client is dropped at once.
  ASSERT_TRUE(WaitForDrops(*sim, 2));
  EXPECT_EQ(Session("#" + Int32(11) + Int32(-10), 2), "closed");
  ASSERT_TRUE(WaitForDrops(*sim, 3));
  EXPECT_EQ(Session(Frame(Int32(0) + Int32(-5) + "xxxxxxxxxxxxxxxx"), 2), "closed");
  ASSERT_TRUE(WaitForDrops(*sim, 4));
  for (const char* line : {"malformed input: discarded", "client dropped: no message readable from",
                           "client dropped: malformed input ("})
    EXPECT_NE(sim->Out().find(line), std::string::npos) << line;
  EXPECT_EQ(Session(Frame(Connect())), "report");  // still serving
  StopSim(*sim);
}

TEST(EndToEnd, SimulatorServesOneClientAtATimeAndHoldsItsPort) {
  auto sim = StartSim();
  Child clash({TARN_SIM_PATH, "--quiet"});
  ASSERT_TRUE(clash.Wait(10));
  EXPECT_EQ(clash.status, 1);
  EXPECT_EQ(clash.Err(),
            "tarn-sim: cannot listen on 127.0.0.1:6868: Server Could not bind to port.\n");

  auto first = std::make_unique<Socket>();
  first->Client_init("127.0.0.1", 6868);
  ASSERT_TRUE(first->Send(Frame(Connect())));
  ASSERT_EQ(Await(*first), "report");
  EXPECT_EQ(Session(""), "closed");  // accepted, then closed straight away
  EXPECT_EQ(Await(*first), "report");
  EXPECT_NE(sim->Out().find("refused a second client"), std::string::npos);
  first.reset();
  // Once the first leaves, the next one is served.
  ASSERT_TRUE(WaitForDrops(*sim, 1));
  EXPECT_EQ(Session(Frame(Connect())), "report");
  StopSim(*sim);
}
