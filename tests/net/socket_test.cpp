// The endpoint on loopback: what it prints, how it fails, its retry counts and
// the descriptor modes the receive path and the Robot rely on.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <memory>

#include "net/Socket.h"
#include "tests/support/peer.h"

namespace {

// Counted by the interposed connect below; the next `refusals` attempts
// fail as refused.
int refusals = 0, attempts = 0;

const auto non_blocking = [](int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; };
const auto is_open = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
// A port nobody listens on any more.
const auto free_port = [] {
  Socket probe;
  return loopback::listen(probe);
};
template <typename F>
std::string Thrown(F f) {
  try {
    f();
  } catch (const SocketException& e) {
    return e.m_message;
  }
  return "(nothing thrown)";
}

}  // namespace

// Exported from the executable, so it takes the C library's place for the
// shared library's calls too.
extern "C" __attribute__((visibility("default"))) int connect(int fd, const sockaddr* addr,
                                                              socklen_t len) {
  ++attempts;
  if (refusals > 0) {
    --refusals;
    errno = ECONNREFUSED;
    return -1;
  }
  return static_cast<int>(syscall(SYS_connect, fd, addr, len));
}

TEST(Socket, ServerAndClientExchangeBytesAndAnnounce) {
  const int port = free_port();
  Socket server, client;
  testing::internal::CaptureStdout();
  server.Server_init("127.0.0.1", port);
  EXPECT_EQ(server.Accpet_client(), -1);  // nobody waiting: no line
  client.Client_init("127.0.0.1", port);
  const int fd = loopback::wait_for([&] { return server.Accpet_client(); });
  ASSERT_NE(fd, -1);
  sockaddr_in local{};
  socklen_t len = sizeof(local);
  getsockname(client.m_sock, reinterpret_cast<sockaddr*>(&local), &len);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Server started success, listen at 127.0.0.1:" + std::to_string(port) +
                "\n127.0.0.1:" + std::to_string(ntohs(local.sin_port)) + " connect\n");
  EXPECT_TRUE(non_blocking(server.m_sock) && non_blocking(client.m_sock));
  EXPECT_TRUE(client.Set_non_blocking(false) >= 0 && !non_blocking(client.m_sock));

  auto peer = std::make_unique<Socket>();
  EXPECT_TRUE(peer->Get(fd) >= 0 && non_blocking(fd));
  std::string out = "stale";
  EXPECT_EQ(peer->Recv(out), -1);
  EXPECT_TRUE(out.empty() && client.Send(""));

  // Destroying the adopting socket closes the descriptor: the client's sends
  // then fail instead of raising SIGPIPE.
  peer.reset();
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(loopback::wait_for([&] { return client.Send("x") ? -1 : 0; }), 0);
}

TEST(Socket, ClientsRetryImmediatelyThenThrowKeepingTheDescriptor) {
  Socket listener;
  const int port = loopback::listen(listener), closed_port = free_port();
  // Client_init makes three attempts, the connecting constructor 101; both
  // leave a connection non-blocking.
  for (int refused : {2, 3}) {
    Socket client;
    refusals = refused, attempts = 0;
    const std::string thrown = Thrown([&] { client.Client_init("127.0.0.1", port); });
    EXPECT_EQ(thrown, refused < 3 ? "(nothing thrown)" : "Client Could not bind to port.");
    EXPECT_TRUE(attempts == 3 && is_open(client.m_sock));
    EXPECT_EQ(non_blocking(client.m_sock), refused < 3);
  }
  refusals = 100, attempts = 0;
  EXPECT_TRUE(non_blocking(Socket("127.0.0.1", port).m_sock) && attempts == 101);
  refusals = 0, attempts = 0;
  EXPECT_EQ(Thrown([&] { Socket s("127.0.0.1", closed_port); }), "Could not bind to port.");
  EXPECT_EQ(attempts, 101);
  Socket server;
  testing::internal::CaptureStdout();
  const std::string thrown = Thrown([&] { server.Server_init("127.0.0.1", port); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(thrown == "Server Could not bind to port." && is_open(server.m_sock));
}

TEST(Socket, ConnectQuirksAndAdoption) {
  Socket none;
  // Without a descriptor: refused, m_addr untouched.
  EXPECT_TRUE(!none.Client_connect("127.0.0.1", 1) && none.m_addr.sin_port == 0);

  Socket listener, client;
  const int port = loopback::listen(listener);
  ASSERT_TRUE(client.Create());
  // A stale EAFNOSUPPORT refuses even a good address, which is still stored;
  // unparsable text then connects to that stored address.
  errno = EAFNOSUPPORT;
  EXPECT_FALSE(client.Client_connect("127.0.0.1", port));
  errno = 0;
  EXPECT_TRUE(client.Client_connect("no address", port));

  // Get hands over without closing what was held before; one receive takes
  // at most 102400 bytes.
  const int held = client.m_sock;
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_GE(client.Get(sv[0]), 0);
  EXPECT_TRUE(is_open(held));
  ASSERT_EQ(write(sv[1], std::string(150000, 'x').data(), 150000), 150000);
  std::string out;
  EXPECT_EQ(client.Recv(out), 102400);
  EXPECT_EQ(client.Recv(out), 47600);
  EXPECT_EQ(out, std::string(47600, 'x'));
  for (int fd : {held, sv[1]}) close(fd);
}
