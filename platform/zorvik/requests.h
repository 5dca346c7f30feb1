// The entry of the driver: what happens when a process opens a node or makes an ioctl request.
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

// Serves `request` with `argument` on a descriptor that is open on `file`. Returns 0 or more, or a
// negative errno; nothing when the file is no node of the driver or has no such request. Any
// thread; never throws.
[[nodiscard]] std::optional<int> serve(const NodeFile& file, unsigned long request,
                                       void* argument) noexcept;
inline std::optional<int> serve(int fd, unsigned long request, void* argument) noexcept {
  const std::optional<NodeFile> file = fileOf(fd);
  return file ? serve(*file, request, argument) : std::nullopt;
}

// Calls `open` with the other arguments and returns its result. If the file is a node of a group,
// it is in use from then on: the group cannot be removed. The first open of a queue or of a group's
// descriptors repairs what processes left that died. Any thread; never throws.
using OpenFunction = int (*)(const char* path, int flags, unsigned mode);
[[nodiscard]] int openNode(OpenFunction open, const char* path, int flags, unsigned mode) noexcept;

}  // namespace tarnik::zorvik
