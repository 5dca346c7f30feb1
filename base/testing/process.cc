#include "base/testing/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

namespace tarnik::test {
namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    all.emplace_back(*variable);
  }
  for (const std::string& change : changes) {
    const std::string name = change.substr(0, change.find('=') + 1);
    std::erase_if(all, [&](const std::string& variable) { return variable.starts_with(name); });
    all.push_back(change);
  }
  return all;
}

std::string contentOf(const OwnedFd& file) {
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    return "";
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = ::pread(file.get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Ending& ending) {
  return ending.signal != 0 ? out << "killed by signal " << ending.signal
                            : out << "exit status " << ending.exitStatus;
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

Process::Process(const std::vector<std::string>& command,
                 const std::vector<std::string>& environment)
    : output_(::memfd_create("output", MFD_CLOEXEC)),
      errors_(::memfd_create("errors", MFD_CLOEXEC)) {
  std::vector<std::string> arguments = command;
  std::vector<std::string> variables = environmentWith(environment);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output_.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors_.get(), STDERR_FILENO);
  const int error = posix_spawnp(&pid_, command[0].c_str(), &actions, nullptr,
                                 pointersTo(arguments).data(), pointersTo(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(error, 0) << command[0] << ": " << std::strerror(error);
  if (error != 0) {
    pid_ = -1;
    ended_ = true;
  }
}

Process::Process(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::alarm(100);  // a child that hangs must not outlive the test
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    const int status = body();
    std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 99 : status);
  }
  EXPECT_GT(pid_, 0);
}

Process::~Process() {
  if (running()) {
    ::kill(pid_, SIGKILL);
    static_cast<void>(reap(0));
  }
}

void Process::signal(int number) const {
  ASSERT_FALSE(ended_);
  ASSERT_EQ(::kill(pid_, number), 0);
}

bool Process::reap(int options) {
  int status = 0;
  if (ended_ || ::wait4(pid_, &status, options, &usage_) != pid_) {
    return ended_;
  }
  ended_ = true;
  ending_ = WIFEXITED(status) ? exited(WEXITSTATUS(status)) : killedBy(WTERMSIG(status));
  return true;
}

bool Process::running() {
  return !reap(WNOHANG);
}

Ending Process::wait() {
  if (!eventually([this] { return !running(); })) {
    ADD_FAILURE() << "the process did not end";
    ::kill(pid_, SIGKILL);
    static_cast<void>(reap(0));
  }
  return ending_;
}

std::string Process::output() const {
  return contentOf(output_);
}

std::string Process::errors() const {
  return contentOf(errors_);
}

bool Process::waitForErrors(std::string_view text) {
  const auto found = [&] { return errors().find(text) != std::string::npos; };
  static_cast<void>(eventually([&] { return found() || !running(); }));
  if (found()) {
    return true;
  }
  ADD_FAILURE() << "not written: " << text << "\nwritten: " << errors();
  return false;
}

Finished runProgram(const std::vector<std::string>& command,
                    const std::vector<std::string>& environment) {
  Process process(command, environment);
  const Ending ending = process.wait();
  return {ending, process.output(), process.errors()};
}

}  // namespace tarnik::test
