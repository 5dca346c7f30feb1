// The callbacks one by one, and the reload procedure with each of its failures.
#include "daemon/callbacks.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>

#include "daemon/loop_context.h"
#include "daemon/reload.h"
#include "daemon/settings.h"
#include "daemon/state.h"
#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAreArray;

class CallbacksTest : public DaemonTest {
 protected:
  CallbacksTest() {
    writeConfig("");
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

TEST_F(CallbacksTest, TheTickleWritesTheWordAtOffset28AndNothingElse) {
  OrloWatchdogTimer timer;
  auto* const bytes = reinterpret_cast<unsigned char*>(&timer);
  std::fill_n(bytes, sizeof timer, std::uint8_t{0xee});
  context_.watchdogTimer = &timer;
  tickleWatchdog(&context_);
  for (std::size_t i = 0; i < sizeof timer; ++i) {
    EXPECT_EQ(bytes[i], i >= 28 && i < 32 ? 0 : 0xee) << i;
  }
  context_.watchdogTimer = nullptr;
  tickleWatchdog(&context_);
  tickleWatchdog(nullptr);
}

// ---- the reload procedure

TEST_F(CallbacksTest, ReloadDoesItsStepsInOrder) {
  writeConfig("tarnik.debuglevel=1\ntarnik.file.timeout=60\n");
  EXPECT_EQ(onReload(SIGHUP, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
  EXPECT_EQ(OrloLogDebugLevel, 1U);
  EXPECT_THAT(withoutParsing(sdk().entries()),
              ElementsAreArray({
                  "<6>onReload: Reloading",
                  "tickle",
                  "CaptureManager::Reload(, 60, 53687091, 1000, 1048576, 0, 0)",
                  "system(rm -rf /var/support/tarnik/template*)",
                  "createIpsInfoTemplate()",
                  "createNapInfoTemplates()",
                  "TarnikMetaCache::config(1800)",
                  "<7>Debug: tarnikd Daemon started",
                  "tickle",
              }));
}

TEST_F(CallbacksTest, ReloadSetsTheReloadingStateBeforeItsFirstTickle) {
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
                  "system(rm -rf /var/support/tarnik/template*)",
                  "createIpsInfoTemplate()",
                  "createNapInfoTemplates()",
                  "TarnikMetaCache::config(1800)",
                  "tickle",
              }));
  EXPECT_EQ(OrloLogDebugLevel, 0U);
}

// State and debug level as each step finds them.
TEST_F(CallbacksTest, ReloadChangesStateAndLevelBetweenItsSteps) {
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
              ElementsAreArray({"OrloTuningAlloc 6 5", "CaptureManager::Reload 6 2", "system 6 2",
                                "createIpsInfoTemplate 6 2", "createNapInfoTemplates 6 2",
                                "TarnikMetaCache::config 6 2"}));
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(CallbacksTest, ReloadWithoutAContextSkipsTheTickles) {
  EXPECT_EQ(onReload(0, nullptr), 1);
  EXPECT_EQ(startingWith(sdk().entries(), {"tickle"}), Record{});
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(CallbacksTest, ReloadFailsAtTheFileAndDoesNothingMore) {
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

TEST_F(CallbacksTest, ReloadRefusesWhatIsNoFile) {
  const auto refused = [this](const char* what) {
    EXPECT_EQ(onReload(0, &context_), 0) << what;
    EXPECT_EQ(sdk().entries(), joined({"<6>onReload: Reloading", "tickle",
                                       "<3>Error: onReload: Failed to reload base configuration"},
                                      kInvalid))
        << what;
    sdk().clear();
  };
  std::remove("/etc/tarnik.conf");
  refused("missing");
  ASSERT_EQ(mkdir("/etc/tarnik.conf", 0755), 0);
  refused("directory");
  std::remove("/etc/tarnik.conf");
  ASSERT_EQ(mkfifo("/etc/tarnik.conf", 0644), 0);
  refused("FIFO");
  std::remove("/etc/tarnik.conf");
}

TEST_F(CallbacksTest, ReloadFailsAtTheIpsTemplate) {
  writeConfig("tarnik.file.maxno=20\n");
  sdk().failWhere("createIpsInfoTemplate");
  EXPECT_EQ(onReload(0, &context_), 0);
  EXPECT_EQ(DaemonState, 7);
  EXPECT_THAT(withoutParsing(sdk().entries()),
              ElementsAreArray(
                  joined({"<6>onReload: Reloading", "tickle",
                          "CaptureManager::Reload(, 120, 53687091, 20, 1048576, 0, 0)",
                          "system(rm -rf /var/support/tarnik/template*)", "createIpsInfoTemplate()",
                          "<3>Error: onReload: Failed to generated IPS info template"},
                         kInvalid)));
}

TEST_F(CallbacksTest, ReloadFailsAtTheNapTemplates) {
  sdk().failWhere("createNapInfoTemplates");
  EXPECT_EQ(onReload(0, &context_), 0);
  EXPECT_EQ(DaemonState, 7);
  EXPECT_THAT(
      withoutParsing(sdk().entries()),
      ElementsAreArray(joined({"<6>onReload: Reloading", "tickle",
                               "CaptureManager::Reload(, 120, 53687091, 1000, 1048576, 0, 0)",
                               "system(rm -rf /var/support/tarnik/template*)",
                               "createIpsInfoTemplate()", "createNapInfoTemplates()",
                               "<3>Error: onReload: Failed to generated NAP info templates"},
                              kInvalid)));
}

TEST_F(CallbacksTest, ReloadIgnoresTheResultsOfTheManagerAndTheShell) {
  sdk().failWhere("CaptureManager::Reload", 8);
  sdk().failWhere("system", -1);
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(CallbacksTest, AReloadRecoversFromAnInvalidConfiguration) {
  writeConfig("tarnik.file.maxno=9\n");
  EXPECT_EQ(onReload(0, &context_), 0);
  writeConfig("tarnik.file.maxno=10\n");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(DaemonState, 2);
  writeConfig("");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(getSettings().file.maxno, 10);  // a key that is gone keeps its value
}

TEST_F(CallbacksTest, MetadataTimeoutIsThreeTimesTheSumIn32Bits) {
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

TEST_F(CallbacksTest, OnlyTheTimeoutKeyMovesTheMetadataTimeout) {
  writeConfig("tarnik.brund.interval=60\ntarnik.brund.timeout=100\n");
  EXPECT_EQ(onReload(0, &context_), 1);
  EXPECT_EQ(startingWith(sdk().entries(), {"TarnikMetaCache", "CaptureManager"}),
            (Record{"CaptureManager::Reload(, 60, 53687091, 1000, 1048576, 0, 0)",
                    "TarnikMetaCache::config(1200)"}));
}

// ---- the others

TEST_F(CallbacksTest, Restart) {
  EXPECT_EQ(onRestart(SIGUSR1, &context_), 0);
  EXPECT_EQ(exitStatus_, 2);
  EXPECT_EQ(sdk().entries(), (Record{"<6>onRestart: Restarting", "tickle", "CaptureThread::stop()",
                                     "OrloLoopQuit()"}));
}

TEST_F(CallbacksTest, Terminate) {
  for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
    sdk().clear();
    EXPECT_EQ(onTerminate(signal, &context_), 0);
    EXPECT_EQ(exitStatus_, 0);
    EXPECT_EQ(sdk().entries(), (Record{"<6>onTerminate: Received SIGTERM, exiting", "tickle",
                                       "CaptureThread::stop()", "OrloLoopQuit()"}));
  }
}

TEST_F(CallbacksTest, Timeout) {
  EXPECT_EQ(onTimeout(3, &context_), 0);
  EXPECT_EQ(sdk().entries(), Record{"tickle"});
  sdk().clear();
  OrloLogDebugLevel = 1;
  EXPECT_EQ(onTimeout(3, &context_), 0);
  EXPECT_EQ(sdk().entries(), (Record{"<7>Debug: onTimeout: tickle watchdog", "tickle"}));
}

TEST_F(CallbacksTest, CacheExpiry) {
  EXPECT_EQ(onCacheExpiry(300, nullptr), 0);
  EXPECT_EQ(sdk().entries(), Record{"TarnikMetaCache::expire()"});
}

TEST_F(CallbacksTest, CommandTicklesBeforeAndAfterTheMessage) {
  EXPECT_EQ(onCommand(77, &context_), 0);
  EXPECT_EQ(sdk().entries(),
            (Record{"tickle", "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                    "<3>Error: processMessage: Failed to receive message: 0", "tickle"}));
}

}  // namespace
}  // namespace tarnik::test
