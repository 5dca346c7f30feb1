// How templates and info files are written: never waiting, and never failing in silence.
#pragma once

#include "base/owned.h"

namespace tarnik {

// Opens like fopen(path, "w") (`how` is O_TRUNC) or fopen(path, "a") (O_APPEND), but does not wait
// at a pipe: one that nobody reads fails with ENXIO. Close-on-exec. Empty, with errno, on failure.
[[nodiscard]] Stream openForWriting(const char* path, int how) noexcept;

// Closes the stream; logs for `operation` when not all that was written has reached the file, as on
// a full disk. Such a file is cut short, and stays: what it holds is right.
void finishWriting(const char* operation, const char* path, Stream& stream) noexcept;

}  // namespace tarnik
