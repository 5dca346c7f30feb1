// The driver's door: its answers to ioctl requests.
#pragma once

#include <cstdint>
#include <optional>

namespace tarnik::zorvik {

// The file that a descriptor is open on, which may be a node of the driver.
struct NodeFile {
  std::uint64_t device;
  std::uint64_t inode;
};
// Nothing when it cannot be a node.
[[nodiscard]] std::optional<NodeFile> fileOf(int fd) noexcept;

// Serves `request` with `argument` on the descriptor `fd` of the calling process, which is open on
// `file`: the result, 0 or more, or a negative errno. Nothing when that is none of the driver's
// nodes, or one that has no such request. Any thread; never throws.
[[nodiscard]] std::optional<int> serve(int fd, const NodeFile& file, unsigned long request,
                                       void* argument) noexcept;
inline std::optional<int> serve(int fd, unsigned long request, void* argument) noexcept {
  const std::optional<NodeFile> file = fileOf(fd);
  return file ? serve(fd, *file, request, argument) : std::nullopt;
}

}  // namespace tarnik::zorvik
