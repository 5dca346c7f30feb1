// Streams over text for the readers' tests.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace orlo::test {

struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// A real file that holds `content`, opened for reading from its beginning.
inline Stream fileWith(std::string_view content) {
  Stream stream(std::tmpfile());
  if (!stream || std::fwrite(content.data(), 1, content.size(), stream.get()) != content.size()) {
    std::perror("temporary file");
    std::abort();
  }
  std::rewind(stream.get());
  return stream;
}

// A directory, which opens but cannot be read.
inline Stream directoryStream() {
  return Stream(std::fopen("/", "r"));
}

// The growth of the process's peak resident memory, in KiB, since the object was made.
class PeakMemory {
 public:
  PeakMemory() {
    const Stream reset(std::fopen("/proc/self/clear_refs", "w"));
    if (!reset || std::fputs("5", reset.get()) < 0) {  // the peak falls to what is in use
      std::perror("/proc/self/clear_refs");
      std::abort();
    }
    std::fflush(reset.get());
    start_ = peak();
  }
  [[nodiscard]] long growth() const { return peak() - start_; }

 private:
  static long peak() {
    const Stream status(std::fopen("/proc/self/status", "r"));
    char line[256];
    long kibibytes = -1;
    while (status && std::fgets(line, sizeof line, status.get()) != nullptr &&
           std::sscanf(line, "VmHWM: %ld", &kibibytes) != 1) {
    }
    return kibibytes;
  }
  long start_ = 0;
};

}  // namespace orlo::test
