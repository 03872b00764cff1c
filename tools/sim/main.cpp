// tarn-sim: a control server with one simulated robot behind it, for
// developing and testing applications without the real installation.

#include <signal.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "server.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) {
  g_stop = 1;
}

void Usage(std::ostream& out) {
  out << "Usage: tarn-sim [--address A] [--port N] [--rate HZ] [--quiet]\n"
         "\n"
         "A control server with one simulated robot (R-0) behind it. Serves one\n"
         "client at a time and keeps serving after a client leaves.\n"
         "\n"
         "  --address A   IPv4 address to listen on (default 127.0.0.1)\n"
         "  --port N      TCP port (default 6868)\n"
         "  --rate HZ     periodic status reports per second, 0 for none (default 10)\n"
         "  --quiet       no log line per message\n"
         "  --help        this text\n"
         "\n"
         "Stop it with Ctrl-C (SIGINT) or SIGTERM.\n";
}

bool ParseDouble(const char* text, double& out) {
  char* end = nullptr;
  out = std::strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(out);
}

}  // namespace

int main(int argc, char** argv) {
  tarn_sim::ServerOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      Usage(std::cout);
      return 0;
    } else if (arg == "--quiet" || arg == "-q") {
      options.quiet = true;
    } else if (arg == "--address" && has_value) {
      options.address = argv[++i];
    } else if (arg == "--port" && has_value) {
      double port = 0;
      if (!ParseDouble(argv[++i], port) || port < 1 || port > 65535 || port != std::floor(port)) {
        std::cerr << "tarn-sim: --port needs a number from 1 to 65535\n";
        return 2;
      }
      options.port = static_cast<int>(port);
    } else if (arg == "--rate" && has_value) {
      if (!ParseDouble(argv[++i], options.rate_hz) || options.rate_hz < 0 ||
          options.rate_hz > 1000) {
        std::cerr << "tarn-sim: --rate needs a number from 0 to 1000\n";
        return 2;
      }
    } else {
      std::cerr << "tarn-sim: unknown or incomplete option '" << arg << "'\n";
      Usage(std::cerr);
      return 2;
    }
  }

  // No SA_RESTART: a signal interrupts poll() so the loop sees the request
  // at once and closes the sockets on its way out.
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  return tarn_sim::RunServer(options, g_stop);
}
