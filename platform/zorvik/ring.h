// A queue's ring as the driver accesses it. The driver uses its own number of slots, so nothing
// that applications write into the queue memory can lead it outside the ring.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

enum class Side { kProducer, kConsumer };

class Ring {
 public:
  // `slots` is a power of two; the memory has room for them.
  Ring(void* memory, std::uint32_t slots) noexcept
      : qmem_(static_cast<zorvik_qmem*>(memory)), slots_(slots) {}

  // Writes the words of a ring that never change.
  void init(std::uint32_t producerHandle, std::uint32_t consumerHandle) const noexcept {
    at(qmem_->presq.kresq_handle).store(producerHandle);
    at(qmem_->cresq.kresq_handle).store(consumerHandle);
    at(qmem_->max_elements).store(slots_);
    at(qmem_->mask).store(slots_ - 1);
  }

  // The word on which the side's waiters sleep.
  [[nodiscard]] std::uint32_t& flags(Side side) const noexcept {
    return side == Side::kProducer ? qmem_->presq.flags : qmem_->cresq.flags;
  }
  [[nodiscard]] std::uint32_t enqueue() const noexcept { return masked(at(qmem_->enqueue).load()); }
  [[nodiscard]] std::uint32_t dequeue() const noexcept { return masked(at(qmem_->dequeue).load()); }
  void setEnqueue(std::uint32_t value) const noexcept { at(qmem_->enqueue).store(masked(value)); }
  void setDequeue(std::uint32_t value) const noexcept { at(qmem_->dequeue).store(masked(value)); }
  [[nodiscard]] std::atomic_ref<std::uint64_t> entry(std::uint32_t slot) const noexcept {
    return std::atomic_ref(zorvik_qmem_entries(qmem_)[masked(slot)]);
  }

  // Slots that producers have claimed and consumers have not, at most slots - 1.
  [[nodiscard]] std::uint32_t used() const noexcept { return masked(enqueue() - dequeue()); }
  [[nodiscard]] bool full() const noexcept { return used() == slots_ - 1; }
  // Whether the side can go on: a consumer has something to read, a producer has room.
  [[nodiscard]] bool ready(Side side) const noexcept {
    return side == Side::kProducer ? !full() : used() != 0;
  }
  // The entries of the used slots, oldest first.
  [[nodiscard]] std::vector<std::uint64_t> contents() const {
    std::vector<std::uint64_t> entries(used());
    std::uint32_t slot = dequeue();
    for (std::uint64_t& each : entries) {
      each = entry(slot++).load();
    }
    return entries;
  }

 private:
  [[nodiscard]] static std::atomic_ref<std::uint32_t> at(std::uint32_t& word) noexcept {
    return std::atomic_ref(word);
  }
  [[nodiscard]] std::uint32_t masked(std::uint32_t value) const noexcept {
    return value & (slots_ - 1);
  }

  zorvik_qmem* qmem_;
  std::uint32_t slots_;
};

}  // namespace tarnik::zorvik
