// How often a read or write looks at the ring, and when and how long it sleeps.
#include "zorlib/testing/looks.h"

namespace tarnik::test {

namespace {
void tell(const std::function<void(const void*)>& whom, const void* word) {
  if (whom) {
    const std::function<void(const void*)> hook = whom;  // it may take itself away
    hook(word);
  }
}
}  // namespace

void beforeLook(const void* word) {
  tell(onLook, word);
}
void beforeChange(const void* word) {
  tell(onChange, word);
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

}  // namespace
}  // namespace tarnik::test
