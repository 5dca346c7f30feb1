// The handles of the wait records, which the driver may change at any time, and waits that fail.
#include <functional>
#include <vector>

#include "zorlib/testing/io.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

class RecordTest : public IoTest {
 protected:
  // Records the handles of all wait and wake requests. A wait fails.
  void recordHandles() {
    answer(ZORVIK_Q_WAIT, [this](int, void* argument) {
      handles_.push_back(static_cast<zorvik_q_wait*>(argument)->kresq_handle);
      return -EINTR;
    });
    answer(ZORVIK_Q_WAKE, [this](int, void* argument) {
      handles_.push_back(static_cast<zorvik_q_wake*>(argument)->kresq_handle);
      return 0;
    });
  }

  std::vector<std::uint32_t> handles_;
};

TEST_F(RecordTest, EachRequestCarriesTheHandleThatIsInTheRecordNow) {
  recordHandles();
  for (const std::uint32_t producer : {0xfedcba98u, 1u, 0x10000u}) {
    const std::uint32_t consumer = ~producer;
    memory_->presq.kresq_handle = producer;
    memory_->cresq.kresq_handle = consumer;
    const auto expectHandle = [&](std::uint32_t handle, const std::function<void()>& call) {
      memory_->presq.flags = memory_->cresq.flags = 0;
      handles_.clear();
      call();
      EXPECT_THAT(handles_, ElementsAre(handle));
    };
    zorlib_q_set_timeout(reader_, -1);
    expectHandle(consumer, [&] { expectReadFails(EINTR); });     // wait
    expectHandle(consumer, [&] { EXPECT_EQ(write(), 0); });      // wake the reader
    expectHandle(producer, [&] { EXPECT_EQ(read(), frame_); });  // wake the writer
    fill();
    zorlib_q_set_timeout(writer_, -1);
    expectHandle(producer, [&] { expectWriteFails(EINTR); });  // wait
    zorlib_q* q = nullptr;
    expectHandle(consumer, [&] { q = openQueue(ifg_, ZORLIB_READ); });
    expectHandle(consumer, [&] { EXPECT_EQ(zorlib_q_shutdown(q), 0); });
    EXPECT_EQ(zorlib_q_close(q), 0);
    expectHandle(producer, [&] { q = openQueue(ifg_, ZORLIB_WRITE); });
    expectHandle(producer, [&] { EXPECT_EQ(zorlib_q_shutdown(q), 0); });
    EXPECT_EQ(zorlib_q_close(q), 0);
    reopen(ZORVIK_Q_APP);
  }
}

// A caller may repeat the read or write at once.
TEST_F(RecordTest, AFailedWaitPausesUnlessASignalInterruptsIt) {
  nodeAppearsAt(1);  // the pause takes no time
  zorlib_q_set_timeout(reader_, -1);
  for (const int error : {EINVAL, EIO, EINTR}) {
    refuse(ZORVIK_Q_WAIT, error);
    systemCalls.sleeps = 0;
    memory_->cresq.flags = 0;
    expectReadFails(error);
    EXPECT_EQ(systemCalls.sleeps, error == EINTR ? 0 : 1) << error;
    fill();
    zorlib_q_set_timeout(writer_, -1);
    expectWriteFails(error);
    EXPECT_EQ(systemCalls.sleeps, error == EINTR ? 0 : 2) << error;
    while (memory_->dequeue != memory_->enqueue) {
      EXPECT_EQ(read(), frame_);
    }
  }
  EXPECT_EQ(systemCalls.longestSleep, 100'000u);
  nodesAreReal();
}

}  // namespace
}  // namespace tarnik::test
