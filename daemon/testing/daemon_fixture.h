// The fixture of tests with the recording platform.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "daemon/testing/recording_sdk.h"

namespace tarnik::test {

using Record = std::vector<std::string>;

// Resets the platform, the settings, the options and the state before each test. Log lines are in
// the platform's record too.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest();
  ~DaemonTest() override;
};

// The entries without the calls that read settings.
[[nodiscard]] Record withoutParsing(const Record& record);

// The entries that begin with one of the prefixes.
[[nodiscard]] Record startingWith(const Record& record, const std::vector<std::string>& prefixes);

// The result of a daemon that ran in a child process.
struct Outcome {
  int exitStatus;      // -1 when a signal ended it
  Record record;       // the platform's record at its exit
  std::string errors;  // what it wrote to standard error
};
// Runs the daemon's main function in a child process, with the platform as it is prepared now.
// `arguments` do not include the program's name.
[[nodiscard]] Outcome runDaemon(const std::vector<std::string>& arguments);

// The daemon's configuration file, for tests in a private root.
void writeConfig(std::string_view text);

}  // namespace tarnik::test
