// tarn-sim: a control server with one simulated robot behind it, for
// developing and testing applications without the real installation.

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
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
  out << "Usage: tarn-sim [--address A] [--port N] [--rate HZ] [--idle-timeout S]\n"
         "                [--http-address A] [--http-port N] [--http-host NAME]...\n"
         "                [--no-web] [--quiet]\n"
         "\n"
         "A control server with one simulated robot (R-0) behind it. Serves one\n"
         "client at a time and closes other connections at once.\n"
         "\n"
         "  --address A        IPv4 address of the control port (default 127.0.0.1)\n"
         "  --port N           TCP port (default 6868)\n"
         "  --rate HZ          periodic status reports per second, 0 for none (default 10)\n"
         "  --idle-timeout S   a client that has sent nothing for S seconds gives way\n"
         "                     to a new one; one that reads none of its replies for\n"
         "                     S seconds is dropped (default 30)\n"
         "  --http-address A   IPv4 address of the live view (default 127.0.0.1). Any\n"
         "                     other than loopback (127.x.x.x) shows the robot to whoever\n"
         "                     reaches it: tarn-sim warns, and the controls then need\n"
         "                     the token printed at start with the view's address\n"
         "  --http-port N      port of the live view (default 6869)\n"
         "  --http-host NAME   a further host name the live view answers to, as in\n"
         "                     http://NAME:6869/ (repeatable); it answers to its\n"
         "                     address, localhost, 127.0.0.1 and [::1] anyway\n"
         "  --no-web           no live view\n"
         "  --quiet            no log lines; only errors, the listening line and the\n"
         "                     live view's address\n"
         "  --help             this text\n"
         "\n"
         "The robot:\n"
         "  - INIT puts it online at the given pose (Robot::Init takes millimetres\n"
         "    and sends metres; the third number is the heading in radians);\n"
         "    KILL takes it offline and stops it. Each is answered by a status\n"
         "    report first and then its acknowledgement, so the pose is current\n"
         "    when `online` changes. Reports carry online/offline in text 3.\n"
         "  - It drives a path at most at the speed and acceleration set, stops on\n"
         "    every way-point and turns on the spot towards the next.\n"
         "  - Refusals set the task state to an error code:\n"
         "      2 not online          motion while offline\n"
         "      3 busy                motion while an action or turn is under way\n"
         "      4 unsupported action  action type other than 1 (travel)\n"
         "      5 bad parameter       a number that does not parse, is not finite or\n"
         "                            is beyond 10,000 km; an unknown parameter; more\n"
         "                            than 64 actions in one message\n"
         "    A refusal is answered at once by a status report with the code. The\n"
         "    code stays until the robot is at rest and at least 1 s has passed,\n"
         "    then clears to -1 (free) with a status report; an accepted command\n"
         "    clears it at once. A loop waiting for -1 therefore always ends.\n"
         "  - When its client leaves, the robot finishes the running action and\n"
         "    stays online with its pose, limits and battery for the next client.\n"
         "\n"
         "The live view (http://127.0.0.1:6869/ by default) shows the robot on a\n"
         "map; /state is the whole state as JSON, /events the same as server-sent\n"
         "events. Its controls are POST /control/pause, /control/resume,\n"
         "/control/drop and /control/error?code=N with Content-Type:\n"
         "application/json (and X-Tarn-Token: the token, beyond loopback); from a\n"
         "page of another origin they are refused.\n"
         "Stop the simulator with Ctrl-C (SIGINT) or SIGTERM.\n";
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
    } else if (arg == "--no-web") {
      options.web = false;
    } else if (arg == "--http-address" && has_value) {
      options.http_address = argv[++i];
    } else if (arg == "--http-host" && has_value) {
      options.http_names.push_back(argv[++i]);
    } else if (arg == "--http-port" && has_value) {
      double port = 0;
      if (!ParseDouble(argv[++i], port) || port < 0 || port > 65535 || port != std::floor(port)) {
        std::cerr << "tarn-sim: --http-port needs a number from 0 to 65535\n";
        return 2;
      }
      options.http_port = static_cast<int>(port);
    } else if (arg == "--idle-timeout" && has_value) {
      if (!ParseDouble(argv[++i], options.idle_timeout) || options.idle_timeout <= 0 ||
          options.idle_timeout > 86400) {
        std::cerr << "tarn-sim: --idle-timeout needs a number of seconds above 0, at most 86400\n";
        return 2;
      }
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

  // Browsers opening many connections at once must not use up the
  // descriptors the control port needs: take what the hard limit allows.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = std::max(files.rlim_cur, std::min<rlim_t>(files.rlim_max, 65536));
    setrlimit(RLIMIT_NOFILE, &files);
  }

  return tarn_sim::RunServer(options, g_stop);
}
