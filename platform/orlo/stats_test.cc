// Statistics areas, as their readers in other processes see them.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/orlo/testing/child.h"

namespace {

int fallocateError = 0;
int renameError = 0;

}  // namespace

// These replace libc's in the whole program, including the SDK.
extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
  static const auto real =
      reinterpret_cast<decltype(&posix_fallocate)>(dlsym(RTLD_NEXT, "posix_fallocate"));
  return fallocateError != 0 ? fallocateError : real(fd, offset, length);
}
extern "C" int rename(const char* from, const char* to) noexcept {
  static const auto real = reinterpret_cast<decltype(&rename)>(dlsym(RTLD_NEXT, "rename"));
  errno = renameError;
  return renameError != 0 ? -1 : real(from, to);
}

namespace orlo::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

constexpr char kPath[] = ORLO_STATS_DIR "/tarnik";

class Stats : public RunDirTest {
 protected:
  void TearDown() override { fallocateError = renameError = 0; }
};

OrloStatsHeader headerOf(const std::string& bytes) {
  OrloStatsHeader header{};
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  return header;
}

// The counters of the area as another process reads them from the file.
std::vector<uint64_t> readElsewhere(std::size_t count) {
  Pipe pipe;
  Process reader = startChild([&] {
    const std::string bytes = content(kPath);
    const OrloStatsHeader header = headerOf(bytes);
    const auto size = static_cast<ssize_t>(header.size);
    EXPECT_EQ(bytes.size(), header.headerSize + header.size);
    EXPECT_EQ(write(pipe.writer(), bytes.data() + header.headerSize, header.size), size);
  });
  const std::string bytes = pipe.readAll();
  EXPECT_EQ(reader.wait(), kSucceeded);
  std::vector<uint64_t> counters(count);
  EXPECT_EQ(bytes.size(), count * sizeof(uint64_t));
  std::memcpy(counters.data(), bytes.data(), std::min(bytes.size(), count * sizeof(uint64_t)));
  return counters;
}

TEST_F(Stats, HasAHeaderWithNameSizeAndOwner) {
  ASSERT_NE(OrloStatsProdInit("tarnik", 48), nullptr);
  const std::string bytes = content(kPath);
  ASSERT_EQ(bytes.size(), 64u + 48u);
  EXPECT_EQ(bytes.substr(0, 4), "OATS");
  const OrloStatsHeader header = headerOf(bytes);
  EXPECT_EQ(header.headerSize, 64u);
  EXPECT_EQ(header.size, 48u);
  EXPECT_EQ(header.ownerPid, getpid());
  EXPECT_EQ(header.reserved, 0u);
  EXPECT_STREQ(header.name, "tarnik");
  EXPECT_EQ(bytes.substr(32), "tarnik" + std::string(26 + 48, '\0'));
  struct stat status {};
  ASSERT_EQ(stat(kPath, &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0644u);
  EXPECT_THAT(namesIn(ORLO_STATS_DIR), ElementsAre("tarnik"));
}

TEST_F(Stats, RecordsWhenItsOwnerStarted) {
  // A process name can contain anything; in /proc it precedes the start time.
  ASSERT_EQ(prctl(PR_SET_NAME, "a) R 1 (b"), 0);
  ASSERT_NE(OrloStatsProdInit("tarnik", 48), nullptr);
  std::istringstream stat(content("/proc/self/stat"));
  if (stat.str().empty()) {
    GTEST_SKIP() << "no /proc here to compare with";
  }
  stat.seekg(static_cast<std::streamoff>(stat.str().rfind(") ")) + 2);
  const std::vector<std::string> fields{std::istream_iterator<std::string>(stat), {}};
  EXPECT_EQ(std::to_string(headerOf(content(kPath)).ownerStart), fields.at(22 - 3));
}

TEST_F(Stats, IsReadableByOthersWhileItsOwnerCounts) {
  OrloStats* const stats = OrloStatsProdInit("tarnik", 48);
  ASSERT_NE(stats, nullptr);
  auto* const counters = static_cast<uint64_t*>(OrloStatsArea(stats));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(counters) % 64, 0u);
  EXPECT_EQ(OrloStatsArea(stats), counters);
  EXPECT_EQ(readElsewhere(6), (std::vector<uint64_t>{0, 0, 0, 0, 0, 0}));
  for (uint64_t i = 0; i < 6; ++i) {
    std::atomic_ref(counters[i]).fetch_add(i * 0x0123456789);
  }
  EXPECT_EQ(readElsewhere(6), (std::vector<uint64_t>{0, 0x0123456789, 0x02468ACF12, 0x0369D0369B,
                                                     0x048D159E24, 0x05B05B05AD}));
}

TEST_F(Stats, KeepsTheLastCountsAfterItsOwnerEnds) {
  EXPECT_EQ(inChild([] {
              OrloStats* const stats = OrloStatsProdInit("tarnik", 8);
              *static_cast<uint64_t*>(OrloStatsArea(stats)) = 42;
            }),
            kSucceeded);
  EXPECT_EQ(readElsewhere(1), (std::vector<uint64_t>{42}));
}

TEST_F(Stats, ReplacesAnAreaOfTheSameNameForNewReadersOnly) {
  auto* const first = static_cast<uint64_t*>(OrloStatsArea(OrloStatsProdInit("tarnik", 8)));
  *first = 1;
  auto* const second = static_cast<uint64_t*>(OrloStatsArea(OrloStatsProdInit("tarnik", 16)));
  ASSERT_NE(first, second);
  EXPECT_EQ(readElsewhere(2), (std::vector<uint64_t>{0, 0}));
  EXPECT_EQ(*first, 1u);
  *second = 2;
  EXPECT_EQ(*first, 1u);
  EXPECT_EQ(readElsewhere(2), (std::vector<uint64_t>{2, 0}));
}

TEST_F(Stats, IsNeverSeenIncomplete) {
  ASSERT_NE(OrloStatsProdInit("tarnik", 48), nullptr);
  std::atomic<bool> stop{false};
  std::atomic<int> looks{0};
  std::thread reader([&] {
    while (!stop) {
      const std::string bytes = content(kPath);
      EXPECT_EQ(bytes.size(), 64u + 48u);
      EXPECT_EQ(headerOf(bytes).magic, ORLO_STATS_MAGIC);
      EXPECT_STREQ(headerOf(bytes).name, "tarnik");
      ++looks;
    }
  });
  for (int i = 0; i < 200 || looks < 10; ++i) {
    EXPECT_NE(OrloStatsProdInit("tarnik", 48), nullptr);
  }
  stop = true;
  reader.join();
}

TEST_F(Stats, IsCreatedByAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([i] {
      OrloStats* const stats = OrloStatsProdInit(("area" + std::to_string(i)).c_str(), 4096);
      ASSERT_NE(stats, nullptr);
      std::memset(OrloStatsArea(stats), i, 4096);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(namesIn(ORLO_STATS_DIR).size(), 8u);
  EXPECT_EQ(content(ORLO_STATS_DIR "/area5").substr(64), std::string(4096, 5));
}

TEST_F(Stats, RefusesBadNamesAndSizes) {
  const std::string longest(31, 'n');
  for (const std::string& name : {std::string(), std::string("a/b"), std::string(".."),
                                  std::string(".a"), std::string("a b"), longest + "n"}) {
    errno = 0;
    EXPECT_EQ(OrloStatsProdInit(name.c_str(), 48), nullptr) << name;
    EXPECT_EQ(errno, EINVAL) << name;
  }
  EXPECT_EQ(OrloStatsProdInit(nullptr, 48), nullptr);
  for (const std::size_t size : {std::size_t{0}, (std::size_t{1} << 30) + 1, SIZE_MAX}) {
    errno = 0;
    EXPECT_EQ(OrloStatsProdInit("tarnik", size), nullptr) << size;
    EXPECT_EQ(errno, EINVAL) << size;
  }
  EXPECT_EQ(OrloStatsArea(nullptr), nullptr);
  EXPECT_NE(OrloStatsProdInit(longest.c_str(), 1), nullptr);
  EXPECT_EQ(headerOf(content(ORLO_STATS_DIR "/" + longest)).name, longest);
}

TEST_F(Stats, ReportsWhyItCannotBeCreatedAndLeavesNothing) {
  fallocateError = ENOSPC;
  EXPECT_EQ(OrloStatsProdInit("tarnik", 48), nullptr);
  EXPECT_EQ(errno, ENOSPC);
  fallocateError = 0;
  renameError = EROFS;
  EXPECT_EQ(OrloStatsProdInit("tarnik", 48), nullptr);
  EXPECT_EQ(errno, EROFS);
  renameError = 0;
  EXPECT_THAT(namesIn(ORLO_STATS_DIR), ElementsAre());
  fs::remove_all(ORLO_STATS_DIR);
  std::ofstream(ORLO_STATS_DIR) << "no directory";
  EXPECT_EQ(OrloStatsProdInit("tarnik", 48), nullptr);
  EXPECT_EQ(errno, ENOTDIR);
}

}  // namespace
}  // namespace orlo::test
