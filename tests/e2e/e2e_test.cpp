// tarn-sim and tarn-demo as separate processes on 127.0.0.1:6868, plus raw
// clients built from the library's own socket and exchange functions. The
// demo's plain mission, an unreachable or vanishing server seen from the tarn
// tool and its refusals are checked elsewhere; these cover what only a real
// process pair shows: the demo across a server crash and restart, and the
// simulator facing broken, stuck and competing clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "msg/msg.h"
#include "net/Socket.h"

namespace {

template <typename Done>
bool Until(Done done, double seconds) {
  for (int ms = 0; !done(); ms += 10) {
    if (ms >= seconds * 1000) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A command line run by exec from a shell (so signals reach the program
// itself), its stdout and stderr in files. Killed on destruction, so a failed
// assertion never leaves a process holding port 6868.
struct Child {
  std::string out = "/tmp/tarn-e2e-" + std::to_string(::getpid()) + "-" + std::to_string(++made);
  std::string err = out + ".err";
  pid_t pid;
  int status = 0;  // as waitpid reports it, once reaped
  bool reaped = false;
  static inline int made = 0;

  // Returns once `ready` (if given) has appeared on the standard output.
  explicit Child(const std::string& command, const char* ready = nullptr) {
    const std::string line = "exec " + command + " >" + out + " 2>" + err;
    if ((pid = ::fork()) == 0) {
      ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      ::_exit(127);
    }
    EXPECT_TRUE(!ready || Await(ready, 10)) << Slurp(err);
  }
  ~Child() {
    Signal(SIGKILL);
    Wait(5);
    ::unlink(out.c_str());
    ::unlink(err.c_str());
  }
  void Signal(int sig) {
    if (!reaped) ::kill(pid, sig);  // a reaped pid may already be reused
  }
  bool Wait(double seconds) {
    return Until([&] { return reaped || (reaped = ::waitpid(pid, &status, WNOHANG) == pid); },
                 seconds);
  }
  int Exit() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
  // Waits until `needle` has appeared `times` times on the standard output.
  bool Await(const std::string& needle, double seconds, int times = 1) {
    return Until(
        [&] {
          const std::string o = Slurp(out);
          int n = 0;
          for (auto at = o.find(needle); at != std::string::npos; at = o.find(needle, at + 1)) ++n;
          return n >= times;
        },
        seconds);
  }
};

constexpr const char* kListening = "Server started success, listen at 127.0.0.1:6868";

std::string Int32(std::int32_t v) {
  return std::string(reinterpret_cast<const char*>(&v), 4);
}

std::string Frame(const std::string& body, std::int32_t type = 11) {
  return "#" + Int32(type) + Int32(static_cast<std::int32_t>(body.size())) + body + ";";
}

const std::string kConnect = [] {
  Message_RTS m;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.key = KEY_CONNECT;
  return Frame(m.str());
}();

// Sends `bytes` (if any), then reads until the robot's status report is filed
// ("report"), the simulator closes the connection ("closed") or `seconds` pass
// ("timeout").
std::string Exchange(Socket& s, const std::string& bytes, double seconds = 3) {
  EXPECT_TRUE(bytes.empty() || s.Send(bytes));
  MailBox box;
  for (int ms = 0; ms < seconds * 1000; ms += 10) {
    if (recv_msg(s, box) == -2) return "closed";
    for (const Message_RTS& m : box.inbox["R-0"])
      if (m.key == KEY_DETAIL) return "report";
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return "timeout";
}

// The same from a fresh client.
std::string Session(const std::string& bytes, double seconds = 3) {
  Socket s;
  s.Client_init("127.0.0.1", 6868);
  return Exchange(s, bytes, seconds);
}

}  // namespace

TEST(EndToEnd, DemoReportsALostConnectionAndRunsAgainAfterARestart) {
  {
    Child sim(TARN_SIM_PATH, kListening), demo(TARN_DEMO_PATH);
    ASSERT_TRUE(demo.Await("way-point 1/4 reached", 15)) << Slurp(demo.out);
    sim.Signal(SIGKILL);
    ASSERT_TRUE(demo.Wait(5)) << Slurp(demo.out);
    EXPECT_EQ(demo.Exit(), 4);
    EXPECT_EQ(Slurp(demo.err), "tarn-demo: connection to the control server lost\n");
  }
  // A fresh simulator on the same port: a full mission, both directions logged.
  Child sim(TARN_SIM_PATH, kListening), demo(TARN_DEMO_PATH);
  ASSERT_TRUE(demo.Wait(40));
  EXPECT_EQ(demo.Exit(), 0) << Slurp(demo.out) << Slurp(demo.err);
  EXPECT_NE(Slurp(demo.out).find("\nrobot offline\ntarn-demo: mission complete\n"),
            std::string::npos);
  for (const char* line : {"recv T-0 -> SV-0 KEY_SET_PARAM int=1000 \"Speed\"",
                           "send R-0 -> T-0 KEY_ACTION int=1 \"path\" \"3\"",
                           "client dropped: client closed the connection"})
    EXPECT_NE(Slurp(sim.out).find(line), std::string::npos) << line;
}

TEST(EndToEnd, SimulatorHoldsItsPortAndOutlivesBrokenStuckAndCompetingClients) {
  Child sim(TARN_SIM_PATH, kListening), clash(TARN_SIM_PATH " --quiet");
  ASSERT_TRUE(clash.Wait(10));
  EXPECT_EQ(clash.Exit(), 1);
  EXPECT_EQ(Slurp(clash.err),
            "tarn-sim: cannot listen on 127.0.0.1:6868: Server Could not bind to port.\n");
  {
    Socket first;
    first.Client_init("127.0.0.1", 6868);
    ASSERT_EQ(Exchange(first, kConnect), "report");
    EXPECT_EQ(Session(""), "closed");  // a second client: accepted, then closed at once
    EXPECT_EQ(Exchange(first, ""), "report");
  }
  // One client after another; each must have been dropped (and logged) before
  // the next connects, or it would be refused as a second client.
  const std::pair<std::string, std::string> sessions[] = {
      // Stray bytes and a frame with a wrong terminator are discarded; the
      // sound frame behind them in the same write is still answered.
      {"hello" + Frame("abc").substr(0, 12) + "X;" + kConnect, "report"},
      // A frame of another type blocks the receive path for good: given up.
      {"#" + Int32(12) + kConnect.substr(5), "closed"},
      // The receive path throws: a length word of -10, a negative text length.
      {"#" + Int32(11) + Int32(-10), "closed"},
      {Frame(Int32(0) + Int32(-5) + "xxxxxxxxxxxxxxxx"), "closed"},
      {kConnect, "report"},
  };
  int drops = 1;
  for (const auto& [bytes, want] : sessions) {
    ASSERT_TRUE(sim.Await("client dropped:", 5, drops++));
    EXPECT_EQ(Session(bytes, 6), want);
  }
  for (const char* line :
       {"refused a second client", "malformed input: discarded",
        "client dropped: no message readable from", "client dropped: malformed input ("})
    EXPECT_NE(Slurp(sim.out).find(line), std::string::npos) << line;
  // Ctrl-C stops it cleanly.
  sim.Signal(SIGINT);
  ASSERT_TRUE(sim.Wait(5));
  EXPECT_EQ(sim.Exit(), 0) << Slurp(sim.err);
  EXPECT_NE(Slurp(sim.out).find("] stopped\n"), std::string::npos);
}
