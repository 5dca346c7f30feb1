// Makes calls of the C library fail. A test program with call_faults.cc calls these functions
// instead; they call the C library unless a fault is set.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <string>

// A sanitizer has its own operator new.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNIK_SANITIZED
#endif
#endif

namespace tarnik::test {

#ifdef TARNIK_SANITIZED
inline constexpr bool kReplacesNew = false;
#else
inline constexpr bool kReplacesNew = true;
#endif

struct Fault {
  int error = 0;          // errno of the failing call
  int after = 0;          // number of calls that succeed first
  int times = 1;          // number of calls that then fail
  std::size_t bytes = 0;  // fwrite: number of bytes that still reach the file, without the buffer
};

// By the name of the call: fopen, fwrite, fflush, fclose (which still frees the stream), renameat2,
// link, unlink, remove, ftruncate; new: operator new, without an errno, if kReplacesNew.
extern std::map<std::string, Fault> faults;

// For other replaced calls. The fault of a call that must fail now, with errno set, or null.
const Fault* failing(const char* name);

// The result of time(), or 0 for the real time.
extern std::time_t fixedTime;

// Removes all faults and the fixed time.
void clearFaults();

}  // namespace tarnik::test
