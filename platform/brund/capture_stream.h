// The stream through which libpcap reads a capture file.
#pragma once

#include <string>

#include "base/owned.h"

namespace tarnik::brund {

// Opens a regular file. A classic capture file announces in its header how long its frames are at
// most, and libpcap cuts longer ones to that length, which would pass for their captured length;
// this stream shows a header that announces the most that libpcap accepts. Empty, with the reason,
// on failure.
[[nodiscard]] Stream openCapture(const std::string& path, std::string& reason);

}  // namespace tarnik::brund
