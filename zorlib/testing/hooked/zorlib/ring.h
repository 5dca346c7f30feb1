// Takes precedence over the real header in a test program that compiles q_io.cc: the same
// functions, but the test is called before each access to shared memory. They are in the namespace
// hookedRing, because the library has the real ones.
#pragma once

#include <atomic>

namespace tarnik::test {

// Called before the word is read, and before it is changed. They may do what another process would
// do at this moment.
void beforeLook(const void* word, std::memory_order order);
void beforeChange(const void* word, std::memory_order order);

// std::atomic_ref with the hooks.
template <class Word>
class HookedRef {
 public:
  explicit HookedRef(Word& word) : word_(word) {}

  Word load(std::memory_order order) {
    beforeLook(&word_, order);
    return std::atomic_ref(word_).load(order);
  }
  void store(Word value, std::memory_order order) {
    beforeChange(&word_, order);
    std::atomic_ref(word_).store(value, order);
  }
  Word fetch_or(Word bits, std::memory_order order) {
    beforeChange(&word_, order);
    return std::atomic_ref(word_).fetch_or(bits, order);
  }
  Word fetch_and(Word bits, std::memory_order order) {
    beforeChange(&word_, order);
    return std::atomic_ref(word_).fetch_and(bits, order);
  }
  Word fetch_add(Word value, std::memory_order order) {
    beforeChange(&word_, order);
    return std::atomic_ref(word_).fetch_add(value, order);
  }
  Word fetch_sub(Word value, std::memory_order order) {
    beforeChange(&word_, order);
    return std::atomic_ref(word_).fetch_sub(value, order);
  }
  bool compare_exchange_strong(Word& expected, Word value, std::memory_order order) {
    beforeChange(&word_, order);
    return std::atomic_ref(word_).compare_exchange_strong(expected, value, order);
  }

 private:
  Word& word_;
};

}  // namespace tarnik::test

namespace std {  // NOLINT(cert-dcl58-cpp)
using tarnik::test::HookedRef;
}

#define ring hookedRing
#define atomic_ref HookedRef
#include "../../../ring.h"
#undef atomic_ref
