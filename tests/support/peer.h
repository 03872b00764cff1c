#pragma once

// A scripted TCP peer on 127.0.0.1 that writes exactly the bytes a test hands
// it and reads what the other end sent. It listens before the client
// connects, so the connection completes in the backlog and one thread drives
// both ends. Every wait is bounded.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace loopback {

inline bool wait_readable(int fd, int timeout_ms = 2000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

// Retries `poll_once` (a non-blocking call answering -1 for "not yet") for up
// to 5 s, pausing 1 ms between tries; returns its last answer.
template <typename F>
int wait_for(F poll_once) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int n;
  while ((n = poll_once()) == -1 && std::chrono::steady_clock::now() < deadline)
    poll(nullptr, 0, 1);
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
    for (int tries = 0; tries < 200 && !listening_; ++tries) {
      listening_ = bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                   listen(listen_fd_, 4) == 0;
      if (!listening_) poll(nullptr, 0, 50);
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

  // One send call: the tests' writes are small, so the other end gets each
  // in one piece.
  bool Send(const std::string& bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
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

 private:
  int listen_fd_;
  int fd_ = -1;
  int port_ = 0;
  bool listening_ = false;
};

}  // namespace loopback
