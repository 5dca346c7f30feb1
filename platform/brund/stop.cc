#include "platform/brund/stop.h"

#include <csignal>

namespace tarnik::brund {
namespace {

volatile std::sig_atomic_t signals = 0;

void onStop(int) {
  signals = signals + 1;
}

}  // namespace

void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = onStop;  // without SA_RESTART, so that waits end
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int stopSignals() {
  return signals;
}

}  // namespace tarnik::brund
