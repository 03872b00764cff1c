#pragma once

// Loopback plumbing: bounded waits on descriptors, and the library's own
// server-side Socket on 127.0.0.1 as the scripted peer that writes exactly
// the bytes a test hands it. A client connects into the listener's backlog,
// so one thread drives both ends.

#include <netinet/in.h>
#include <poll.h>

#include <chrono>
#include <string>

#include "net/Socket.h"

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

// Starts `server` listening on 127.0.0.1:`port` (0: a port the kernel
// chooses) and returns the port.
inline int listen(Socket& server, int port = 0) {
  server.Server_init("127.0.0.1", port);
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  getsockname(server.m_sock, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

// Everything the other end has written so far: waits up to `first_wait_ms`
// for the first byte, then takes what follows within 20 ms gaps.
inline std::string read_all(const Socket& s, int first_wait_ms = 300) {
  std::string out, chunk;
  for (int wait = first_wait_ms; wait_readable(s.m_sock, wait) && s.Recv(chunk) > 0; wait = 20)
    out += chunk;
  return out;
}

}  // namespace loopback
