#include "policy/tuning_file.h"

#include <orlo_sdk.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/owned.h"

namespace tarnik {
namespace {

struct TuningReleaser {
  void operator()(OrloTuning* tuning) const noexcept { OrloTuningRelease(tuning); }
};
using Tuning = std::unique_ptr<OrloTuning, TuningReleaser>;

}  // namespace

TuningOutcome readTuningFile(const char* path, MalformedLines malformedLines,
                             const TuningVisitor& visit) {
  const Stream stream = openForReading(path);
  if (!stream) {
    return {TuningStatus::kCannotOpen, 0};
  }
  const Tuning tuning(OrloTuningAlloc(stream.get()));  // released before the stream closes
  if (!tuning) {
    return {TuningStatus::kNoParser, 0};
  }
  for (;;) {
    const char* key = nullptr;
    const char* value = nullptr;
    const int parsed = OrloTuningParseLine(tuning.get(), &key, &value);
    // The parser takes a read error for the end of the file. A line that the error cut short must
    // not take effect, so this comes first.
    if (std::ferror(stream.get()) != 0) {
      return {TuningStatus::kReadError, 0};
    }
    if (parsed == ORLO_TUNING_END) {
      return {TuningStatus::kEnd, 0};
    }
    if (parsed == ORLO_TUNING_SETTING) {
      if (!visit(key, value)) {
        return {TuningStatus::kStopped, 0};
      }
    } else if (malformedLines == MalformedLines::kStop) {
      return {TuningStatus::kMalformed, OrloTuningCurrLine(tuning.get())};
    }
  }
}

void endProcess() noexcept {
  std::_Exit(EXIT_FAILURE);
}

}  // namespace tarnik
