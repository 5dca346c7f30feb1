// A fuzz target's input as a file with a path, for code that opens what it reads.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarnik::fuzz {

// Ends the target, and so reports the input, when what has to hold does not.
inline void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

// Holds `size` bytes of `data` in a file in memory; one such file serves all inputs. Its path,
// valid until the next call.
inline const char* inputFile(const std::uint8_t* data, std::size_t size) {
  static const int fd = memfd_create("input", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  require(ftruncate(fd, 0) == 0, "the input file can be emptied");
  require(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size), "the input file can be written");
  return path.c_str();
}

}  // namespace tarnik::fuzz
