// How often a read or write looks at the ring, and when and how long it sleeps; and what happens
// to what comes between a look and the sleep.
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "frameq/testing/driver.h"
#include "frameq/zorlib_internal.h"

namespace tarnik::test {

namespace {
std::function<void(const void*)> onLook;
}  // namespace

void beforeLook(const void* word) {
  if (onLook) {
    const std::function<void(const void*)> hook = onLook;  // it may take itself away
    hook(word);
  }
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kSlots = 16;

// One queue, open on both sides.
class BudgetTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = openGroup();
    createQueue(ifg_, ZORVIK_Q_APP, kSlots);
    reader_ = openQueue(ifg_, ZORLIB_READ);
    writer_ = openQueue(ifg_, ZORLIB_WRITE);
    memory_ = &reader_->memory();
    memory_->presq.flags = memory_->cresq.flags = 0;
    frame_ = allocFrame(ifg_);
  }
  void TearDown() override {
    onLook = nullptr;
    EXPECT_EQ(zorlib_frm_free(ifg_, frame_), 0);
    EXPECT_EQ(zorlib_q_close(reader_), 0);
    EXPECT_EQ(zorlib_q_close(writer_), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg_), 0);
    DriverTest::TearDown();
  }

  // Counts looks of the side from now on.
  void countLooks(bool writing) {
    looks_ = 0;
    const void* const first = writing ? &writer_->memory().enqueue : &reader_->memory().dequeue;
    onLook = [this, first](const void* word) { looks_ += word == first ? 1 : 0; };
  }
  // Each wait gives what `left` makes of its time; its time is kept.
  void script(std::function<int(std::uint32_t)> left) {
    sleeps_.clear();
    answer(ZORVIK_Q_WAIT, [this, left = std::move(left)](int, void* argument) {
      const auto& wait = *static_cast<zorvik_q_wait*>(argument);
      handle_ = wait.kresq_handle;
      sleeps_.push_back(wait.timeout_ms);
      return left(wait.timeout_ms);
    });
  }
  void fill() {
    zorlib_q_set_timeout(writer_, 0);
    for (std::uint32_t i = 0; i + 1 < kSlots; ++i) {
      ASSERT_EQ(zorlib_q_write(writer_, frame_), 0);
    }
    memory_->presq.flags = 0;
  }
  int read(std::uint32_t ms) {
    countLooks(false);
    errno = 0;
    zorvik_frm_desc* frame = nullptr;
    return zorlib_q_read_timeout(reader_, &frame, ms);
  }
  int write(std::uint32_t ms) {
    countLooks(true);
    errno = 0;
    zorlib_q_set_timeout(writer_, static_cast<std::int32_t>(ms));
    return zorlib_q_write(writer_, frame_);
  }

  zorlib_ifg* ifg_ = nullptr;
  zorlib_q* reader_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorvik_qmem* memory_ = nullptr;
  zorvik_frm_desc* frame_ = nullptr;
  int looks_ = 0;
  std::vector<std::uint32_t> sleeps_;
  std::uint32_t handle_ = 0;
};

constexpr std::uint32_t kNoLimit = 0xffffffff;

struct Case {
  std::uint32_t ms;
  int error;
  int looks;
  std::vector<std::uint32_t> sleeps;
};

// Nothing happens, and the driver's sleep runs out.
const Case kQuiet[] = {
    {0, EAGAIN, 1, {}},        {1, EAGAIN, 1, {}},
    {999, EAGAIN, 1, {}},      {1000, EAGAIN, 1, {}},
    {1001, EAGAIN, 2, {}},     {1500, EAGAIN, 2, {}},
    {2000, EAGAIN, 2, {}},     {2001, EAGAIN, 2, {1001}},
    {5000, EAGAIN, 2, {4000}}, {kNoLimit, EINTR, 3, {0, 0, 0}},
};

// Every sleep is ended after a millisecond by a wake-up that somebody else profits from.
const Case kBusy[] = {
    {2000, EAGAIN, 2, {}},
    {2001, EAGAIN, 2, {1001}},
    {3002, EAGAIN, 3, {2002, 1001}},
    {5000, EAGAIN, 5, {4000, 2999, 1998}},
};

TEST_F(BudgetTest, AReadSpendsItsBudgetOnLooksAndSleepsTheRest) {
  for (const Case& each : kQuiet) {
    script([this](std::uint32_t ms) { return ms != 0 ? 0 : sleeps_.size() < 3 ? 1 : -EINTR; });
    EXPECT_EQ(read(each.ms), -1);
    EXPECT_EQ(errno, each.error) << each.ms;
    EXPECT_EQ(looks_, each.looks) << each.ms;
    EXPECT_EQ(sleeps_, each.sleeps) << each.ms;
    EXPECT_TRUE(sleeps_.empty() || handle_ == memory_->cresq.kresq_handle);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BudgetTest, AWriteSpendsItsBudgetInTheSameWay) {
  fill();
  for (const Case& each : kQuiet) {
    script([this](std::uint32_t ms) { return ms != 0 ? 0 : sleeps_.size() < 3 ? 1 : -EINTR; });
    EXPECT_EQ(write(each.ms), -1);
    EXPECT_EQ(errno, each.error) << each.ms;
    EXPECT_EQ(looks_, each.looks) << each.ms;
    EXPECT_EQ(sleeps_, each.sleeps) << each.ms;
    EXPECT_TRUE(sleeps_.empty() || handle_ == memory_->presq.kresq_handle);
  }
}

TEST_F(BudgetTest, WakeUpsInVainCostTheirLook) {
  fill();
  for (const Case& each : kBusy) {
    script([](std::uint32_t ms) { return static_cast<int>(ms) - 1; });
    EXPECT_EQ(write(each.ms), -1);
    EXPECT_EQ(errno, each.error);
    EXPECT_EQ(looks_, each.looks) << each.ms;
    EXPECT_EQ(sleeps_, each.sleeps) << each.ms;
  }
  memory_->dequeue = memory_->enqueue = 0;  // empty after all
  memory_->cresq.flags = 0;
  for (std::uint32_t i = 0; i < kSlots; ++i) {
    zorvik_qmem_entries(memory_)[i] = 0;
  }
  for (const Case& each : kBusy) {
    script([](std::uint32_t ms) { return static_cast<int>(ms) - 1; });
    EXPECT_EQ(read(each.ms), -1);
    EXPECT_EQ(errno, each.error);
    EXPECT_EQ(looks_, each.looks) << each.ms;
    EXPECT_EQ(sleeps_, each.sleeps) << each.ms;
  }
}

TEST_F(BudgetTest, APostedWakeUpIsTakenInsteadOfASleep) {
  script([](std::uint32_t) { return 0; });
  memory_->cresq.flags = ZORVIK_RESQ_WOKEN;
  EXPECT_EQ(read(2001), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(looks_, 3) << "of 2001, 1001 and 1";
  EXPECT_THAT(sleeps_, IsEmpty());
  EXPECT_EQ(memory_->cresq.flags, 0u);
}

TEST_F(BudgetTest, AWaitsNegativeResultEndsAReadAndIsAWritesOwn) {
  for (const int result : {-1, -4, -1000}) {
    answerAsIs(ZORVIK_Q_WAIT, result, EIO);
    EXPECT_EQ(read(5000), -1);
    EXPECT_EQ(errno, EIO);
  }
  answerNothing();
  fill();
  for (const int result : {-1, -4, -1000}) {
    for (const std::uint32_t ms : {5000u, kNoLimit}) {
      memory_->presq.flags = 0;
      answerAsIs(ZORVIK_Q_WAIT, result, EIO);
      const int references = frame_->qref_cnt;
      EXPECT_EQ(write(ms), result);
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(frame_->qref_cnt, references) << "it was not sent";
    }
  }
}

TEST_F(BudgetTest, TheHandlesTimeoutIsTheReadsOne) {
  script([](std::uint32_t) { return 0; });
  zorlib_q_set_timeout(reader_, 3000);
  zorvik_frm_desc* frame = frame_;
  EXPECT_EQ(zorlib_q_read(reader_, &frame), -1);
  EXPECT_EQ(frame, nullptr);
  EXPECT_THAT(sleeps_, ElementsAre(2000u));
}

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
  onLook = nullptr;
  zorvik_qmem_entries(memory_)[0] = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, second), 0);
}

}  // namespace
}  // namespace tarnik::test
