#include "platform/zorvik/known_descriptors.h"

namespace tarnik::zorvik {

std::optional<NodeFile> KnownDescriptors::fileOf(int fd) noexcept {
  Entry* const entry = entryOf(fd);
  std::uint64_t seen = entry == nullptr ? 0 : entry->load(std::memory_order_acquire);
  if ((seen & kInodeMask) != 0) {
    return NodeFile{device_.load(std::memory_order_relaxed), seen & kInodeMask};
  }
  const std::optional<NodeFile> file = zorvik::fileOf(fd);
  if (entry != nullptr && file && file->inode <= kInodeMask && isOn(file->device)) {
    entry->compare_exchange_strong(seen, seen | file->inode, std::memory_order_release,
                                   std::memory_order_relaxed);
  }
  return file;
}

void KnownDescriptors::forget(int fd) noexcept {
  if (Entry* const entry = entryOf(fd); entry != nullptr) {
    std::uint64_t seen = entry->load(std::memory_order_relaxed);
    while (!entry->compare_exchange_weak(seen, (seen | kInodeMask) + 1)) {
    }
  }
}

KnownDescriptors::Entry* KnownDescriptors::entryOf(int fd) noexcept {
  const auto index = static_cast<unsigned>(fd);  // a negative number becomes a large one
  return index < entries_.size() ? &entries_[index] : nullptr;
}

bool KnownDescriptors::isOn(std::uint64_t device) noexcept {
  std::uint64_t known = 0;
  return device_.compare_exchange_strong(known, device) || known == device;
}

}  // namespace tarnik::zorvik
