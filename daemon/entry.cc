#include "daemon/entry.h"

#include <fcntl.h>
#include <orlo_sdk.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "base/log.h"
#include "base/paths.h"
#include "daemon/callbacks.h"
#include "daemon/loop_context.h"
#include "daemon/options.h"
#include "daemon/reload.h"
#include "daemon/settings.h"
#include "daemon/state.h"

namespace tarnik {
namespace {

constexpr std::int64_t kTickleInterval = 3;  // seconds

void readCommandLine(int argc, char** argv) {
  if (parseOptions(argc, argv, options.flags) != 0) {
    usage();
    std::exit(EXIT_FAILURE);
  }
}

void unblockSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Every open capture has an open file, and a busy sensor has more captures than the usual soft
// limit allows.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

void addSignals(LoopContext& context) {
  for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
    if (OrloLoopSignalAdd(signal, onTerminate, &context) != 0) {
      TARNIK_FATAL("Fatal error: %s: Failed to add termination signal callback", kProgramName);
      std::exit(EXIT_FAILURE);
    }
  }
  if (OrloLoopSignalAdd(SIGHUP, onReload, &context) != 0) {
    TARNIK_FATAL("Fatal error: %s: Failed to add reload signal callback", kProgramName);
    std::exit(EXIT_FAILURE);
  }
  if (OrloLoopSignalAdd(SIGUSR1, onRestart, &context) != 0) {
    TARNIK_FATAL("Fatal error: %s: Failed to add restart signal callback", kProgramName);
    std::exit(EXIT_FAILURE);
  }
}

void addTimers(LoopContext& context) {
  if (OrloLoopTimerAdd(kTickleInterval, onTimeout, &context) != 0) {
    TARNIK_FATAL("Fatal error: %s: Failed to add watchdog timer callback", kProgramName);
    std::exit(EXIT_FAILURE);
  }
  if (OrloLoopTimerAdd(getSettings().brund.interval, onCacheExpiry, nullptr) != 0) {
    TARNIK_FATAL("Fatal error: Failed to add meta cache expiry callback");
    std::exit(EXIT_FAILURE);
  }
}

void armWatchdog(LoopContext& context) {
  watchdogTimer = OrloWatchdogTimerVirtCreate();
  context.watchdogTimer = watchdogTimer;
  if (watchdogTimer != nullptr) {
    [[maybe_unused]] const int armed =
        OrloWatchdogTimerVirtSet(watchdogTimer, options.watchdogTime);
  }
  tickleWatchdog(&context);
}

void openCommandSocket(LoopContext& context) {
  const int error = OrloCmdInit(kProgramName, 0);
  if (error != 0) {
    setState(kFailedToStart);
    TARNIK_FATAL("Fatal error: %s: Failed to create command interface: %s", "main",
                 OrloCmdError(error));
    std::exit(EXIT_FAILURE);
  }
  if (OrloLoopFdAdd(OrloCmdFd(), onCommand, &context) != 0) {
    // The loop has no error code, so the line ends with the text for code 0.
    TARNIK_FATAL("Fatal error: %s: Failed to create command callback: %s", kProgramName,
                 OrloCmdError(0));
    std::exit(EXIT_FAILURE);
  }
}

void loadConfiguration(LoopContext& context) {
  if (onReload(0, &context) == 0) {
    TARNIK_FATAL("Fatal error: %s: Failed to load the configuration", kProgramName);
    std::exit(EXIT_FAILURE);
  }
}

// When the directory is not writable, every capture fails later, with one log line for each frame.
// Log the cause once, at start.
void checkCaptureDirectory() {
  if (faccessat(AT_FDCWD, kCaptureDir, W_OK | X_OK, AT_EACCESS) != 0) {
    TARNIK_ERROR("Error: %s: Cannot write to [%s]: %s", "main", kCaptureDir, std::strerror(errno));
  }
}

void startCapture() {
  // Init and start log their failures. The daemon then still answers commands.
  try {
    applyCaptureSettings(&CaptureManager::Init);
    captureThread.start(static_cast<std::uint64_t>(getSettings().brund.qtimeout));
  } catch (const std::exception& error) {
    TARNIK_ERROR("Error: %s: Failed to start capturing: %s", "main", error.what());
  }
}

void shutDown(const LoopContext& context) {
  tickleWatchdog(&context);
  setState(kStopping);
  // Thousands of open captures take longer to finalise than the watchdog waits, so each progress
  // tickles it. A capture that hangs lets the watchdog end the process.
  captureThread.join([&context] { tickleWatchdog(&context); });
  tickleWatchdog(&context);
  OrloWatchdogTimerVirtDestroy(context.watchdogTimer);
  OrloCmdFini();
  setState(kStopped);
}

}  // namespace

// Nothing reads it, so without the attribute the optimised build would drop it.
[[gnu::used]] OrloWatchdogTimer* watchdogTimer = nullptr;

int tarnikMain(int argc, char** argv) {
  setState(kStarting);
  readCommandLine(argc, argv);
  unblockSignals();
  [[maybe_unused]] const int logged = OrloLogInit(kProgramName, options.flags & kNoDaemon);
  [[maybe_unused]] const int detached =
      OrloWatchdogDaemon(kProgramName, "packet capture daemon", options.flags);
  std::int32_t exitStatus = 0;
  LoopContext context{nullptr, &exitStatus};
  umask(0);
  raiseDescriptorLimit();
  addSignals(context);
  addTimers(context);
  armWatchdog(context);
  openCommandSocket(context);
  loadConfiguration(context);
  checkCaptureDirectory();
  startCapture();
  if (OrloLoop() != 0) {
    captureThread.stop();  // the loop failed, so no callback has stopped the thread
  }
  shutDown(context);
  TARNIK_DEBUG(0, "Debug: %s: exit status=%d", kProgramName, *context.exitStatus);
  return *context.exitStatus;
}

}  // namespace tarnik
