// The progress line, on a real terminal.
#include "platform/brund/progress.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <string>

#include "base/owned.h"

namespace tarnik::brund {
namespace {

class ProgressTest : public ::testing::Test {
 protected:
  // Makes a terminal of that many columns the standard error.
  void open(unsigned short columns) {
    int terminal = -1;
    int program = -1;
    winsize size{24, columns, 0, 0};
    ASSERT_EQ(openpty(&terminal, &program, nullptr, nullptr, &size), 0);
    terminal_.reset(terminal);
    program_.reset(program);
    ASSERT_EQ(fcntl(terminal, F_SETFL, O_NONBLOCK), 0);
    error_.reset(dup(STDERR_FILENO));
    ASSERT_EQ(dup2(program, STDERR_FILENO), STDERR_FILENO);
  }
  void TearDown() override {
    if (error_) {
      dup2(error_.get(), STDERR_FILENO);
    }
  }
  std::string shown() {
    char text[4096];
    const ssize_t size = read(terminal_.get(), text, sizeof text);
    return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
  }

  OwnedFd terminal_;
  OwnedFd program_;
  OwnedFd error_;
  Account account_;
};

TEST_F(ProgressTest, TheAccountInOneLineAndGoneAtTheEnd) {
  open(200);
  account_.seen();
  {
    Progress progress(account_, false);
    progress.show();
    EXPECT_EQ(shown(), "\r" + account_.summary() + "\033[K");
    progress.show();  // too soon
    EXPECT_EQ(shown(), "");
  }
  EXPECT_EQ(shown(), "\r\033[K");
}

TEST_F(ProgressTest, NoWiderThanTheTerminal) {
  open(20);
  Progress progress(account_, false);
  progress.show();
  EXPECT_EQ(shown(), "\r" + account_.summary().substr(0, 19) + "\033[K");
}

TEST_F(ProgressTest, FramesReadAhead) {
  open(80);
  Progress progress(account_, false);
  progress.showRead(12);
  EXPECT_EQ(shown(), "\r12 frames read ahead\033[K");
}

TEST_F(ProgressTest, NothingWhenQuiet) {
  open(80);
  {
    Progress progress(account_, true);
    progress.show();
    progress.showRead(12);
  }
  EXPECT_EQ(shown(), "");
}

}  // namespace
}  // namespace tarnik::brund
