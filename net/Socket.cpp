#include "net/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

namespace {

// Connection attempts follow one another without a pause on the same
// descriptor: a refusal returns at once, a silent host costs one connect
// timeout per attempt.
constexpr int kClientInitAttempts = 3;
constexpr int kConnectCtorAttempts = 101;
constexpr int kServerInitAttempts = 101;

constexpr int kListenBacklog = 3;

}  // namespace

Socket::Socket() : m_sock(-1) {
  std::memset(&m_addr, 0, sizeof(m_addr));
}

// A failed connection leaves the constructor by the exception, so no
// destructor runs and the created descriptor stays open: callers that need
// to recover it use the default constructor and Client_init instead.
Socket::Socket(std::string address, int port) : m_sock(-1) {
  std::memset(&m_addr, 0, sizeof(m_addr));
  if (!Create()) throw SocketException("Could not create client socket.");
  for (int attempt = 0; attempt < kConnectCtorAttempts; ++attempt) {
    if (Client_connect(address, port)) {
      Set_non_blocking(true);
      return;
    }
  }
  throw SocketException("Could not bind to port.");
}

// m_sock keeps the closed number on purpose: the service loop tears the
// global socket down the same way on disconnection, and this destructor runs
// again at exit on the very same number.
Socket::~Socket() {
  if (m_sock != -1) close(m_sock);
}

bool Socket::Create() {
  // Writing to a connection the peer has closed must make send fail rather
  // than end the application's process.
  signal(SIGPIPE, SIG_IGN);
  m_sock = socket(AF_INET, SOCK_STREAM, 0);
  if (m_sock == -1) return false;
  int one = 1;
  const int reuse = setsockopt(m_sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  // Frames are small and written back to back (initialisation queues two).
  // With Nagle's algorithm the second would wait for the acknowledgement of
  // the first, which the peer delays by tens of milliseconds. Accepted
  // sockets inherit the option from the listener. Best effort: a failure
  // here costs latency only, so it does not decide Create's result.
  setsockopt(m_sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return reuse != -1;
}

void Socket::Client_init(std::string address, int port) {
  if (!Create()) throw SocketException("Could not create client socket.");
  for (int attempt = 0; attempt < kClientInitAttempts; ++attempt) {
    if (Client_connect(address, port)) {
      Set_non_blocking(true);
      return;
    }
  }
  throw SocketException("Client Could not bind to port.");
}

void Socket::Server_init(std::string address, int port) {
  // The server path shares the client's creation text.
  if (!Create()) throw SocketException("Could not create client socket.");
  for (int attempt = 0; attempt < kServerInitAttempts; ++attempt) {
    if (Server_bind(address, port)) {
      Set_non_blocking(true);
      return;
    }
  }
  throw SocketException("Server Could not bind to port.");
}

bool Socket::Client_connect(std::string address, int port) {
  if (m_sock == -1) return false;
  m_addr.sin_family = AF_INET;
  m_addr.sin_port = htons(static_cast<std::uint16_t>(port));
  // The conversion's result is deliberately not examined: text that does not
  // parse leaves m_addr's previous address in place and the attempt goes
  // ahead with it. Only an errno of EAFNOSUPPORT, which can be left over
  // from an earlier failure since errno is not cleared here, stops it.
  inet_pton(AF_INET, address.c_str(), &m_addr.sin_addr);
  if (errno == EAFNOSUPPORT) return false;
  return connect(m_sock, reinterpret_cast<const sockaddr*>(&m_addr), sizeof(m_addr)) == 0;
}

bool Socket::Server_bind(std::string address, int port) {
  sockaddr_in local;
  std::memset(&local, 0, sizeof(local));
  local.sin_family = AF_INET;
  // Unparsable text yields the all-ones address, which bind then refuses.
  local.sin_addr.s_addr = inet_addr(address.c_str());
  local.sin_port = htons(static_cast<std::uint16_t>(port));
  if (bind(m_sock, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) < 0) return false;
  if (listen(m_sock, kListenBacklog) == -1) return false;
  std::cout << "Server started success, listen at " << address << ":" << port << std::endl;
  return true;
}

bool Socket::Client_reconnect() {
  return connect(m_sock, reinterpret_cast<const sockaddr*>(&m_addr), sizeof(m_addr)) == 0;
}

int Socket::Accpet_client() {
  sockaddr_in peer;
  socklen_t length = sizeof(peer);
  const int fd = accept(m_sock, reinterpret_cast<sockaddr*>(&peer), &length);
  if (fd == -1) return -1;
  length = sizeof(peer);
  // The accepted descriptor is not closed on this failure: the caller gets -1
  // and the connection stays open until the process ends.
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == -1) return -1;
  std::cout << inet_ntoa(peer.sin_addr) << ":" << static_cast<unsigned>(ntohs(peer.sin_port))
            << " connect" << std::endl;
  return fd;
}

int Socket::Set_non_blocking(bool on) {
  const int flags = fcntl(m_sock, F_GETFL);
  if (flags < 0) return flags;
  return fcntl(m_sock, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK));
}

// The previous descriptor is not closed: adopting is a hand-over, and the
// caller may still own the old one elsewhere.
int Socket::Get(int fd) {
  m_sock = fd;
  return Set_non_blocking(true);
}

// One send, no retry: a partial write counts as success and the receiver's
// resynchronisation deals with the truncated frame.
bool Socket::Send(std::string data) const {
  return send(m_sock, data.data(), data.size(), 0) >= 0;
}

int Socket::Recv(std::string& out) const {
  out.clear();
  // Left uninitialised: the service loop polls twice per step even when idle,
  // and only the bytes actually received are ever read from it.
  char chunk[socket_recv_limit];
  const ssize_t received = recv(m_sock, chunk, socket_recv_limit, 0);
  if (received <= 0) return received < 0 ? -1 : 0;
  out.assign(chunk, static_cast<std::size_t>(received));
  return static_cast<int>(received);
}

void Socket::SSL_init(int) {}

void Socket::OpenSSL_free() {}

void ShowCerts(ssl_st*) {}
