// Frames out of the driver's pool when it is nearly empty.
#include <cerrno>
#include <set>
#include <thread>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// 128 buffers of 2048 bytes and 8 of 65536, for 256 descriptors.
class BatchTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    createQueue(ifg_);
    q_ = openQueue(ifg_, ZORLIB_WRITE);
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_q_close(q_), 0);
    GroupTest::TearDown();
  }
  // Frames one by one until there are none.
  std::set<zorvik_frm_desc*> takeAll(std::uint32_t size) {
    std::set<zorvik_frm_desc*> all;
    while (zorvik_frm_desc* const frame = zorlib_ifg_frm_alloc(ifg_, size)) {
      EXPECT_TRUE(all.insert(frame).second);
      EXPECT_GE(frame->buf_size, size);
    }
    EXPECT_EQ(errno, ENOBUFS);
    return all;
  }
  [[nodiscard]] std::uint32_t freeFrames() const {
    zorvik_ifg_stats stats{};
    EXPECT_EQ(zorlib_ifg_get_stats(ifg_, &stats), 0);
    return stats.frm_free;
  }

  zorlib_q* q_ = nullptr;
};

// The last small frames have large buffers: they wait in the handle as large ones, and are small
// ones all the same.
TEST_F(BatchTest, EveryBufferIsGivenOut) {
  const auto frames = takeAll(100);
  EXPECT_EQ(frames.size(), 136u);
  EXPECT_EQ(freeFrames(), kFrames - 136);
  for (zorvik_frm_desc* const frame : frames) {
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
  EXPECT_EQ(freeFrames(), kFrames);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BatchTest, SmallBuffersAreNotGivenForLargeFrames) {
  EXPECT_EQ(takeAll(2049).size(), 8u);
}

TEST_F(BatchTest, ABatchIsFilledFromWhatWaits) {
  ASSERT_NE(zorlib_ifg_frm_alloc(ifg_, 60000), nullptr);  // seven wait
  zorvik_frm_desc* frames[62] = {};
  ASSERT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), 62);
  ASSERT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), 62);
  ASSERT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), 4);
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), 7);
  errno = 0;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), -1);
  EXPECT_EQ(errno, ENOBUFS);
}

// Descriptors can be written by every process.
TEST_F(BatchTest, AFrameWhoseBufferShrankWhileItWaitedGoesBack) {
  ASSERT_NE(zorlib_ifg_frm_alloc(ifg_, 60000), nullptr);  // seven wait
  for (std::uint32_t i = 0; i < ifg_->frmDescCount; ++i) {
    q_->frmDesc[i].buf_size = 10;
  }
  refuse(ZORVIK_FRM_ALLOC, ENOBUFS);
  refuse(ZORVIK_FRM_FREE, EIO);
  EXPECT_EQ(zorlib_ifg_frm_alloc(ifg_, 100), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(logLines(), ::testing::Each(error("Error: zorlib_ifg_frm_free: free_frm ioctl failed "
                                                "- Input/output error")));
  EXPECT_EQ(logLines().size(), 7u);
}

TEST_F(BatchTest, AnEmptyPoolIsToldInTheDebugLogOnly) {
  (void)takeAll(100);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(zorlib_ifg_frm_alloc(ifg_, 100), nullptr);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: zorlib_batch_alloc: alloc ioctl (brund) failed "
                                            "- No buffer space available")));
}

TEST_F(BatchTest, WithoutMemoryForTheListsNothingIsTaken) {
  systemCalls.allocationsLeft = 0;
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 100, &frame, 1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(freeFrames(), kFrames);
}

TEST_F(BatchTest, FramesThatWaitGoBackWithTheHandle) {
  zorlib_ifg* const other = openGroup();
  zorvik_frm_desc* descriptors = nullptr;
  std::uint32_t size = 0;
  std::uint8_t* payload = nullptr;
  ASSERT_EQ(zorlib_map_frm_data(other, &descriptors, &size, &payload, &size), 0);
  for (const std::uint32_t each : {100u, 60000u}) {
    zorvik_frm_desc* const frame = zorlib_ifg_frm_alloc(other, each);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(zorlib_frm_free(other, frame), 0);
  }
  EXPECT_EQ(freeFrames(), kFrames - 61 - 7);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
  EXPECT_EQ(freeFrames(), kFrames - 61 - 7) << "the mapping holds the handle";
  EXPECT_EQ(zorlib_ifg_close(other), 0);
  EXPECT_EQ(freeFrames(), kFrames);
}

TEST_F(GroupTest, AGroupThatIsMappedByHalfAllocatesNothing) {
  createQueue(ifg_);
  refuse(ZORVIK_NET_DATA_SIZE, EIO);
  zorlib_q* q = nullptr;
  EXPECT_EQ(zorlib_q_app_open(ifg_, "TarnikQ", ZORLIB_WRITE, &q), -1);
  EXPECT_EQ(count(ZORVIK_FRM_DESC_SIZE), 1);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_frm_alloc(ifg_, 64), nullptr);
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_EQ(count(ZORVIK_FRM_ALLOC), 0);
}

// Whoever allocates sees the mapping once it is there, with what belongs to it.
TEST_F(GroupTest, FramesAreAllocatedWhileTheGroupIsMapped) {
  createQueue(ifg_);
  for (int round = 0; round < 20; ++round) {
    zorlib_ifg* const group = openGroup();
    zorlib_q* q = nullptr;
    std::jthread other([&] { q = openQueue(group, ZORLIB_WRITE); });
    zorvik_frm_desc* frame = nullptr;
    while ((frame = zorlib_ifg_frm_alloc(group, 64)) == nullptr) {
      ASSERT_EQ(errno, ENOTCONN);
    }
    EXPECT_NE(zorlib_ifg_frm_data(group, frame), nullptr);
    other.join();
    EXPECT_EQ(zorlib_frm_free(group, frame), 0);
    EXPECT_EQ(zorlib_q_close(q), 0);
    EXPECT_EQ(zorlib_ifg_close(group), 0);
  }
}

}  // namespace
}  // namespace tarnik::test
