// Runs the real tarnikctl in its tests.
#pragma once

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

#include "base/testing/process.h"

namespace tarnik::test {

// The command for tarnikctl with the words of `arguments`, which are separated by blanks.
inline std::vector<std::string> tarnikctlCommand(const std::string& arguments) {
  std::vector<std::string> command = {TARNIKCTL_PATH};
  std::istringstream words(arguments);
  for (std::string word; words >> word;) {
    command.push_back(word);
  }
  return command;
}

inline Finished tarnikctl(const std::string& arguments) {
  return runProgram(tarnikctlCommand(arguments));
}

// Expects success without an error text. Returns the output.
inline std::string outputOf(const std::string& arguments) {
  const Finished run = tarnikctl(arguments);
  EXPECT_EQ(run.ending, kSucceeded) << arguments;
  EXPECT_EQ(run.errors, "") << arguments;
  return run.output;
}

// Expects that the run failed with one line on standard error, which contains `part`.
inline void expectError(const Finished& run, int status, const std::string& part) {
  EXPECT_EQ(run.ending, exited(status)) << run.errors;
  EXPECT_EQ(run.output, "");
  EXPECT_THAT(run.errors, ::testing::MatchesRegex("tarnikctl: [^\n]*\n"));
  EXPECT_THAT(run.errors, ::testing::HasSubstr(part));
}

inline void expectError(const std::string& arguments, int status, const std::string& part) {
  SCOPED_TRACE("tarnikctl " + arguments);
  expectError(tarnikctl(arguments), status, part);
}

}  // namespace tarnik::test
