#pragma once

// Loopback plumbing for the tests: a scripted TCP peer on 127.0.0.1 that
// writes exactly the bytes a test hands it, reads what the other end sent,
// closes or resets. It listens before the client connects, so the connection
// completes in the backlog and a single thread can drive both ends. Every
// wait is bounded.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace loopback {

inline bool wait_readable(int fd, int timeout_ms = 2000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

// Retries `poll` (a non-blocking call answering -1 for "not yet") for up to
// 5 s; returns its last answer.
template <typename F>
int wait_for(F poll_once) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int n;
  while ((n = poll_once()) == -1 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return n;
}

class Peer {
 public:
  // Port 0 takes a kernel-chosen port. A fixed port may still be held for a
  // moment by a test process that just ended: that one is retried for 10 s.
  explicit Peer(int port = 0) : listen_fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{
        AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    for (int attempt = 0; attempt < 200 && !listening_; ++attempt) {
      listening_ = bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                   listen(listen_fd_, 4) == 0;
      if (!listening_ && port != 0) usleep(50000);
    }
    socklen_t len = sizeof addr;
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~Peer() {
    Close();
    ::close(listen_fd_);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool listening() const { return listening_; }
  int port() const { return port_; }

  // Small writes leave at once, never waiting for the previous one's
  // acknowledgement.
  bool Accept() {
    if (!wait_readable(listen_fd_)) return false;
    fd_ = accept(listen_fd_, nullptr, nullptr);
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd_ != -1;
  }

  bool Send(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Everything the other end has written so far: waits up to `first_wait_ms`
  // for the first byte, then takes what follows within 20 ms gaps.
  std::string Read(int first_wait_ms = 300) {
    std::string out;
    char buf[65536];
    for (int wait = first_wait_ms; wait_readable(fd_, wait); wait = 20) {
      const ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
    }
    return out;
  }

  void Close() {
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
  }

  // An abortive close: the other end gets a reset instead of an orderly end.
  void Reset() {
    linger l{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    Close();
  }

 private:
  int listen_fd_;
  int fd_ = -1;
  int port_ = 0;
  bool listening_ = false;
};

// A loopback port nobody listens on (until someone takes it again).
inline int free_port() {
  return Peer().port();
}

}  // namespace loopback
