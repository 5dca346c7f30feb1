// A queue of the library's, open on both sides.
#pragma once

#include <cerrno>
#include <cstdint>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {

class IoTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    open(ZORVIK_Q_APP, 8);
  }
  void TearDown() override {
    closeQueue();
    GroupTest::TearDown();
  }

  void open(std::uint32_t type, std::uint32_t size) {
    createQueue(ifg_, type, size);
    reader_ = openQueue(ifg_, ZORLIB_READ);
    writer_ = openQueue(ifg_, ZORLIB_WRITE);
    zorlib_q_set_timeout(reader_, 0);
    zorlib_q_set_timeout(writer_, 0);
    memory_ = &reader_->memory();
    clearRequests();
  }
  void closeQueue() {
    EXPECT_EQ(zorlib_q_close(reader_), 0);
    EXPECT_EQ(zorlib_q_close(writer_), 0);
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), 0);
  }
  void reopen(std::uint32_t type) {
    closeQueue();
    open(type, 8);
  }

  std::uint64_t& entry(std::uint32_t i) { return zorvik_qmem_entries(memory_)[i]; }
  // Puts an entry on the ring as a producer does, whatever it names.
  void put(std::uint64_t value) {
    entry(memory_->enqueue) = value;
    memory_->enqueue = (memory_->enqueue + 1) & memory_->mask;
  }
  void refusedByReader(int expected) {
    zorvik_frm_desc* frame = reinterpret_cast<zorvik_frm_desc*>(1);
    errno = 0;
    EXPECT_EQ(zorlib_q_read(reader_, &frame), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(frame, nullptr);
  }

  zorlib_q* reader_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorvik_qmem* memory_ = nullptr;
};

}  // namespace tarnik::test
