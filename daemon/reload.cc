#include "daemon/reload.h"

#include <cstdint>
#include <exception>

#include "base/log.h"
#include "base/paths.h"
#include "base/shell.h"
#include "capture/meta_cache.h"
#include "daemon/loop_context.h"
#include "daemon/options.h"
#include "daemon/settings.h"
#include "daemon/state.h"
#include "policy/info_template.h"

namespace tarnik {
namespace {

int metadataTimeout(const TarnikSettings& settings) {
  const auto timeout = static_cast<std::uint32_t>(settings.brund.timeout);
  const auto interval = static_cast<std::uint32_t>(settings.brund.interval);
  return static_cast<int>(3U * (timeout + interval));
}

// False, with a log line, when the configuration is invalid. Throws std::bad_alloc.
bool loadConfiguration() {
  TarnikSettings& settings = getSettings();
  if (load(settings, kConfigPath) != 0) {
    TARNIK_ERROR("Error: %s: Failed to reload base configuration", "onReload");
    return false;
  }
  setDebugLevel(settings.debuglevel);
  // When a map cannot be loaded, the manager logs it, and captures get no names from that map.
  applyCaptureSettings(&CaptureManager::Reload);
  [[maybe_unused]] const int removed = runShell("rm -rf /var/support/tarnik/template*");
  if (!createIpsInfoTemplate()) {
    TARNIK_ERROR("Error: %s: Failed to generated IPS info template", "onReload");
    return false;
  }
  if (!createNapInfoTemplates()) {
    TARNIK_ERROR("Error: %s: Failed to generated NAP info templates", "onReload");
    return false;
  }
  TarnikMetaCache::instance().config(metadataTimeout(settings));
  return true;
}

// As loadConfiguration, but reports running out of memory as a failure. The next reload starts from
// the beginning again.
bool tryToLoadConfiguration() noexcept {
  try {
    return loadConfiguration();
  } catch (const std::exception& error) {
    TARNIK_ERROR("Error: %s: Failed to reload: %s", "onReload", error.what());
    return false;
  }
}

}  // namespace

int onReload(int /*value*/, void* context) {
  const auto* const loopContext = static_cast<const LoopContext*>(context);
  TARNIK_INFO("%s: Reloading", "onReload");
  setState(kReloading);
  tickleWatchdog(loopContext);
  if (!tryToLoadConfiguration()) {
    setState(kConfigurationInvalid);
    return 0;
  }
  setState(kStarted);
  tickleWatchdog(loopContext);
  return 1;
}

int applyCaptureSettings(decltype(&CaptureManager::Reload) operation) {
  const TarnikSettings& settings = getSettings();
  return (CaptureManager::instance().*operation)(
      options.issuesPath, settings.file.timeout,
      static_cast<std::uint64_t>(settings.diskspace.bytes),
      static_cast<std::uint64_t>(settings.file.maxno), settings.file.maxsize,
      settings.event.interval, static_cast<std::uint32_t>(settings.event.threshold));
}

}  // namespace tarnik
