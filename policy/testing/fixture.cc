#include "policy/testing/fixture.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <orlo_sdk.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace tarnik::test {

Platform platform;

namespace {

// The function of the system or the platform that a function below replaces.
template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
  }
  return count;
}

}  // namespace

PolicyTest::PolicyTest() : openBefore_(openDescriptors()) {
  platform = Platform();
  setDebugLevel(0);
  clearLog();
}

PolicyTest::~PolicyTest() {
  EXPECT_EQ(openDescriptors(), openBefore_);
  EXPECT_EQ(platform.parsersReleased, platform.parsersMade);
  EXPECT_EQ(platform.recordsDestroyed, platform.recordsRead);
  platform = Platform();
}

std::string PolicyTest::file(const std::string& content) const {
  writeFile(path("file"), content);
  return path("file");
}

FullDisk::FullDisk(rlim_t bytes) {
  EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
  const struct rlimit limit { bytes, before_.rlim_max };
  std::signal(SIGXFSZ, SIG_IGN);
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

FullDisk::~FullDisk() {
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before_), 0);
  std::signal(SIGXFSZ, SIG_DFL);
}

}  // namespace tarnik::test

using tarnik::test::platform;
using tarnik::test::real;

extern "C" {

OrloTuning* OrloTuningAlloc(FILE* stream) {
  static const auto next = real<OrloTuning* (*)(FILE*)>("OrloTuningAlloc");
  if (platform.onParser) {
    platform.onParser();
  }
  if (platform.parserToFail == platform.parsersMade + 1) {
    return nullptr;
  }
  ++platform.parsersMade;
  return next(stream);
}

void OrloTuningRelease(OrloTuning* tuning) {
  static const auto next = real<void (*)(OrloTuning*)>("OrloTuningRelease");
  platform.parsersReleased += tuning != nullptr ? 1 : 0;
  next(tuning);
}

CsvRecord* CsvRecordRead(FILE* stream) {
  static const auto next = real<CsvRecord* (*)(FILE*)>("CsvRecordRead");
  if (platform.onRecord) {
    platform.onRecord();
  }
  CsvRecord* record = next(stream);
  platform.recordsRead += record != nullptr ? 1 : 0;
  return record;
}

void CsvRecordDestroy(CsvRecord* record) {
  static const auto next = real<void (*)(CsvRecord*)>("CsvRecordDestroy");
  platform.recordsDestroyed += record != nullptr ? 1 : 0;
  next(record);
}

// A stream that fails at platform.readErrorAt.
FILE* fdopen(int fd, const char* mode) noexcept {
  static const auto next = real<FILE* (*)(int, const char*)>("fdopen");
  if (!platform.readErrorAt) {
    return next(fd, mode);
  }
  cookie_io_functions_t functions{};
  functions.read = [](void* cookie, char* buffer, std::size_t size) -> ssize_t {
    const int file = static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
    const auto at = static_cast<std::size_t>(lseek(file, 0, SEEK_CUR));
    if (at >= *platform.readErrorAt) {
      errno = EIO;
      return -1;
    }
    return read(file, buffer, std::min(size, *platform.readErrorAt - at));
  };
  functions.close = [](void* cookie) {
    return close(static_cast<int>(reinterpret_cast<std::intptr_t>(cookie)));
  };
  return fopencookie(reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)), mode, functions);
}

time_t time(time_t* result) noexcept {
  static const auto next = real<time_t (*)(time_t*)>("time");
  const time_t now = platform.now ? *platform.now : next(nullptr);
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
  static const auto next = real<decltype(&posix_spawn)>("posix_spawn");
  if (platform.noShell) {
    return EAGAIN;
  }
  platform.commands.emplace_back(arguments[2]);  // sh -c COMMAND
  if (platform.onCommand) {
    platform.onCommand();
  }
  return next(pid, path, actions, attributes, arguments, environment);
}

// The log goes to standard error, where a death test can check it.
void _Exit(int status) noexcept {
  for (const tarnik::test::LogLine& line : tarnik::test::logLines()) {
    std::fprintf(stderr, "<%d>%s\n", line.priority, line.text.c_str());
  }
  syscall(SYS_exit_group, status);
  std::abort();
}
}
