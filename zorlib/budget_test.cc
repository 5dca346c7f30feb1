// How often a read or write looks at the ring, and when and how long it sleeps.
#include "zorlib/testing/looks.h"

namespace tarnik::test {

namespace {
void call(const std::function<void(const void*)>& hook, const void* word, std::memory_order order) {
  // x86 hides a missing barrier, so the order itself is checked.
  EXPECT_EQ(order, std::memory_order_seq_cst) << "each access is a full barrier";
  if (hook) {
    const std::function<void(const void*)> copy = hook;  // the hook may replace itself
    copy(word);
  }
}
}  // namespace

void beforeLook(const void* word, std::memory_order order) {
  call(onLook, word, order);
}
void beforeChange(const void* word, std::memory_order order) {
  call(onChange, word, order);
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

// Nothing happens, and each sleep lasts until its timeout.
const Case kQuiet[] = {
    {0, EAGAIN, 1, {}},
    {1, EAGAIN, 1, {}},
    {999, EAGAIN, 1, {}},
    {1000, EAGAIN, 1, {}},
    {1001, EAGAIN, 2, {}},
    {1500, EAGAIN, 2, {}},
    {2000, EAGAIN, 2, {}},
    {2001, EAGAIN, 2, {1001}},
    {5000, EAGAIN, 2, {4000}},
    {0x7fffffff, EAGAIN, 2, {0x7fffffff - 1000}},
    {kNoLimit, EINTR, 3, {0, 0, 0}},
};

// A wake-up ends each sleep after a millisecond, but another process takes the frame or the room.
const Case kBusy[] = {
    {2000, EAGAIN, 2, {}},
    {2001, EAGAIN, 2, {1001}},
    {3002, EAGAIN, 3, {2002, 1001}},
    {5000, EAGAIN, 5, {4000, 2999, 1998}},
};

class BudgetCasesTest : public BudgetTest {
 protected:
  enum class Sleeps { kToTheirEnd, kWoken };

  void check(const Case& each, Sleeps sleeps, std::uint32_t mode) {
    SCOPED_TRACE(each.ms);
    script([this, sleeps](std::uint32_t ms) {
      if (sleeps == Sleeps::kWoken) {
        return static_cast<int>(ms) - 1;
      }
      return ms != 0 ? 0 : sleeps_.size() < 3 ? 1 : -EINTR;
    });
    EXPECT_EQ(mode == ZORLIB_READ ? timedRead(each.ms) : timedWrite(each.ms), -1);
    EXPECT_EQ(errno, each.error);
    EXPECT_EQ(looks_, each.looks);
    EXPECT_EQ(sleeps_, each.sleeps);
    const zorvik_resq& side = mode == ZORLIB_READ ? memory_->cresq : memory_->presq;
    EXPECT_TRUE(sleeps_.empty() || handle_ == side.kresq_handle);
  }
};

TEST_F(BudgetCasesTest, AReadSpendsItsBudgetOnLooksAndSleepsTheRest) {
  for (const Case& each : kQuiet) {
    check(each, Sleeps::kToTheirEnd, ZORLIB_READ);
  }
  for (const Case& each : kBusy) {
    check(each, Sleeps::kWoken, ZORLIB_READ);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BudgetCasesTest, AWriteSpendsItsBudgetInTheSameWay) {
  fill();
  for (const Case& each : kQuiet) {
    check(each, Sleeps::kToTheirEnd, ZORLIB_WRITE);
  }
  for (const Case& each : kBusy) {
    check(each, Sleeps::kWoken, ZORLIB_WRITE);
  }
}

TEST_F(BudgetCasesTest, TheLimitOfAReadIsUnsigned) {
  for (const std::uint32_t ms : {0x80000000u, 0xfffffffeu}) {
    check({ms, EAGAIN, 2, {ms - 1000}}, Sleeps::kToTheirEnd, ZORLIB_READ);
  }
}

TEST_F(BudgetTest, APostedWakeUpReplacesASleep) {
  script([](std::uint32_t) { return 0; });
  memory_->cresq.flags = ZORVIK_RESQ_WOKEN;
  EXPECT_EQ(timedRead(2001), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(looks_, 3) << "with 2001, 1001 and 1 ms";
  EXPECT_THAT(sleeps_, IsEmpty());
  EXPECT_EQ(memory_->cresq.flags, 0u);
}

TEST_F(BudgetTest, AFailedWaitEndsAReadAndItsResultIsTheWrites) {
  for (const int result : {-1, -4, -1000}) {
    answerAsIs(ZORVIK_Q_WAIT, result, EIO);
    EXPECT_EQ(timedRead(5000), -1);
    EXPECT_EQ(errno, EIO);
  }
  answerNothing();
  fill();
  for (const int result : {-1, -4, -1000}) {
    for (const std::uint32_t ms : {5000u, kNoLimit}) {
      memory_->presq.flags = 0;
      answerAsIs(ZORVIK_Q_WAIT, result, EIO);
      const int references = frame_->qref_cnt;
      EXPECT_EQ(timedWrite(ms), result);
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(frame_->qref_cnt, references) << "it was not queued";
    }
  }
}

TEST_F(BudgetTest, AReadUsesTheTimeoutOfTheHandle) {
  script([](std::uint32_t) { return 0; });
  zorlib_q_set_timeout(reader_, 3000);
  expectReadFails(EAGAIN);
  EXPECT_THAT(sleeps_, ElementsAre(2000u));
}

}  // namespace
}  // namespace tarnik::test
