// Reads and writes of a queue: their order, wake-ups, shutdowns and references.
#include "zorlib/testing/io.h"

#include <atomic>
#include <optional>
#include <utility>
#include <vector>

#include "zorlib/ring.h"
#include "zorlib/testing/two_threads.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(IoTest, ReadsFramesInTheOrderOfTheirWrites) {
  std::vector<zorvik_frm_desc*> written;
  for (std::uint32_t i = 0; i + 1 < kSlots; ++i) {
    written.push_back(allocFrame(ifg_));
    EXPECT_EQ(zorlib_q_write(writer_, written.back()), 0);
    EXPECT_EQ(entry(i), idOf(written.back()));
  }
  EXPECT_EQ(memory_->enqueue, kSlots - 1);
  expectWriteFails(EAGAIN);  // one slot always stays empty
  for (zorvik_frm_desc* const expected : written) {
    EXPECT_EQ(read(), expected);
    EXPECT_EQ(zorlib_frm_free(ifg_, expected), 0);
  }
  EXPECT_EQ(memory_->dequeue, kSlots - 1);
  for (std::uint32_t i = 0; i < kSlots; ++i) {
    EXPECT_EQ(entry(i), 0u);
  }
  expectReadFails(EAGAIN);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IoTest, GoesAroundTheRing) {
  for (std::uint32_t round = 0; round < 100; ++round) {
    const std::uint32_t frames = 1 + round % (kSlots - 1);
    for (std::uint32_t i = 0; i < frames; ++i) {
      ASSERT_EQ(write(), 0);
      ASSERT_EQ(zorlib_q_used(writer_), i + 1);
    }
    for (std::uint32_t i = 0; i < frames; ++i) {
      ASSERT_EQ(read(), frame_);
    }
    expectReadFails(EAGAIN);
  }
}

TEST_F(IoTest, RequestsOnlyTheFirstWakeUp) {
  std::vector<std::uint32_t> woken;
  answer(ZORVIK_Q_WAKE, [&](int, void* argument) -> std::optional<int> {
    woken.push_back(static_cast<zorvik_q_wake*>(argument)->kresq_handle);
    return std::nullopt;
  });
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(write(), 0);
  }
  EXPECT_EQ(memory_->cresq.flags, 1u);
  EXPECT_THAT(woken, ElementsAre(memory_->cresq.kresq_handle));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(read(), frame_);
  }
  EXPECT_EQ(memory_->presq.flags, 1u);
  EXPECT_THAT(woken, ElementsAre(memory_->cresq.kresq_handle, memory_->presq.kresq_handle));
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_Q_WAKE, ZORVIK_Q_WAKE));
}

TEST_F(IoTest, AWakeUpKeepsThePeersOtherFlags) {
  for (const std::uint32_t flags : {4u, 0xfffffffeu}) {
    clearRequests();
    memory_->presq.flags = 0;
    memory_->cresq.flags = flags;
    EXPECT_EQ(write(), 0) << "the peer's shutdown does not affect this side";
    EXPECT_EQ(memory_->cresq.flags, flags | 1);
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 1);
    memory_->presq.flags = flags;
    memory_->cresq.flags = 0;
    EXPECT_EQ(read(), frame_);
    EXPECT_EQ(memory_->presq.flags, flags | 1);
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 2);
  }
}

TEST_F(IoTest, ACounterOutsideTheRingEndsReadsAndWritesAfterAPause) {
  nodeAppearsAt(1);  // the pause takes no time
  zorlib_q_set_timeout(reader_, -1);
  zorlib_q_set_timeout(writer_, -1);
  struct Case {
    std::uint32_t enqueue, dequeue;
  };
  for (const Case& each :
       {Case{kSlots, 3}, Case{kSlots + 3, 3}, Case{3, kSlots}, Case{0xffffffff, 0},
        Case{0, 0xffffffff}, Case{kSlots, kSlots}, Case{0x80000003, 0x80000003}}) {
    for (const std::uint64_t content : {std::uint64_t{0}, std::uint64_t{idOf(frame_)}}) {
      for (std::uint32_t i = 0; i < kSlots; ++i) {
        entry(i) = content;
      }
      memory_->enqueue = each.enqueue;
      memory_->dequeue = each.dequeue;
      systemCalls.sleeps = 0;
      expectReadFails(ENXIO);
      EXPECT_EQ(systemCalls.sleeps, 1);
      expectWriteFails(ENXIO);
      EXPECT_EQ(systemCalls.sleeps, 2);
      EXPECT_EQ(systemCalls.longestSleep, 100'000u);
      EXPECT_EQ(memory_->enqueue, each.enqueue);
      EXPECT_EQ(memory_->dequeue, each.dequeue);
      for (std::uint32_t i = 0; i < kSlots; ++i) {
        EXPECT_EQ(entry(i), content);
      }
    }
  }
  EXPECT_THAT(requests(), IsEmpty());
  nodesAreReal();
}

// ---- Shutdown

// Another process can clear the flag in shared memory.
TEST_F(IoTest, AShutdownIsFinalForItsHandle) {
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(zorlib_q_shutdown(reader_), 0);
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  memory_->presq.flags = memory_->cresq.flags = 0;
  expectReadFails(ESHUTDOWN);
  expectWriteFails(ESHUTDOWN);
  for (zorlib_q* const q : {reader_, writer_}) {
    zorlib_q_set_timeout(q, -1);
  }
  expectReadFails(ESHUTDOWN);
  expectWriteFails(ESHUTDOWN);
  // Each handle has shut down its own side only.
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_q_write(reader_, frame_), 0);
  EXPECT_EQ(zorlib_q_read(writer_, &frame), 0);
  EXPECT_EQ(frame, frame_);
}

TEST_F(IoTest, FlagsChangeAtomically) {
  zorvik_resq& side = memory_->cresq;
  const auto has = [&](std::uint32_t bit) { return (ring::load(side.flags) & bit) != 0; };
  int lost[2] = {};
  inTwoThreads(
      [&] {
        ring::raiseShutdown(side);
        lost[0] += has(ZORVIK_RESQ_SHUTDOWN) ? 0 : 1;
        ring::clearShutdown(side);
        lost[0] += has(ZORVIK_RESQ_SHUTDOWN) ? 1 : 0;
      },
      [&] {
        lost[1] += ring::postWakeup(side) ? 0 : 1;
        lost[1] += has(ZORVIK_RESQ_WOKEN) ? 0 : 1;
        lost[1] += ring::takeWakeup(side) ? 0 : 1;
        lost[1] += has(ZORVIK_RESQ_WOKEN) ? 1 : 0;
      });
  EXPECT_THAT(lost, ElementsAre(0, 0));
}

TEST_F(IoTest, AShutdownAffectsItsSideOnly) {
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(zorlib_q_shutdown(reader_), 0);
  expectReadFails(ESHUTDOWN);  // although a frame is queued
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  expectWriteFails(ESHUTDOWN);
  zorlib_q* const second = openQueue(ifg_, ZORLIB_READ);  // clears the side's shutdown
  zorvik_frm_desc* frame = nullptr;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(zorlib_q_read_timeout(second, &frame, 0), 0);
    EXPECT_EQ(frame, frame_);
  }
  EXPECT_EQ(zorlib_q_close(second), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

// ---- References

TEST_F(IoTest, TheTypeDecidesHowReferencesAreCounted) {
  struct Case {
    std::uint32_t type;
    int queueRefsAdded;
    int refsAfterRead;
  };
  const std::uint32_t offset = frame_->data_off;
  for (const Case& each :
       {Case{1, 0, 1}, Case{2, 0, 5}, Case{3, 0, 6}, Case{4, 1, 5}, Case{5, 1, 5}, Case{6, 0, 5}}) {
    SCOPED_TRACE(each.type);
    reopen(each.type);
    frame_->ref_cnt = 5;
    frame_->qref_cnt = 2;
    frame_->data = 0;
    frame_->data_off = 4096;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(frame_->qref_cnt, 2 + each.queueRefsAdded);
    EXPECT_EQ(frame_->ref_cnt, 5);
    EXPECT_EQ(read(), frame_);
    EXPECT_EQ(frame_->ref_cnt, each.refsAfterRead);
    EXPECT_EQ(frame_->qref_cnt, 2 + each.queueRefsAdded);
    EXPECT_EQ(frame_->data,
              each.type == 1 ? reinterpret_cast<std::uintptr_t>(reader_->payload + 4096) : 0u);
    // A write that fails keeps the count: without room, and with a failed wait.
    fill();
    expectWriteFails(EAGAIN);
    zorlib_q_set_timeout(writer_, -1);
    memory_->presq.flags = 0;
    refuse(ZORVIK_Q_WAIT, EINTR);
    expectWriteFails(EINTR);
    answerNothing();
  }
  frame_->data_off = offset;
}

constexpr int kBatch = 256;  // a count of one byte has its old value after 256 changes

TEST_F(IoTest, ThreadsWhoseWritesFailKeepTheQueueReferences) {
  frame_->qref_cnt = 7;
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  std::atomic<int> failures{0};
  const auto batch = [&] {
    int failed = 0;
    for (int i = 0; i < kBatch; ++i) {
      failed += write() == -1 && errno == ESHUTDOWN ? 1 : 0;
    }
    failures += failed;
  };
  const int batches = inTwoThreads(batch, batch);
  EXPECT_EQ(failures, batches * kBatch);
  EXPECT_EQ(frame_->qref_cnt, 7);
}

TEST_F(IoTest, ThreadsThatReadOneFrameFromTwoQueuesAreAllCounted) {
  zorlib_q* ends[2][2];
  constexpr const char* kNames[] = {"one", "two"};
  for (int i = 0; i < 2; ++i) {
    createQueue(ifg_, ZORVIK_Q_SHARED, 16, kNames[i]);
    for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
      ends[i][mode] = openQueue(ifg_, mode, kNames[i]);
    }
  }
  frame_->ref_cnt = 5;
  std::atomic<int> reads{0};
  const auto batchOn = [&](zorlib_q* const(&q)[2]) {
    return [&reads, &q, frame = frame_] {
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
  EXPECT_EQ(frame_->ref_cnt, 5);
  for (int i = 0; i < 2; ++i) {
    for (zorlib_q* const q : ends[i]) {
      EXPECT_EQ(zorlib_q_close(q), 0);
    }
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, kNames[i]), 0);
  }
}

TEST_F(IoTest, OneOfTwoThreadsDropsTheLastReference) {
  reopen(ZORVIK_Q_EGRESS);
  // The count is 1 once per batch. The thread that sees it writes the frame, which fails.
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  frame_->ref_cnt = 0;
  std::atomic<int> last{0};
  const auto batch = [&] {
    int writes = 0;
    for (int i = 0; i < kBatch; ++i) {
      writes += zorlib_q_free(writer_, frame_) != 0 ? 1 : 0;
    }
    last += writes;
  };
  const int batches = inTwoThreads(batch, batch);
  EXPECT_EQ(last, batches);
  EXPECT_EQ(frame_->ref_cnt, 0);
}

}  // namespace
}  // namespace tarnik::test
