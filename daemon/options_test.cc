#include "daemon/options.h"

#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {
namespace {

struct CommandLine {
  std::vector<std::string> arguments;
  int result = 0;
  unsigned verbosity = 0;
  std::uint32_t flags = 0;
  std::int64_t watchdogTime = 50;
  std::string moduleDir = "/usr/lib64/ruv-qan";
};

class OptionsTest : public DaemonTest, public ::testing::WithParamInterface<CommandLine> {};

int parse(std::vector<std::string> arguments, std::uint32_t& flags) {
  arguments.insert(arguments.begin(), "tarnikd");
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  return parseOptions(static_cast<int>(arguments.size()), pointers.data(), flags);
}

TEST_P(OptionsTest, Table) {
  const CommandLine& expected = GetParam();
  std::uint32_t flags = 0;
  ::testing::internal::CaptureStderr();
  const int result = parse(expected.arguments, flags);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(result, expected.result);
  EXPECT_EQ(OrloLogDebugLevel, expected.verbosity);
  EXPECT_EQ(flags, expected.flags);
  EXPECT_EQ(options.watchdogTime, expected.watchdogTime);
  EXPECT_EQ(options.moduleDir, expected.moduleDir);
  EXPECT_EQ(options.issuesPath, expected.moduleDir + "/issues.csv");
  EXPECT_EQ(sdk().entries(), Record{});
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, OptionsTest,
    ::testing::Values(
        CommandLine{{}}, CommandLine{.arguments = {"-v"}, .verbosity = 1},
        CommandLine{.arguments = {"-v", "-v"}, .verbosity = 2},
        CommandLine{.arguments = {"-vvv"}, .verbosity = 3},
        CommandLine{.arguments = {"--verbose", "-v"}, .verbosity = 2},
        CommandLine{.arguments = {"-D"}, .flags = 1},
        CommandLine{.arguments = {"--nodaemon"}, .flags = 1},
        CommandLine{.arguments = {"-D", "-D"}, .flags = 1},
        CommandLine{.arguments = {"-vDv"}, .verbosity = 2, .flags = 1},
        CommandLine{.arguments = {"--verb", "--no"}, .verbosity = 1, .flags = 1},
        CommandLine{.arguments = {"--watch=6", "--q", "/m"}, .watchdogTime = 6, .moduleDir = "/m"},
        CommandLine{.arguments = {"-w", "-99999999999999999999"}, .watchdogTime = 0},
        CommandLine{.arguments = {"-w", "7"}, .watchdogTime = 7},
        CommandLine{.arguments = {"-w7"}, .watchdogTime = 7},
        CommandLine{.arguments = {"--watchdogtime", "8"}, .watchdogTime = 8},
        CommandLine{.arguments = {"--watchdogtime=9"}, .watchdogTime = 9},
        CommandLine{.arguments = {"-w", "abc"}, .watchdogTime = 0},
        CommandLine{.arguments = {"-w", ""}, .watchdogTime = 0},
        CommandLine{.arguments = {"-w", "12abc"}, .watchdogTime = 12},
        CommandLine{.arguments = {"-w", " 13"}, .watchdogTime = 13},
        CommandLine{.arguments = {"-w", "0x10"}, .watchdogTime = 0},
        CommandLine{.arguments = {"-w", "010"}, .watchdogTime = 10},
        CommandLine{.arguments = {"-w", "-5"}, .watchdogTime = -5},
        CommandLine{.arguments = {"-w", "2147483647"}, .watchdogTime = 2147483647},
        CommandLine{.arguments = {"-w", "2147483648"}, .watchdogTime = -2147483648LL},
        CommandLine{.arguments = {"-w", "4294967297"}, .watchdogTime = 1},
        CommandLine{.arguments = {"-w", "99999999999999999999"}, .watchdogTime = -1},
        CommandLine{.arguments = {"-w", "1", "-w", "2"}, .watchdogTime = 2},
        CommandLine{.arguments = {"-w", "-D"}, .watchdogTime = 0},
        CommandLine{.arguments = {"-p", "/opt/m"}, .moduleDir = "/opt/m"},
        CommandLine{.arguments = {"-p", "/opt/m/"}, .moduleDir = "/opt/m/"},
        CommandLine{.arguments = {"-p/opt/m"}, .moduleDir = "/opt/m"},
        CommandLine{.arguments = {"--qandir", "rel"}, .moduleDir = "rel"},
        CommandLine{.arguments = {"--qandir="}, .moduleDir = ""},
        CommandLine{.arguments = {"-p", "/a", "-p", "/b"}, .moduleDir = "/b"},
        CommandLine{.arguments = {"-Dvw", "3", "--qandir=/q", "--verbose"},
                    .verbosity = 2,
                    .flags = 1,
                    .watchdogTime = 3,
                    .moduleDir = "/q"},
        CommandLine{.arguments = {"-D", "--"}, .flags = 1}));

// After an error the rest of the command line is still read and the issue list's path is built.
INSTANTIATE_TEST_SUITE_P(
    Refused, OptionsTest,
    ::testing::Values(
        CommandLine{.arguments = {"-x"}, .result = 12},
        CommandLine{.arguments = {"-h"}, .result = 12},
        CommandLine{.arguments = {"--help"}, .result = 12},
        CommandLine{.arguments = {"--version"}, .result = 12},
        CommandLine{.arguments = {"--nodaemon=yes"}, .result = 12},
        CommandLine{.arguments = {"-w"}, .result = 12},
        CommandLine{.arguments = {"-p"}, .result = 12},
        CommandLine{.arguments = {"-Dw"}, .result = 12, .flags = 1},
        CommandLine{.arguments = {"--watchdogtime"}, .result = 12},
        CommandLine{.arguments = {"--qandir"}, .result = 12},
        CommandLine{.arguments = {"extra"}, .result = 12},
        CommandLine{.arguments = {""}, .result = 12}, CommandLine{.arguments = {"-"}, .result = 12},
        CommandLine{.arguments = {"--", "-D"}, .result = 12},
        CommandLine{.arguments = {"extra", "-D", "-v"}, .result = 12, .verbosity = 1, .flags = 1},
        CommandLine{.arguments = {"-x", "-D", "-w", "4", "-p", "/z"},
                    .result = 12,
                    .flags = 1,
                    .watchdogTime = 4,
                    .moduleDir = "/z"},
        CommandLine{.arguments = {"-Dxv"}, .result = 12, .verbosity = 1, .flags = 1}));

TEST_F(OptionsTest, OtherBitsOfTheFlagsWordStay) {
  std::uint32_t flags = 0x80000000U;
  EXPECT_EQ(parse({"-D"}, flags), 0);
  EXPECT_EQ(flags, 0x80000001U);
}

TEST_F(OptionsTest, TheIssuesPathIsEmptyUntilThen) {
  EXPECT_EQ(options.issuesPath, "");
}

TEST_F(OptionsTest, UsageNamesTheDaemonAndTwoOptions) {
  ::testing::internal::CaptureStderr();
  usage();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Usage: tarnikd [-D] [--nodaemon] [-v] [--verbose]\n");
}

}  // namespace
}  // namespace tarnik::test
