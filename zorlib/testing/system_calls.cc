#include "zorlib/testing/system_calls.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>

#include "zorlib/internal.h"

#if defined(__clang__)
#define UNINSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define UNINSTRUMENTED
#endif

namespace tarnik::test {

constinit SystemCalls systemCalls;

namespace {

void startFakeNode(int appearsAt, int vanishesAt) {
  systemCalls.looks = systemCalls.sleeps = 0;
  systemCalls.longestSleep = 0;
  systemCalls.appearsAt = appearsAt;
  systemCalls.vanishesAt = vanishesAt;
  systemCalls.fakeNode = true;
}

// Whether this allocation fails, with errno.
bool allocationFails() {
  if (systemCalls.allocationsLeft < 0 || systemCalls.allocationsLeft-- > 0) {
    return false;
  }
  systemCalls.allocationsLeft = -1;
  errno = ENOMEM;
  return true;
}

// Set when the program's own code runs, past the start of a sanitizer.
volatile bool running = false;
[[gnu::constructor]] void start() {
  running = true;
}

// In arrays, because calloc and free cannot allocate for themselves.
constinit std::array<std::atomic<void*>, 256> objects;
std::array<std::uint32_t, 256> words;
std::atomic<std::size_t> wordCount{0};

void addObject(void* object) {
  for (std::atomic<void*>& place : objects) {
    void* empty = nullptr;
    if (place.compare_exchange_strong(empty, object)) {
      return;
    }
  }
}

void removeObject(void* object) {
  for (std::atomic<void*>& place : objects) {
    void* expected = object;
    if (object != nullptr && place.compare_exchange_strong(expected, nullptr)) {
      const std::size_t at = wordCount++;
      if (at < words.size()) {
        std::memcpy(&words[at], object, sizeof words[at]);
      }
    }
  }
}

}  // namespace

void nodeAppearsAt(int look) {
  startFakeNode(look, 0);
}

void nodeVanishesAt(int look) {
  startFakeNode(look == kNever ? 1 : 0, look);
}

void nodesAreReal() {
  systemCalls.fakeNode = false;
}

std::vector<std::uint32_t> lastWords() {
  return {words.begin(), words.begin() + std::min(wordCount.load(), words.size())};
}

int livingObjects() {
  return static_cast<int>(std::count_if(objects.begin(), objects.end(),
                                        [](const auto& place) { return place != nullptr; }));
}

void forgetObjects() {
  wordCount = 0;
}

int openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

int mappingsOf(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  int found = 0;
  for (std::string line; std::getline(maps, line);) {
    found += line.ends_with(path) ? 1 : 0;
  }
  return found;
}

}  // namespace tarnik::test

using tarnik::test::systemCalls;

extern "C" {

int access(const char* path, int mode) noexcept {
  const int look = ++systemCalls.looks;
  if (!systemCalls.fakeNode) {
    return static_cast<int>(::syscall(SYS_faccessat, AT_FDCWD, path, mode));
  }
  const bool there = systemCalls.vanishesAt > 0
                         ? look < systemCalls.vanishesAt
                         : systemCalls.appearsAt > 0 && look >= systemCalls.appearsAt;
  errno = there ? errno : ENOENT;
  return there ? 0 : -1;
}

int usleep(useconds_t microseconds) {
  ++systemCalls.sleeps;
  systemCalls.longestSleep = std::max(systemCalls.longestSleep.load(), microseconds);
  if (systemCalls.fakeNode) {
    return 0;
  }
  const std::timespec time{.tv_sec = microseconds / 1000000,
                           .tv_nsec = std::int64_t{microseconds % 1000000} * 1000};
  return ::nanosleep(&time, nullptr);
}

char* if_indextoname(unsigned index, char* name) noexcept {
  if (index < tarnik::test::kFirstInterface || index > tarnik::test::kLastInterface) {
    errno = ENXIO;
    return nullptr;
  }
  std::snprintf(name, IF_NAMESIZE, "test%u", index);
  return name;
}

// A sanitizer's own functions, in a program that has one; else libc's. A sanitizer calls them
// before its instrumented code can run.
[[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
[[gnu::weak]] void __interceptor_free(void* memory);
void* __libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void* memory);

UNINSTRUMENTED void* calloc(std::size_t count, std::size_t size) noexcept {
  if (!tarnik::test::running && __interceptor_calloc != nullptr) {
    return __interceptor_calloc(count, size);
  }
  if (tarnik::test::allocationFails()) {
    return nullptr;
  }
  void* const memory = __interceptor_calloc != nullptr ? __interceptor_calloc(count, size)
                                                       : __libc_calloc(count, size);
  if (size == sizeof(zorlib_ifg) || size == sizeof(zorlib_q)) {
    tarnik::test::addObject(memory);
  }
  return memory;
}

UNINSTRUMENTED void free(void* memory) noexcept {
  if (tarnik::test::running) {
    tarnik::test::removeObject(memory);
  }
  if (__interceptor_free != nullptr) {
    __interceptor_free(memory);
  } else {
    __libc_free(memory);
  }
}
}

#ifndef TARNIK_SANITIZED
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  void* const object =
      tarnik::test::allocationFails() ? nullptr : std::malloc(std::max(size, std::size_t{1}));
  if (object != nullptr) {
    std::memset(object, tarnik::test::kFresh, size);
    tarnik::test::addObject(object);
  }
  return object;
}
#endif
