// System and memory functions of a test program. system_calls.cc defines them, so the dynamic
// linker prefers them to libc's: a test counts calls, makes one fail, or decides what a call finds.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnik::test {

// ---- Device nodes: access and usleep

struct SystemCalls {
  // Calls of access, of usleep, and the longest time that usleep was asked for (microseconds).
  std::atomic<int> looks{0};
  std::atomic<int> sleeps{0};
  std::atomic<unsigned> longestSleep{0};

  // With `fakeNode` access and usleep touch nothing. The node exists from look `appearsAt` on and
  // no longer from look `vanishesAt` on (counted from 1, 0 means never).
  std::atomic<bool> fakeNode{false};
  std::atomic<int> appearsAt{0};
  std::atomic<int> vanishesAt{0};

  // calloc and nothrow new fail with ENOMEM after this many further calls; -1: they do not fail.
  std::atomic<int> allocationsLeft{-1};
};
extern SystemCalls systemCalls;

// Start a fake node with all counts at 0. kNever: every look finds it as it was at the first.
inline constexpr int kNever = 0;
void nodeAppearsAt(int look);
void nodeVanishesAt(int look);
// Ends it. The counts stay.
void nodesAreReal();

// ---- Network interfaces: if_indextoname

// These kernel interfaces exist in the test program, whatever the machine has.
inline constexpr unsigned kFirstInterface = 101;
inline constexpr unsigned kLastInterface = 164;

// ---- Memory: calloc, free and nothrow new

// The library's handles come from calloc. Objects of nothrow new count too where kReplacesNew is
// true; a sanitizer brings its own operator new.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNIK_SANITIZED
#endif
#endif
#ifdef TARNIK_SANITIZED
inline constexpr bool kReplacesNew = false;
#else
inline constexpr bool kReplacesNew = true;
#endif

// Memory of nothrow new is filled with this byte, so that a member without a value shows.
inline constexpr std::uint8_t kFresh = 0xa5;
// The first word of each object when it was freed, since forgetObjects().
[[nodiscard]] std::vector<std::uint32_t> lastWords();
// How many objects exist.
[[nodiscard]] int livingObjects();
void forgetObjects();

// ---- What this process holds

[[nodiscard]] int openDescriptors();
// How many mappings of the file at `path` it has.
[[nodiscard]] int mappingsOf(const std::string& path);

}  // namespace tarnik::test
