#pragma once

// The I/O loop of tarn-sim: a listening socket, one client served at a time,
// the simulated robot advanced by the wall clock, and
// the live view fed with snapshots. Single-threaded apart from the live
// view's HTTP threads, which only read published snapshots.

#include <atomic>
#include <csignal>
#include <string>
#include <vector>

namespace tarn_sim {

struct ServerOptions {
  std::string address = "127.0.0.1";  // of the control port
  int port = 6868;                    // 0: any free port (tests)
  double rate_hz = 10;
  bool quiet = false;
  // A client that has sent nothing for this long gives way to a new one that
  // connects; one that has not taken any of its pending output for this long
  // is dropped (seconds).
  double idle_timeout = 30;
  bool web = true;
  // The live view listens apart from the control port: on loopback unless
  // told otherwise, and beyond it only with a warning and with its controls
  // behind a token.
  std::string http_address = "127.0.0.1";
  int http_port = 6869;                 // 0: any free port
  std::vector<std::string> http_names;  // further Host names it answers to
  // Counts the loop's wake-ups when set: what an idle or driving simulator
  // costs in scheduling, for tests and measurements.
  std::atomic<unsigned long>* wakeups = nullptr;
};

// Serves clients until `stop` becomes non-zero. Returns the process's exit
// status: 0 after a requested stop, 1 when the control port cannot be bound.
// `on_ready`, when given, is called once with the bound control port.
int RunServer(const ServerOptions& options, volatile std::sig_atomic_t& stop,
              void (*on_ready)(int port) = nullptr);

}  // namespace tarn_sim
