#include "platform/brund/progress.h"

#include <unistd.h>

#include <cstdio>

namespace tarnik::brund {

Progress::Progress(const Account& account, bool quiet)
    : account_(account), on_(!quiet && isatty(STDERR_FILENO) == 1) {}

void Progress::show() {
  if (!on_) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) {
    return;
  }
  next_ = now + std::chrono::milliseconds(500);
  std::fprintf(stderr, "\r%s\033[K", account_.summary().c_str());
  shown_ = true;
}

void Progress::clear() {
  if (shown_) {
    std::fputs("\r\033[K", stderr);
    shown_ = false;
  }
}

}  // namespace tarnik::brund
