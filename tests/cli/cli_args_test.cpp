#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli.h"

using Args = std::vector<std::string>;

namespace {

// The whole outcome of a parse as one line: the commands with their numbers
// and the options, the help topic, or the error text.
std::string Outcome(const Args& args) {
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
  const std::string defaults = "; timeout 5 wait count 0";
  const std::string timeout =
      "error: --timeout needs a number of seconds, greater than 0 and at most 86400";
  const std::vector<std::pair<Args, std::string>> cases = {
      // Negative values are numbers, not options.
      {{"goto", "-250", "1e3"}, "goto -250 1000" + defaults},
      {{"path", "0", "0", "-.5", "2", "10", "-10"}, "path 0 0 -0.5 2 10 -10" + defaults},
      {{"--timeout", "2.5", "goto", "1", "2", "--no-wait"},
       "goto 1 2; timeout 2.5 no-wait count 0"},
      {{"watch", "--count=3", "--timeout=0.25"}, "watch; timeout 0.25 wait count 3"},
      {{"init", "0", "0", "0", "then", "speed", "800", "then", "kill"},
       "init 0 0 0; speed 800; kill" + defaults},
      // watch only ends by Ctrl-C, so nothing may follow it unless it is bounded.
      {{"watch", "then", "kill", "--count", "2"}, "watch; kill; timeout 5 wait count 2"},
      {{"watch", "then", "kill"},
       "error: watch runs until interrupted: make it the last command, or give --count"},
      {{"kill", "then"}, "error: 'then' must be followed by a command"},
      {{"kill", "then", "then", "status"}, "error: unknown command 'then' (try 'tarn --help')"},
      // After "--" even a dash-word is an argument (and here not a number).
      {{"turn", "--", "--no-wait"}, "error: turn: '--no-wait' is not a number"},
      // Help wins over otherwise incomplete arguments.
      {{"--help"}, "help ''"},
      {{"goto", "-h"}, "help 'goto'"},
      {{"help", "path"}, "help 'path'"},
      {{"help", "fly"}, "error: no help for unknown command 'fly'"},
      {{}, "error: no command given (try 'tarn --help')"},
      {{"fly"}, "error: unknown command 'fly' (try 'tarn --help')"},
      {{"status", "--address", "10.0.0.1"}, "error: unknown option '--address'"},
      {{"goto", "1"}, "error: goto: expects X Y (millimetres), got 1 number"},
      {{"init", "1", "2"}, "error: init: expects X Y Z, got 2 numbers"},
      {{"kill", "1"}, "error: kill: expects no numbers, got 1 number"},
      {{"speed"}, "error: speed: expects V (mm/s), got 0 numbers"},
      {{"path", "1", "2", "3"}, "error: path: expects pairs X Y (millimetres), got 3 numbers"},
      {{"status", "--timeout", "0"}, timeout},
      {{"status", "--timeout=-1"}, timeout},
      {{"status", "--timeout"}, timeout},
      {{"watch", "--count", "1.5"}, "error: --count needs a whole number of reports, at least 1"},
      // The library's ranges, bounds included.
      {{"speed", "300", "then", "speed", "1300", "then", "speed", "8e2"},
       "speed 300; speed 1300; speed 800" + defaults},
      {{"speed", "299"}, "error: speed: 299 is out of range (300 to 1300 mm/s)"},
      {{"speed", "1301"}, "error: speed: 1301 is out of range (300 to 1300 mm/s)"},
      {{"speed", "800.5"}, "error: speed: 800.5 is not a whole number"},
      {{"accel", "100", "then", "accel", "1000"}, "accel 100; accel 1000" + defaults},
      {{"accel", "99"}, "error: accel: 99 is out of range (100 to 1000 mm/s^2)"},
      {{"accel", "1001"}, "error: accel: 1001 is out of range (100 to 1000 mm/s^2)"},
      // The heading bound is the single-precision pi, as the library checks
      // it: any text that rounds to that float passes, the next one up not.
      {{"turn", "3.14159274", "then", "turn", "3.141592653589793", "then", "turn", "-3.14159274"},
       "turn 3.14159; turn 3.14159; turn -3.14159" + defaults},
      {{"turn", "3.1416"}, "error: turn: 3.1416 is out of range (-pi to pi rad)"},
      {{"turn", "-3.1416"}, "error: turn: -3.1416 is out of range (-pi to pi rad)"},
      // Not numbers, or not finite (the library would accept a NaN heading).
      {{"turn", "nan"}, "error: turn: 'nan' is not a number"},
      {{"goto", "inf", "0"}, "error: goto: 'inf' is not a number"},
      {{"goto", "1e39", "0"}, "error: goto: '1e39' is not a number"},
      {{"goto", "12abc", "0"}, "error: goto: '12abc' is not a number"},
      {{"goto", "", "0"}, "error: goto: '' is not a number"},
  };
  for (const auto& [args, want] : cases)
    EXPECT_EQ(Outcome(args), want) << ::testing::PrintToString(args);

  const std::string tool = tarn_cli::HelpText("");
  for (const char* verb : {"status", "init X Y Z", "goto X Y", "path X1 Y1 X2 Y2 ...", "speed V",
                           "accel A", "turn R", "kill", "watch"})
    EXPECT_NE(tool.find(std::string("  ") + verb + " "), std::string::npos) << verb;
  EXPECT_NE(tool.find("127.0.0.1:6868 in this build); there is no option to change them."),
            std::string::npos);
  EXPECT_EQ(tarn_cli::HelpText("fly"), "");
}

TEST(CliReport, ReadLikeTheLibraryAndFormattedInMillimetres) {
  tarn_cli::Report r;
  tarn_cli::ReadReport("24.5 1.5 -0.25 0 0.7854 800 -300", "R-0", r);
  EXPECT_EQ(tarn_cli::FormatStatus(r),
            "robot         R-0\n"
            "state         working\n"
            "position      1500 -250 mm\n"
            "orientation   0.7854 rad\n"
            "velocity      800 mm/s\n"
            "acceleration  -300 mm/s^2\n"
            "voltage       24.5 V\n");
  EXPECT_EQ(tarn_cli::FormatStatusLine(r),
            "R-0 working  at 1500 -250 mm  heading 0.7854 rad  800 mm/s  -300 mm/s^2  24.50 V");

  // Short report: the missing items keep their values. A word where a number
  // belongs zeroes that item and leaves the rest.
  tarn_cli::ReadReport("23 2 3 3", "R-1", r);
  EXPECT_EQ(
      tarn_cli::FormatStatusLine(r),
      "R-1 error 3 (busy)  at 2000 3000 mm  heading 0.7854 rad  800 mm/s  -300 mm/s^2  23.00 V");
  tarn_cli::ReadReport("23 2 3 -1 left 5 6", "R-1", r);
  EXPECT_EQ(tarn_cli::FormatStatusLine(r),
            "R-1 free  at 2000 3000 mm  heading 0 rad  800 mm/s  -300 mm/s^2  23.00 V");

  for (const auto& [state, words] : std::vector<std::pair<int, std::string>>{
           {-1, "free"}, {2, "error 2 (not online)"}, {7, "error 7"}, {-2, "error -2"}})
    EXPECT_EQ(tarn_cli::DescribeState(state), words);
  EXPECT_TRUE(tarn_cli::SameHeading(3.14159274, -3.14159274, 1e-3));
  EXPECT_TRUE(tarn_cli::SameHeading(1.5, 1.5004, 1e-3));
  EXPECT_FALSE(tarn_cli::SameHeading(1.5, 1.502, 1e-3));
  EXPECT_FALSE(tarn_cli::SameHeading(0, 3.14159274, 1e-3));
}
