// The driver stand-in inside the test program: an ioctl of the program's own records each request
// and passes it on, unless the test has an answer for it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/testing/captured_log.h"
#include "zorlib/testing/system_calls.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {

// ---- Log lines

inline LogLine error(std::string text) {
  return {LOG_ERR, std::move(text)};
}
inline LogLine info(std::string text) {
  return {LOG_INFO, std::move(text)};
}
inline LogLine debug(std::string text) {
  return {LOG_DEBUG, std::move(text)};
}
// Lines with the priorities of their level words.
[[nodiscard]] std::vector<LogLine> lines(const std::vector<std::string>& texts);
[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...);

// Checks that `call` returns -1 with this errno, and that it logs these lines and no others.
void expectFailure(const std::function<int()>& call, int expectedErrno,
                   const std::vector<std::string>& expectedLines = {},
                   const char* file = __builtin_FILE(), int line = __builtin_LINE());

// ---- Requests

// Answers a request instead of the driver: the result, or -errno. Without a value the driver
// answers.
using Answer = std::function<std::optional<int>(int fd, void* argument)>;
void answer(unsigned long request, Answer with);
void refuse(unsigned long request, int error);
// Returns this result with this errno, also a negative one that ioctl itself never returns.
void answerAsIs(unsigned long request, int result, int error);
void answerNothing();

// The numbers of the requests since clearRequests().
[[nodiscard]] std::vector<unsigned long> requests();
[[nodiscard]] int count(unsigned long request);
void clearRequests();

// A description of `count` inline interfaces, from kernel interface `first` on.
[[nodiscard]] zorvik_ifg_config description(std::uint32_t count,
                                            std::uint32_t first = kFirstInterface);

// ---- Files

// Hides the file or directory at `path` while it exists.
class HiddenFile {
 public:
  explicit HiddenFile(std::string path);
  ~HiddenFile();
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

 private:
  std::string path_;
};

// ---- Fixtures

// A loaded driver with the group "brund", nothing logged, debug level 0.
class DriverTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kFrames = 256;
  static constexpr std::uint32_t kPayload = 128 * 2048 + 8 * 65536;  // bytes

  void SetUp() override;
  void TearDown() override;

  static zorlib_ifg* openGroup();
  // Configures "brund" with that many interfaces, through another handle.
  static void configureElsewhere(std::uint32_t interfaces);
  static void createQueue(zorlib_ifg* ifg, std::uint32_t type = ZORVIK_Q_APP,
                          std::uint32_t size = 16, const char* name = "TarnikQ");
  static zorlib_q* openQueue(zorlib_ifg* ifg, std::uint32_t mode, const char* name = "TarnikQ");
  static zorvik_frm_desc* allocFrame(zorlib_ifg* ifg, std::uint32_t size = 64);
  // A second mapping of the queue's memory, like that of another process.
  static zorvik_qmem* sharedMemory(zorlib_q* q);
};

}  // namespace tarnik::test
