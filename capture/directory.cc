#include "capture/directory.h"

#include <cstring>

#include "base/log.h"

namespace tarnik {

bool isCaptureFile(const char* path) {
  return std::strstr(path, ".pcap") != nullptr;
}

void warnOfMissingStatus(const char* path, int error) {
  TARNIK_WARNING("Warning: %s: Failed to get disk size for [%s]: %s", kUsageOperation, path,
                 std::strerror(error));
}

}  // namespace tarnik
