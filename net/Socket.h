#pragma once

/// @file
/// One IPv4 TCP endpoint, client or server side, with the receive reassembly
/// buffer of its connection. Only the initialising operations throw
/// (SocketException, fixed texts); everything else reports by return value.

#include <netinet/in.h>

#include <cstddef>
#include <string>

// The generated export macro. Installed, it lies beside the msg/, net/ and
// robot/ header directories; in the build tree it comes from the build's
// export directory.
#if __has_include("../tarn_export.h")
#include "../tarn_export.h"
#else
#include "tarn_export.h"
#endif

/// Most bytes one Recv delivers; larger bursts take several calls.
constexpr std::size_t socket_recv_limit = 102400;

/// Thrown by the initialising operations. Deliberately not derived from
/// std::exception: callers catch it by type (and by value).
class TARN_API SocketException {
 public:
  /// Carries one of the fixed texts, such as "Client Could not bind to port.".
  explicit SocketException(const std::string& message) : m_message(message) {}
  std::string m_message;  ///< the text
};

/// Opaque TLS session record, for the TLS hook ShowCerts.
struct ssl_st;

/// One IPv4 TCP descriptor with the reassembly buffer of its connection.

class TARN_API Socket {
 public:
  /// No descriptor (m_sock -1), empty buffer, m_addr all zero.
  Socket();
  /// Creates the descriptor and connects with up to 101 attempts, then switches
  /// to non-blocking. Throws SocketException on failure.
  Socket(std::string address, int port);
  /// Closes m_sock when it is not -1. m_sock keeps the closed number.
  virtual ~Socket();

  /// Copying would close one descriptor twice.
  Socket(const Socket&) = delete;
  /// Copying would close one descriptor twice.
  Socket& operator=(const Socket&) = delete;

  /// Ignores SIGPIPE process-wide, opens the descriptor, sets SO_REUSEADDR.
  bool Create();
  /// Create, up to 3 connection attempts, non-blocking. Throws on failure.
  void Client_init(std::string address, int port);
  /// Create, up to 101 bind-and-listen attempts, non-blocking. Throws on failure.
  void Server_init(std::string address, int port);
  /// One connection attempt (blocking descriptor).
  bool Client_connect(std::string address, int port);
  /// One bind and listen; announces "Server started success, listen at ...".
  bool Server_bind(std::string address, int port);
  /// Connects the existing descriptor to m_addr again.
  bool Client_reconnect();
  /// Accepts one pending client and announces it; the new descriptor or -1.
  int Accpet_client();
  /// Sets or clears O_NONBLOCK; the result of the last fcntl.
  int Set_non_blocking(bool on);
  /// Adopts a descriptor (the previous one is not closed), non-blocking.
  int Get(int fd);
  /// One send of all of data; true unless send failed (partial writes count).
  bool Send(std::string data) const;
  /// One recv of at most socket_recv_limit bytes into out: the count, 0 (peer closed) or -1.
  int Recv(std::string& out) const;

  /// Hook kept for a later TLS layer; does nothing.
  void SSL_init(int fd);
  /// Hook kept for a later TLS layer; does nothing.
  void OpenSSL_free();

  /// Received bytes not yet consumed by recv_msg, which appends to it and
  /// cuts from its front.
  std::string m_buffer;
  /// The descriptor, -1 for none. Closing leaves the closed number here.
  int m_sock;
  /// The server address of the last Client_connect, for Client_reconnect.
  sockaddr_in m_addr;
};

/// TLS hook; does nothing.
TARN_API void ShowCerts(ssl_st* ssl);
