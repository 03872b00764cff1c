#pragma once

// The MQTT side that tarn-vda5050 and tarn-fleet-view share: the broker's
// options, credentials and TLS, and a link that the program drives by hand
// from its own poll() loop (no libmosquitto thread), tried again once a second
// while the broker is away. Whoever includes it links libmosquitto.

#include <mosquitto.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <iostream>
#include <string>
#include <unordered_map>

#include "tools/common/exit_status.h"

namespace tarn_tools {

struct BrokerOptions {
  std::string host = "127.0.0.1", unix_path, user, password, cafile;
  int port = 0;  // 0: 1883, or 8883 when a CA file asks for TLS

  // The text-valued options, for a program's table of options.
  void AddTo(std::unordered_map<std::string, std::string*>& texts) {
    texts.insert({{"--host", &host},
                  {"--unix", &unix_path},
                  {"--user", &user},
                  {"--password", &password},
                  {"--cafile", &cafile}});
  }
  int Port() const { return port > 0 ? port : cafile.empty() ? 1883 : 8883; }
};

// The lines of each program's --help that describe them.
inline constexpr const char* kBrokerHelp =
    "  --host H              broker host (default 127.0.0.1)\n"
    "  --port N              broker port (default 1883, 8883 with --cafile)\n"
    "  --unix PATH           broker's Unix socket instead of host and port\n"
    "  --user U --password P broker credentials\n"
    "  --cafile F            TLS, trusting the CA certificates in F\n";

class BrokerLink {
 public:
  using Clock = std::chrono::steady_clock;

  // `program` prefixes every message on standard error.
  BrokerLink(mosquitto* mosq, const char* program) : mosq_(mosq), program_(program) {}

  // Credentials and TLS, then the connection: its TCP connect blocks, the
  // MQTT handshake goes on in Service(). kUsage when the CA file cannot be
  // used, kBroker when the broker cannot be reached, kOk otherwise; a
  // message says which.
  int Open(const BrokerOptions& o, int keepalive_s,
           const mosquitto_property* properties = nullptr) {
    if (!o.user.empty())
      mosquitto_username_pw_set(mosq_, o.user.c_str(),
                                o.password.empty() ? nullptr : o.password.c_str());
    if (!o.cafile.empty() && mosquitto_tls_set(mosq_, o.cafile.c_str(), nullptr, nullptr, nullptr,
                                               nullptr) != MOSQ_ERR_SUCCESS) {
      std::cerr << program_ << ": cannot use the CA file " << o.cafile << "\n";
      return kUsage;
    }
    const bool unix_socket = !o.unix_path.empty();
    const int rc =
        mosquitto_connect_bind_v5(mosq_, unix_socket ? o.unix_path.c_str() : o.host.c_str(),
                                  unix_socket ? 0 : o.Port(), keepalive_s, nullptr, properties);
    if (rc != MOSQ_ERR_SUCCESS) {
      std::cerr << program_ << ": broker unreachable: " << mosquitto_strerror(rc) << "\n";
      return kBroker;
    }
    return kOk;
  }

  // The broker's socket for poll(), with POLLOUT while output waits.
  pollfd Entry() const {
    pollfd fd{mosquitto_socket(mosq_), POLLIN, 0};
    if (mosquitto_want_write(mosq_)) fd.events |= POLLOUT;
    return fd;
  }

  // After poll(), with the entry's revents: reads, writes, keep-alive. A link
  // that breaks is tried again once a second, but never while a connection
  // waits for its acknowledgement: a second one would make the broker drop
  // the first and publish its last will. True when the link broke just now;
  // `was_up` says whether to say so (a handshake that fails is not news).
  bool Service(short revents, bool was_up) {
    int rc = MOSQ_ERR_SUCCESS;
    if (revents & (POLLIN | POLLERR | POLLHUP)) rc = mosquitto_loop_read(mosq_, 1);
    if (rc == MOSQ_ERR_SUCCESS && (revents & POLLOUT)) rc = mosquitto_loop_write(mosq_, 1);
    if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop_misc(mosq_);
    bool broke = false;
    if (rc != MOSQ_ERR_SUCCESS && link_) {
      if (was_up)
        std::cerr << program_ << ": broker connection lost: " << mosquitto_strerror(rc) << "\n";
      link_ = false;
      broke = true;
    }
    if (!link_ && Clock::now() >= next_retry_) {
      next_retry_ = Clock::now() + std::chrono::seconds(1);
      link_ = mosquitto_reconnect(mosq_) == MOSQ_ERR_SUCCESS;
    }
    return broke;
  }

  // An orderly goodbye: serves the link until `delivered` says the last
  // publication has been acknowledged, within `limit`, then disconnects.
  // libmosquitto closes the socket as soon as its DISCONNECT is written; an
  // acknowledgement still unread then makes the kernel reset the connection,
  // and a broker that sees the reset before it has read the publication and
  // the DISCONNECT drops both and publishes the last will instead.
  void Close(std::chrono::milliseconds limit, const std::function<bool()>& delivered = {}) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline &&
           (mosquitto_want_write(mosq_) || (delivered && !delivered()))) {
      pollfd fd = Entry();
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (poll(&fd, 1, static_cast<int>(std::max<long long>(0, left.count()))) < 0 &&
          errno != EINTR)
        break;
      int rc = MOSQ_ERR_SUCCESS;
      if (fd.revents & (POLLIN | POLLERR | POLLHUP)) rc = mosquitto_loop_read(mosq_, 1);
      if (rc == MOSQ_ERR_SUCCESS && (fd.revents & POLLOUT)) rc = mosquitto_loop_write(mosq_, 1);
      if (rc != MOSQ_ERR_SUCCESS) return;
    }
    mosquitto_disconnect(mosq_);
    mosquitto_loop_write(mosq_, 1);
  }

 private:
  mosquitto* mosq_;
  const char* program_;
  bool link_ = true;  // a connection is up or being acknowledged
  Clock::time_point next_retry_ = Clock::now();
};

}  // namespace tarn_tools
