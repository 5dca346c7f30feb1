// Counts what a test program allocates. A test program that links `counted_memory` has its own
// malloc in the place of the system's; a sanitizer, which brings one too, is asked to tell of each
// call.
#pragma once

#include <cstdint>

namespace tarnik::test {

// How often memory was allocated so far, operator new included. Any thread.
[[nodiscard]] std::uint64_t allocations();

}  // namespace tarnik::test
