// The entry of the driver: it serves the ioctl requests of a process.
#pragma once

#include <cstdint>
#include <optional>

namespace tarnik::zorvik {

// The file that a descriptor is open on.
struct NodeFile {
  std::uint64_t device;
  std::uint64_t inode;
};
// Nothing when it cannot be a node of the driver.
[[nodiscard]] std::optional<NodeFile> fileOf(int fd) noexcept;

// Serves `request` with `argument` on the calling process's descriptor `fd`, which is open on
// `file`. Returns 0 or more, or a negative errno; nothing when the file is no node of the driver
// or has no such request. Any thread; never throws.
[[nodiscard]] std::optional<int> serve(int fd, const NodeFile& file, unsigned long request,
                                       void* argument) noexcept;
inline std::optional<int> serve(int fd, unsigned long request, void* argument) noexcept {
  const std::optional<NodeFile> file = fileOf(fd);
  return file ? serve(fd, *file, request, argument) : std::nullopt;
}

}  // namespace tarnik::zorvik
