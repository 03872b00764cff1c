#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli.h"

using tarn_cli::Parse;
using tarn_cli::ParseResult;
using tarn_cli::Verb;

namespace {

ParseResult P(std::vector<std::string> args) {
  return Parse(args);
}

std::string ErrorOf(std::vector<std::string> args) {
  ParseResult r = Parse(args);
  EXPECT_FALSE(r.ok) << "accepted: " << ::testing::PrintToString(args);
  return r.error;
}

}  // namespace

TEST(CliParse, CommandsTakeTheirNumbersAndNegativeValuesAreNotOptions) {
  ParseResult r = P({"goto", "-250", "1e3"});
  ASSERT_TRUE(r.ok) << r.error;
  ASSERT_EQ(r.invocation.commands.size(), 1u);
  EXPECT_EQ(r.invocation.commands[0].verb, Verb::kGoto);
  EXPECT_EQ(r.invocation.commands[0].numbers, (std::vector<float>{-250.0f, 1000.0f}));

  r = P({"path", "0", "0", "-.5", "2", "10", "-10"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.invocation.commands[0].numbers, (std::vector<float>{0, 0, -0.5f, 2, 10, -10}));

  r = P({"init", "1500", "-250", "0.5"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.invocation.commands[0].verb, Verb::kInit);
  EXPECT_EQ(r.invocation.commands[0].numbers, (std::vector<float>{1500, -250, 0.5f}));

  // Defaults, then options in any position and in both spellings.
  EXPECT_DOUBLE_EQ(r.invocation.timeout_s, 5);
  EXPECT_TRUE(r.invocation.wait);
  r = P({"--timeout", "2.5", "goto", "1", "2", "--no-wait"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_DOUBLE_EQ(r.invocation.timeout_s, 2.5);
  EXPECT_FALSE(r.invocation.wait);
  r = P({"watch", "--count=3", "--timeout=0.25"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.invocation.count, 3);
  EXPECT_DOUBLE_EQ(r.invocation.timeout_s, 0.25);

  // After "--" even a dash-word is an argument (and here not a number).
  EXPECT_EQ(ErrorOf({"turn", "--", "--no-wait"}), "turn: '--no-wait' is not a number");
}

TEST(CliParse, ThenChainsCommandsOnOneConnection) {
  ParseResult r =
      P({"init", "0", "0", "0", "then", "speed", "800", "then", "goto", "1", "2", "then", "kill"});
  ASSERT_TRUE(r.ok) << r.error;
  ASSERT_EQ(r.invocation.commands.size(), 4u);
  EXPECT_EQ(r.invocation.commands[0].verb, Verb::kInit);
  EXPECT_EQ(r.invocation.commands[1].verb, Verb::kSpeed);
  EXPECT_EQ(r.invocation.commands[1].numbers, (std::vector<float>{800}));
  EXPECT_EQ(r.invocation.commands[2].verb, Verb::kGoto);
  EXPECT_EQ(r.invocation.commands[3].verb, Verb::kKill);

  EXPECT_EQ(ErrorOf({"kill", "then"}), "'then' must be followed by a command");
  EXPECT_EQ(ErrorOf({"kill", "then", "then", "status"}),
            "unknown command 'then' (try 'tarn --help')");
  // watch only ends by Ctrl-C, so nothing may follow it unless it is bounded.
  EXPECT_EQ(ErrorOf({"watch", "then", "kill"}),
            "watch runs until interrupted: make it the last command, or give --count");
  EXPECT_TRUE(P({"watch", "then", "kill", "--count", "2"}).ok);
}

TEST(CliParse, ValuesOutsideTheLibraryRangesAreRefusedWithTheRange) {
  EXPECT_TRUE(P({"speed", "300"}).ok);
  EXPECT_TRUE(P({"speed", "1300"}).ok);
  EXPECT_EQ(ErrorOf({"speed", "299"}), "speed: 299 is out of range (300 to 1300 mm/s)");
  EXPECT_EQ(ErrorOf({"speed", "1301"}), "speed: 1301 is out of range (300 to 1300 mm/s)");
  EXPECT_EQ(ErrorOf({"speed", "800.5"}), "speed: 800.5 is not a whole number");
  EXPECT_TRUE(P({"speed", "8e2"}).ok);

  EXPECT_TRUE(P({"accel", "100"}).ok);
  EXPECT_TRUE(P({"accel", "1000"}).ok);
  EXPECT_EQ(ErrorOf({"accel", "99"}), "accel: 99 is out of range (100 to 1000 mm/s^2)");
  EXPECT_EQ(ErrorOf({"accel", "1001"}), "accel: 1001 is out of range (100 to 1000 mm/s^2)");

  // The bound is the single-precision pi, as the library checks it: any text
  // that rounds to that float passes, the next float up does not.
  EXPECT_TRUE(P({"turn", "3.14159274"}).ok);
  EXPECT_TRUE(P({"turn", "3.141592653589793"}).ok);
  EXPECT_TRUE(P({"turn", "-3.14159274"}).ok);
  EXPECT_EQ(ErrorOf({"turn", "3.1416"}), "turn: 3.1416 is out of range (-pi to pi rad)");
  EXPECT_EQ(ErrorOf({"turn", "-3.1416"}), "turn: -3.1416 is out of range (-pi to pi rad)");

  // Not numbers, or not finite (the library would accept a NaN heading).
  EXPECT_EQ(ErrorOf({"turn", "nan"}), "turn: 'nan' is not a number");
  EXPECT_EQ(ErrorOf({"goto", "inf", "0"}), "goto: 'inf' is not a number");
  EXPECT_EQ(ErrorOf({"goto", "1e39", "0"}), "goto: '1e39' is not a number");
  EXPECT_EQ(ErrorOf({"goto", "12abc", "0"}), "goto: '12abc' is not a number");
  EXPECT_EQ(ErrorOf({"goto", "", "0"}), "goto: '' is not a number");
}

TEST(CliParse, WrongArgumentsNameTheProblem) {
  EXPECT_EQ(ErrorOf({}), "no command given (try 'tarn --help')");
  EXPECT_EQ(ErrorOf({"fly"}), "unknown command 'fly' (try 'tarn --help')");
  EXPECT_EQ(ErrorOf({"status", "--address", "10.0.0.1"}), "unknown option '--address'");
  EXPECT_EQ(ErrorOf({"goto", "1"}), "goto: expects X Y (millimetres), got 1 number");
  EXPECT_EQ(ErrorOf({"init", "1", "2"}), "init: expects X Y Z, got 2 numbers");
  EXPECT_EQ(ErrorOf({"kill", "1"}), "kill: expects no numbers, got 1 number");
  EXPECT_EQ(ErrorOf({"speed"}), "speed: expects V (mm/s), got 0 numbers");
  EXPECT_EQ(ErrorOf({"path"}), "path: expects pairs X Y (millimetres), got 0 numbers");
  EXPECT_EQ(ErrorOf({"path", "1", "2", "3"}),
            "path: expects pairs X Y (millimetres), got 3 numbers");
  const std::string timeout_error =
      "--timeout needs a number of seconds, greater than 0 and at most 86400";
  EXPECT_EQ(ErrorOf({"status", "--timeout", "0"}), timeout_error);
  EXPECT_EQ(ErrorOf({"status", "--timeout=-1"}), timeout_error);
  EXPECT_EQ(ErrorOf({"status", "--timeout"}), timeout_error);
  EXPECT_EQ(ErrorOf({"watch", "--count", "1.5"}),
            "--count needs a whole number of reports, at least 1");
}

TEST(CliParse, HelpForTheToolAndEachCommand) {
  ParseResult r = P({"--help"});
  ASSERT_TRUE(r.ok);
  EXPECT_TRUE(r.invocation.help);
  EXPECT_EQ(r.invocation.help_topic, "");
  // Help wins over otherwise incomplete arguments.
  r = P({"goto", "-h"});
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.invocation.help_topic, "goto");
  r = P({"help", "path"});
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.invocation.help_topic, "path");
  EXPECT_EQ(ErrorOf({"help", "fly"}), "no help for unknown command 'fly'");

  const std::string tool = tarn_cli::HelpText("");
  for (const char* verb : {"status", "init X Y Z", "goto X Y", "path X1 Y1 X2 Y2 ...", "speed V",
                           "accel A", "turn R", "kill", "watch"}) {
    EXPECT_NE(tool.find(std::string("  ") + verb + " "), std::string::npos) << verb;
  }
  EXPECT_NE(tool.find("127.0.0.1:6868 in this build); there is no option to change them."),
            std::string::npos);
  EXPECT_EQ(tarn_cli::HelpText("goto").rfind("Usage: tarn [OPTIONS] goto X Y\n\n", 0), 0u);
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
  EXPECT_EQ(r.state, 3);
  EXPECT_FLOAT_EQ(r.orientation, 0.7854f);
  EXPECT_EQ(r.name, "R-1");
  tarn_cli::ReadReport("23 2 3 -1 left 5 6", "R-1", r);
  EXPECT_FLOAT_EQ(r.orientation, 0);
  EXPECT_FLOAT_EQ(r.velocity, 800);
  EXPECT_FLOAT_EQ(r.acceleration, -300);
}

TEST(CliReport, StatesAndHeadings) {
  EXPECT_EQ(tarn_cli::DescribeState(-1), "free");
  EXPECT_EQ(tarn_cli::DescribeState(0), "working");
  EXPECT_EQ(tarn_cli::DescribeState(2), "error 2 (not online)");
  EXPECT_EQ(tarn_cli::DescribeState(3), "error 3 (busy)");
  EXPECT_EQ(tarn_cli::DescribeState(7), "error 7");
  EXPECT_EQ(tarn_cli::DescribeState(-2), "error -2");

  EXPECT_TRUE(tarn_cli::SameHeading(3.14159274, -3.14159274, 1e-3));
  EXPECT_TRUE(tarn_cli::SameHeading(1.5, 1.5004, 1e-3));
  EXPECT_FALSE(tarn_cli::SameHeading(1.5, 1.502, 1e-3));
  EXPECT_FALSE(tarn_cli::SameHeading(0, 3.14159274, 1e-3));
}
