// Counts the system calls of one thread between two marks.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace tarnik::test {

// Sets a mark. Called by the counted thread, twice.
void markCalls();

// Called first by a forked child: waits until the parent traces it. False when tracing is not
// permitted.
[[nodiscard]] bool letCallsBeTraced();

// Called by the parent: traces the child and its threads until the child ends. The system calls, by
// number, that the marking thread made between its first two marks. Empty without such marks or
// when the child could not be traced.
[[nodiscard]] std::map<std::uint64_t, unsigned> tracedCalls(pid_t child);

}  // namespace tarnik::test
