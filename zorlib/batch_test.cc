// Frame allocation: the driver's pool, the handle's lists, and an empty pool.
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

// The pool has 128 buffers of 2048 bytes and 8 of 65536, for 256 descriptors.
class BatchTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    createQueue(ifg_);
    q_ = openQueue(ifg_, ZORLIB_WRITE);
    clearRequests();
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_q_close(q_), 0);
    GroupTest::TearDown();
  }
  // Allocates single frames until there are none left.
  std::set<zorvik_frm_desc*> takeAll(std::uint32_t size) {
    std::set<zorvik_frm_desc*> all;
    while (zorvik_frm_desc* const frame = zorlib_ifg_frm_alloc(ifg_, size)) {
      EXPECT_TRUE(all.insert(frame).second);
      EXPECT_GE(frame->buf_size, size);
    }
    EXPECT_EQ(errno, ENOBUFS);
    return all;
  }
  void allocationFails(std::uint32_t size, std::uint32_t count, int error) {
    zorvik_frm_desc* frames[62] = {};
    errno = 0;
    EXPECT_EQ(zorlib_batch_alloc(ifg_, size, frames, count), -1);
    EXPECT_EQ(errno, error);
  }
  [[nodiscard]] std::uint32_t freeFrames() const {
    zorvik_ifg_stats stats{};
    EXPECT_EQ(zorlib_ifg_get_stats(ifg_, &stats), 0);
    return stats.frm_free;
  }

  zorlib_q* q_ = nullptr;
};

TEST_F(BatchTest, OneRequestServesManyAllocations) {
  std::set<zorvik_frm_desc*> seen;
  for (int i = 0; i < 62; ++i) {
    zorvik_frm_desc* const frame = allocFrame(ifg_, 2048);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(seen.insert(frame).second);
    EXPECT_GE(frame->buf_size, 2048u);
    EXPECT_EQ(frame->flags, ZORVIK_FRM_VALID);
    EXPECT_EQ(zorlib_ifg_frm_data(ifg_, frame), q_->payload + frame->data_off);
  }
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_FRM_ALLOC));
}

// The last small frames have large buffers, which are in the list for large ones.
TEST_F(BatchTest, SmallFramesGetEveryBuffer) {
  const auto frames = takeAll(100);
  EXPECT_EQ(frames.size(), 136u);
  EXPECT_EQ(freeFrames(), kFrames - 136);
  for (zorvik_frm_desc* const frame : frames) {
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
  EXPECT_EQ(freeFrames(), kFrames);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BatchTest, LargeFramesGetLargeBuffersOnly) {
  EXPECT_EQ(allocFrame(ifg_, 100)->buf_size, 2048u);
  const auto frames = takeAll(2049);
  EXPECT_EQ(frames.size(), 8u);
  EXPECT_EQ((*frames.begin())->buf_size, 65536u);
  allocationFails(65537, 1, EMSGSIZE);
}

TEST_F(BatchTest, ABatchUsesTheListsWhenThePoolIsEmpty) {
  ASSERT_NE(zorlib_ifg_frm_alloc(ifg_, 60000), nullptr);  // and seven for the list
  zorvik_frm_desc* frames[62] = {};
  for (const int granted : {62, 62, 4, 7}) {
    EXPECT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 62), granted);
  }
  allocationFails(100, 62, ENOBUFS);
  allocationFails(100, 0, EINVAL);
}

// Other processes can write the descriptors.
TEST_F(BatchTest, FreesAListedFrameWhoseBufferSizeHasChanged) {
  ASSERT_NE(zorlib_ifg_frm_alloc(ifg_, 60000), nullptr);  // and seven for the list
  for (std::uint32_t i = 0; i < ifg_->frmDescCount; ++i) {
    q_->frmDesc[i].buf_size = 10;
  }
  refuse(ZORVIK_FRM_ALLOC, ENOBUFS);
  refuse(ZORVIK_FRM_FREE, EIO);
  allocationFails(100, 1, ENOBUFS);
  EXPECT_EQ(logLines(), std::vector<LogLine>(7, error("Error: zorlib_ifg_frm_free: free_frm ioctl "
                                                      "failed - Input/output error")));
}

TEST_F(BatchTest, LogsAnEmptyPoolAtDebugLevelOne) {
  (void)takeAll(100);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(zorlib_ifg_frm_alloc(ifg_, 100), nullptr);
  EXPECT_EQ(logLines(), lines({"Debug: zorlib_batch_alloc: alloc ioctl (brund) failed - No buffer "
                               "space available"}));
}

TEST_F(BatchTest, TakesNothingWithoutMemoryForTheLists) {
  systemCalls.allocationsLeft = 0;
  allocationFails(100, 1, ENOMEM);
  EXPECT_EQ(freeFrames(), kFrames);
}

TEST_F(BatchTest, ChecksTheDriversGrant) {
  answer(ZORVIK_FRM_ALLOC, [](int, void* argument) {
    auto& alloc = *static_cast<zorvik_frm_alloc*>(argument);
    alloc.count = 1000;
    for (std::uint32_t& id : alloc.frame_ids) {
      id = 5;  // the same frame in each place
    }
    alloc.frame_ids[0] = 0;
    alloc.frame_ids[1] = kFrames + 1;
    return 0;
  });
  zorvik_frm_desc* frames[3] = {};
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 64, frames, 1), 1);
  EXPECT_EQ(frames[0], q_->frmDesc + 5);
  answer(ZORVIK_FRM_ALLOC, [](int, void* argument) {
    static_cast<zorvik_frm_alloc*>(argument)->count = 1;
    static_cast<zorvik_frm_alloc*>(argument)->frame_ids[0] = 0;
    return 0;
  });
  frames[0]->buf_size = 2048;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 64, frames, 3), 1) << "the frame is in the list once";
  allocationFails(64, 3, ENXIO);
}

TEST_F(BatchTest, AFramesBufferIsInThePayload) {
  zorvik_frm_desc frame{};
  frame.data_off = q_->payloadSize - 100;
  frame.buf_size = 100;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), q_->payload + frame.data_off);
  frame.buf_size = 101;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), nullptr);
  frame.data_off = frame.buf_size = 0xffffffff;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), nullptr);
}

TEST_F(BatchTest, AClosedHandleFreesItsLists) {
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
  EXPECT_EQ(freeFrames(), kFrames - 61 - 7) << "the mapping has a reference";
  EXPECT_EQ(zorlib_ifg_close(other), 0);
  EXPECT_EQ(freeFrames(), kFrames);
}

TEST_F(GroupTest, AllocatesNothingUntilAllFrameMemoryIsMapped) {
  createQueue(ifg_);
  const auto allocationFails = [this] {
    errno = 0;
    EXPECT_EQ(zorlib_ifg_frm_alloc(ifg_, 64), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(count(ZORVIK_FRM_ALLOC), 0);
  };
  allocationFails();
  refuse(ZORVIK_NET_DATA_SIZE, EIO);
  zorlib_q* q = nullptr;
  EXPECT_EQ(zorlib_q_app_open(ifg_, "TarnikQ", ZORLIB_WRITE, &q), -1);
  EXPECT_EQ(count(ZORVIK_FRM_DESC_SIZE), 1) << "the descriptors are mapped";
  allocationFails();
}

TEST_F(GroupTest, AllocatesWhileAnotherThreadMapsTheGroup) {
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
