// Fixtures for tests of the SDK: child processes, because a process has one event loop and one
// watchdog, the SDK's directory, and pipes.
#pragma once

#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/testing/files.h"
#include "base/testing/process.h"

namespace orlo::test {

using tarnik::test::Ending;
using tarnik::test::killedBy;
using tarnik::test::kSucceeded;
using tarnik::test::Process;

// Starts `body` in a forked child; its failed expectations fail the child's ending.
inline Process startChild(const std::function<void()>& body) {
  return Process([&] {
    body();
    return 0;
  });
}

// Runs `body` in a forked child to its end.
inline Ending inChild(const std::function<void()>& body) {
  return startChild(body).wait();
}

// The names in a directory, sorted.
inline std::vector<std::string> namesIn(const char* directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string content(const std::string& path) {
  return tarnik::test::readFile(path).value_or("");
}

// Starts each test with an empty ORLO_RUN_DIR.
class RunDirTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("TARNIK_PRIVATE_ROOT") == nullptr) {
      GTEST_FAIL() << "would change the host's " ORLO_RUN_DIR ": start it through CTest";
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

// A datagram socket bound to `path`, with `flags` of socket(2).
inline tarnik::OwnedFd boundSocket(std::string_view path, int flags = 0) {
  tarnik::OwnedFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0));
  const sockaddr_un address = socketAddress(path);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

// A log daemon: receives what is sent to /dev/log.
class LogDaemon {
 public:
  LogDaemon() : socket_(boundSocket(kPath, SOCK_NONBLOCK)) {}
  ~LogDaemon() { ::unlink(kPath); }
  LogDaemon(const LogDaemon&) = delete;
  LogDaemon& operator=(const LogDaemon&) = delete;

  // The next datagram, empty if there is none.
  [[nodiscard]] std::string next() const {
    char line[1024];
    const ssize_t length = ::recv(socket_.get(), line, sizeof line, 0);
    return length < 0 ? "" : std::string(line, static_cast<std::size_t>(length));
  }

  static constexpr char kPath[] = "/dev/log";

 private:
  tarnik::OwnedFd socket_;
};

class Pipe {
 public:
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe(ends), 0);
    reader_.reset(ends[0]);
    writer_.reset(ends[1]);
  }
  [[nodiscard]] int reader() const { return reader_.get(); }
  [[nodiscard]] int writer() const { return writer_.get(); }
  void closeReader() { reader_.reset(); }
  void closeWriter() { writer_.reset(); }

  // Closes this writer, then returns everything written until all other writers are closed.
  std::string readAll() {
    closeWriter();
    std::string all;
    char part[4096];
    for (ssize_t n = ::read(reader(), part, sizeof part); n > 0;
         n = ::read(reader(), part, sizeof part)) {
      all.append(part, static_cast<std::size_t>(n));
    }
    return all;
  }

 private:
  tarnik::OwnedFd reader_;
  tarnik::OwnedFd writer_;
};

}  // namespace orlo::test
