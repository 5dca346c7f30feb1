// Runs a part of a test in a process of its own, for what a process has only once: its event loop,
// its watchdog, its end.
#pragma once

#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>

namespace orlo::test {

// How a process ended: its exit status, or the signal.
struct Ending {
  int exitStatus = -1;
  int signal = 0;
  bool operator==(const Ending&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Ending& ending) {
  return out << "exit status " << ending.exitStatus << ", signal " << ending.signal;
}

inline Ending waitFor(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

// Starts `body` in a child, which exits with status 0, or 1 when an expectation failed in it.
template <typename Body>
pid_t startChild(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  EXPECT_GT(child, 0);
  return child;
}

template <typename Body>
Ending inChild(Body body) {
  return waitFor(startChild(body));
}

inline constexpr Ending kPassed{0, 0};

// A test of what the SDK does in ORLO_RUN_DIR, which is empty when it begins.
class RunDirTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("TARNIK_PRIVATE_ROOT") == nullptr) {
      GTEST_FAIL() << "would touch the host's " ORLO_RUN_DIR ": start it through CTest";
    }
    std::filesystem::remove_all(ORLO_RUN_DIR);
    ASSERT_TRUE(std::filesystem::create_directory(ORLO_RUN_DIR));
  }
};

inline sockaddr_un socketAddress(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path);
  return address;
}

// A pipe between processes or threads.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe(ends_), 0); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeReader();
    closeWriter();
  }
  [[nodiscard]] int reader() const { return ends_[0]; }
  [[nodiscard]] int writer() const { return ends_[1]; }
  void closeReader() { closeEnd(0); }
  void closeWriter() { closeEnd(1); }

  // All that was written until every writer closed; this one is closed first.
  std::string readAll() {
    closeWriter();
    std::string all;
    char part[4096];
    for (ssize_t n = read(reader(), part, sizeof part); n > 0;
         n = read(reader(), part, sizeof part)) {
      all.append(part, static_cast<std::size_t>(n));
    }
    return all;
  }

 private:
  void closeEnd(int end) {
    if (ends_[end] >= 0) {
      close(ends_[end]);
      ends_[end] = -1;
    }
  }
  int ends_[2] = {-1, -1};
};

}  // namespace orlo::test
