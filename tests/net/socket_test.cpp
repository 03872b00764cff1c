// The endpoint on loopback: ports come from the kernel (bound to 0, then
// released), never 6868.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "net/Socket.h"

namespace {

// A listening (or, with listen_too false, only bound) loopback socket on a
// kernel-chosen port.
int bound_socket(int& port, bool listen_too) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) return -1;
  if (listen_too && listen(fd, 4) != 0) return -1;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port = ntohs(addr.sin_port);
  return fd;
}

// A port on which nobody listens (refuses connections at once).
int closed_port() {
  int port = 0;
  close(bound_socket(port, false));
  return port;
}

int local_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

bool non_blocking(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}
bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

// Polls Recv until it returns something other than -1, for at most 5 s.
int recv_wait(const Socket& s, std::string& out) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int n = -1;
  while ((n = s.Recv(out)) == -1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return n;
}

}  // namespace

TEST(Socket, ServerAndClientExchangeBytesAndAnnounce) {
  const int port = closed_port();
  Socket server;
  testing::internal::CaptureStdout();
  server.Server_init("127.0.0.1", port);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Server started success, listen at 127.0.0.1:" + std::to_string(port) + "\n");
  EXPECT_TRUE(non_blocking(server.m_sock));

  testing::internal::CaptureStdout();
  EXPECT_EQ(server.Accpet_client(), -1);  // nobody waiting yet
  Socket client;
  client.Client_init("127.0.0.1", port);
  EXPECT_TRUE(non_blocking(client.m_sock));
  int fd = -1;
  for (int i = 0; i < 5000 && fd == -1; ++i) {
    fd = server.Accpet_client();
    if (fd == -1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_NE(fd, -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "127.0.0.1:" + std::to_string(local_port(client.m_sock)) + " connect\n");

  auto peer = std::make_unique<Socket>();
  EXPECT_GE(peer->Get(fd), 0);
  EXPECT_TRUE(non_blocking(fd));
  std::string out = "stale";
  EXPECT_EQ(peer->Recv(out), -1);
  EXPECT_EQ(out, "");

  EXPECT_TRUE(client.Send(""));
  const std::string binary("a#\0;b", 5);
  EXPECT_TRUE(client.Send(binary));
  ASSERT_EQ(recv_wait(*peer, out), 5);
  EXPECT_EQ(out, binary);

  // Destroying the adopting socket closes the descriptor: the client then
  // sees the end of the stream and, SIGPIPE being ignored, failed sends.
  peer.reset();
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(recv_wait(client, out), 0);
  EXPECT_EQ(out, "");
  bool sent = true;
  for (int i = 0; i < 100 && sent; ++i) {
    sent = client.Send("x");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_FALSE(sent);
}

TEST(Socket, RecvDeliversAtMostOneChunkPerCall) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  std::string burst(150000, '\0');
  for (std::size_t i = 0; i < burst.size(); ++i) burst[i] = static_cast<char>(i * 7);
  std::thread writer([&] { (void)!write(sv[0], burst.data(), burst.size()); });
  Socket reader;
  reader.Get(sv[1]);
  std::string got, out;
  int calls = 0;
  while (got.size() < burst.size()) {
    const int n = recv_wait(reader, out);
    ASSERT_GT(n, 0);
    ASSERT_LE(n, 102400);
    got += out;
    ++calls;
  }
  writer.join();
  close(sv[0]);
  EXPECT_GE(calls, 2);
  EXPECT_EQ(got, burst);
}

TEST(Socket, ConnectFailuresKeepTheDescriptorAndPrintNothing) {
  const int port = closed_port();
  testing::internal::CaptureStdout();
  Socket client;
  try {
    client.Client_init("127.0.0.1", port);
    ADD_FAILURE() << "connected to a closed port";
  } catch (SocketException e) {
    EXPECT_EQ(e.m_message, "Client Could not bind to port.");
  }
  EXPECT_TRUE(is_open(client.m_sock));
  EXPECT_FALSE(non_blocking(client.m_sock));
  try {
    Socket s("127.0.0.1", port);
    ADD_FAILURE() << "connected to a closed port";
  } catch (const SocketException& e) {
    EXPECT_EQ(e.m_message, "Could not bind to port.");
  }

  int busy_port = 0;
  const int busy = bound_socket(busy_port, true);
  Socket server;
  try {
    server.Server_init("127.0.0.1", busy_port);
    ADD_FAILURE() << "bound a port in use";
  } catch (const SocketException& e) {
    EXPECT_EQ(e.m_message, "Server Could not bind to port.");
  }
  EXPECT_TRUE(is_open(server.m_sock));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  close(busy);
}

TEST(Socket, ConnectQuirksAndAdoption) {
  Socket none;
  EXPECT_FALSE(none.Client_connect("127.0.0.1", 1));
  EXPECT_EQ(none.m_addr.sin_port, 0);  // untouched without a descriptor

  int port = 0;
  const int listener = bound_socket(port, true);
  Socket client;
  ASSERT_TRUE(client.Create());
  // A stale EAFNOSUPPORT refuses even a good address; the address is stored.
  errno = EAFNOSUPPORT;
  EXPECT_FALSE(client.Client_connect("127.0.0.1", port));
  errno = 0;
  // Unparsable text reuses the address stored by the previous call.
  EXPECT_TRUE(client.Client_connect("no address", port));
  EXPECT_EQ(client.m_addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

  // Get hands over without closing what was held before.
  const int held = client.m_sock;
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_GE(client.Get(sv[0]), 0);
  EXPECT_TRUE(is_open(held));
  close(held);
  close(sv[1]);
  close(listener);
}
