// What the two ways to measure the capture directory have in common.
#pragma once

#include <dirent.h>

#include <memory>

namespace tarnik {

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// The operation's name in the log.
inline constexpr char kUsageOperation[] = "UpdateUsageCounters";

// Whether an entry of that path or name is a capture file.
[[nodiscard]] bool isCaptureFile(const char* path);

// Logs that there is no status to be had of the entry at `path`.
void warnOfMissingStatus(const char* path, int error);

}  // namespace tarnik
