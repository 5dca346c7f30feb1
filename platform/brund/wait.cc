#include "platform/brund/wait.h"

#include <time.h>

#include <csignal>

namespace tarnik::brund {
namespace {

volatile std::sig_atomic_t signals = 0;

void countSignal(int) {
  signals = signals + 1;
}

}  // namespace

void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = countSignal;  // without SA_RESTART, so that system calls are interrupted
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int stopSignals() {
  return signals;
}

// Not std::this_thread::sleep_until, which starts again after a signal.
void sleepUntil(std::chrono::steady_clock::time_point time) {
  while (stopSignals() == 0) {
    const auto left = std::chrono::nanoseconds(time - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      return;
    }
    const timespec pause{left / 1000000000, left % 1000000000};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace tarnik::brund
