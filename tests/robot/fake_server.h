#pragma once

// A stand-in control server on 127.0.0.1:6868 for driving a Robot from one
// thread: it listens before the Robot connects (the connection completes in the
// backlog), then the test alternates Robot::Handle with reads and writes on the
// accepted socket. Every wait is a bounded poll.
//
// Frames and message bodies are built here byte by byte, independently of the
// library's codec, so that the tests pin the wire format rather than echo it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "robot/robot.h"

// Little-endian wire writer (raw host-order bytes on the supported targets).
struct Bytes {
  std::string s;
  template <typename T>
  Bytes& put(T v) {
    static_assert(sizeof(T) == 4, "wire words are 4 bytes");
    s.append(reinterpret_cast<const char*>(&v), 4);
    return *this;
  }
  Bytes& i32(std::int32_t v) { return put(v); }
  Bytes& f32(float v) { return put(v); }
  Bytes& text(const std::string& t) { return i32(static_cast<std::int32_t>(t.size())).raw(t); }
  Bytes& raw(const std::string& t) {
    s += t;
    return *this;
  }
};

// Encoded message body; `actions` holds `count` action bodies back to back.
inline std::string Body(const std::string& sender, const std::string& receiver, std::int32_t key,
                        const std::string& t1 = "N", const std::string& t2 = "N",
                        const std::string& t3 = "N", std::int32_t int_param = 0,
                        std::int32_t count = 0, const std::string& actions = "") {
  Bytes b;
  b.i32(0).text(sender).text(receiver).i32(key).text(t1).text(t2).text(t3).i32(int_param);
  b.raw("%").i32(count).raw(actions).raw("%");
  return b.s;
}

inline std::string Frame(const std::string& body) {
  Bytes b;
  b.raw("#").i32(11).i32(static_cast<std::int32_t>(body.size())).raw(body).raw(";");
  return b.s;
}

// A client frame as the library sends it: from "T-0".
inline std::string Out(const std::string& receiver, std::int32_t key, const std::string& t1 = "N",
                       const std::string& t2 = "N", const std::string& t3 = "N",
                       std::int32_t int_param = 0) {
  return Frame(Body("T-0", receiver, key, t1, t2, t3, int_param));
}

class FakeServer {
 public:
  FakeServer() {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(6868);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listening_ = bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                 listen(listen_fd_, 4) == 0;
  }
  ~FakeServer() {
    CloseClient();
    if (listen_fd_ >= 0) close(listen_fd_);
  }
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  bool listening() const { return listening_; }

  bool Accept() {
    pollfd p{listen_fd_, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return false;
    client_fd_ = accept(listen_fd_, nullptr, nullptr);
    return client_fd_ >= 0;
  }

  // Everything the client has written so far. `first_wait_ms` bounds the wait
  // for the first byte; the robot writes synchronously inside Handle, so the
  // bytes are normally there already.
  std::string Read(int first_wait_ms = 300) {
    std::string out;
    int wait = first_wait_ms;
    pollfd p{client_fd_, POLLIN, 0};
    while (poll(&p, 1, wait) == 1) {
      char buf[65536];
      const ssize_t n = recv(client_fd_, buf, sizeof buf, 0);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
      wait = 20;
    }
    return out;
  }

  void Write(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = send(client_fd_, bytes.data() + done, bytes.size() - done, 0);
      if (n <= 0) return;
      done += static_cast<std::size_t>(n);
    }
  }

  void CloseClient() {
    if (client_fd_ >= 0) close(client_fd_);
    client_fd_ = -1;
  }

 private:
  int listen_fd_ = -1;
  int client_fd_ = -1;
  bool listening_ = false;
};

// Waits (bounded) until the robot's connection has bytes to read.
inline void AwaitClientReadable() {
  pollfd p{m_socket.m_sock, POLLIN, 0};
  poll(&p, 1, 1000);
}

// Writes frames from the server and runs one service step once they arrived.
inline void Deliver(FakeServer& server, Robot& robot, const std::string& bytes) {
  server.Write(bytes);
  AwaitClientReadable();
  robot.Handle();
}

// A status report or acknowledgement as the server sends it.
inline std::string FromServer(std::int32_t key, const std::string& t1 = "N",
                              const std::string& t2 = "N", std::int32_t int_param = 0) {
  return Frame(Body("SV-0", "T-0", key, t1, t2, "N", int_param));
}
