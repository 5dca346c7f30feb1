#include "capture/testing/call_faults.h"

#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace tarnik::test {

std::map<std::string, Fault> faults;
std::time_t fixedTime = 0;

void clearFaults() {
  faults.clear();
  fixedTime = 0;
}

const Fault* failing(const char* name) {
  const auto found = faults.find(name);
  if (found == faults.end()) {
    return nullptr;
  }
  Fault& fault = found->second;
  if (fault.after > 0) {
    --fault.after;
    return nullptr;
  }
  if (fault.times == 0) {
    return nullptr;
  }
  --fault.times;
  errno = fault.error;
  return &fault;
}

namespace {

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace tarnik::test

using tarnik::test::failing;
using tarnik::test::Fault;

#ifndef TARNIK_SANITIZED
void* operator new(std::size_t size) {
  void* const memory = failing("new") != nullptr ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
#endif

extern "C" {

std::FILE* fopen(const char* path, const char* mode) {
  static auto* const real = tarnik::test::next(&fopen, "fopen");
  return failing("fopen") != nullptr ? nullptr : real(path, mode);
}

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* stream) {
  static auto* const real = tarnik::test::next(&fwrite, "fwrite");
  static auto* const flush = tarnik::test::next(&fflush, "fflush");
  const Fault* const fault = failing("fwrite");
  if (fault == nullptr) {
    return real(data, size, count, stream);
  }
  flush(stream);
  const std::size_t bytes = std::min(fault->bytes, size * count);
  const ssize_t written = ::write(::fileno(stream), data, bytes);
  errno = fault->error;
  return written > 0 && size == 1 ? static_cast<std::size_t>(written) : 0;
}

int fflush(std::FILE* stream) {
  static auto* const real = tarnik::test::next(&fflush, "fflush");
  return failing("fflush") != nullptr ? EOF : real(stream);
}

int fclose(std::FILE* stream) {
  static auto* const real = tarnik::test::next(&fclose, "fclose");
  const Fault* const fault = failing("fclose");
  if (fault == nullptr) {
    return real(stream);
  }
  real(stream);
  errno = fault->error;
  return EOF;
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned flags) noexcept {
  static auto* const real = tarnik::test::next(&renameat2, "renameat2");
  return failing("renameat2") != nullptr ? -1 : real(fromDirectory, from, toDirectory, to, flags);
}

int link(const char* from, const char* to) noexcept {
  static auto* const real = tarnik::test::next(&link, "link");
  return failing("link") != nullptr ? -1 : real(from, to);
}

int unlink(const char* path) noexcept {
  static auto* const real = tarnik::test::next(&unlink, "unlink");
  return failing("unlink") != nullptr ? -1 : real(path);
}

int remove(const char* path) {
  static auto* const real = tarnik::test::next(&remove, "remove");
  return failing("remove") != nullptr ? -1 : real(path);
}

int ftruncate(int fd, off_t length) {
  static auto* const real = tarnik::test::next(&ftruncate, "ftruncate");
  return failing("ftruncate") != nullptr ? -1 : real(fd, length);
}

std::time_t time(std::time_t* out) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const std::time_t result = tarnik::test::fixedTime != 0 ? tarnik::test::fixedTime : now.tv_sec;
  if (out != nullptr) {
    *out = result;
  }
  return result;
}
}
