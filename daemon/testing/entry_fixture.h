// The calls of a run of the daemon's main function, for tests in a private root.
#pragma once

#include <csignal>

#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {

// An empty configuration file, and a loop that SIGTERM ends.
class EntryTest : public DaemonTest {
 protected:
  EntryTest() {
    writeConfig("");
    sdk().loopSteps = {[] { sdk().raise(SIGTERM); }};
  }
};

// A start with -D and an empty configuration file, up to the loop.
inline const Record kStart = {
    "sigprocmask(SIG_SETMASK, none)",
    "OrloLogInit(\"tarnikd\", 1)",
    "OrloWatchdogDaemon(\"tarnikd\", \"packet capture daemon\", 1)",
    "umask(0)",
    "OrloLoopSignalAdd(15, onTerminate, context)",
    "OrloLoopSignalAdd(3, onTerminate, context)",
    "OrloLoopSignalAdd(2, onTerminate, context)",
    "OrloLoopSignalAdd(1, onReload, context)",
    "OrloLoopSignalAdd(10, onRestart, context)",
    "OrloLoopTimerAdd(3, onTimeout, context)",
    "OrloLoopTimerAdd(300, onCacheExpiry, null)",
    "OrloWatchdogTimerVirtCreate()",
    "OrloWatchdogTimerVirtSet(timer, 50)",
    "tickle",
    "OrloCmdInit(\"tarnikd\", 0)",
    "OrloCmdFd()",
    "OrloLoopFdAdd(77, onCommand, context)",
    "<6>onReload: Reloading",
    "tickle",
    "OrloTuningAlloc(stream)",
    "OrloTuningParseLine()",
    "OrloTuningRelease()",
    "CaptureManager::Reload(/usr/lib64/ruv-qan/issues.csv, 120, 53687091, 1000, 1048576, 0, 0)",
    "runShell(rm -rf /var/support/tarnik/template*)",
    "createIpsInfoTemplate()",
    "createNapInfoTemplates()",
    "TarnikMetaCache::config(1800)",
    "tickle",
    "CaptureManager::Init(/usr/lib64/ruv-qan/issues.csv, 120, 53687091, 1000, 1048576, 0, 0)",
    "CaptureThread::start(5000000)",
    "OrloLoop()",
};

// After the loop.
inline const Record kShutdown = {
    "OrloLoop returns",
    "tickle",
    "CaptureThread::join()",
    "tickle",
    "OrloWatchdogTimerVirtDestroy(timer)",
    "OrloCmdFini()",
};

inline Record joined(std::initializer_list<Record> parts) {
  Record result;
  for (const Record& part : parts) {
    result.insert(result.end(), part.begin(), part.end());
  }
  return result;
}

// The start up to and including the first entry that begins with `last`.
inline Record startUpTo(const std::string& last) {
  Record result;
  for (const std::string& entry : kStart) {
    result.push_back(entry);
    if (entry.starts_with(last)) {
      break;
    }
  }
  return result;
}

}  // namespace tarnik::test
