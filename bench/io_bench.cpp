// The Robot's service step over loopback TCP on port 6868:
// - Handle() with nothing to read and nothing to send, against the two raw
//   non-blocking recv calls that are the least its receive phase can do;
// - 100000 queued SetVelocity commands flushed by Handle() to a draining
//   sink, against a raw loop of send() of the same 62-byte frame;
// - command latency: Init (two frames) to the simulator's acknowledgement
//   applied by Handle(), p50/p99 over 1000 rounds, against a raw round trip
//   of the same bytes to an in-process echo peer.
// Each benchmark builds its own connection; they need port 6868 free.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "robot/robot.h"

namespace {

constexpr int kPort = 6868;
constexpr int kCommands = 100000;
constexpr int kRounds = 1000;

int Listen(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// A Robot connected to a peer of this process on 6868, its announcement
// already sent and read.
class Session {
 public:
  Session() {
    listen_fd_ = Listen(kPort);
    if (listen_fd_ < 0) return;
    robot_ = std::make_unique<Robot>();
    if (!robot_->connected) return;
    peer_fd_ = accept(listen_fd_, nullptr, nullptr);
    int one = 1;
    setsockopt(peer_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    robot_->Handle();
    char buf[256];
    recv(peer_fd_, buf, sizeof buf, 0);
  }
  ~Session() {
    robot_.reset();
    if (peer_fd_ >= 0) close(peer_fd_);
    if (listen_fd_ >= 0) close(listen_fd_);
  }
  bool ok() const { return peer_fd_ >= 0; }
  Robot& robot() { return *robot_; }
  int peer() const { return peer_fd_; }

 private:
  int listen_fd_ = -1;
  int peer_fd_ = -1;
  std::unique_ptr<Robot> robot_;
};

void HandleIdle(benchmark::State& state) {
  Session s;
  if (!s.ok()) return state.SkipWithError("port 6868 unavailable");
  for (auto _ : state) s.robot().Handle();
}

void RawTwoRecv(benchmark::State& state) {
  Session s;
  if (!s.ok()) return state.SkipWithError("port 6868 unavailable");
  static char buf[102400];
  for (auto _ : state) {
    benchmark::DoNotOptimize(recv(m_socket.m_sock, buf, sizeof buf, 0));
    benchmark::DoNotOptimize(recv(m_socket.m_sock, buf, sizeof buf, 0));
  }
}

// Reads and drops everything the client writes until it closes.
class Sink {
 public:
  explicit Sink(int fd)
      : thread_([fd] {
          static char buf[1 << 16];
          while (recv(fd, buf, sizeof buf, 0) > 0) {
          }
        }) {}
  ~Sink() { thread_.join(); }

 private:
  std::thread thread_;
};

bool OutboxPending() {
  const auto& queue = m_msg.outbox["T-0"];
  return std::any_of(queue.begin(), queue.end(),
                     [](const Message_RTS& m) { return m.key != KEY_NONE; });
}

void FlushCommands(benchmark::State& state) {
  auto s = std::make_unique<Session>();
  if (!s->ok()) return state.SkipWithError("port 6868 unavailable");
  {
    Sink sink(s->peer());
    for (auto _ : state) {
      state.PauseTiming();
      for (int i = 0; i < kCommands; ++i) s->robot().SetVelocity(800);
      state.ResumeTiming();
      while (OutboxPending()) s->robot().Handle();
    }
    s.reset();  // closes the connection, which ends the sink
  }
  state.SetItemsProcessed(state.iterations() * kCommands);
}

void RawSend(benchmark::State& state) {
  auto s = std::make_unique<Session>();
  if (!s->ok()) return state.SkipWithError("port 6868 unavailable");
  Message_RTS m;
  m.key = KEY_SET_PARAM;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.int_param = 800;
  m.text_param1 = "Speed";
  const std::string body = m.str();
  std::string frame = "#";
  const std::int32_t type = 11, length = static_cast<std::int32_t>(body.size());
  frame.append(reinterpret_cast<const char*>(&type), 4);
  frame.append(reinterpret_cast<const char*>(&length), 4);
  frame += body + ";";
  {
    Sink sink(s->peer());
    const int fd = m_socket.m_sock;  // non-blocking, as the library leaves it
    for (auto _ : state) {
      for (int i = 0; i < kCommands; ++i) {
        while (send(fd, frame.data(), frame.size(), 0) < 0) {
        }
      }
    }
    s.reset();
  }
  state.SetItemsProcessed(state.iterations() * kCommands);
}

void Percentiles(benchmark::State& state, std::vector<double> us) {
  std::sort(us.begin(), us.end());
  if (us.empty()) return;
  state.counters["p50_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
  state.counters["max_us"] = us.back();
  state.counters["over_10ms"] =
      static_cast<double>(std::count_if(us.begin(), us.end(), [](double v) { return v > 10000; }));
}

bool PortListening(int port) {
  // /proc/net/tcp lists local address:port in hex and the state (0A: LISTEN).
  char wanted[16];
  std::snprintf(wanted, sizeof wanted, ":%04X", port);
  std::ifstream in("/proc/net/tcp");
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(wanted) != std::string::npos && line.find(" 0A ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// The peer: tarn-sim when it was built, started here with periodic reports
// off; otherwise a thread that acknowledges KEY_KILL and KEY_INIT frames.
class Server {
 public:
  Server() {
#ifdef TARN_SIM_PATH
    pid_ = fork();
    if (pid_ == 0) {
      // Its announcement lines would interleave with the benchmark table.
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, STDOUT_FILENO);
      execl(TARN_SIM_PATH, "tarn-sim", "--quiet", "--rate", "0", static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 500 && !PortListening(kPort); ++i) usleep(10000);
#else
    listen_fd_ = Listen(kPort);
    thread_ = std::thread([this] { Acknowledge(); });
#endif
  }
  ~Server() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) close(listen_fd_);
  }

 private:
  // Replies to every frame with the same frame from "SV-0"; the Robot only
  // looks at the key of an acknowledgement.
  void Acknowledge() {
    const int fd = accept(listen_fd_, nullptr, nullptr);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::string in;
    char buf[4096];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) {
      in.append(buf, static_cast<std::size_t>(n));
      std::string out;
      while (in.size() >= 9) {
        std::int32_t length;
        std::memcpy(&length, in.data() + 5, 4);
        if (in.size() < static_cast<std::size_t>(length) + 10) break;
        Message_RTS m;
        m.decode(in.substr(9, static_cast<std::size_t>(length)));
        in.erase(0, static_cast<std::size_t>(length) + 10);
        if (m.key != KEY_INIT && m.key != KEY_KILL) continue;
        m.sender_id = "SV-0";
        m.receiver_id = "T-0";
        const std::string body = m.str();
        const std::int32_t type = 11, size = static_cast<std::int32_t>(body.size());
        out += "#";
        out.append(reinterpret_cast<const char*>(&type), 4);
        out.append(reinterpret_cast<const char*>(&size), 4);
        out += body + ";";
      }
      if (!out.empty()) send(fd, out.data(), out.size(), MSG_NOSIGNAL);
    }
    close(fd);
  }

  pid_t pid_ = -1;
  int listen_fd_ = -1;
  std::thread thread_;
};

void InitLatency(benchmark::State& state) {
  Server server;
  auto robot = std::make_unique<Robot>();
  if (!robot->connected) return state.SkipWithError("no server on 6868");
  std::vector<double> us;
  for (auto _ : state) {
    us.clear();
    for (int round = 0; round < kRounds + 50; ++round) {
      const auto start = std::chrono::steady_clock::now();
      robot->Init(1000, 2000, 0);
      do {
        robot->Handle();
      } while (!robot->online && robot->connected);
      const std::chrono::duration<double, std::micro> took =
          std::chrono::steady_clock::now() - start;
      if (round >= 50) us.push_back(took.count());  // the first rounds warm up
    }
  }
  Percentiles(state, us);
  robot.reset();
}

// The same exchange without the library: two frames out, one back.
void RawRoundTrip(benchmark::State& state) {
  const int listen_fd = Listen(kPort);
  if (listen_fd < 0) return state.SkipWithError("port 6868 unavailable");
  std::thread echo([listen_fd] {
    const int fd = accept(listen_fd, nullptr, nullptr);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char buf[256];
    std::size_t got = 0;
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) {
      got += static_cast<std::size_t>(n);
      for (; got >= 124; got -= 124) send(fd, buf, 62, MSG_NOSIGNAL);
    }
    close(fd);
  });
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(kPort);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  const std::string frame(62, 'f');
  char buf[256];
  std::vector<double> us;
  for (auto _ : state) {
    us.clear();
    for (int round = 0; round < kRounds + 50; ++round) {
      const auto start = std::chrono::steady_clock::now();
      send(fd, frame.data(), 62, 0);
      send(fd, frame.data(), 62, 0);
      for (std::size_t got = 0; got < 62;) {
        const ssize_t n = recv(fd, buf, 62 - got, MSG_DONTWAIT);
        if (n > 0) got += static_cast<std::size_t>(n);
      }
      const std::chrono::duration<double, std::micro> took =
          std::chrono::steady_clock::now() - start;
      if (round >= 50) us.push_back(took.count());
    }
  }
  close(fd);
  echo.join();
  close(listen_fd);
  Percentiles(state, us);
}

}  // namespace

void RegisterIoBenchmarks(std::vector<Ratio>& ratios) {
  benchmark::RegisterBenchmark("handle/idle", HandleIdle);
  benchmark::RegisterBenchmark("handle/raw_two_recv", RawTwoRecv);
  benchmark::RegisterBenchmark("send/handle_flush_100k", FlushCommands)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  benchmark::RegisterBenchmark("send/raw_send_100k", RawSend)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(2.0);
  benchmark::RegisterBenchmark("latency/init_ack", InitLatency)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("latency/raw_round_trip", RawRoundTrip)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);

  ratios.push_back({"Handle() idle vs two raw recv", Ratio::kTimeRatio, "handle/idle",
                    "handle/raw_two_recv", 1.5});
  ratios.push_back({"100k SetVelocity flushed vs raw send loop (rate)", Ratio::kRateRatio,
                    "send/handle_flush_100k", "send/raw_send_100k", 0.7});
  ratios.push_back({"Init -> ack applied vs raw round trip", Ratio::kLatency, "latency/init_ack",
                    "latency/raw_round_trip", 1000.0});
}
