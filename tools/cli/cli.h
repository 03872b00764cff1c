#pragma once

// The pure part of the `tarn` command-line tool: argument parsing, value
// checks, help texts and the formatting of what the robot reports. Nothing
// here touches the network, so all of it is unit-tested on its own.

#include <string>
#include <vector>

namespace tarn_cli {

// Exit statuses, documented in the tool's help.
enum ExitStatus : int {
  kOk = 0,
  kFailure = 1,        // unexpected failure (a malformed frame from the server...)
  kUsage = 2,          // bad command line or a value out of range
  kUnreachable = 3,    // cannot connect, or the connection was lost
  kTimeout = 4,        // no acknowledgement or report in time
  kRefused = 5,        // robot not online, busy, or in an error state
  kInterrupted = 130,  // SIGINT or SIGTERM (a watch ended by Ctrl-C exits 0)
};

enum class Verb { kStatus, kInit, kGoto, kPath, kSpeed, kAccel, kTurn, kKill, kWatch };

// One command of the invocation, its numbers already checked.
struct Command {
  Verb verb = Verb::kStatus;
  std::vector<float> numbers;  // millimetres, mm/s, mm/s^2 or radians, as the verb takes
};

struct Invocation {
  std::vector<Command> commands;  // run in order on one connection
  double timeout_s = 10;          // bound of the whole invocation, connecting included
  bool wait = true;               // false: goto/path/turn return once sent
  long count = 0;                 // watch: stop after this many reports (0: until Ctrl-C)
  bool help = false;              // print help_topic's text and exit 0
  std::string help_topic;         // "" for the tool, else a command name
};

struct ParseResult {
  bool ok = false;
  Invocation invocation;
  std::string error;  // one line, without the "tarn: " prefix, when !ok
};

// Parses argv[1..] (the program name excluded).
ParseResult Parse(const std::vector<std::string>& args);

// The tool's help (topic "") or a command's; empty for an unknown topic.
std::string HelpText(const std::string& topic);

const char* VerbName(Verb verb);

// The task state in words: "free", "working", "error 3 (busy)".
std::string DescribeState(int state);

// What a status report says, read the way the library reads it: items in
// order, and once one fails to parse the rest keep their previous values.
struct Report {
  float voltage = 0;
  float x = 0;  // metres
  float y = 0;  // metres
  int state = -1;
  float orientation = 0;   // radians
  float velocity = 0;      // mm/s
  float acceleration = 0;  // mm/s^2
  std::string name;
  std::string online = "unknown";  // "online", "offline", or "unknown" when not reported
};
// Updates `report` from a status report's three texts: the numbers, the
// robot's name and its online state. Control servers that do not report the
// online state leave the third text "N", shown as unknown.
void ReadReport(const std::string& text, const std::string& name, const std::string& online,
                Report& report);

// The multi-line block printed by `tarn status` (positions in millimetres).
std::string FormatStatus(const Report& report);
// The one-line form printed by `tarn watch`.
std::string FormatStatusLine(const Report& report);

// True when two headings in radians are within `tolerance` of each other,
// counting -pi and pi as the same heading.
bool SameHeading(double a, double b, double tolerance);

}  // namespace tarn_cli
