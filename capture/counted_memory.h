// Counts what a test program allocates. A test program that contains counted_memory.cc has its own
// malloc in the place of the system's or, under a sanitizer, which brings one, its own operator
// new.
#pragma once

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARNIK_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNIK_TEST_SANITIZED 1
#endif
#endif

namespace tarnik::test {

// How often memory was allocated so far. Any thread.
[[nodiscard]] std::uint64_t allocations();

}  // namespace tarnik::test
