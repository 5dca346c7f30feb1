// What the tests of this folder share: the driver stand-in inside the test program, with every
// request recorded and a hand on its answers, and a hand on a few calls of the system library.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/testing/captured_log.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {

inline LogLine error(std::string text) {
  return {LOG_ERR, std::move(text)};
}
inline LogLine info(std::string text) {
  return {LOG_INFO, std::move(text)};
}
inline LogLine debug(std::string text) {
  return {LOG_DEBUG, std::move(text)};
}
[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...);

// Answers a request in the driver's place: with a result, or -errno. Nothing: the driver does it.
using Answer = std::function<std::optional<int>(int fd, void* argument)>;
void answer(unsigned long request, Answer with);
void refuse(unsigned long request, int error);
// A result and errno as they are, though the system's own call never returns the like.
void answerAsIs(unsigned long request, int result, int error);
void answerNothing();

// The numbers of the requests since the last clearRequests().
[[nodiscard]] std::vector<unsigned long> requests();
[[nodiscard]] int count(unsigned long request);
void clearRequests();

// The library's calls of the system.
struct SystemCalls {
  // access and usleep: counted; with `fakeNode` they touch nothing, and the node is there from
  // the look `appearsAt` on and gone from `vanishesAt` on (counted from 1).
  std::atomic<bool> fakeNode{false};
  std::atomic<int> looks{0};
  std::atomic<int> sleeps{0};
  std::atomic<unsigned> longestSleep{0};  // microseconds
  std::atomic<int> appearsAt{0};
  std::atomic<int> vanishesAt{0};
  // calloc, strndup and nothrow new fail with ENOMEM when this many more have been made.
  std::atomic<int> allocationsLeft{-1};
  // The machine's interfaces are not the test's: 101 to 164 are there and no others.
  std::atomic<bool> fakeInterfaces{false};
};
extern SystemCalls systemCalls;

// A group of `count` inline interfaces, of those from `first` on.
[[nodiscard]] zorvik_ifg_config description(std::uint32_t count, std::uint32_t first = 101);

// What nothrow new gives is filled with this byte: what is never set can be told.
inline constexpr std::uint8_t kFresh = 0xa5;
// The first word of each object of nothrow new at the moment when its memory went back, since the
// last forgetObjects().
[[nodiscard]] std::vector<std::uint32_t> lastWords();
// How many objects of nothrow new live.
[[nodiscard]] int livingObjects();
void forgetObjects();

// Of this process: its open descriptors, and its mappings of a file.
[[nodiscard]] int openDescriptors();
[[nodiscard]] int mappingsOf(const std::string& path);

// A loaded driver with the group "brund", nothing logged, debug level 0.
class DriverTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kFrames = 256;
  static constexpr std::uint32_t kPayload = 128 * 2048 + 8 * 65536;  // bytes

  void SetUp() override;
  void TearDown() override;

  static zorlib_ifg* openGroup();
  // Gives "brund" that many interfaces, as another process does.
  static void configureElsewhere(std::uint32_t interfaces);
  static void createQueue(zorlib_ifg* ifg, std::uint32_t type = ZORVIK_Q_APP,
                          std::uint32_t size = 16, const char* name = "TarnikQ");
  static zorlib_q* openQueue(zorlib_ifg* ifg, std::uint32_t mode, const char* name = "TarnikQ");
  static zorvik_frm_desc* allocFrame(zorlib_ifg* ifg, std::uint32_t size = 64);
  // A further mapping of the queue's memory, as another process has it.
  static zorvik_qmem* sharedMemory(zorlib_q* q);
};

}  // namespace tarnik::test
