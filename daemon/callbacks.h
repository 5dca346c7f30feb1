// The callbacks that the platform's event loop runs on the main thread, and what they share.
#pragma once

#include <orlo_sdk.h>

#include <cstdint>

#include "capture/capture_manager.h"
#include "capture/capture_thread.h"

namespace tarnik {

// Lives in the daemon's main function; handed to the callbacks as their user data.
struct LoopContext {
  OrloWatchdogTimer* watchdogTimer;  // null until the timer is created
  std::int32_t* exitStatus;
};

// The daemon's second thread; started and joined by the main function, stopped by callbacks.
extern CaptureThread captureThread;

// Tells the watchdog that the daemon is alive. Nothing without a context or a timer.
void tickleWatchdog(const LoopContext* context);

// Hands the settings and the path of the issue list to the capture manager's Init or Reload and
// returns its result.
int applyCaptureSettings(decltype(&CaptureManager::Reload) operation);

// The reload procedure: SIGHUP, the start-up load and the reload request run it. `value` is
// ignored, the context may be null. 1, or 0 when the configuration is invalid: the state says so
// and the daemon goes on with what could be loaded.
int onReload(int value, void* context);

int onRestart(int signal, void* context);    // SIGUSR1: ends the loop, exit status 2
int onTerminate(int signal, void* context);  // SIGTERM, SIGQUIT, SIGINT: ends the loop
int onTimeout(int seconds, void* context);   // keeps the watchdog quiet
int onCacheExpiry(int seconds, void* context);
int onCommand(int fd, void* context);  // one message of the command socket

}  // namespace tarnik
