// Reads files of "key = value" settings with the platform's tuning parser: the settings file and
// the policy files.
#pragma once

#include <cstdint>
#include <functional>

namespace tarnik {

enum class TuningStatus : std::uint8_t {
  kEnd,         // the whole file was read
  kStopped,     // the visitor ended the reading
  kCannotOpen,  // with errno
  kNoParser,    // the platform has no memory for one
  kReadError,   // with errno
  kMalformed,
};

struct TuningOutcome {
  TuningStatus status;
  int line;  // of kMalformed, from 1; else 0
};

// Gets each setting; both texts are valid until it returns. False ends the reading.
using TuningVisitor = std::function<bool(const char* key, const char* value)>;

enum class MalformedLines : std::uint8_t { kSkip, kStop };

// Opens a regular file and hands its settings to `visit` in their order. Logs nothing.
[[nodiscard]] TuningOutcome readTuningFile(const char* path, MalformedLines malformedLines,
                                           const TuningVisitor& visit);

// Ends the process with status 1 at once, without running destructors. During a reload the capture
// thread is at work, and exit() would destroy its writers and flush their streams while it uses
// them. What the streams of unfinished captures still hold is lost.
[[noreturn]] void endProcess() noexcept;

}  // namespace tarnik
