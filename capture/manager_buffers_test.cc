// The memory in which records wait is a bounded part of the limit on disk space.
#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::Le;

TEST(BufferShareTest, DividesASixteenthOfTheLimit) {
  constexpr std::uint64_t kMiB = 1 << 20;
  const struct {
    std::uint64_t diskSpace;
    std::size_t captures;
    std::size_t share;
  } cases[] = {
      {16 * kMiB, 16, 65536}, {16 * kMiB, 17, 32768}, {16 * kMiB, 32, 32768},
      {16 * kMiB, 33, 16384}, {16 * kMiB, 64, 16384}, {16 * kMiB, 65, 8192},
      {16 * kMiB, 128, 8192}, {16 * kMiB, 129, 4096}, {16 * kMiB, 100000, 4096},
      {0, 1, 4096},           {kMiB - 1, 1, 32768},   {kMiB, 1, 65536},
      {~0UL, 1000000, 65536}, {53687091, 51, 65536},  {53687091, 52, 32768},
      {53687091, 0, 65536},
  };
  for (const auto& shared : cases) {
    EXPECT_EQ(bufferShare(shared.diskSpace, shared.captures, 65536), shared.share)
        << shared.diskSpace << ' ' << shared.captures;
  }
}

class BuffersTest : public test::ManagerTest {
 protected:
  // Gives the capture this many frames of 1000 bytes.
  void feed(std::uint64_t captureId, unsigned frames) {
    for (unsigned seed = 0; seed < frames; ++seed) {
      ASSERT_EQ(consume(captureId, 1000, seed), 0);
    }
    accepted_ += frames * 1016;
  }
  // The bytes that were accepted and are in no file yet.
  [[nodiscard]] std::uint64_t buffered() const {
    std::uint64_t inFiles = 0;
    for (const std::string& name : entries()) {
      inFiles += std::filesystem::file_size(kCaptureDir + name) - test::kPcapHeader.size();
    }
    return accepted_ - inFiles;
  }

 private:
  std::uint64_t accepted_ = 0;
};

TEST_F(BuffersTest, TogetherTheyHoldABoundedPartOfTheLimit) {
  constexpr std::uint64_t kLimit = 4 << 20;
  ASSERT_EQ(reload({.diskSpace = kLimit}), 0);
  for (std::uint64_t captures = 1; captures <= 100; ++captures) {
    feed(captures, 60);
    ASSERT_THAT(buffered(), Le(std::max(kLimit / 16, 4096 * captures))) << captures;
  }
  for (std::uint64_t captureId = 1; captureId <= 100; ++captureId) {
    feed(captureId, 60);
  }
  EXPECT_THAT(buffered(), Le(409600u));
}

TEST_F(BuffersTest, ALargeLimitKeepsTheLargeBuffers) {
  for (std::uint64_t captureId = 1; captureId <= 100; ++captureId) {
    feed(captureId, 60);
  }
  EXPECT_EQ(buffered(), 100u * 60 * 1016);
}

// The next frame of any capture applies a new limit to all captures.
TEST_F(BuffersTest, AReloadChangesTheBuffersOfOpenCaptures) {
  for (std::uint64_t captureId = 1; captureId <= 10; ++captureId) {
    feed(captureId, 60);
  }
  ASSERT_EQ(reload({.diskSpace = 1 << 20}), 0);
  feed(1, 1);
  EXPECT_THAT(buffered(), Le(65536u));
  ASSERT_EQ(reload({}), 0);
  for (std::uint64_t captureId = 1; captureId <= 10; ++captureId) {
    feed(captureId, 60);
  }
  EXPECT_GT(buffered(), 300'000u) << "the buffers are large again";
}

TEST_F(BuffersTest, TheDirectoryHardlyExceedsTheLimit) {
  constexpr std::uint64_t kCaptures = 300;
  constexpr std::uint64_t kLimit = 5'000'000;
  // The daemon copies the template of such a rule without a shell, which is much faster.
  test::writeFile(kNapPolicyPath, "acl.rule.priority.uuid'5 = 5\n");
  ASSERT_EQ(reload({.diskSpace = kLimit}), 0);
  for (unsigned seed = 0; seed < 60; ++seed) {
    for (std::uint64_t captureId = 1; captureId <= kCaptures; ++captureId) {
      announce(captureId, 5);
      const int result = consume(captureId, 1000, seed);
      ASSERT_THAT(result, testing::AnyOf(0, 9));
      manager.UpdateUsageCounters();
    }
  }
  manager.CloseWriters();
  std::uint64_t bytes = 0;
  for (const std::string& name : captures()) {
    bytes += std::filesystem::file_size(kCaptureDir + name);
  }
  EXPECT_GE(bytes, kLimit / 2);
  EXPECT_LE(bytes, kLimit + kCaptures * 4096 + 1016);
}

}  // namespace
}  // namespace tarnik
