// Remembers on which file each descriptor of this process is open, so that the request made for
// every frame needs no system call. forget() must be called before a descriptor is closed or
// replaced.
//
// Any thread; lock-free, so that a child of fork() can use it at once.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/zorvik/requests.h"

namespace tarnik::zorvik {

class KnownDescriptors {
 public:
  // As fileOf() in requests.h, which is called for a descriptor that is not known yet.
  [[nodiscard]] std::optional<NodeFile> fileOf(int fd) noexcept;
  void forget(int fd) noexcept;

 private:
  // The low bits are the inode, 0 when it is not known. The high bits count the calls of forget(),
  // so that an answer which the kernel gave before such a call is not stored after it.
  using Entry = std::atomic<std::uint64_t>;
  static constexpr std::uint64_t kInodeMask = (std::uint64_t{1} << 48) - 1;

  [[nodiscard]] Entry* entryOf(int fd) noexcept;
  [[nodiscard]] bool isOn(std::uint64_t device) noexcept;

  // All nodes of a driver are on one device. Files on other devices are not remembered.
  std::atomic<std::uint64_t> device_{0};
  std::array<Entry, 1024> entries_{};
};

}  // namespace tarnik::zorvik
