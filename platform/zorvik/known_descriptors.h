// Which file each descriptor of this process is open on, so that the request made for every frame
// need not ask the kernel. True as long as forget() is called before a descriptor is closed or
// replaced.
//
// Any thread; no locks, so that a child of fork() may use it at once.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/zorvik/requests.h"

namespace tarnik::zorvik {

class KnownDescriptors {
 public:
  // As fileOf(), which is asked when the descriptor is not known.
  [[nodiscard]] std::optional<NodeFile> fileOf(int fd) noexcept;
  void forget(int fd) noexcept;
  void forgetRange(unsigned first, unsigned last) noexcept;

 private:
  // The low bits hold the inode, 0 when it is not known. The high ones count how often it was
  // forgotten: what the kernel said before that is not kept.
  using Entry = std::atomic<std::uint64_t>;
  static constexpr unsigned kInodeBits = 48;
  static constexpr std::uint64_t kInodeMask = (std::uint64_t{1} << kInodeBits) - 1;

  [[nodiscard]] Entry* entryOf(int fd) noexcept;
  [[nodiscard]] bool isOn(std::uint64_t device) noexcept;

  // The nodes of a driver lie on one device. What lies on another is never kept.
  std::atomic<std::uint64_t> device_{0};
  std::array<Entry, 1024> entries_{};
};

}  // namespace tarnik::zorvik
