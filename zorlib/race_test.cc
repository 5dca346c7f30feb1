// What other processes do between two accesses of a read or write: they read, write and shut down.
#include <memory>
#include <string>

#include "zorlib/testing/looks.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

class RaceTest : public BudgetTest {
 protected:
  // The looks of a read that finds nothing: the flags, both counters, and the flags again before it
  // takes the wake-up and sleeps.
  enum Moment { kBeforeFlags, kBeforeDequeue, kBeforeEnqueue, kBeforeSleep, kAsleep, kMoments };

  // Calls `other` once at the moment.
  void at(int moment, std::function<void()> other) {
    auto looks = std::make_shared<int>(0);
    answerNothing();
    if (moment == kAsleep) {
      answer(ZORVIK_Q_WAIT, [other = std::move(other), looks](int, void*) -> std::optional<int> {
        if (++*looks == 1) {
          other();
        }
        return std::nullopt;  // the driver answers
      });
      onLook = nullptr;
      return;
    }
    onLook = [other = std::move(other), looks, moment](const void*) {
      if ((*looks)++ == moment) {
        onLook = nullptr;
        other();
      }
    };
  }
  // Calls `other` once, before the word is changed.
  static void beforeChangeOf(const void* changed, std::function<void()> other) {
    onChange = [changed, other = std::move(other)](const void* word) {
      if (word == changed) {
        onChange = nullptr;
        other();
      }
    };
  }
};

TEST_F(RaceTest, AReaderFindsAFrameThatComesAtAnyMoment) {
  zorlib_q_set_timeout(reader_, -1);
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = memory_->cresq.flags = 0;
    at(moment, [this] { EXPECT_EQ(write(), 0); });
    EXPECT_EQ(read(), frame_);
  }
}

TEST_F(RaceTest, AWriterFindsRoomThatComesAtAnyMoment) {
  fill();
  zorlib_q_set_timeout(writer_, -1);
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = memory_->cresq.flags = 0;
    at(moment, [this] { EXPECT_EQ(read(), frame_); });
    EXPECT_EQ(write(), 0);
  }
}

TEST_F(RaceTest, AShutdownAtAnyMomentEndsReadsAndWrites) {
  zorlib_q_set_timeout(reader_, -1);
  for (int moment = 0; moment < kMoments; ++moment) {
    for (const std::uint32_t woken : {0u, 1u}) {
      if (woken != 0 && moment == kAsleep) {
        continue;  // it does not sleep
      }
      memory_->cresq.flags = woken;
      reader_->shutDown = false;
      at(moment, [this] { EXPECT_EQ(zorlib_q_shutdown(reader_), 0); });
      expectReadFails(ESHUTDOWN);
      EXPECT_EQ(memory_->cresq.flags, woken | 4) << "the wake-up is taken only after the check";
    }
  }
  fill();
  zorlib_q_set_timeout(writer_, -1);
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = moment == kAsleep ? 0 : ZORVIK_RESQ_WOKEN;
    writer_->shutDown = false;
    at(moment, [this] { EXPECT_EQ(zorlib_q_shutdown(writer_), 0); });
    expectWriteFails(ESHUTDOWN);
    EXPECT_EQ(memory_->presq.flags, moment == kAsleep ? 4u : 5u);
  }
}

TEST_F(RaceTest, WaitsForAClaimedSlot) {
  // A producer has claimed the slot and fills it only before the reader's third look.
  memory_->enqueue = 1;
  int looks = 0;
  onLook = [&](const void* word) {
    if (word == &reader_->slot(0) && ++looks == 3) {
      entry(0) = idOf(frame_);
    }
  };
  EXPECT_EQ(read(), frame_) << "the wait costs no budget";
  EXPECT_EQ(looks, 3);
  // A consumer has claimed the slot and empties it only before the writer's third look.
  memory_->enqueue = memory_->dequeue = 2;
  entry(2) = 99;
  looks = 0;
  onLook = [&](const void* word) {
    if (word == &writer_->slot(2) && ++looks == 3) {
      entry(2) = 0;
    }
  };
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(looks, 3);
}

TEST_F(RaceTest, AShutdownEndsTheWaitForAClaimedSlot) {
  const auto shutDownAtLook = [](zorlib_q* q, std::uint32_t slot) {
    systemCalls.sleeps = 0;
    onLook = [q, slot, looks = std::make_shared<int>(0)](const void* word) {
      if (word == &q->slot(slot) && ++*looks == 1300) {
        EXPECT_EQ(zorlib_q_shutdown(q), 0);
      }
    };
  };
  memory_->enqueue = 1;
  shutDownAtLook(reader_, 0);
  expectReadFails(ESHUTDOWN);
  EXPECT_GT(systemCalls.sleeps, 100) << "a long wait sleeps between its looks";
  memory_->enqueue = memory_->dequeue = 1;
  entry(1) = 99;
  shutDownAtLook(writer_, 1);
  expectWriteFails(ESHUTDOWN);
  EXPECT_GT(systemCalls.sleeps, 100);
}

TEST_F(RaceTest, AReaderThatLosesTheSwapTakesTheNextFrame) {
  zorvik_frm_desc* const second = allocFrame(ifg_);
  ASSERT_EQ(write(), 0);
  ASSERT_EQ(zorlib_q_write(writer_, second), 0);
  beforeChangeOf(&reader_->memory().dequeue, [this] { memory_->dequeue = 1; });
  EXPECT_EQ(read(), second);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(entry(0), idOf(frame_)) << "the other consumer empties it";
  entry(0) = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, second), 0);
}

TEST_F(RaceTest, AWriterThatLosesTheSwapTakesTheNextSlot) {
  const auto otherMovesTo = [this](std::uint32_t enqueue) {
    beforeChangeOf(&writer_->memory().enqueue, [this, enqueue] { memory_->enqueue = enqueue; });
  };
  otherMovesTo(1);
  EXPECT_EQ(write(), 0);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(entry(0), 0u) << "the other producer fills it";
  EXPECT_EQ(entry(1), idOf(frame_));
  EXPECT_EQ(memory_->enqueue, 2u);
  EXPECT_EQ(frame_->qref_cnt, 1);
  // Again with the last free slot.
  entry(1) = 0;
  memory_->enqueue = kSlots - 2;
  otherMovesTo(kSlots - 1);
  expectWriteFails(EAGAIN);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(entry(kSlots - 2), 0u);
  EXPECT_EQ(entry(kSlots - 1), 0u);
  EXPECT_EQ(memory_->enqueue, kSlots - 1);
  memory_->enqueue = 0;
}

TEST_F(RaceTest, TakingAWakeUpKeepsAShutdown) {
  fill();
  for (const std::uint32_t flags : {0u, 1u, 0xfffffffbu}) {
    script([](std::uint32_t) { return -EINTR; });
    for (zorlib_q* const q : {reader_, writer_}) {
      q->side().flags = flags;
      q->shutDown = false;
      // After the last check of the flags.
      beforeChangeOf(&q->side().flags, [q] { EXPECT_EQ(zorlib_q_shutdown(q), 0); });
      zorlib_q_set_timeout(q, -1);
      memory_->dequeue = q == reader_ ? memory_->enqueue : (memory_->enqueue + 1) % kSlots;
      if (q == reader_) {
        expectReadFails((flags & 1) != 0 ? ESHUTDOWN : EINTR);
      } else {
        expectWriteFails((flags & 1) != 0 ? ESHUTDOWN : EINTR);
      }
      EXPECT_EQ(q->side().flags, (flags & ~1u) | 4u);
    }
  }
}

TEST_F(RaceTest, AnEntryChangesBeforeTheWakeUp) {
  std::vector<std::uint64_t> entries;
  beforeChangeOf(&writer_->memory().cresq.flags, [&] { entries.push_back(entry(0)); });
  EXPECT_EQ(write(), 0);
  beforeChangeOf(&reader_->memory().presq.flags, [&] { entries.push_back(entry(0)); });
  EXPECT_EQ(read(), frame_);
  EXPECT_THAT(entries, ElementsAre(idOf(frame_), 0));
}

TEST_F(RaceTest, AnIngressFrameHasItsDataBeforeItsReference) {
  reopen(ZORVIK_Q_INGRESS);
  frame_->ref_cnt = 7;
  frame_->data = 0;
  EXPECT_EQ(write(), 0);
  std::uint64_t data = 0;
  beforeChangeOf(&reader_->frmDesc[frame_->index].ref_cnt, [&] { data = frame_->data; });
  EXPECT_EQ(read(), frame_);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(data, reinterpret_cast<std::uintptr_t>(reader_->payload + frame_->data_off));
  EXPECT_EQ(frame_->ref_cnt, 1);
}

TEST_F(RaceTest, AFrameIsCountedBeforeItCanBeRead) {
  for (const std::uint32_t type : {ZORVIK_Q_FANOUT, ZORVIK_Q_APP}) {
    reopen(type);
    frame_->qref_cnt = 7;
    std::vector<int> counts;
    beforeChangeOf(&writer_->slot(0), [&] { counts.push_back(frame_->qref_cnt); });
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(frame_->qref_cnt, 8);
    // Also while it waits for room; the wait fails.
    memory_->dequeue = 2;
    memory_->presq.flags = 0;
    zorlib_q_set_timeout(writer_, -1);
    answer(ZORVIK_Q_WAIT, [&](int, void*) {
      counts.push_back(frame_->qref_cnt);
      return -EINTR;
    });
    expectWriteFails(EINTR);
    EXPECT_THAT(counts, ElementsAre(8, 9)) << type;
    answerNothing();
  }
}

}  // namespace
}  // namespace tarnik::test
