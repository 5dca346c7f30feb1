// Runs tarnikctl as a person does, for its tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace tarnik::test {

struct Outcome {
  int status;
  std::string output;  // both streams
};

inline Outcome tarnikctl(const std::string& arguments) {
  std::FILE* pipe = ::popen((TARNIKCTL_PATH " " + arguments + " 2>&1 </dev/null").c_str(), "r");
  Outcome run{-1, ""};
  std::array<char, 4096> buffer;
  for (std::size_t size; (size = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    run.output.append(buffer.data(), size);
  }
  run.status = WEXITSTATUS(::pclose(pipe));
  return run;
}

inline void expectOneLine(const Outcome& run, int status, const std::string& part) {
  EXPECT_EQ(run.status, status) << run.output;
  EXPECT_THAT(run.output, ::testing::MatchesRegex("tarnikctl: [^\n]*\n"));
  EXPECT_THAT(run.output, ::testing::HasSubstr(part));
}

}  // namespace tarnik::test
