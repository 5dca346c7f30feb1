// The fixture of the policy tests. It counts calls to the platform and makes them fail, and checks
// after each test that nothing was left open.
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
#include "base/testing/files.h"

namespace tarnik::test {

// What the replaced functions of the platform and of libc do.
struct Platform {
  int parsersMade = 0;
  int parsersReleased = 0;
  int recordsRead = 0;
  int recordsDestroyed = 0;
  int parserToFail = 0;                    // the number, from 1, of the parser that is refused
  std::function<void()> onRecord;          // runs before each record is read
  std::function<void()> onParser;          // runs before each parser is made
  std::function<void()> onCommand;         // runs before each command
  std::optional<std::time_t> now;          // instead of the clock
  std::optional<std::size_t> readErrorAt;  // reading any stream beyond this offset fails with EIO
  std::vector<std::string> commands;       // those passed to a shell
  bool noShell = false;                    // no shell can be started
};
extern Platform platform;

class PolicyTest : public testing::Test {
 protected:
  PolicyTest();
  ~PolicyTest() override;

  // A path in a directory that is removed after the test.
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / name; }
  // Writes a file there and returns its path.
  [[nodiscard]] std::string file(const std::string& content) const;

 private:
  TempDir directory_;
  int openBefore_;
};

// During its lifetime no file grows beyond `bytes`: writing more fails with EFBIG, as writing to a
// full disk fails with ENOSPC. Child processes inherit it.
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
