#pragma once

// The I/O loop of tarn-sim: a listening Socket, at most one client at a time,
// the simulated robot advanced by the wall clock between polls.

#include <csignal>
#include <string>

namespace tarn_sim {

struct ServerOptions {
  std::string address = "127.0.0.1";
  int port = 6868;
  double rate_hz = 10;
  bool quiet = false;
  // A client whose buffered bytes have not produced a message for this long
  // is dropped (seconds); see Server::Run.
  double stuck_timeout = 2.0;
};

// Serves clients until `stop` becomes non-zero. Returns the process's exit
// status: 0 after a requested stop, 1 when the address cannot be bound.
int RunServer(const ServerOptions& options, volatile std::sig_atomic_t& stop);

}  // namespace tarn_sim
