#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli.h"

namespace {

// The whole outcome of parsing `line`, split at each single space (so two
// spaces make an empty argument), as one line: the commands with their
// numbers and the options, the help topic, or the error text.
std::string Outcome(const std::string& line) {
  std::vector<std::string> args;
  std::istringstream split(line);
  for (std::string arg; std::getline(split, arg, ' ');) args.push_back(arg);
  const tarn_cli::ParseResult r = tarn_cli::Parse(args);
  if (!r.ok) return "error: " + r.error;
  const tarn_cli::Invocation& in = r.invocation;
  if (in.help) return "help '" + in.help_topic + "'";
  std::ostringstream out;
  for (const tarn_cli::Command& c : in.commands) {
    out << tarn_cli::VerbName(c.verb);
    for (float n : c.numbers) out << ' ' << n;
    out << "; ";
  }
  out << "timeout " << in.timeout_s << (in.wait ? " wait" : " no-wait") << " count " << in.count;
  return out.str();
}

}  // namespace

TEST(CliParse, CommandsOptionsValuesAndHelp) {
  const std::string timeout =
      "error: --timeout needs a number of seconds, greater than 0 and at most 86400";
  const std::pair<std::string, std::string> cases[] = {
      // Negative values are numbers, not options. The library's ranges, bounds
      // included; the heading bound is the single-precision pi, as the library
      // checks it: any text that rounds to that float passes, the next one up not.
      {"path 0 0 -.5 2 10 -10 then init 0 0 0 then speed 300 then speed 1300 then speed 8e2 then "
       "accel 100 then accel 1000 then turn 3.14159274 then turn 3.141592653589793 then turn "
       "-3.14159274 then kill",
       "path 0 0 -0.5 2 10 -10; init 0 0 0; speed 300; speed 1300; speed 800; accel 100; accel "
       "1000; turn 3.14159; turn 3.14159; turn -3.14159; kill; timeout 10 wait count 0"},
      {"--timeout 2.5 goto 1 2 --no-wait", "goto 1 2; timeout 2.5 no-wait count 0"},
      {"watch --count=3 --timeout=0.25", "watch; timeout 0.25 wait count 3"},
      // watch only ends by Ctrl-C, so nothing may follow it unless it is bounded.
      {"watch then kill --count 2", "watch; kill; timeout 10 wait count 2"},
      {"watch then kill",
       "error: watch runs until interrupted: make it the last command, or give --count"},
      {"kill then", "error: 'then' must be followed by a command"},
      {"kill then then status", "error: unknown command 'then' (try 'tarn --help')"},
      // After "--" even a dash-word is an argument (and here not a number).
      {"turn -- --no-wait", "error: turn: '--no-wait' is not a number"},
      // Help wins over otherwise incomplete arguments.
      {"goto -h", "help 'goto'"},
      {"help path", "help 'path'"},
      {"help fly", "error: no help for unknown command 'fly'"},
      {"", "error: no command given (try 'tarn --help')"},
      {"fly", "error: unknown command 'fly' (try 'tarn --help')"},
      {"status --address 10.0.0.1", "error: unknown option '--address'"},
      {"goto 1", "error: goto: expects X Y (millimetres), got 1 number"},
      {"kill 1", "error: kill: expects no numbers, got 1 number"},
      {"speed", "error: speed: expects V (mm/s), got 0 numbers"},
      {"path 1 2 3", "error: path: expects pairs X Y (millimetres), got 3 numbers"},
      {"path", "error: path: expects pairs X Y (millimetres), got 0 numbers"},
      {"status --timeout 0", timeout},
      {"status --timeout 86400.5", timeout},
      {"status --timeout 86400", "status; timeout 86400 wait count 0"},
      {"status --timeout", timeout},
      {"watch --count 1.5", "error: --count needs a whole number of reports, at least 1"},
      {"speed 299", "error: speed: 299 is out of range (300 to 1300 mm/s)"},
      {"speed 1301", "error: speed: 1301 is out of range (300 to 1300 mm/s)"},
      {"speed 800.00001", "error: speed: 800.00001 is not a whole number"},
      {"accel 99", "error: accel: 99 is out of range (100 to 1000 mm/s^2)"},
      {"turn 3.1416", "error: turn: 3.1416 is out of range (-pi to pi rad)"},
      {"turn -3.1416", "error: turn: -3.1416 is out of range (-pi to pi rad)"},
      // Not numbers, or not finite (the library would accept a NaN heading).
      {"turn nan", "error: turn: 'nan' is not a number"},
      {"goto 1e39 0", "error: goto: '1e39' is not a number"},
      {"goto 12abc 0", "error: goto: '12abc' is not a number"},
      {"goto  0", "error: goto: '' is not a number"},
  };
  for (const auto& [args, want] : cases) EXPECT_EQ(Outcome(args), want) << args;
}

TEST(CliParse, PathLongerThanOneMessageHoldsIsRefusedBeforeConnecting) {
  const std::size_t most = tarn::max_path_points();
  std::string line = "path";
  for (std::size_t i = 0; i <= most; ++i) line += " 1 2";
  EXPECT_EQ(Outcome(line), "error: path: at most " + std::to_string(most) +
                               " way-points fit in one message, got " + std::to_string(most + 1));
}

TEST(CliReport, FormattedInMillimetresWithTheOnlineStateWhenKnown) {
  tarn::Report r;
  r.voltage = 24.5f;
  r.x = 1.5f;
  r.y = -0.25f;
  r.state = 0;
  r.orientation = 0.7854f;
  r.velocity = 800;
  r.acceleration = -300;
  r.name = "R-0";
  r.online = true;
  EXPECT_EQ(
      tarn_cli::FormatStatus(r),
      "robot         R-0\nonline        yes\nstate         working\nposition      1500 -250 mm\n"
      "orientation   0.7854 rad\nvelocity      800 mm/s\nacceleration  -300 mm/s^2\n"
      "voltage       24.5 V\n");
  EXPECT_EQ(
      tarn_cli::FormatStatusLine(r),
      "R-0 online working  at 1500 -250 mm  heading 0.7854 rad  800 mm/s  -300 mm/s^2  24.50 V");

  // Servers that do not report the online state: unknown, and left out of
  // the line. Error codes are named where the table knows them.
  r.online.reset();
  r.state = 3;
  EXPECT_NE(
      tarn_cli::FormatStatus(r).find("\nonline        unknown\nstate         error 3 (busy)\n"),
      std::string::npos);
  EXPECT_EQ(
      tarn_cli::FormatStatusLine(r),
      "R-0 error 3 (busy)  at 1500 -250 mm  heading 0.7854 rad  800 mm/s  -300 mm/s^2  24.50 V");
  r.online = false;
  r.state = 7;
  EXPECT_EQ(tarn_cli::FormatStatusLine(r).substr(0, 20), "R-0 offline error 7 ");

  // -pi and pi are one heading.
  using tarn_cli::SameHeading;
  EXPECT_TRUE(SameHeading(3.14159274, -3.14159274, 1e-3) && SameHeading(1.5, 1.5004, 1e-3));
  EXPECT_FALSE(SameHeading(1.5, 1.502, 1e-3) || SameHeading(0, 3.14159274, 1e-3));
}
