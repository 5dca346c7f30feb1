// The input of a fuzz target as a file, for code that opens a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarnik::fuzz {

// Ends the target when `holds` is false, so that the fuzzer reports the input.
inline void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

// Writes `size` bytes of `data` to a file in memory and returns its path. All inputs use the same
// file: the path is valid until the next call.
inline const char* inputFile(const std::uint8_t* data, std::size_t size) {
  static const int fd = memfd_create("input", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  require(ftruncate(fd, 0) == 0, "the input file can be emptied");
  require(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size), "the input file can be written");
  return path.c_str();
}

}  // namespace tarnik::fuzz
