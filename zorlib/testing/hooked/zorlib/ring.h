// Stands in the place of the ring's header where a test compiles reading and writing anew: the
// same accesses, but each look at flags, counter or entry and each change of one is told to the
// test first.
#pragma once

#define counter unhookedCounter
#define entry unhookedEntry
#define isShutDown unhookedIsShutDown
#define takeWakeup unhookedTakeWakeup
#define postWakeup unhookedPostWakeup
#define advance unhookedAdvance
#define fill unhookedFill
#define empty unhookedEmpty
#include "../../../ring.h"
#undef counter
#undef entry
#undef isShutDown
#undef takeWakeup
#undef postWakeup
#undef advance
#undef fill
#undef empty

namespace tarnik::test {
// Called before the word is read. May do what another process would do at this moment.
void beforeLook(const void* word);
// And before it is changed.
void beforeChange(const void* word);
}  // namespace tarnik::test

namespace tarnik::ring {

inline std::uint32_t counter(std::uint32_t& word) noexcept {
  test::beforeLook(&word);
  return unhookedCounter(word);
}
inline std::uint64_t entry(std::uint64_t& slot) noexcept {
  test::beforeLook(&slot);
  return unhookedEntry(slot);
}
inline bool isShutDown(zorvik_resq& side) noexcept {
  test::beforeLook(&side.flags);
  return unhookedIsShutDown(side);
}
inline bool takeWakeup(zorvik_resq& side) noexcept {
  test::beforeChange(&side.flags);
  return unhookedTakeWakeup(side);
}
inline bool postWakeup(zorvik_resq& side) noexcept {
  test::beforeChange(&side.flags);
  return unhookedPostWakeup(side);
}
inline bool advance(std::uint32_t& word, std::uint32_t seen, std::uint32_t mask) noexcept {
  test::beforeChange(&word);
  return unhookedAdvance(word, seen, mask);
}
inline void fill(std::uint64_t& slot, std::uint32_t frameId) noexcept {
  test::beforeChange(&slot);
  unhookedFill(slot, frameId);
}
inline void empty(std::uint64_t& slot) noexcept {
  test::beforeChange(&slot);
  unhookedEmpty(slot);
}

}  // namespace tarnik::ring
