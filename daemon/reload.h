// Loading the configuration: at start, on SIGHUP and on a reload request. Main thread.
#pragma once

#include "capture/capture_manager.h"

namespace tarnik {

// The reload procedure, in the form of a callback of the event loop. Ignores `value`; `context` is
// a LoopContext or null. Returns 1, or 0 when the configuration is invalid. In that case the
// daemon's state is kConfigurationInvalid, and what was loaded before the failure is in effect.
int onReload(int value, void* context);

// Passes the settings and the path of the issue list to the capture manager's Init or Reload and
// returns its result.
int applyCaptureSettings(decltype(&CaptureManager::Reload) operation);

}  // namespace tarnik
