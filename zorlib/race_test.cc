// What comes between a look at the ring and what is done upon it: other readers and writers,
// frames, room and shutdowns.
#include <memory>
#include <string>

#include "zorlib/testing/looks.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

// The looks of a read that finds nothing, in their order: flags, both counters, and the flags once
// more before it takes the wake-up and sleeps. Each moment is tried.
class RaceTest : public BudgetTest {
 protected:
  enum Moment { kBeforeFlags, kBeforeDequeue, kBeforeEnqueue, kBeforeSleep, kAsleep, kMoments };

  // Lets `other` happen at the moment, once.
  void at(int moment, std::function<void()> other) {
    auto looks = std::make_shared<int>(0);
    answerNothing();
    if (moment == kAsleep) {
      answer(ZORVIK_Q_WAIT, [other = std::move(other), looks](int, void*) -> std::optional<int> {
        if (++*looks == 1) {
          other();
        }
        return std::nullopt;  // to the driver
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
};

TEST_F(RaceTest, AFrameIsFoundAtWhateverMomentItComes) {
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = memory_->cresq.flags = 0;
    at(moment, [this] { EXPECT_EQ(zorlib_q_write(writer_, frame_), 0); });
    zorvik_frm_desc* frame = nullptr;
    EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, kNoLimit), 0);
    EXPECT_EQ(frame, frame_);
  }
}

TEST_F(RaceTest, RoomIsFoundAtWhateverMomentItComes) {
  fill();
  zorlib_q_set_timeout(writer_, -1);
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = memory_->cresq.flags = 0;
    at(moment, [this] {
      zorvik_frm_desc* frame = nullptr;
      EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, 0), 0);
    });
    EXPECT_EQ(zorlib_q_write(writer_, frame_), 0);
  }
}

TEST_F(RaceTest, AShutdownIsSeenAtWhateverMomentItComes) {
  for (int moment = 0; moment < kMoments; ++moment) {
    for (const bool woken : {false, true}) {
      if (woken && moment == kAsleep) {
        continue;  // it does not fall asleep
      }
      memory_->cresq.flags = woken ? ZORVIK_RESQ_WOKEN : 0;
      at(moment, [this] { EXPECT_EQ(zorlib_q_shutdown(reader_), 0); });
      zorvik_frm_desc* frame = nullptr;
      errno = 0;
      EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, kNoLimit), -1);
      EXPECT_EQ(errno, ESHUTDOWN) << moment;
      EXPECT_EQ(memory_->cresq.flags, woken ? 5u : 4u) << "looked at before it is taken";
    }
  }
  fill();
  for (int moment = 0; moment < kMoments; ++moment) {
    memory_->presq.flags = moment == kAsleep ? 0 : ZORVIK_RESQ_WOKEN;
    at(moment, [this] { EXPECT_EQ(zorlib_q_shutdown(writer_), 0); });
    zorlib_q_set_timeout(writer_, -1);
    errno = 0;
    const int references = frame_->qref_cnt;
    EXPECT_EQ(zorlib_q_write(writer_, frame_), -1);
    EXPECT_EQ(errno, ESHUTDOWN) << moment;
    EXPECT_EQ(frame_->qref_cnt, references) << moment;
    EXPECT_EQ(memory_->presq.flags, moment == kAsleep ? 4u : 5u) << "looked at before it is taken";
  }
}

TEST_F(RaceTest, AClaimedSlotIsWaitedFor) {
  // A producer has claimed the slot, and stores its identifier only at the reader's third look.
  memory_->enqueue = 1;
  int looks = 0;
  onLook = [&](const void* word) {
    if (word == &reader_->slot(0) && ++looks == 3) {
      *zorvik_qmem_entries(memory_) = zorlib::frameId(*frame_);
    }
  };
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, 0), 0) << "it does not count as a look";
  EXPECT_EQ(frame, frame_);
  EXPECT_EQ(looks, 3);
  // And a consumer the other way round.
  *zorvik_qmem_entries(&writer_->memory()) = 0;
  writer_->memory().enqueue = writer_->memory().dequeue = 2;
  zorvik_qmem_entries(memory_)[2] = 99;
  looks = 0;
  onLook = [&](const void* word) {
    if (word == &writer_->slot(2) && ++looks == 3) {
      zorvik_qmem_entries(memory_)[2] = 0;
    }
  };
  zorlib_q_set_timeout(writer_, 0);
  EXPECT_EQ(zorlib_q_write(writer_, frame_), 0);
  EXPECT_EQ(looks, 3);
}

TEST_F(RaceTest, AShutdownEndsTheWaitForASlotOfADeadPeer) {
  memory_->enqueue = 1;
  int looks = 0;
  onLook = [&](const void* word) {
    if (word == &reader_->slot(0) && ++looks == 1300) {
      EXPECT_EQ(zorlib_q_shutdown(reader_), 0);
    }
  };
  systemCalls.sleeps = 0;
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, kNoLimit), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_GT(systemCalls.sleeps, 100) << "a dead peer is not waited for with all might";
  memory_->enqueue = memory_->dequeue = 1;
  zorvik_qmem_entries(memory_)[1] = 99;
  looks = 0;
  onLook = [&](const void* word) {
    if (word == &writer_->slot(1) && ++looks == 1300) {
      EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
    }
  };
  systemCalls.sleeps = 0;
  const int references = frame_->qref_cnt;
  EXPECT_EQ(zorlib_q_write(writer_, frame_), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_GT(systemCalls.sleeps, 100);
  EXPECT_EQ(frame_->qref_cnt, references);
  zorvik_qmem_entries(memory_)[1] = 0;
}

TEST_F(RaceTest, ALostSwapLooksAgain) {
  // Another consumer takes the first frame between this one's look at the entry and its swap.
  zorvik_frm_desc* const second = allocFrame(ifg_);
  ASSERT_EQ(zorlib_q_write(writer_, frame_), 0);
  ASSERT_EQ(zorlib_q_write(writer_, second), 0);
  bool overtaken = false;
  onLook = [&](const void* word) {
    if (word == &reader_->slot(0) && !overtaken) {
      overtaken = true;
      memory_->dequeue = 1;  // its entry is not emptied yet
    }
  };
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_q_read_timeout(reader_, &frame, 0), 0);
  EXPECT_EQ(frame, second);
  EXPECT_TRUE(overtaken);
  EXPECT_EQ(reader_->slot(0), zorlib::frameId(*frame_)) << "the other one's to empty";
  onLook = nullptr;
  zorvik_qmem_entries(memory_)[0] = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, second), 0);
}

TEST_F(RaceTest, AWriterThatLostTheSwapTakesTheNextSlot) {
  // Another producer takes the slot between this one's look at it and its swap.
  zorlib_q_set_timeout(writer_, 0);
  const auto otherMovesTo = [this](std::uint32_t enqueue) {
    onChange = [this, enqueue](const void* word) {
      if (word == &writer_->memory().enqueue) {
        onChange = nullptr;
        memory_->enqueue = enqueue;
      }
    };
  };
  otherMovesTo(1);
  EXPECT_EQ(zorlib_q_write(writer_, frame_), 0);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(writer_->slot(0), 0u) << "the other one's to fill";
  EXPECT_EQ(writer_->slot(1), zorlib::frameId(*frame_));
  EXPECT_EQ(memory_->enqueue, 2u);
  EXPECT_EQ(frame_->qref_cnt, 1);
  // Now it was the last one.
  memory_->enqueue = kSlots - 2;
  memory_->dequeue = 0;
  otherMovesTo(kSlots - 1);
  errno = 0;
  EXPECT_EQ(zorlib_q_write(writer_, frame_), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_FALSE(onChange);
  EXPECT_EQ(writer_->slot(kSlots - 2), 0u);
  EXPECT_EQ(writer_->slot(kSlots - 1), 0u);
  EXPECT_EQ(memory_->enqueue, kSlots - 1);
  EXPECT_EQ(frame_->qref_cnt, 1);
}

TEST_F(RaceTest, AShutdownIsNotTakenBackWithAWakeUp) {
  // It comes after the last look at the flags.
  const auto shutDownBeforeTheTake = [this](zorlib_q* q) {
    script([](std::uint32_t) { return -EINTR; });
    onChange = [q](const void* word) {
      if (word == &q->side().flags) {
        onChange = nullptr;
        EXPECT_EQ(zorlib_q_shutdown(q), 0);
      }
    };
  };
  for (const std::uint32_t flags : {0u, 1u, 0xfffffffbu}) {
    memory_->cresq.flags = flags;
    shutDownBeforeTheTake(reader_);
    EXPECT_EQ(read(kNoLimit), -1);
    EXPECT_EQ(errno, (flags & 1) != 0 ? ESHUTDOWN : EINTR);
    EXPECT_EQ(memory_->cresq.flags, (flags & ~1u) | 4u);
  }
  fill();
  for (const std::uint32_t flags : {0u, 1u, 0xfffffffbu}) {
    memory_->presq.flags = flags;
    shutDownBeforeTheTake(writer_);
    EXPECT_EQ(write(kNoLimit), -1);
    EXPECT_EQ(errno, (flags & 1) != 0 ? ESHUTDOWN : EINTR);
    EXPECT_EQ(memory_->presq.flags, (flags & ~1u) | 4u);
  }
}

TEST_F(RaceTest, AFrameIsCountedBeforeItCanBeRead) {
  for (const std::uint32_t type : {ZORVIK_Q_FANOUT, ZORVIK_Q_APP}) {
    const std::string name = "type" + std::to_string(type);
    createQueue(ifg_, type, kSlots, name.c_str());
    zorlib_q* const writer = openQueue(ifg_, ZORLIB_WRITE, name.c_str());
    zorlib_q_set_timeout(writer, -1);
    frame_->qref_cnt = 7;
    std::vector<int> then;
    onChange = [&](const void* word) {
      if (word == &writer->slot(0)) {
        then.push_back(frame_->qref_cnt);
      }
    };
    EXPECT_EQ(zorlib_q_write(writer, frame_), 0);
    EXPECT_EQ(frame_->qref_cnt, 8);
    onChange = nullptr;
    // While it waits for room, too, and given back when none comes.
    writer->memory().dequeue = 2;
    writer->memory().presq.flags = 0;
    answer(ZORVIK_Q_WAIT, [&](int, void*) {
      then.push_back(frame_->qref_cnt);
      return -EINTR;
    });
    EXPECT_EQ(zorlib_q_write(writer, frame_), -1);
    EXPECT_EQ(frame_->qref_cnt, 8);
    EXPECT_THAT(then, ElementsAre(8, 9)) << type;
    answerNothing();
    EXPECT_EQ(zorlib_q_close(writer), 0);
  }
}

}  // namespace
}  // namespace tarnik::test
