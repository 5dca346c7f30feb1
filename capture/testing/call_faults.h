// Library calls that fail when a test wants them to. A test program that contains call_faults.cc
// has these calls in place of the system library's; they pass on to it unless told otherwise. They
// also tell the time.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <string>

namespace tarnik::test {

struct Fault {
  int error = 0;          // errno of the failing call
  int after = 0;          // so many calls go through first
  int times = 1;          // then so many fail
  std::size_t bytes = 0;  // fwrite: so many bytes reach the file first, past the stream's buffer
};

// Faults by the name of the call: fopen, fwrite, fflush, fclose (which frees the stream even so),
// rename, remove, ftruncate.
extern std::map<std::string, Fault> faults;

// What time() gives, or 0 for the true time.
extern std::time_t fixedTime;

// Ends all faults and the fixed time.
void clearFaults();

}  // namespace tarnik::test
