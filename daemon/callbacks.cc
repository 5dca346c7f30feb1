#include "daemon/callbacks.h"

#include <orlo_sdk.h>

#include <cstdint>
#include <exception>

#include "base/log.h"
#include "capture/meta_cache.h"
#include "daemon/command_handlers.h"
#include "daemon/loop_context.h"

namespace tarnik {
namespace {

constexpr std::int32_t kRestartStatus = 2;

}  // namespace

CaptureThread captureThread;

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
  try {
    TarnikMetaCache::instance().expire();
  } catch (const std::exception& error) {  // out of memory: the next expiry tries again
    TARNIK_ERROR("Error: %s: Failed to expire metadata: %s", "onCacheExpiry", error.what());
  }
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
