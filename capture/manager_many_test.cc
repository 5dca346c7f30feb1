// Ten thousand captures open at the same time: each has its file, its name and all its frames.
#include <sys/resource.h>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint64_t kCaptures = 10'000;
constexpr std::uint64_t kOtherFiles = 100;  // that the process may need

class ManyTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    if (before_.rlim_max < kCaptures + kOtherFiles) {
      GTEST_SKIP() << "this machine lets a process open " << before_.rlim_max << " files only";
    }
    const rlimit most{before_.rlim_max, before_.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &most), 0);
  }
  void TearDown() override {
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0);
    ManagerTest::TearDown();
  }

 private:
  rlimit before_{};
};

TEST_F(ManyTest, TenThousandCapturesAtOnce) {
  ASSERT_EQ(init({.fileCount = 2 * kCaptures}), 0);
  for (unsigned seed = 0; seed < 2; ++seed) {
    for (std::uint64_t captureId = 1; captureId <= kCaptures; ++captureId) {
      announce(captureId, 70000);
      ASSERT_EQ(consume(captureId, 60, static_cast<unsigned>(captureId) + seed), 0);
      manager.UpdateUsageCounters();
    }
    EXPECT_THAT(entries(), SizeIs(kCaptures)) << "all of them are open";
  }
  manager.CloseWriters();
  EXPECT_THAT(test::logLines(), IsEmpty());
  EXPECT_THAT(entries(), SizeIs(2 * kCaptures)) << "each with its info";
  for (std::uint64_t captureId = 1; captureId <= kCaptures; ++captureId) {
    const auto seed = static_cast<unsigned>(captureId);
    ASSERT_THAT(records("20240305-070809.ips.web." + std::to_string(captureId) + ".pcap"),
                ElementsAre(record(60, seed), record(60, seed + 1)));
  }
  manager.UpdateUsageCounters();
  EXPECT_EQ(manager.filesUsed(), kCaptures);
}

}  // namespace
}  // namespace tarnik
