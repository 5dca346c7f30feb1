// What the tests of the policy readers share: files, the platform's calls counted and failed at
// will, and a check after each test that nothing was left open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/testing/captured_log.h"

namespace tarnik::test {

// The system as the code under test meets it.
struct Platform {
  int parsersMade = 0;
  int parsersReleased = 0;
  int recordsRead = 0;
  int recordsDestroyed = 0;
  int parserToFail = 0;               // this one, counted from 1, cannot be had
  std::function<void()> onRecord;     // runs before each record is read
  std::function<void()> onParser;     // runs before each parser is made
  std::function<void()> onCommand;    // runs before each command
  std::optional<std::time_t> now;     // instead of the clock
  std::vector<std::string> commands;  // those that reached a shell
  bool noShell = false;               // none can be started
};
extern Platform platform;

void writeFile(const std::string& path, const std::string& content);
// The file's bytes, or nothing when there is no such file.
[[nodiscard]] std::optional<std::string> readFile(const std::string& path);

class PolicyTest : public testing::Test {
 protected:
  PolicyTest();
  ~PolicyTest() override;

  // A path in a directory that goes with the test.
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }
  // Writes a file there and returns its path.
  [[nodiscard]] std::string file(const std::string& content) const;

 private:
  std::string directory_;
  int openBefore_;
};

// While it lives, no file grows beyond `bytes`: writing more fails with EFBIG, as it does with
// another number on a full disk. Children inherit it.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes);
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk();

 private:
  struct rlimit before_ {};
};

inline LogLine debugLine(std::string text) {
  return {LOG_DEBUG, std::move(text)};
}
inline LogLine errorLine(std::string text) {
  return {LOG_ERR, std::move(text)};
}
inline LogLine infoLine(std::string text) {
  return {LOG_INFO, std::move(text)};
}

}  // namespace tarnik::test
