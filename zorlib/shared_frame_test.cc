// Several threads on one frame: none of its references is counted twice or lost.
#include <atomic>
#include <cerrno>

#include "zorlib/testing/io.h"
#include "zorlib/testing/two_threads.h"

namespace tarnik::test {
namespace {

constexpr int kBatch = 256;  // after which a count of one byte has come round

TEST_F(IoTest, WritesThatFailTogetherLeaveTheCountAlone) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  frame->qref_cnt = 7;
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  std::atomic<int> failures{0};
  const auto batch = [&] {
    int failed = 0;
    for (int i = 0; i < kBatch; ++i) {
      failed += zorlib_q_write(writer_, frame) == -1 && errno == ESHUTDOWN ? 1 : 0;
    }
    failures += failed;
  };
  const int batches = inTwoThreads(batch, batch);
  EXPECT_EQ(failures, batches * kBatch);
  EXPECT_EQ(frame->qref_cnt, 7);
  frame->qref_cnt = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, ReadersOfOneFrameAreAllCounted) {
  // Two shared queues hold the frame.
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  zorlib_q* ends[2][2];
  constexpr const char* kNames[] = {"one", "two"};
  for (int i = 0; i < 2; ++i) {
    createQueue(ifg_, ZORVIK_Q_SHARED, 16, kNames[i]);
    for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
      ends[i][mode] = openQueue(ifg_, mode, kNames[i]);
    }
  }
  frame->ref_cnt = 5;
  std::atomic<int> reads{0};
  const auto batchOn = [&](zorlib_q* const(&q)[2]) {
    return [&reads, &q, frame] {
      int done = 0;
      for (int i = 0; i < kBatch; ++i) {
        zorvik_frm_desc* read = nullptr;
        if (zorlib_q_write(q[ZORLIB_WRITE], frame) == 0 &&
            zorlib_q_read_timeout(q[ZORLIB_READ], &read, 0) == 0 && read == frame) {
          ++done;
        }
      }
      reads += done;
    };
  };
  const int batches = inTwoThreads(batchOn(ends[0]), batchOn(ends[1]));
  EXPECT_EQ(reads, batches * kBatch);
  EXPECT_EQ(frame->ref_cnt, 5) << "it came round as often as there were batches";
  for (int i = 0; i < 2; ++i) {
    for (zorlib_q* const q : ends[i]) {
      EXPECT_EQ(zorlib_q_close(q), 0);
    }
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, kNames[i]), 0);
  }
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, OnlyOneThreadDropsTheLastReference) {
  reopen(ZORVIK_Q_EGRESS);
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  // Each time that the count comes round it is 1 for one of them, who then writes, which fails.
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  frame->ref_cnt = 0;
  std::atomic<int> last{0};
  const auto batch = [&] {
    int written = 0;
    for (int i = 0; i < kBatch; ++i) {
      written += zorlib_q_free(writer_, frame) != 0 ? 1 : 0;
    }
    last += written;
  };
  const int batches = inTwoThreads(batch, batch);
  EXPECT_EQ(last, batches);
  EXPECT_EQ(frame->ref_cnt, 0);
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

}  // namespace
}  // namespace tarnik::test
