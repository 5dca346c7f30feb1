// Observes each access to the ring. For the test program that compiles q_io.cc with the hooked ring
// header.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "zorlib/testing/io.h"

namespace tarnik::test {

// Called with the word before it is read, and before it is changed. A hook may replace itself.
inline std::function<void(const void*)> onLook;
inline std::function<void(const void*)> onChange;

inline constexpr std::uint32_t kNoLimit = 0xffffffff;

class BudgetTest : public IoTest {
 protected:
  void TearDown() override {
    onLook = onChange = nullptr;
    IoTest::TearDown();
  }

  // Answers each wait with `left` of its timeout, and records the timeout and the wait record.
  void script(std::function<int(std::uint32_t)> left) {
    sleeps_.clear();
    answer(ZORVIK_Q_WAIT, [this, left = std::move(left)](int, void* argument) {
      const auto& wait = *static_cast<zorvik_q_wait*>(argument);
      handle_ = wait.kresq_handle;
      sleeps_.push_back(wait.timeout_ms);
      return left(wait.timeout_ms);
    });
  }
  // A read, or a write, with this limit. Counts how often it looks at the ring.
  int timedRead(std::uint32_t ms) {
    countLooks(&reader_->memory().dequeue);
    zorvik_frm_desc* frame = nullptr;
    return zorlib_q_read_timeout(reader_, &frame, ms);
  }
  int timedWrite(std::uint32_t ms) {
    countLooks(&writer_->memory().enqueue);
    zorlib_q_set_timeout(writer_, static_cast<std::int32_t>(ms));
    return zorlib_q_write(writer_, frame_);
  }

  int looks_ = 0;
  std::vector<std::uint32_t> sleeps_;
  std::uint32_t handle_ = 0;

 private:
  void countLooks(const void* counter) {
    looks_ = 0;
    errno = 0;
    onLook = [this, counter](const void* word) { looks_ += word == counter ? 1 : 0; };
  }
};

}  // namespace tarnik::test
