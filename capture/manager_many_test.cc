// Ten thousand captures are open at the same time. Each has its file, its name and all its frames.
#include <sys/resource.h>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint64_t kCaptures = 10'000;
constexpr std::uint64_t kOtherFiles = 100;  // descriptors that the process needs besides

using ManyTest = test::ManagerTest;

TEST_F(ManyTest, TenThousandCapturesAtOnce) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  if (before.rlim_max < kCaptures + kOtherFiles) {
    GTEST_SKIP() << "a process may open only " << before.rlim_max << " files here";
  }
  const rlimit most{before.rlim_max, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &most), 0);
  // The daemon copies the template of such a rule without a shell, which is much faster.
  test::writeFile(kNapPolicyPath, "acl.rule.priority.uuid'5 = 5\n");
  test::writeFile(std::string(kCaptureDir) + "template.nap.uuid'5", "");
  ASSERT_EQ(reload({.fileCount = 2 * kCaptures}), 0);
  for (unsigned seed = 0; seed < 2; ++seed) {
    for (std::uint64_t captureId = 1; captureId <= kCaptures; ++captureId) {
      announce(captureId, 5);
      ASSERT_EQ(consume(captureId, 60, static_cast<unsigned>(captureId) + seed), 0);
      manager.UpdateUsageCounters();
    }
    EXPECT_THAT(entries(), SizeIs(kCaptures)) << "all of them are open";
  }
  manager.CloseWriters();
  EXPECT_THAT(test::logTexts(), IsEmpty());
  EXPECT_THAT(entries(), SizeIs(2 * kCaptures)) << "each has an info file";
  for (std::uint64_t captureId = 1; captureId <= kCaptures; ++captureId) {
    const auto seed = static_cast<unsigned>(captureId);
    ASSERT_THAT(records("20240305-070809.naprule-5." + std::to_string(captureId) + ".pcap"),
                ElementsAre(record(60, seed), record(60, seed + 1)));
  }
  manager.UpdateUsageCounters();
  EXPECT_EQ(manager.filesUsed(), kCaptures);
}

}  // namespace
}  // namespace tarnik
