// Counts what a test program allocates. A test program that contains counted_memory.cc has its own
// malloc in the place of the system's or, under a sanitizer, which brings one, its own operator
// new.
#pragma once

#include <cstdint>

namespace tarnik::test {

// How often memory was allocated so far. Any thread.
[[nodiscard]] std::uint64_t allocations();

}  // namespace tarnik::test
