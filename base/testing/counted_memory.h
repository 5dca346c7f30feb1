// Counts the allocations of a test program that links `counted_memory`. It replaces libc's malloc;
// with a sanitizer it uses the sanitizer's hooks.
#pragma once

#include <cstdint>

namespace tarnik::test {

// The number of allocations so far, including operator new. Any thread.
[[nodiscard]] std::uint64_t allocations();

}  // namespace tarnik::test
