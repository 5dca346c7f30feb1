// Writing templates and info files, without waiting for pipes and with a log line for each failure.
#pragma once

#include <cstdint>

#include "base/owned.h"

namespace tarnik {

enum class WriteMode : std::uint8_t { kReplace, kAppend };

// Opens like fopen with mode "w" or "a", but does not wait at a pipe: one that nobody reads fails
// with ENXIO. Close-on-exec. Empty, with errno, on failure.
[[nodiscard]] Stream openForWriting(const char* path, WriteMode mode) noexcept;

// Closes the stream. Logs for `operation` when the file is incomplete, as on a full disk; such a
// file stays, because what it contains is correct.
void finishWriting(const char* operation, const char* path, Stream& stream) noexcept;

}  // namespace tarnik
