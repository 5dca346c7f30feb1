// Every atomic access to the memory that driver and processes share: the ring's words and the
// descriptor words that change hands. All are full barriers, for the other side may be any
// process, and each word is read once into a local that the caller bounds before use.
//
// The ring, for those who work on this file: the counters move only by compare-and-swap; a
// producer claims a slot by moving `enqueue` and then stores the identifier; a consumer claims
// it by moving `dequeue` and then stores 0. So a slot's word tells whether its claimant is done.
//
// Limit: the counters are masked, so a swap also succeeds after the counter has gone round the
// whole ring and come back to the value that was seen. A producer (or consumer) that stands still
// between look and swap, while others of its side move exactly the ring's length, then claims a
// slot that is not its to claim, and frames are lost or read twice. With one producer and one
// consumer it cannot happen, with several it wants a ring longer than what the others move while
// one is preempted. zorlib/model shows that this is the ring's only fault.
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
// Posts a wake-up; true when none was posted, so that the driver has to be asked. Pairs with
// takeWakeup: what was stored before the post is seen after the take.
inline bool postWakeup(zorvik_resq& side) noexcept {
  return (std::atomic_ref(side.flags).fetch_or(ZORVIK_RESQ_WOKEN, kFull) & ZORVIK_RESQ_WOKEN) == 0;
}
// Takes a posted wake-up back; true when there was one, so that the waiter looks again instead of
// sleeping. Pairs with postWakeup.
inline bool takeWakeup(zorvik_resq& side) noexcept {
  return (std::atomic_ref(side.flags).fetch_and(~std::uint32_t{ZORVIK_RESQ_WOKEN}, kFull) &
          ZORVIK_RESQ_WOKEN) != 0;
}

// ---- Counters and slots

// Pairs with advance on the same counter, in another process.
inline std::uint32_t counter(std::uint32_t& word) noexcept {
  return std::atomic_ref(word).load(kFull);
}
// Claims the slot at `seen` for the caller: moves the counter on unless somebody else did.
inline bool advance(std::uint32_t& word, std::uint32_t seen, std::uint32_t mask) noexcept {
  return std::atomic_ref(word).compare_exchange_strong(seen, (seen + 1) & mask, kFull);
}
// Pairs with fill (a consumer waits for the identifier) and with empty (a producer waits for 0).
inline std::uint64_t entry(std::uint64_t& slot) noexcept {
  return std::atomic_ref(slot).load(kFull);
}
// Publishes the frame: everything written into it before is seen by who reads the entry.
inline void fill(std::uint64_t& slot, std::uint32_t frameId) noexcept {
  std::atomic_ref(slot).store(frameId, kFull);
}
// Gives the slot back to the producers.
inline void empty(std::uint64_t& slot) noexcept {
  std::atomic_ref(slot).store(0, kFull);
}

// One slot always stays empty, so that a full ring is told from an empty one.
inline bool isFull(std::uint32_t enqueue, std::uint32_t dequeue, std::uint32_t mask) noexcept {
  return dequeue - enqueue == 1 || (dequeue == 0 && enqueue == mask);
}

// ---- Descriptors
// Their writers are the process that owns the frame at the moment and the driver; a hostile one
// writes at any time, so each word is loaded once.

template <class Word>
inline Word load(Word& word) noexcept {
  return std::atomic_ref(word).load(kFull);
}
template <class Word>
inline void store(Word& word, Word value) noexcept {
  std::atomic_ref(word).store(value, kFull);
}
// The count before.
inline std::uint8_t increment(std::uint8_t& count) noexcept {
  return std::atomic_ref(count).fetch_add(1, kFull);
}
inline std::uint8_t decrement(std::uint8_t& count) noexcept {
  return std::atomic_ref(count).fetch_sub(1, kFull);
}
// Several holders of a frame may set flags of their own.
inline void setFlags(std::uint16_t& flags, std::uint16_t bits) noexcept {
  std::atomic_ref(flags).fetch_or(bits, kFull);
}
inline void barrier() noexcept {
  std::atomic_thread_fence(kFull);
}

}  // namespace tarnik::ring
