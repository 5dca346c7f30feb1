// A queue whose every look at the ring and every change of it is told to the test: for the program
// that compiles reading and writing anew.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {

// Called with the word before it is read, and before it is changed. May be replaced from inside.
inline std::function<void(const void*)> onLook;
inline std::function<void(const void*)> onChange;

inline constexpr std::uint32_t kSlots = 16;
inline constexpr std::uint32_t kNoLimit = 0xffffffff;

// One queue, open on both sides.
class BudgetTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    createQueue(ifg_, ZORVIK_Q_APP, kSlots);
    reader_ = openQueue(ifg_, ZORLIB_READ);
    writer_ = openQueue(ifg_, ZORLIB_WRITE);
    memory_ = &reader_->memory();
    memory_->presq.flags = memory_->cresq.flags = 0;
    frame_ = allocFrame(ifg_);
  }
  void TearDown() override {
    onLook = onChange = nullptr;
    EXPECT_EQ(zorlib_frm_free(ifg_, frame_), 0);
    EXPECT_EQ(zorlib_q_close(reader_), 0);
    EXPECT_EQ(zorlib_q_close(writer_), 0);
    GroupTest::TearDown();
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

  zorlib_q* reader_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorvik_qmem* memory_ = nullptr;
  zorvik_frm_desc* frame_ = nullptr;
  int looks_ = 0;
  std::vector<std::uint32_t> sleeps_;
  std::uint32_t handle_ = 0;
};

}  // namespace tarnik::test
