#include "cli.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <sstream>

#include "exit_status.h"
#include "tarn_config.h"

namespace tarn_cli {

namespace {

struct VerbInfo {
  Verb verb;
  const char* name;
  const char* synopsis;
  const char* summary;
  const char* help;
};

const VerbInfo kVerbs[] = {
    {Verb::kStatus, "status", "status", "ask for a fresh status report and print it",
     "Asks the robot for a fresh status report, waits for it and prints it:\n"
     "name, online state (online, offline, or unknown when the control server\n"
     "does not report it), task state, position (mm), orientation (rad), velocity\n"
     "(mm/s), acceleration (mm/s^2) and battery voltage (V).\n"},
    {Verb::kInit, "init", "init X Y Z", "bring the robot online at X Y (mm) and Z; wait for it",
     "Initialises the robot at X, Y (millimetres) and Z (passed through unscaled;\n"
     "tarn-sim takes it as the initial heading in radians), then waits for the\n"
     "server's acknowledgement, which puts the robot online. The library sends a\n"
     "kill before the initialisation, so a running action is stopped. The robot\n"
     "stays online after this invocation ends.\n"},
    {Verb::kGoto, "goto", "goto X Y", "drive to X Y (mm); wait until arrived",
     "Drives the robot to X, Y (millimetres) and waits until it reports the action\n"
     "finished and a status report shows it free again. Needs an online, free\n"
     "robot (see 'init'). With --no-wait, returns once the goal is written to the\n"
     "connection; tarn-sim then lets the robot finish the drive after this client\n"
     "leaves (a control server that stops the robot when its client leaves would\n"
     "not move it).\n"},
    {Verb::kPath, "path", "path X1 Y1 X2 Y2 ...", "drive along way-points (mm); wait until done",
     "Drives the robot along the way-points (pairs of millimetres, in order) and\n"
     "waits until it reports the end of the path and a status report shows it\n"
     "free, printing each way-point passed. Needs an online, free robot. With\n"
     "--no-wait, returns once the path is written to the connection; tarn-sim\n"
     "then lets the robot finish it after this client leaves.\n"},
    {Verb::kSpeed, "speed", "speed V", "set the velocity limit, 300 to 1300 mm/s",
     "Sets the velocity limit to V mm/s, a whole number from 300 to 1300. The\n"
     "protocol has no answer to it: done means written to the connection, not\n"
     "confirmed by the server.\n"},
    {Verb::kAccel, "accel", "accel A", "set the acceleration limit, 100 to 1000 mm/s^2",
     "Sets the acceleration limit to A mm/s^2, a whole number from 100 to 1000. The\n"
     "protocol has no answer to it: done means written to the connection, not\n"
     "confirmed by the server.\n"},
    {Verb::kTurn, "turn", "turn R", "turn in place to R rad (-pi to pi); wait until turned",
     "Turns the robot in place to heading R radians, from -pi to pi (single\n"
     "precision: -3.14159274 to 3.14159274), and waits until a status report shows\n"
     "the robot free at the new heading. Needs an online, free robot. With\n"
     "--no-wait, returns once the command is written to the connection; tarn-sim\n"
     "then lets the robot finish the turn after this client leaves.\n"},
    {Verb::kKill, "kill", "kill", "stop the robot and take it offline",
     "Stops the robot and takes it offline, then waits for the server's\n"
     "acknowledgement.\n"},
    {Verb::kWatch, "watch", "watch", "print reports and progress until Ctrl-C",
     "Prints a line for every status report and every progress event until\n"
     "interrupted with Ctrl-C (exit status 0), or until --count N reports were\n"
     "printed. Without --count, --timeout bounds connecting and each silence\n"
     "between two messages instead of the whole invocation. Must be the last\n"
     "command of an invocation unless --count is given.\n"},
};

const VerbInfo* FindVerb(const std::string& name) {
  for (const VerbInfo& info : kVerbs) {
    if (name == info.name) return &info;
  }
  return nullptr;
}

const VerbInfo& InfoOf(Verb verb) {
  for (const VerbInfo& info : kVerbs) {
    if (info.verb == verb) return info;
  }
  return kVerbs[0];
}

// A whole argument as one finite number; "1e3", "-250", ".5" are fine.
bool ParseNumber(const std::string& text, double& out) {
  if (text.empty()) return false;
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end != begin + text.size() || errno == ERANGE || !std::isfinite(value)) return false;
  out = value;
  return true;
}

// Checks a command's numbers against what its verb takes; "" when fine.
std::string CheckCommand(const Command& c, const std::vector<std::string>& texts) {
  const std::size_t n = c.numbers.size();
  const char* name = VerbName(c.verb);
  auto arity = [&](std::size_t want, const char* what) -> std::string {
    if (n == want) return "";
    return std::string(name) + ": expects " + what + ", got " + std::to_string(n) +
           (n == 1 ? " number" : " numbers");
  };
  auto whole_in = [&](long lo, long hi, const char* unit) -> std::string {
    const double v = c.numbers[0];
    const double exact = std::strtod(texts[0].c_str(), nullptr);
    if (exact != std::floor(exact))
      return std::string(name) + ": " + texts[0] + " is not a whole number";
    if (v < lo || v > hi) {
      return std::string(name) + ": " + texts[0] + " is out of range (" + std::to_string(lo) +
             " to " + std::to_string(hi) + " " + unit + ")";
    }
    return "";
  };
  std::string error;
  switch (c.verb) {
    case Verb::kStatus:
    case Verb::kKill:
    case Verb::kWatch:
      return arity(0, "no numbers");
    case Verb::kInit:
      return arity(3, "X Y Z");
    case Verb::kGoto:
      return arity(2, "X Y (millimetres)");
    case Verb::kPath:
      if (n == 0 || n % 2 != 0) {
        return std::string(name) + ": expects pairs X Y (millimetres), got " + std::to_string(n) +
               (n == 1 ? " number" : " numbers");
      }
      if (n / 2 > tarn::max_path_points()) {
        return std::string(name) + ": at most " + std::to_string(tarn::max_path_points()) +
               " way-points fit in one message, got " + std::to_string(n / 2);
      }
      return "";
    case Verb::kSpeed:
      if (!(error = arity(1, "V (mm/s)")).empty()) return error;
      return whole_in(300, 1300, "mm/s");
    case Verb::kAccel:
      if (!(error = arity(1, "A (mm/s^2)")).empty()) return error;
      return whole_in(100, 1000, "mm/s^2");
    case Verb::kTurn:
      if (!(error = arity(1, "R (radians)")).empty()) return error;
      // The library's own bound: a value accepted here is never refused later
      // with its bare "value illegality" line.
      if (c.numbers[0] > orientation_limit || c.numbers[0] < -orientation_limit) {
        return std::string(name) + ": " + texts[0] + " is out of range (-pi to pi rad)";
      }
      return "";
  }
  return "";
}

}  // namespace

const char* VerbName(Verb verb) {
  return InfoOf(verb).name;
}

ParseResult Parse(const std::vector<std::string>& args) {
  ParseResult result;
  Invocation& inv = result.invocation;
  auto fail = [&](const std::string& why) {
    result.ok = false;
    result.error = why;
    return result;
  };

  std::vector<std::vector<std::string>> texts;  // each command's number texts
  bool expect_verb = true;
  bool options_done = false;
  bool help_verb = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    // Options may stand anywhere. A lone "-" followed by a digit or a point is
    // a negative number, which positions often are.
    const bool dash_number = arg.size() > 1 && arg[0] == '-' &&
                             (std::isdigit(static_cast<unsigned char>(arg[1])) || arg[1] == '.');
    if (!options_done && arg.size() > 1 && arg[0] == '-' && !dash_number) {
      std::string name = arg;
      std::string value;
      bool has_value = false;
      const std::size_t eq = arg.find('=');
      if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
        name = arg.substr(0, eq);
        value = arg.substr(eq + 1);
        has_value = true;
      }
      auto take_value = [&]() -> bool {
        if (has_value) return true;
        if (i + 1 >= args.size()) return false;
        value = args[++i];
        return true;
      };
      if (name == "--") {
        options_done = true;
      } else if ((name == "--help" || name == "-h") && !has_value) {
        inv.help = true;
      } else if (name == "--no-wait" && !has_value) {
        inv.wait = false;
      } else if (name == "--timeout") {
        double s = 0;
        if (!take_value() || !ParseNumber(value, s) || s <= 0 || s > 86400) {
          return fail("--timeout needs a number of seconds, greater than 0 and at most 86400");
        }
        inv.timeout_s = s;
      } else if (name == "--count") {
        double n = 0;
        if (!take_value() || !ParseNumber(value, n) || n < 1 || n > 1e9 || n != std::floor(n)) {
          return fail("--count needs a whole number of reports, at least 1");
        }
        inv.count = static_cast<long>(n);
      } else {
        return fail("unknown option '" + arg + "'");
      }
      continue;
    }

    if (expect_verb) {
      if (help_verb) {
        // "tarn help goto"
        inv.help_topic = arg;
        continue;
      }
      if (arg == "help") {
        inv.help = true;
        help_verb = true;
        continue;
      }
      const VerbInfo* info = FindVerb(arg);
      if (info == nullptr) return fail("unknown command '" + arg + "' (try 'tarn --help')");
      Command c;
      c.verb = info->verb;
      inv.commands.push_back(c);
      texts.emplace_back();
      expect_verb = false;
      continue;
    }
    if (arg == "then") {
      expect_verb = true;
      continue;
    }
    double v = 0;
    Command& c = inv.commands.back();
    if (!ParseNumber(arg, v) || !std::isfinite(static_cast<float>(v))) {
      return fail(std::string(VerbName(c.verb)) + ": '" + arg + "' is not a number");
    }
    c.numbers.push_back(static_cast<float>(v));
    texts.back().push_back(arg);
  }

  if (inv.help) {
    if (inv.help_topic.empty() && !inv.commands.empty()) {
      inv.help_topic = VerbName(inv.commands.front().verb);
    }
    if (!inv.help_topic.empty() && FindVerb(inv.help_topic) == nullptr) {
      return fail("no help for unknown command '" + inv.help_topic + "'");
    }
    result.ok = true;
    return result;
  }
  if (inv.commands.empty()) return fail("no command given (try 'tarn --help')");
  if (expect_verb) return fail("'then' must be followed by a command");
  for (std::size_t k = 0; k < inv.commands.size(); ++k) {
    const std::string error = CheckCommand(inv.commands[k], texts[k]);
    if (!error.empty()) return fail(error);
    if (inv.commands[k].verb == Verb::kWatch && inv.count == 0 && k + 1 != inv.commands.size()) {
      return fail("watch runs until interrupted: make it the last command, or give --count");
    }
  }
  result.ok = true;
  return result;
}

std::string HelpText(const std::string& topic) {
  if (!topic.empty()) {
    const VerbInfo* info = FindVerb(topic);
    if (info == nullptr) return "";
    return std::string("Usage: tarn [OPTIONS] ") + info->synopsis + "\n\n" + info->help;
  }
  std::string text =
      "Usage: tarn [OPTIONS] COMMAND [ARGS] [then COMMAND [ARGS]]...\n"
      "\n"
      "Commands the robot through its control server, with the TarnSDK Robot API.\n"
      "\n"
      "Commands:\n";
  for (const VerbInfo& info : kVerbs) {
    std::string line = std::string("  ") + info.synopsis;
    line.resize(24, ' ');
    text += line + info.summary + "\n";
  }
  text +=
      "  help [COMMAND]        this text, or a command's\n"
      "\n"
      "Units are those of the Robot API: millimetres for positions, mm/s, mm/s^2\n"
      "and radians.\n"
      "\n"
      "Options:\n"
      "  --timeout S   end the whole invocation, connecting included, after S\n"
      "                seconds (default 10; it ends within S + 0.1 s whatever the\n"
      "                server does); watch without --count: see 'tarn help watch'\n"
      "  --no-wait     goto, path, turn: return once the command is written; tarn-sim\n"
      "                lets the robot finish the action after this client leaves\n"
      "  --count N     watch: stop after N status reports\n"
      "  -h, --help    this text; after a command, that command's help\n"
      "\n"
      "Each invocation is one connection, and commands chained with 'then' share\n"
      "it. The robot stays online between invocations, so\n"
      "  tarn init 0 0 0; tarn goto 1500 -250; tarn kill\n"
      "works as well as\n"
      "  tarn init 0 0 0 then goto 1500 -250 then kill\n"
      "\n"
      "The control server's address and port are compiled into the library\n"
      "(" TARN_SERVER_ADDRESS ":" +
      std::to_string(TARN_SERVER_PORT) +
      " in this build); there is no option to change them.\n"
      "\n" +
      tarn_tools::kExitStatusHelp;
  return text;
}

std::string FormatStatus(const tarn::Report& r) {
  std::ostringstream out;
  out << "robot         " << r.name << "\n"
      << "online        "
      << (!r.online   ? "unknown"
          : *r.online ? "yes"
                      : "no")
      << "\n"
      << "state         " << tarn::describe_state(r.state) << "\n"
      << "position      " << r.x * 1000.0 << " " << r.y * 1000.0 << " mm\n"
      << "orientation   " << r.orientation << " rad\n"
      << "velocity      " << r.velocity << " mm/s\n"
      << "acceleration  " << r.acceleration << " mm/s^2\n"
      << "voltage       " << r.voltage << " V\n";
  return out.str();
}

std::string FormatStatusLine(const tarn::Report& r) {
  std::ostringstream out;
  out << r.name << " "
      << (!r.online   ? ""
          : *r.online ? "online "
                      : "offline ")
      << tarn::describe_state(r.state) << "  at " << r.x * 1000.0 << " " << r.y * 1000.0
      << " mm  heading " << r.orientation << " rad  " << r.velocity << " mm/s  " << r.acceleration
      << " mm/s^2  " << std::fixed << std::setprecision(2) << r.voltage << " V";
  return out.str();
}

bool SameHeading(double a, double b, double tolerance) {
  const double two_pi = 2 * 3.14159265358979323846;
  const double d = std::remainder(a - b, two_pi);
  return std::fabs(d) <= tolerance;
}

}  // namespace tarn_cli
