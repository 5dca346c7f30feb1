#include "capture/disk_usage.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "base/log.h"
#include "base/paths.h"

namespace tarnik {
namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

}  // namespace

void scanDiskUsage(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  const Directory directory(::opendir(kCaptureDir));
  if (!directory) {
    TARNIK_ERROR("Error: %s: Failed to open [%s]: %s", "UpdateUsageCounters", kCaptureDir,
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
      TARNIK_WARNING("Warning: %s: Failed to get disk size for [%s]: %s", "UpdateUsageCounters",
                     path.c_str(), std::strerror(errno));
      continue;
    }
    diskUsed += static_cast<std::uint64_t>(status.st_size);
    if (path.find(".pcap") != std::string::npos) {
      ++filesUsed;
    }
  }
}

void DiskUsage::update(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  scanDiskUsage(diskUsed, filesUsed);
}

}  // namespace tarnik
