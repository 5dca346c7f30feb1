// Stands in the place of the ring's header where a test compiles reading and writing anew: the
// same accesses, but each look at flags, counter or entry is told to the test first.
#pragma once

#define counter unhookedCounter
#define entry unhookedEntry
#define isShutDown unhookedIsShutDown
#include "../../../ring.h"
#undef counter
#undef entry
#undef isShutDown

namespace tarnik::test {
// Called before the word is read. May do what another process would do at this moment.
void beforeLook(const void* word);
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

}  // namespace tarnik::ring
