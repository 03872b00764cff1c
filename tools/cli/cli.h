#pragma once

// The pure part of the `tarn` command-line tool: argument parsing, value
// checks, help texts and the formatting of what the robot reports. Nothing
// here touches the network, so all of it is unit-tested on its own.

#include <string>
#include <vector>

#include "robot/events.h"

namespace tarn_cli {

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

// The multi-line block printed by `tarn status` (positions in millimetres).
std::string FormatStatus(const tarn::Report& report);
// The one-line form printed by `tarn watch`.
std::string FormatStatusLine(const tarn::Report& report);

// True when two headings in radians are within `tolerance` of each other,
// counting -pi and pi as the same heading.
bool SameHeading(double a, double b, double tolerance);

}  // namespace tarn_cli
