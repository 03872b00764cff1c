#pragma once

// Exit statuses shared by tarn, tarn-demo, tarn-vda5050 and tarn-fleet-view:
// one number for one outcome, whichever program reports it, so that a script
// can tell a refused command from a silent robot or a lost connection
// without knowing which of them it ran.

namespace tarn_tools {

enum ExitStatus : int {
  kOk = 0,             // done; tarn-vda5050, tarn-fleet-view: stopped by SIGINT or SIGTERM
  kFailure = 1,        // anything else (a file that cannot be written, ...)
  kUsage = 2,          // bad command line or value
  kUnreachable = 3,    // the control server cannot be reached
  kNoAnswer = 4,       // no answer in time
  kRefused = 5,        // the robot refused a command or reports an error
  kLost = 6,           // the connection to the control server was lost
  kUnreadable = 7,     // unreadable data from the control server
  kBroker = 8,         // the MQTT broker cannot be reached or refused us
  kInterrupted = 130,  // SIGINT or SIGTERM ended a command
};

// The table as each program's --help prints it.
inline constexpr const char* kExitStatusHelp =
    "Exit status (the same for tarn, tarn-demo, tarn-vda5050 and tarn-fleet-view):\n"
    "  0    done (tarn-vda5050, tarn-fleet-view: stopped by SIGINT or SIGTERM)\n"
    "  1    any other failure\n"
    "  2    bad command line or value\n"
    "  3    control server unreachable\n"
    "  4    no answer in time\n"
    "  5    the robot refused a command or reports an error\n"
    "  6    connection to the control server lost\n"
    "  7    unreadable data from the control server\n"
    "  8    MQTT broker unreachable or refused the connection (tarn-vda5050,\n"
    "       tarn-fleet-view)\n"
    "  130  interrupted by SIGINT or SIGTERM (tarn)\n";

}  // namespace tarn_tools
