// All atomic accesses to the memory that the driver and the processes share: the words of the ring
// and of the descriptors. Every access is a full barrier. Every word is read once into a local
// variable, which the caller checks before use: any process may change the shared copy at any time.
//
// How the ring works: both counters change only by compare-and-swap. A producer claims a slot by
// advancing `enqueue`, then stores the frame's identifier in it. A consumer claims a slot by
// advancing `dequeue`, then stores 0 in it. So a slot's value shows whether the process that
// claimed it has finished.
//
// Limit: the counters are masked, so a swap also succeeds when its counter has advanced once around
// the whole ring since it was read. If a producer (or consumer) is preempted between the read and
// the swap while others of its side move exactly as many frames as the ring has slots, it claims a
// slot that it must not claim, and frames are lost or read twice. This cannot happen with one
// producer and one consumer. With more, the ring must be longer than what the others move in the
// meantime. zorlib/model shows that the ring has no other fault.
#pragma once

#include <atomic>
#include <cstdint>

#include "zorlib/zorvik_layout.h"

namespace tarnik::ring {

inline constexpr auto kFull = std::memory_order_seq_cst;

// ---- Wait/wake records

// Pairs with raiseShutdown and clearShutdown of any process.
inline bool isShutDown(zorvik_resq& side) noexcept {
  return (std::atomic_ref(side.flags).load(kFull) & ZORVIK_RESQ_SHUTDOWN) != 0;
}
inline void raiseShutdown(zorvik_resq& side) noexcept {
  std::atomic_ref(side.flags).fetch_or(ZORVIK_RESQ_SHUTDOWN, kFull);
}
inline void clearShutdown(zorvik_resq& side) noexcept {
  std::atomic_ref(side.flags).fetch_and(~std::uint32_t{ZORVIK_RESQ_SHUTDOWN}, kFull);
}
// Posts a wake-up. True when none was posted yet; the caller then issues the wake request. Pairs
// with takeWakeup: the waiter sees everything that was stored before the post.
inline bool postWakeup(zorvik_resq& side) noexcept {
  return (std::atomic_ref(side.flags).fetch_or(ZORVIK_RESQ_WOKEN, kFull) & ZORVIK_RESQ_WOKEN) == 0;
}
// Removes a posted wake-up. True when there was one; the waiter then reads the ring again instead
// of sleeping. Pairs with postWakeup.
inline bool takeWakeup(zorvik_resq& side) noexcept {
  return (std::atomic_ref(side.flags).fetch_and(~std::uint32_t{ZORVIK_RESQ_WOKEN}, kFull) &
          ZORVIK_RESQ_WOKEN) != 0;
}

// ---- Counters and slots

// Pairs with advance on the same counter, in another process.
inline std::uint32_t counter(std::uint32_t& word) noexcept {
  return std::atomic_ref(word).load(kFull);
}
// Claims the slot at `seen` for the caller: advances the counter unless it has changed. True on
// success.
inline bool advance(std::uint32_t& word, std::uint32_t seen, std::uint32_t mask) noexcept {
  return std::atomic_ref(word).compare_exchange_strong(seen, (seen + 1) & mask, kFull);
}
// Pairs with fill (a consumer waits for the identifier) and with empty (a producer waits for 0).
inline std::uint64_t entry(std::uint64_t& slot) noexcept {
  return std::atomic_ref(slot).load(kFull);
}
// Publishes the frame: the process that reads the entry sees everything written into it before.
inline void fill(std::uint64_t& slot, std::uint32_t frameId) noexcept {
  std::atomic_ref(slot).store(frameId, kFull);
}
// Returns the slot to the producers.
inline void empty(std::uint64_t& slot) noexcept {
  std::atomic_ref(slot).store(0, kFull);
}

// One slot always stays empty, so that a full ring differs from an empty one.
inline bool isFull(std::uint32_t enqueue, std::uint32_t dequeue, std::uint32_t mask) noexcept {
  return dequeue - enqueue == 1 || (dequeue == 0 && enqueue == mask);
}

// ---- Descriptors
// Written by the driver and by the process that owns the frame; a hostile process may write at any
// time, so each word is loaded once.

template <class Word>
inline Word load(Word& word) noexcept {
  return std::atomic_ref(word).load(kFull);
}
template <class Word>
inline void store(Word& word, Word value) noexcept {
  std::atomic_ref(word).store(value, kFull);
}
// Both return the count before the change.
inline std::uint8_t increment(std::uint8_t& count) noexcept {
  return std::atomic_ref(count).fetch_add(1, kFull);
}
inline std::uint8_t decrement(std::uint8_t& count) noexcept {
  return std::atomic_ref(count).fetch_sub(1, kFull);
}
// Several holders of a frame may each set flags at the same time.
inline void setFlags(std::uint16_t& flags, std::uint16_t bits) noexcept {
  std::atomic_ref(flags).fetch_or(bits, kFull);
}
inline void barrier() noexcept {
  std::atomic_thread_fence(kFull);
}

}  // namespace tarnik::ring
