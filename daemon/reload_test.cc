// The reload procedure with each of its failures, and the request that runs it.
#include "daemon/reload.h"

#include <csignal>

#include "daemon/command_handlers.h"
#include "daemon/loop_context.h"
#include "daemon/settings.h"
#include "daemon/state.h"
#include "daemon/testing/daemon_fixture.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAreArray;

class ReloadTest : public DaemonTest {
 protected:
  ReloadTest() {
    writeConfig("");
    prepare();
  }

  // A new platform with a timer.
  void prepare() {
    resetSdk();
    context_.watchdogTimer = OrloWatchdogTimerVirtCreate();
    sdk().clear();
  }

  std::int32_t exitStatus_ = 0;
  LoopContext context_{nullptr, &exitStatus_};
};

const Record kInvalid = {"OrloLogEventNoArg(\"VRKUA0006E\", \"VRK_events\")",
                         "<3>Error: tarnikd Daemon configuration invalid"};

Record joined(Record first, const Record& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(ReloadTest, DoesItsStepsInOrder) {
  writeConfig("tarnik.debuglevel=1\ntarnik.file.timeout=60\n");
  EXPECT_EQ(onReload(SIGHUP, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
  EXPECT_EQ(OrloLogDebugLevel, 1U);
  EXPECT_THAT(withoutParsing(sdk().entries()),
              ElementsAreArray({
                  "<6>onReload: Reloading",
                  "tickle",
                  "CaptureManager::Reload(, 60, 53687091, 1000, 1048576, 0, 0)",
                  "runShell(rm -rf /var/support/tarnik/template*)",
                  "createIpsInfoTemplate()",
                  "createNapInfoTemplates()",
                  "TarnikMetaCache::config(1800)",
                  "<7>Debug: tarnikd Daemon started",
                  "tickle",
              }));
}

TEST_F(ReloadTest, SetsTheReloadingStateBeforeItsFirstTickle) {
  OrloLogDebugLevel = 1;
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_THAT(Record(sdk().entries()),
              ElementsAreArray({
                  "<6>onReload: Reloading",
                  "<7>Debug: tarnikd Daemon configuration reloading",
                  "tickle",
                  "OrloTuningAlloc(stream)",
                  "OrloTuningParseLine()",
                  "OrloTuningRelease()",
                  "CaptureManager::Reload(, 120, 53687091, 1000, 1048576, 0, 0)",
                  "runShell(rm -rf /var/support/tarnik/template*)",
                  "createIpsInfoTemplate()",
                  "createNapInfoTemplates()",
                  "TarnikMetaCache::config(1800)",
                  "tickle",
              }));
  EXPECT_EQ(OrloLogDebugLevel, 0U);
}

// Records the state and the debug level at each step.
TEST_F(ReloadTest, ChangesStateAndLevelBetweenItsSteps) {
  writeConfig("tarnik.debuglevel=2\n");
  OrloLogDebugLevel = 5;
  Record found;
  sdk().onCall = [&found](const std::string& entry) {
    found.push_back(entry.substr(0, entry.find('(')) + " " + std::to_string(DaemonState) + " " +
                    std::to_string(OrloLogDebugLevel));
  };
  EXPECT_EQ(onReload(0, &context_), 1);
  sdk().onCall = nullptr;
  EXPECT_THAT(found,
              ElementsAreArray({"OrloTuningAlloc 6 5", "CaptureManager::Reload 6 2", "runShell 6 2",
                                "createIpsInfoTemplate 6 2", "createNapInfoTemplates 6 2",
                                "TarnikMetaCache::config 6 2"}));
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(ReloadTest, WithoutAContextSkipsTheTickles) {
  EXPECT_EQ(onReload(0, nullptr), 1);
  EXPECT_EQ(startingWith(sdk().entries(), {"tickle"}), Record{});
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(ReloadTest, FailsAtTheFileAndDoesNothingMore) {
  writeConfig("tarnik.debuglevel=5\ntarnik.file.maxno=20\ntarnik.file.maxno=9\n");
  EXPECT_EQ(onReload(0, &context_), 0);
  EXPECT_EQ(DaemonState, 7);
  EXPECT_EQ(OrloLogDebugLevel, 0U);
  EXPECT_EQ(getSettings().file.maxno, 20);
  EXPECT_EQ(getSettings().debuglevel, 5U);
  EXPECT_THAT(withoutParsing(sdk().entries()),
              ElementsAreArray(joined({"<6>onReload: Reloading", "tickle",
                                       "<3>Error: loadTarnikCfg: Invalid value: maxno=9",
                                       "<3>Error: onReload: Failed to reload base configuration"},
                                      kInvalid)));
}

TEST_F(ReloadTest, FailsAtTheTemplates) {
  const Record steps = {"<6>onReload: Reloading", "tickle",
                        "CaptureManager::Reload(, 120, 53687091, 20, 1048576, 0, 0)",
                        "runShell(rm -rf /var/support/tarnik/template*)",
                        "createIpsInfoTemplate()"};
  const struct {
    const char* failing;
    Record rest;
  } cases[] = {
      {"createIpsInfoTemplate", {"<3>Error: onReload: Failed to generated IPS info template"}},
      {"createNapInfoTemplates",
       {"createNapInfoTemplates()", "<3>Error: onReload: Failed to generated NAP info templates"}}};
  for (const auto& [failing, rest] : cases) {
    writeConfig("tarnik.file.maxno=20\n");
    prepare();
    sdk().failWhere(failing);
    EXPECT_EQ(onReload(0, &context_), 0);
    EXPECT_EQ(DaemonState, 7);
    EXPECT_THAT(withoutParsing(sdk().entries()),
                ElementsAreArray(joined(joined(steps, rest), kInvalid)));
  }
}

TEST_F(ReloadTest, IgnoresTheResultsOfTheManagerAndTheShell) {
  sdk().failWhere("CaptureManager::Reload", 8);
  sdk().failWhere("runShell", -1);
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(ReloadTest, AReloadRecoversFromAnInvalidConfiguration) {
  writeConfig("tarnik.file.maxno=9\n");
  EXPECT_EQ(onReload(0, &context_), 0);
  writeConfig("tarnik.file.maxno=10\n");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
  writeConfig("");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(getSettings().file.maxno, 10);  // a key that is gone keeps its value
}

TEST_F(ReloadTest, MetadataTimeoutIsThreeTimesTheSumIn32Bits) {
  const struct {
    std::int64_t timeout;
    std::int64_t interval;
    const char* expected;
  } cases[] = {
      {300, 300, "TarnikMetaCache::config(1800)"},
      {1, 300, "TarnikMetaCache::config(903)"},
      {48000, 300, "TarnikMetaCache::config(144900)"},
      {0x100000000, 300, "TarnikMetaCache::config(900)"},
      {0xffffffff, 2, "TarnikMetaCache::config(3)"},
      {0x40000000, 0, "TarnikMetaCache::config(-1073741824)"},
  };
  for (const auto& [timeout, interval, expected] : cases) {
    getSettings().brund.timeout = timeout;
    getSettings().brund.interval = interval;
    sdk().clear();
    EXPECT_EQ(onReload(0, &context_), 1);
    EXPECT_EQ(startingWith(sdk().entries(), {"TarnikMetaCache"}), Record{expected});
  }
}

TEST_F(ReloadTest, OnlyTheTimeoutKeyMovesTheMetadataTimeout) {
  writeConfig("tarnik.brund.interval=60\ntarnik.brund.timeout=100\n");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(startingWith(sdk().entries(), {"TarnikMetaCache", "CaptureManager"}),
            (Record{"CaptureManager::Reload(, 60, 53687091, 1000, 1048576, 0, 0)",
                    "TarnikMetaCache::config(1200)"}));
}

// ---- the request

class ReloadRequestTest : public DaemonTest {
 protected:
  static Record process() {
    sdk().datagrams = {{Message{.type = 1, .id = 0xa1}.bytes(), "/tmp/client", {}}};
    processMessage();
    return withoutParsing(sdk().entries());
  }
};

Bytes response(std::uint8_t status) {
  return {0, 7, 0, 21, 0, 0, 0, 0, 0, 0, 0, 0xa1, 0, 0, 0, 0, 0, 1, 2, 0, status};
}

TEST_F(ReloadRequestTest, ReloadsAndAnswersZero) {
  writeConfig("tarnik.debuglevel=1\n");
  OrloLogDebugLevel = 1;
  EXPECT_THAT(process(), ElementsAreArray({
                             "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                             "<7>Debug: processReloadRequest: entry",
                             "<6>onReload: Reloading",
                             "<7>Debug: tarnikd Daemon configuration reloading",
                             "CaptureManager::Reload(, 120, 53687091, 1000, 1048576, 0, 0)",
                             "runShell(rm -rf /var/support/tarnik/template*)",
                             "createIpsInfoTemplate()",
                             "createNapInfoTemplates()",
                             "TarnikMetaCache::config(1800)",
                             "<7>Debug: tarnikd Daemon started",
                             "OrloCmdResp(21, \"/tmp/client\")",
                         }));
  ASSERT_EQ(sdk().responses.size(), 1U);
  EXPECT_EQ(sdk().responses[0].bytes, response(0));
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(ReloadRequestTest, AnswersTwelveAfterAFailure) {
  writeConfig("tarnik.file.maxno=9\n");
  EXPECT_THAT(process(), ElementsAreArray({
                             "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                             "<6>onReload: Reloading",
                             "<3>Error: loadTarnikCfg: Invalid value: maxno=9",
                             "<3>Error: onReload: Failed to reload base configuration",
                             "OrloLogEventNoArg(\"VRKUA0006E\", \"VRK_events\")",
                             "<3>Error: tarnikd Daemon configuration invalid",
                             "<3>Error: processReloadRequest: Failed to reload tarnikd config",
                             "OrloCmdResp(21, \"/tmp/client\")",
                         }));
  ASSERT_EQ(sdk().responses.size(), 1U);
  EXPECT_EQ(sdk().responses[0].bytes, response(12));
  EXPECT_EQ(DaemonState, 7);
}

TEST_F(ReloadRequestTest, FailingTemplatesAnswerTwelveToo) {
  writeConfig("");
  for (const char* generator : {"createIpsInfoTemplate", "createNapInfoTemplates"}) {
    resetSdk();
    sdk().failWhere(generator);
    process();
    ASSERT_EQ(sdk().responses.size(), 1U);
    EXPECT_EQ(sdk().responses[0].bytes, response(12)) << generator;
  }
}

TEST_F(ReloadRequestTest, AFailedAnswerIsLoggedAfterTheReload) {
  writeConfig("");
  sdk().failWhere("OrloCmdResp", -89);
  const Record record = process();
  EXPECT_EQ(
      Record(record.end() - 3, record.end()),
      (Record{"OrloCmdResp(21, \"/tmp/client\")", "<3>Error: clientResp: Socket comms failed: -89 ",
              "<3>Error: processMessage: Failed to process message: 2"}));
}

}  // namespace
}  // namespace tarnik::test
