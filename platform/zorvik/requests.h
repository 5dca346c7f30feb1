// The driver's door: its answers to ioctl requests.
#pragma once

#include <optional>

namespace tarnik::zorvik {

// Serves `request` with `argument` on the descriptor `fd` of the calling process: the result, 0 or
// more, or a negative errno. Nothing when the descriptor is none of the driver's nodes, or one
// that has no such request. Any thread; never throws.
[[nodiscard]] std::optional<int> serve(int fd, unsigned long request, void* argument) noexcept;

}  // namespace tarnik::zorvik
