#include "daemon/callbacks.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "base/log.h"
#include "base/paths.h"
#include "capture/meta_cache.h"
#include "daemon/command_handlers.h"
#include "daemon/options.h"
#include "daemon/settings.h"
#include "daemon/state.h"
#include "policy/capture_info.h"

namespace tarnik {
namespace {

constexpr std::int32_t kRestartStatus = 2;

int invalidConfiguration() {
  setState(kConfigurationInvalid);
  return 0;
}

int metadataTimeout(const TarnikSettings& settings) {
  const auto timeout = static_cast<std::uint32_t>(settings.brund.timeout);
  const auto interval = static_cast<std::uint32_t>(settings.brund.interval);
  return static_cast<int>(3U * (timeout + interval));
}

}  // namespace

CaptureThread captureThread;

void tickleWatchdog(const LoopContext* context) {
  static_assert(offsetof(OrloWatchdogTimer, elapsed) == 28);
  if (context != nullptr && context->watchdogTimer != nullptr) {
    // Relaxed: the platform counts the word up on its own; it orders nothing else.
    std::atomic_ref(context->watchdogTimer->elapsed).store(0, std::memory_order_relaxed);
  }
}

int applyCaptureSettings(decltype(&CaptureManager::Reload) operation) {
  const TarnikSettings& settings = getSettings();
  return (CaptureManager::instance().*operation)(
      options.issuesPath, settings.file.timeout,
      static_cast<std::uint64_t>(settings.diskspace.bytes),
      static_cast<std::uint64_t>(settings.file.maxno), settings.file.maxsize,
      settings.event.interval, static_cast<std::uint32_t>(settings.event.threshold));
}

int onReload(int /*value*/, void* context) {
  const auto* const loopContext = static_cast<const LoopContext*>(context);
  TARNIK_INFO("%s: Reloading", "onReload");
  setState(kReloading);
  tickleWatchdog(loopContext);
  TarnikSettings& settings = getSettings();
  if (load(settings, kConfigPath) != 0) {
    TARNIK_ERROR("Error: %s: Failed to reload base configuration", "onReload");
    return invalidConfiguration();
  }
  setDebugLevel(settings.debuglevel);
  // Maps that could not be loaded leave captures without names; the manager has said so.
  applyCaptureSettings(&CaptureManager::Reload);
  [[maybe_unused]] const int removed = std::system("rm -rf /var/support/tarnik/template*");
  if (!createIpsInfoTemplate()) {
    TARNIK_ERROR("Error: %s: Failed to generated IPS info template", "onReload");
    return invalidConfiguration();
  }
  if (!createNapInfoTemplates()) {
    TARNIK_ERROR("Error: %s: Failed to generated NAP info templates", "onReload");
    return invalidConfiguration();
  }
  TarnikMetaCache::instance().config(metadataTimeout(settings));
  setState(kStarted);
  tickleWatchdog(loopContext);
  return 1;
}

int onRestart(int /*signal*/, void* context) {
  const auto* const loopContext = static_cast<const LoopContext*>(context);
  TARNIK_INFO("%s: Restarting", "onRestart");
  tickleWatchdog(loopContext);
  *loopContext->exitStatus = kRestartStatus;
  captureThread.stop();
  OrloLoopQuit();
  return 0;
}

int onTerminate(int /*signal*/, void* context) {
  TARNIK_INFO("%s: Received SIGTERM, exiting", "onTerminate");
  tickleWatchdog(static_cast<const LoopContext*>(context));
  captureThread.stop();
  OrloLoopQuit();
  return 0;
}

int onTimeout(int /*seconds*/, void* context) {
  TARNIK_DEBUG(0, "Debug: %s: tickle watchdog", "onTimeout");
  tickleWatchdog(static_cast<const LoopContext*>(context));
  return 0;
}

int onCacheExpiry(int /*seconds*/, void* /*context*/) {
  TarnikMetaCache::instance().expire();
  return 0;
}

int onCommand(int /*fd*/, void* context) {
  const auto* const loopContext = static_cast<const LoopContext*>(context);
  tickleWatchdog(loopContext);
  processMessage();
  tickleWatchdog(loopContext);
  return 0;
}

}  // namespace tarnik
