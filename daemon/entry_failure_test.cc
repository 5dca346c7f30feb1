// Failed starts and refused command lines.
#include <cstdio>

#include "daemon/testing/entry_fixture.h"

namespace tarnik::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kUsage[] = "Usage: tarnikd [-D] [--nodaemon] [-v] [--verbose]\n";

TEST_F(EntryTest, ContinuesWithoutAWatchdogTimer) {
  sdk().failWhere("OrloWatchdogTimerVirtCreate");
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.record, Not(Contains("tickle")));
  EXPECT_THAT(outcome.record, Not(Contains(StartsWith("OrloWatchdogTimerVirtSet"))));
  EXPECT_THAT(outcome.record, Contains("OrloWatchdogTimerVirtDestroy(null)"));
}

// ---- start-up failures

struct FatalCase {
  const char* failing;  // the call that fails
  int result;
  Record after;  // what follows it until the end
};

class FatalTest : public EntryTest, public ::testing::WithParamInterface<FatalCase> {};

TEST_P(FatalTest, LogsOneCriticalLineAndExitsWithOneAtOnce) {
  sdk().failWhere(GetParam().failing, GetParam().result);
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_THAT(outcome.record,
              ElementsAreArray(joined({startUpTo(GetParam().failing), GetParam().after})));
}

const char kTermination[] = "<2>Fatal error: tarnikd: Failed to add termination signal callback";

INSTANTIATE_TEST_SUITE_P(
    Steps, FatalTest,
    ::testing::Values(
        FatalCase{"OrloLoopSignalAdd(15", -1, {kTermination}},
        FatalCase{"OrloLoopSignalAdd(3", -1, {kTermination}},
        FatalCase{"OrloLoopSignalAdd(2", 1, {kTermination}},
        FatalCase{"OrloLoopSignalAdd(1,",
                  -1,
                  {"<2>Fatal error: tarnikd: Failed to add reload signal callback"}},
        FatalCase{"OrloLoopSignalAdd(10",
                  -1,
                  {"<2>Fatal error: tarnikd: Failed to add restart signal callback"}},
        FatalCase{"OrloLoopTimerAdd(3,",
                  -1,
                  {"<2>Fatal error: tarnikd: Failed to add watchdog timer callback"}},
        FatalCase{"OrloLoopTimerAdd(300",
                  -1,
                  {"<2>Fatal error: Failed to add meta cache expiry callback"}},
        FatalCase{"OrloCmdInit",
                  98,
                  {"OrloLogEventNoArg(\"VRKUA0007E\", \"VRK_events\")",
                   "<3>Error: tarnikd Daemon failed to start", "OrloCmdError(98)",
                   "<2>Fatal error: main: Failed to create command interface: text of 98"}},
        FatalCase{"OrloLoopFdAdd",
                  -1,
                  {"OrloCmdError(0)",
                   "<2>Fatal error: tarnikd: Failed to create command callback: text of 0"}}));

TEST_F(EntryTest, AnInvalidConfigurationIsFatal) {
  writeConfig("tarnik.file.maxsize=1023\n");
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(
      withoutParsing(outcome.record),
      ElementsAreArray(joined({startUpTo("OrloLoopFdAdd"),
                               {"<6>onReload: Reloading", "tickle",
                                "<3>Error: loadTarnikCfg: Invalid value: maxsize=1023",
                                "<3>Error: onReload: Failed to reload base configuration",
                                "OrloLogEventNoArg(\"VRKUA0006E\", \"VRK_events\")",
                                "<3>Error: tarnikd Daemon configuration invalid",
                                "<2>Fatal error: tarnikd: Failed to load the configuration"}})));
}

TEST_F(EntryTest, FailingTemplatesAreFatal) {
  for (const char* generator : {"createIpsInfoTemplate", "createNapInfoTemplates"}) {
    resetSdk();
    sdk().failWhere(generator);
    const Outcome outcome = runDaemon({"-D"});
    EXPECT_EQ(outcome.exitStatus, 1) << generator;
    EXPECT_EQ(outcome.record.back(), "<2>Fatal error: tarnikd: Failed to load the configuration");
    EXPECT_THAT(outcome.record, Not(Contains(StartsWith("CaptureManager::Init"))));
  }
}

// ---- the command line

class RefusedOptionsTest : public EntryTest,
                           public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(RefusedOptionsTest, PrintsTheUsageLineAndDoesNothingElse) {
  const Outcome outcome = runDaemon(GetParam());
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_EQ(outcome.errors, kUsage);
  EXPECT_EQ(outcome.record, Record{});
}

INSTANTIATE_TEST_SUITE_P(CommandLines, RefusedOptionsTest,
                         ::testing::Values(std::vector<std::string>{"-x"},
                                           std::vector<std::string>{"--help"},
                                           std::vector<std::string>{"--version"},
                                           std::vector<std::string>{"-D", "extra"},
                                           std::vector<std::string>{"-w"},
                                           std::vector<std::string>{"-p"}));

}  // namespace
}  // namespace tarnik::test
