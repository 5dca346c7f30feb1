// The callbacks that the platform's event loop runs on the main thread, besides onReload.
#pragma once

#include "capture/capture_thread.h"

namespace tarnik {

// The daemon's second thread. The main function starts and joins it; callbacks stop it.
extern CaptureThread captureThread;

// The context of all but onCacheExpiry is a LoopContext. All return 0, and none throws: the loop is
// C code.
int onRestart(int signal, void* context);    // SIGUSR1: ends the loop, exit status 2
int onTerminate(int signal, void* context);  // SIGTERM, SIGQUIT, SIGINT: ends the loop
int onTimeout(int seconds, void* context);   // tickles the watchdog
int onCacheExpiry(int seconds, void* context);
int onCommand(int fd, void* context);  // handles one message of the command socket

}  // namespace tarnik
