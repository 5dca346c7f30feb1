// Sleepers are woken whatever becomes of the shared words that name their wait records.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "zorlib/ring.h"
#include "zorlib/testing/io.h"

namespace tarnik::test {
namespace {

constexpr auto kPatience = std::chrono::seconds(10);

// A driver that lets a side sleep until a request wakes it: the stand-in's sleepers also look for
// themselves every now and then. Requests with a name that is not its own fail.
class SleepyDriver {
 public:
  explicit SleepyDriver(std::uint32_t record) : record_(record) {
    answer(ZORVIK_Q_WAIT, [this](int, void* argument) {
      return wait(static_cast<zorvik_q_wait*>(argument)->kresq_handle);
    });
    answer(ZORVIK_Q_WAKE, [this](int, void* argument) {
      return wake(static_cast<zorvik_q_wake*>(argument)->kresq_handle);
    });
  }
  ~SleepyDriver() { answerNothing(); }
  SleepyDriver(const SleepyDriver&) = delete;
  SleepyDriver& operator=(const SleepyDriver&) = delete;

  // Until somebody sleeps; false when nobody does.
  bool sleeps() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return asleep_; });
  }

 private:
  int wait(std::uint32_t record) {
    std::unique_lock lock(mutex_);
    if (record != record_) {
      return -EINVAL;
    }
    asleep_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, kPatience, [this] { return !asleep_; }) ? 1 : -ETIME;
  }
  int wake(std::uint32_t record) {
    const std::lock_guard guard(mutex_);
    if (record != record_) {
      return -EINVAL;
    }
    asleep_ = false;
    changed_.notify_all();
    return 0;
  }

  const std::uint32_t record_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool asleep_ = false;
};

class RecordTest : public IoTest {
 protected:
  void SetUp() override {
    IoTest::SetUp();
    for (zorlib_q* const q : {reader_, writer_}) {
      zorlib_q_set_timeout(q, -1);
    }
  }

  void fill() {
    IoTest::fill();
    zorlib_q_set_timeout(writer_, -1);
  }
  int read() {
    zorvik_frm_desc* frame = nullptr;
    return zorlib_q_read(reader_, &frame);
  }

  // Lets `sleep` fall asleep on `side`, changes the word under it, and lets `end` wake it.
  template <class Sleep, class End>
  void wokenAllTheSame(zorvik_resq& side, Sleep sleep, End end) {
    const std::uint32_t record = side.kresq_handle;
    SleepyDriver driver(record);
    std::thread sleeper(sleep);
    EXPECT_TRUE(driver.sleeps());
    ring::store(side.kresq_handle, record ^ 0xffu);
    end();
    sleeper.join();
    ring::store(side.kresq_handle, record);
  }
};

TEST_F(RecordTest, AShutdownEndsAReader) {
  wokenAllTheSame(
      memory_->cresq,
      [&] {
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, ESHUTDOWN);
      },
      [&] { EXPECT_EQ(zorlib_q_shutdown(reader_), 0); });
}

TEST_F(RecordTest, AShutdownEndsAWriter) {
  fill();
  wokenAllTheSame(
      memory_->presq,
      [&] {
        EXPECT_EQ(zorlib_q_write(writer_, frame_), -1);
        EXPECT_EQ(errno, ESHUTDOWN);
      },
      [&] { EXPECT_EQ(zorlib_q_shutdown(writer_), 0); });
}

TEST_F(RecordTest, AFrameWakesAReader) {
  wokenAllTheSame(
      memory_->cresq, [&] { EXPECT_EQ(read(), 0); },
      [&] { EXPECT_EQ(zorlib_q_write(writer_, frame_), 0); });
}

TEST_F(RecordTest, RoomWakesAWriter) {
  fill();
  wokenAllTheSame(
      memory_->presq, [&] { EXPECT_EQ(zorlib_q_write(writer_, frame_), 0); },
      [&] { EXPECT_EQ(read(), 0); });
}

// And who sleeps only afterwards asks with the name that the driver gave.
TEST_F(RecordTest, AReaderSleepsUnderTheNameThatTheDriverGave) {
  const std::uint32_t record = memory_->cresq.kresq_handle;
  SleepyDriver driver(record);
  memory_->cresq.kresq_handle = 0;
  std::thread sleeper([&] { EXPECT_EQ(read(), 0); });
  EXPECT_TRUE(driver.sleeps());
  EXPECT_EQ(zorlib_q_write(writer_, frame_), 0);
  sleeper.join();
  memory_->cresq.kresq_handle = record;
}

}  // namespace
}  // namespace tarnik::test
