// What the tests of the daemon over the recording platform share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "daemon/testing/recording_sdk.h"

namespace tarnik::test {

using Record = std::vector<std::string>;

// Gives each test a daemon that has not run yet: a fresh platform, whose record has the log lines
// as well, default settings and options, state 0.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest();
  ~DaemonTest() override;
};

// The entries without the reading of settings, whose many calls are of no interest to most tests.
[[nodiscard]] Record withoutParsing(const Record& record);

// The calls, log lines and tickles that match: those that begin with one of the prefixes.
[[nodiscard]] Record startingWith(const Record& record, const std::vector<std::string>& prefixes);

// How a daemon that ran in a process of its own ended.
struct Outcome {
  int exitStatus;      // -1 when a signal ended it
  Record record;       // the platform's record at its exit
  std::string errors;  // what it wrote to standard error
};
// Runs the daemon's main function in a child process, on the platform as it is prepared now.
// `arguments` do not include the program's name.
[[nodiscard]] Outcome runDaemon(const std::vector<std::string>& arguments);

// The daemon's configuration file, for tests in a private root.
void writeConfig(std::string_view text);

}  // namespace tarnik::test
