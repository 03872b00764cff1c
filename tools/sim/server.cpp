#include "server.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "msg/msg.h"
#include "net/Socket.h"
#include "sim_core.h"

namespace tarn_sim {
namespace {

using Clock = std::chrono::steady_clock;

// Longest wait in poll(): the simulation and the periodic reports advance at
// least this often even when no byte arrives.
constexpr int kPollMs = 5;
// More buffered bytes than the largest frame the receive path accepts can
// only come from a client that is not speaking the protocol.
constexpr std::size_t kMaxBuffered = 2 * 1000000;
// Consecutive sends refused because the client does not read: after this
// many the client is considered gone.
constexpr int kMaxBlockedSends = 50;
// Upper bound of receive calls per wake-up, so one chatty client cannot
// starve the simulation.
constexpr int kMaxReceivesPerWake = 1000;
// Most bytes one receive of the socket layer takes in.
constexpr std::size_t kMaxReceiveBytes = 102400;

class Server {
 public:
  Server(const ServerOptions& options, volatile std::sig_atomic_t& stop)
      : opt_(options), stop_(stop), sim_(MakeConfig(options)), start_(Clock::now()) {}

  int Run();

 private:
  static SimConfig MakeConfig(const ServerOptions& o) {
    SimConfig c;
    c.report_rate_hz = o.rate_hz;
    return c;
  }

  void Log(const std::string& line) {
    if (opt_.quiet) return;
    double t = std::chrono::duration<double>(Clock::now() - start_).count();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%9.3f] ", t);
    std::cout << stamp << line << std::endl;
  }

  void Accept();
  void ReceiveFromClient();
  void Deliver(const std::vector<Message_RTS>& messages);
  void DropClient(const std::string& why);
  void CheckStuck();

  ServerOptions opt_;
  volatile std::sig_atomic_t& stop_;
  RobotSim sim_;
  Clock::time_point start_;
  Socket listener_;
  std::unique_ptr<Socket> client_;
  MailBox box_;
  Clock::time_point last_progress_;
  int blocked_sends_ = 0;
};

int Server::Run() {
  try {
    listener_.Server_init(opt_.address, opt_.port);
  } catch (const SocketException& e) {
    std::cerr << "tarn-sim: cannot listen on " << opt_.address << ':' << opt_.port << ": "
              << e.m_message << std::endl;
    return 1;
  }
  char ready[96];
  std::snprintf(ready, sizeof ready, "simulated robot R-0 ready; status reports at %g Hz",
                opt_.rate_hz);
  Log(ready);

  Clock::time_point last = Clock::now();
  while (!stop_) {
    pollfd fds[2] = {{listener_.m_sock, POLLIN, 0}, {client_ ? client_->m_sock : -1, POLLIN, 0}};
    int ready = ::poll(fds, 2, kPollMs);
    if (ready < 0 && errno != EINTR) {
      std::cerr << "tarn-sim: poll: " << std::strerror(errno) << std::endl;
      return 1;
    }
    if (stop_) break;
    if (ready > 0) {
      // The current client first: if it has just hung up, a client waiting
      // to be accepted in the same wake-up is then served instead of refused.
      if (client_ && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) ReceiveFromClient();
      if (fds[0].revents & POLLIN) Accept();
    }
    if (client_) CheckStuck();

    Clock::time_point now = Clock::now();
    std::vector<Message_RTS> reports =
        sim_.Advance(std::chrono::duration<double>(now - last).count());
    last = now;
    if (client_) Deliver(reports);
  }
  if (client_) DropClient("simulator stopping");
  Log("stopped");
  return 0;
}

void Server::Accept() {
  int fd = listener_.Accpet_client();
  if (fd < 0) return;
  if (client_) {
    // One client at a time: a second one is told so by an immediate close
    // rather than left hanging in the backlog without any report.
    ::close(fd);
    Log("refused a second client: already serving one");
    return;
  }
  client_ = std::make_unique<Socket>();
  client_->Get(fd);
  box_ = MailBox();
  last_progress_ = Clock::now();
  blocked_sends_ = 0;
  Log("client connected");
}

void Server::ReceiveFromClient() {
  for (int i = 0; i < kMaxReceivesPerWake && client_; ++i) {
    // What the call's single receive will add to the buffer, so that bytes
    // the receive path throws away can be told from bytes still waiting.
    int pending = 0;
    if (::ioctl(client_->m_sock, FIONREAD, &pending) != 0 || pending < 0) pending = 0;
    const std::size_t before =
        client_->m_buffer.size() + std::min<std::size_t>(pending, kMaxReceiveBytes);
    const std::size_t unchanged = client_->m_buffer.size();
    int result = 0;
    try {
      result = recv_msg(*client_, box_);
    } catch (const std::exception& e) {
      DropClient(std::string("malformed input (") + e.what() + ")");
      return;
    }
    if (result == -2) {
      DropClient("client closed the connection");
      return;
    }
    const std::size_t after = client_->m_buffer.size();

    // Every message filed, in arrival order: a client sends under one node
    // id, and the box is emptied after each call, so nothing is reordered.
    bool filed = false;
    for (auto& entry : box_.inbox) {
      for (const Message_RTS& m : entry.second) {
        filed = true;
        Log("recv " + Describe(m));
        const bool known = m.key == KEY_CONNECT || m.key == KEY_INIT || m.key == KEY_KILL ||
                           m.key == KEY_ORIENTATION || m.key == KEY_ACTION ||
                           m.key == KEY_GET_DETAIL || m.key == KEY_SET_PARAM;
        if (!known) Log("   ignored: not a request this robot serves");
        Deliver(sim_.Receive(m));
        if (!client_) return;
      }
      entry.second.clear();
    }
    if (filed || after == 0) last_progress_ = Clock::now();
    if (filed) continue;
    if (after < before) {
      Log("malformed input: discarded " + std::to_string(before - after) + " bytes");
      continue;
    }
    // Nothing filed and nothing cut: either a frame still arriving or one the
    // receive path will not get past; CheckStuck tells them apart by time.
    if (after == unchanged) break;
  }
}

void Server::CheckStuck() {
  const std::size_t buffered = client_->m_buffer.size();
  if (buffered == 0) return;
  const double idle = std::chrono::duration<double>(Clock::now() - last_progress_).count();
  if (buffered <= kMaxBuffered && idle < opt_.stuck_timeout) return;
  // A frame of a wrong type or one that does not decode stays at the front
  // of the receive buffer for good: no later message from this client could
  // ever be read, so the connection is of no more use.
  std::string head;
  for (std::size_t i = 0; i < buffered && i < 16; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof hex, " %02x", static_cast<unsigned char>(client_->m_buffer[i]));
    head += hex;
  }
  DropClient("no message readable from " + std::to_string(buffered) + " buffered bytes (starting" +
             head + ")");
}

void Server::Deliver(const std::vector<Message_RTS>& messages) {
  if (!sim_.registered()) return;
  for (const Message_RTS& m : messages) {
    if (!client_) return;
    Message_RTS copy = m;
    Log("send " + Describe(copy));
    if (send_msg(*client_, copy)) {
      blocked_sends_ = 0;
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      Log("   not sent: the client is not reading");
      if (++blocked_sends_ >= kMaxBlockedSends) DropClient("client stopped reading");
    } else {
      DropClient(std::string("send failed: ") + std::strerror(errno));
    }
  }
}

void Server::DropClient(const std::string& why) {
  Log("client dropped: " + why);
  client_.reset();  // closes the descriptor
  box_ = MailBox();
  sim_.ClientLeft();
}

}  // namespace

int RunServer(const ServerOptions& options, volatile std::sig_atomic_t& stop) {
  Server server(options, stop);
  return server.Run();
}

}  // namespace tarn_sim
