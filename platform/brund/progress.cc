#include "platform/brund/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace tarnik::brund {

Progress::Progress(const Account& account, bool quiet)
    : account_(account), on_(!quiet && isatty(STDERR_FILENO) == 1) {}

bool Progress::due() {
  const auto now = on_ ? std::chrono::steady_clock::now() : next_;
  if (!on_ || now < next_) {
    return false;
  }
  next_ = now + std::chrono::milliseconds(500);
  return true;
}

// A line that wraps could not be taken off again.
void Progress::put(std::string line) {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    line.resize(std::min<std::size_t>(line.size(), size.ws_col - 1u));
  }
  std::fprintf(stderr, "\r%s\033[K", line.c_str());
  shown_ = true;
}

void Progress::show() {
  if (due()) {
    put(account_.summary());
  }
}

void Progress::showRead(std::uint64_t frames) {
  if (due()) {
    put(std::to_string(frames) + " frames read ahead");
  }
}

void Progress::clear() {
  if (shown_) {
    std::fputs("\r\033[K", stderr);
    shown_ = false;
  }
}

}  // namespace tarnik::brund
