// What the readers of policy files share around the platform's tuning parser.
#pragma once

#include <orlo_sdk.h>

#include <cstdlib>
#include <memory>

namespace tarnik {

struct TuningReleaser {
  void operator()(OrloTuning* tuning) const noexcept { OrloTuningRelease(tuning); }
};
// Declare it behind the stream it reads: the parser has to go first.
using Tuning = std::unique_ptr<OrloTuning, TuningReleaser>;

// Hands every setting to visit(key, value); both texts last until visit returns. True at the end
// of the file, false at a malformed line, whose number OrloTuningCurrLine then tells.
template <typename Visit>
[[nodiscard]] bool readSettings(OrloTuning* tuning, Visit visit) {
  const char* key = nullptr;
  const char* value = nullptr;
  for (;;) {
    switch (OrloTuningParseLine(tuning, &key, &value)) {
      case ORLO_TUNING_SETTING:
        visit(key, value);
        break;
      case ORLO_TUNING_END:
        return true;
      default:
        return false;
    }
  }
}

// Ends the process with status 1, at once. Not exit(): on a reload the capture thread is at work,
// and exit() would destroy the writers and flush their streams, which have no locks, under it. The
// price is what the streams of unfinished captures still hold; these have no final name yet.
[[noreturn]] inline void endProcess() noexcept {
  std::_Exit(EXIT_FAILURE);
}

}  // namespace tarnik
