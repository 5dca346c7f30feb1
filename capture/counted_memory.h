// Counts what a test program allocates. A test program that contains counted_memory.cc has its own
// malloc in the place of the system's; not for builds with a sanitizer, which brings one.
#pragma once

#include <cstdint>

namespace tarnik::test {

// How often memory was allocated so far, operator new included. Any thread.
[[nodiscard]] std::uint64_t allocations();

}  // namespace tarnik::test
