// What the tests of whole runs of brund-sim share: its files, its account, the program.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/brund/testing/daemon.h"
#include "platform/brund/testing/data.h"
#include "platform/brund/text_file.h"

namespace tarnik::test {

using namespace brund;

class RunTest : public ::testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& text) const {
    const std::string path = dir_.path() + "/" + name;
    std::string error;
    EXPECT_TRUE(writeTextFile(path, text, error)) << error;
    return path;
  }
  [[nodiscard]] std::string accountPath() const { return dir_.path() + "/account.json"; }
  [[nodiscard]] std::string account() const {
    std::ifstream in(accountPath());
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // Starts brund-sim with these rules, a queue of 63 entries and an account.
  void start(const std::string& rules, const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"--rules",     rules,          "--account",
                                 accountPath(), "--queue-size", "51"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    program_ = std::make_unique<Program>(brundSim(all));
  }
  // Its exit status.
  int finish() { return program_->wait(); }
  [[nodiscard]] std::string errors() const { return program_->errors(); }
  // Waits until it has said `text`; false when it ended without.
  bool waitFor(const std::string& text) {
    while (errors().find(text) == std::string::npos) {
      if (!program_->running()) {
        return errors().find(text) != std::string::npos;
      }
      usleep(1000);
    }
    return true;
  }

  TempDir dir_;
  std::unique_ptr<Program> program_;
};

}  // namespace tarnik::test
