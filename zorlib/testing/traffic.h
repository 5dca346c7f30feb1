// Processes that move frames through one queue, and what they tell each other.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"
#include "zorlib/testing/processes.h"

namespace tarnik::test {

using Clock = std::chrono::steady_clock;

// What the processes tell each other.
struct Shared {
  std::atomic<std::uint64_t> written;
  std::atomic<std::uint64_t> read;
  std::atomic<std::uint64_t> invalid;
  std::atomic<int> ready;
  std::atomic<bool> stop;  // frames that a dead process held are lost: do not wait for them
  std::atomic<std::uint8_t> seen[4'000'000];
};

class ProcessTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    shared_ = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared_, MAP_FAILED);
  }
  void TearDown() override {
    ::munmap(shared_, sizeof(Shared));
    DriverTest::TearDown();
  }

  void makeQueue(std::uint32_t size) {
    zorlib_ifg* const ifg = openGroup();
    createQueue(ifg, ZORVIK_Q_APP, size);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }

  // Writes frames that carry the numbers from `first` on.
  int produce(std::uint64_t first, std::uint64_t count) const {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
    ++shared_->ready;
    for (std::uint64_t i = first; i < first + count; ++i) {
      zorvik_frm_desc* frame = nullptr;
      while (zorlib_batch_alloc(ifg, 64, &frame, 1) != 1) {
        if (errno != ENOBUFS) {
          return 2;
        }
        if (shared_->stop) {
          return 3;
        }
        ::usleep(100);  // until a consumer has freed one
      }
      std::uint8_t* const data = zorlib_ifg_frm_data(ifg, frame);
      std::memcpy(data, &i, sizeof i);
      frame->frame_size = sizeof i;
      frame->tag = i;
      if (zorlib_q_write(q, frame) != 0) {
        return 3;
      }
    }
    return zorlib_q_close(q) == 0 && zorlib_ifg_close(ifg) == 0 ? 0 : 4;
  }

  // Reads and checks frames until `read` says that all are there, or the side is shut down.
  int consume(bool inOrder) const {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
    ++shared_->ready;
    std::uint64_t expected = 0;
    for (;;) {
      zorvik_frm_desc* frame = nullptr;
      if (zorlib_q_read(q, &frame) != 0) {
        if (errno == ENXIO) {
          ++shared_->invalid;
          continue;
        }
        if (errno != ESHUTDOWN) {
          return 2;
        }
        return zorlib_q_close(q) == 0 && zorlib_ifg_close(ifg) == 0 ? 0 : 4;
      }
      const std::uint64_t tag = frame->tag;
      std::uint64_t content = 0;
      const std::uint8_t* const data = zorlib_q_frm_data(q, frame);
      std::memcpy(&content, data, sizeof content);
      if (content != tag || (inOrder && tag != expected++)) {
        return 3;
      }
      ++shared_->seen[tag];
      if (zorlib_frm_free(ifg, frame) != 0) {
        return 5;
      }
      ++shared_->read;
    }
  }

  // Until so many processes have opened the queue. Opening ends a shutdown, so one must not come
  // before.
  void waitUntilReady(int processes) {
    while (shared_->ready < processes) {
      ::usleep(1000);
    }
  }

  // Ends the consumers once `count` frames have been read.
  void shutDownAfter(std::uint64_t count) {
    const auto limit = Clock::now() + std::chrono::seconds(90);
    while (shared_->read + shared_->invalid < count && Clock::now() < limit) {
      ::usleep(1000);
    }
    EXPECT_EQ(shared_->read + shared_->invalid, count);
    shutDownReaders();
  }
  static void shutDownReaders() {
    zorlib_ifg* const ifg = openGroup();
    // Opening the side ends its shutdown, shutting this handle down raises it for all.
    zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
    EXPECT_EQ(zorlib_q_shutdown(q), 0);
    EXPECT_EQ(zorlib_q_close(q), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }
  void expectAllSeenOnce(std::uint64_t count) {
    std::uint64_t lost = 0;
    std::uint64_t doubled = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      lost += shared_->seen[i] == 0 ? 1 : 0;
      doubled += shared_->seen[i] > 1 ? 1 : 0;
    }
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(doubled, 0u);
  }

  Shared* shared_ = nullptr;
};

// Sanitizers come with clang, which tells of them in this way.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define TARNIK_SLOW_PROGRAM 1
#endif
#endif
#ifdef TARNIK_SLOW_PROGRAM
inline constexpr std::uint64_t kMany = 100'000;
#else
inline constexpr std::uint64_t kMany = 1'000'000;
#endif

}  // namespace tarnik::test
