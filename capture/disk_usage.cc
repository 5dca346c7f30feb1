#include "capture/disk_usage.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/log.h"
#include "base/paths.h"
#include "capture/directory.h"

namespace tarnik {

void scanDiskUsage(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  const Directory directory(::opendir(kCaptureDir));
  if (!directory) {
    TARNIK_ERROR("Error: %s: Failed to open [%s]: %s", kUsageOperation, kCaptureDir,
                 std::strerror(errno));
    return;
  }
  diskUsed = 0;
  filesUsed = 0;
  std::string path;
  while (const dirent* const entry = ::readdir(directory.get())) {
    path.assign(kCaptureDir).append(entry->d_name);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      warnOfMissingStatus(path.c_str(), errno);
      continue;
    }
    diskUsed += static_cast<std::uint64_t>(status.st_size);
    if (isCaptureFile(path.c_str())) {
      ++filesUsed;
    }
  }
}

void DiskUsage::update(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  if (!ledger_.refresh()) {
    scanDiskUsage(diskUsed, filesUsed);
    return;
  }
  diskUsed = ledger_.bytes();
  filesUsed = ledger_.captures();
}

}  // namespace tarnik
