// A queue's ring as the driver touches it: with its own idea of the number of slots, so that
// nothing that applications write into the queue memory leads outside it.
#pragma once

#include <atomic>
#include <cstdint>

#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

class Ring {
 public:
  // `slots` is a power of two; the memory has room for them.
  Ring(void* memory, std::uint32_t slots) noexcept
      : qmem_(static_cast<zorvik_qmem*>(memory)), slots_(slots) {}

  // Writes the words of an empty ring.
  void init(std::uint32_t producerHandle, std::uint32_t consumerHandle) const noexcept {
    at(qmem_->presq.kresq_handle).store(producerHandle);
    at(qmem_->cresq.kresq_handle).store(consumerHandle);
    restore();
  }
  // Writes again what never changes.
  void restore() const noexcept {
    at(qmem_->max_elements).store(slots_);
    at(qmem_->mask).store(slots_ - 1);
  }

  [[nodiscard]] std::atomic_ref<std::uint32_t> flags(bool producer) const noexcept {
    return at(*flagsWord(producer));
  }
  // The word that the side's sleepers sleep on.
  [[nodiscard]] std::uint32_t* flagsWord(bool producer) const noexcept {
    return producer ? &qmem_->presq.flags : &qmem_->cresq.flags;
  }
  [[nodiscard]] std::uint32_t enqueue() const noexcept { return masked(at(qmem_->enqueue).load()); }
  [[nodiscard]] std::uint32_t dequeue() const noexcept { return masked(at(qmem_->dequeue).load()); }
  void setEnqueue(std::uint32_t value) const noexcept { at(qmem_->enqueue).store(masked(value)); }
  void setDequeue(std::uint32_t value) const noexcept { at(qmem_->dequeue).store(masked(value)); }
  [[nodiscard]] std::atomic_ref<std::uint64_t> entry(std::uint32_t slot) const noexcept {
    return std::atomic_ref(zorvik_qmem_entries(qmem_)[masked(slot)]);
  }

  // Slots claimed by producers and not yet by consumers, at most slots - 1.
  [[nodiscard]] std::uint32_t used() const noexcept { return masked(enqueue() - dequeue()); }
  [[nodiscard]] bool full() const noexcept { return used() == slots_ - 1; }
  // Whether a side that is about to sleep has something to do.
  [[nodiscard]] bool ready(bool producer) const noexcept {
    return producer ? !full() : used() != 0;
  }
  [[nodiscard]] std::uint32_t slots() const noexcept { return slots_; }

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
