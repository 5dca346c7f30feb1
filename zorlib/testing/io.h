// A queue of 8 slots, open for reading and for writing, and a frame.
#pragma once

#include <cerrno>
#include <cstdint>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {

inline constexpr std::uint32_t kSlots = 8;

class IoTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    open(ZORVIK_Q_APP);
    frame_ = allocFrame(ifg_);
    clearRequests();
  }
  void TearDown() override {
    answerNothing();
    close();
    EXPECT_EQ(zorlib_frm_free(ifg_, frame_), 0);
    GroupTest::TearDown();
  }

  // Creates the queue and opens both sides, which do not wait.
  void open(std::uint32_t type) {
    createQueue(ifg_, type, kSlots);
    reader_ = openQueue(ifg_, ZORLIB_READ);
    writer_ = openQueue(ifg_, ZORLIB_WRITE);
    zorlib_q_set_timeout(reader_, 0);
    zorlib_q_set_timeout(writer_, 0);
    memory_ = &reader_->memory();
    memory_->presq.flags = memory_->cresq.flags = 0;
    clearRequests();
  }
  void close() {
    // The driver frees the frames that are in a queue when it is removed.
    memory_->enqueue = memory_->dequeue = 0;
    for (std::uint32_t i = 0; i < kSlots; ++i) {
      entry(i) = 0;
    }
    frame_->qref_cnt = 0;
    EXPECT_EQ(zorlib_q_close(reader_), 0);
    EXPECT_EQ(zorlib_q_close(writer_), 0);
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), 0);
  }
  void reopen(std::uint32_t type) {
    close();
    open(type);
  }
  // Writes frame_ until the queue is full.
  void fill() {
    zorlib_q_set_timeout(writer_, 0);
    while (zorlib_q_write(writer_, frame_) == 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
    memory_->presq.flags = 0;
  }

  static std::uint32_t idOf(const zorvik_frm_desc* frame) {
    return std::uint32_t{frame->generation} << 24 | frame->index;
  }
  std::uint64_t& entry(std::uint32_t i) { return zorvik_qmem_entries(memory_)[i]; }
  // Stores an entry in the ring as a producer does.
  void put(std::uint64_t value) {
    entry(memory_->enqueue) = value;
    memory_->enqueue = (memory_->enqueue + 1) & memory_->mask;
  }
  int write() { return zorlib_q_write(writer_, frame_); }
  // Returns null when the read fails.
  zorvik_frm_desc* read() {
    auto* frame = reinterpret_cast<zorvik_frm_desc*>(1);
    errno = 0;
    const int result = zorlib_q_read(reader_, &frame);
    EXPECT_EQ(result, frame != nullptr ? 0 : -1);
    return frame;
  }
  void expectReadFails(int error) {
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(errno, error);
  }
  // A write that fails must not change the frame's queue references.
  void expectWriteFails(int error) {
    const int references = frame_->qref_cnt;
    errno = 0;
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(frame_->qref_cnt, references);
  }

  zorlib_q* reader_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorvik_qmem* memory_ = nullptr;
  zorvik_frm_desc* frame_ = nullptr;
};

}  // namespace tarnik::test
