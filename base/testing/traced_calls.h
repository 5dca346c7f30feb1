// Counts the system calls of one thread between two points of its work.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace tarnik::test {

// Called by the thread that is counted, at both points.
void markCalls();

// Called first by a child of fork(): stops until the parent traces it. False when it may not be
// traced.
[[nodiscard]] bool letCallsBeTraced();

// Called by the parent: traces the child and its threads to the child's end. The calls that
// the thread which marks them made between its first two marks, by their numbers; nothing when
// there were no such marks or the child could not be traced.
[[nodiscard]] std::map<std::uint64_t, unsigned> tracedCalls(pid_t child);

}  // namespace tarnik::test
