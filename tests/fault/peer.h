#pragma once

// A scripted peer for fault tests: hand-built frames (independent of the
// library's encoder) and a loopback TCP peer that writes exactly the bytes and
// chunks a test asks for, sends a reset, or closes. Every wait is bounded.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace fault {

struct Bytes {
  std::string s;
  Bytes& i32(std::int32_t v) {
    char b[4];
    std::memcpy(b, &v, 4);
    s.append(b, 4);
    return *this;
  }
  Bytes& text(const std::string& t) {
    i32(static_cast<std::int32_t>(t.size()));
    s += t;
    return *this;
  }
  Bytes& raw(const std::string& t) {
    s += t;
    return *this;
  }
};

inline std::string Body(const std::string& sender, std::int32_t key, const std::string& t1 = "N",
                        const std::string& t2 = "N", std::int32_t int_param = 0,
                        const std::string& receiver = "T-0") {
  Bytes b;
  b.i32(0).text(sender).text(receiver).i32(key).text(t1).text(t2).text("N").i32(int_param);
  return b.raw("%").i32(0).raw("%").s;
}

inline std::string Frame(const std::string& body) {
  return Bytes().raw("#").i32(11).i32(static_cast<std::int32_t>(body.size())).raw(body).raw(";").s;
}

// A frame header announcing `length` body bytes, without body or terminator.
inline std::string Header(std::int32_t length) {
  return Bytes().raw("#").i32(11).i32(length).s;
}

inline bool WaitReadable(int fd, int timeout_ms = 2000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

// Listens on 127.0.0.1:`port` (0: an ephemeral port) before the client
// connects; the connection then completes in the backlog and Accept takes it.
class Peer {
 public:
  explicit Peer(int port = 0) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // A fixed port may still be held by a process outside this test run for
    // a moment; wait for it, boundedly, rather than fail at once.
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
    if (fd_ != -1) close(fd_);
    close(listen_fd_);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool listening() const { return listening_; }
  int port() const { return port_; }

  bool Accept() {
    if (!WaitReadable(listen_fd_)) return false;
    fd_ = accept(listen_fd_, nullptr, nullptr);
    // Small writes go out at once: no write waits for the client's
    // acknowledgement of the previous one.
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd_ != -1;
  }

  bool Send(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Drops whatever the client sent, so that its writes never block the test.
  void Drain() {
    char buf[4096];
    while (recv(fd_, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
  }

  void Close() {
    close(fd_);
    fd_ = -1;
  }

  // An abortive close: the client gets a reset instead of an orderly end.
  void Reset() {
    linger l{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    Close();
  }

  int fd() const { return fd_; }

 private:
  int listen_fd_ = -1;
  int fd_ = -1;
  int port_ = 0;
  bool listening_ = false;
};

}  // namespace fault
