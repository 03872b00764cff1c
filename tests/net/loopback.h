#pragma once

// Loopback helpers for the endpoint and exchange tests. Ports come from the
// kernel, never 6868; every wait gives up after 5 s.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "net/Socket.h"

// A kernel-chosen loopback port, left listening on *fd when fd is given and
// released (so nobody listens) otherwise.
inline int loopback_port(int* fd = nullptr) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  bind(s, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
  if (fd) {
    listen(s, 4);
    *fd = s;
  } else {
    close(s);
  }
  return ntohs(addr.sin_port);
}

// Retries `poll` until it returns something other than -1.
template <typename F>
int wait_for(F poll) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int n;
  while ((n = poll()) == -1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return n;
}

inline int accept_wait(Socket& listener) {
  return wait_for([&] { return listener.Accpet_client(); });
}

inline int recv_wait(const Socket& s, std::string& out) {
  return wait_for([&] { return s.Recv(out); });
}
