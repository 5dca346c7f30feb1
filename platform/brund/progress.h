// One line on a terminal that shows how far a run has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/brund/account.h"

namespace tarnik::brund {

class Progress {
 public:
  // Shows nothing when `quiet` or when standard error is no terminal.
  Progress(const Account& account, bool quiet);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows the account, in what one line of the terminal holds, at most twice a second.
  void show();
  // As show(), but says how many frames have been read ahead.
  void showRead(std::uint64_t frames);
  // Takes the line off the terminal, before something else is written.
  void clear();

 private:
  [[nodiscard]] bool due();
  void put(std::string line);

  const Account& account_;
  bool on_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tarnik::brund
