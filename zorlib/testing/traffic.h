// Processes that move numbered frames through one queue.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/testing/process.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {

// Memory that all processes of a test share.
struct Shared {
  std::atomic<std::uint64_t> read;
  std::atomic<std::uint64_t> invalid;
  std::atomic<int> ready;
  std::atomic<bool> stop;  // producers give up: a dead process may hold the frames they wait for
  std::atomic<std::uint8_t> seen[4'000'000];
};

// Exit statuses of the processes.
enum { kDone = 0, kLibraryFailed = 2, kWriteFailed = 3, kWrongFrame = 4 };

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

  // Writes frames with the numbers from `first` on.
  int produce(std::uint64_t first, std::uint64_t count) const {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
    ++shared_->ready;
    for (std::uint64_t i = first; i < first + count; ++i) {
      zorvik_frm_desc* frame = nullptr;
      while (zorlib_batch_alloc(ifg, 64, &frame, 1) != 1) {
        if (errno != ENOBUFS) {
          return kLibraryFailed;
        }
        if (shared_->stop) {
          return kWriteFailed;
        }
        ::usleep(100);  // until a consumer has freed a frame
      }
      std::uint8_t* const data = zorlib_ifg_frm_data(ifg, frame);
      std::memcpy(data, &i, sizeof i);
      frame->frame_size = sizeof i;
      frame->tag = i;
      if (zorlib_q_write(q, frame) != 0) {
        return kWriteFailed;
      }
    }
    return closeBoth(q, ifg);
  }

  // Reads and checks frames until its side is shut down.
  enum class Order { kAny, kWritten };
  int consume(Order order) const {
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
        return errno == ESHUTDOWN ? closeBoth(q, ifg) : kLibraryFailed;
      }
      const std::uint64_t tag = frame->tag;
      std::uint64_t content = 0;
      std::memcpy(&content, zorlib_q_frm_data(q, frame), sizeof content);
      if (content != tag || (order == Order::kWritten && tag != expected++)) {
        return kWrongFrame;
      }
      ++shared_->seen[tag];
      if (zorlib_frm_free(ifg, frame) != 0) {
        return kLibraryFailed;
      }
      ++shared_->read;
    }
  }

  // Waits until this number of processes has opened the queue. A later open would clear a shutdown.
  void waitUntilReady(int processes) const {
    EXPECT_TRUE(eventually([&] { return shared_->ready >= processes; }));
  }

  // Shuts the consumers down once `count` frames have been read.
  void shutDownAfter(std::uint64_t count) const {
    static_cast<void>(eventually([&] { return shared_->read + shared_->invalid >= count; }));
    EXPECT_EQ(shared_->read + shared_->invalid, count);
    shutDown(ZORLIB_READ);
  }
  // Shuts down one side for all handles.
  static void shutDown(std::uint32_t mode) {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, mode);
    EXPECT_EQ(zorlib_q_shutdown(q), 0);
    EXPECT_EQ(closeBoth(q, ifg), kDone);
  }

  // How many of the first `count` frames were read several times, or not at all.
  struct Faults {
    std::uint64_t lost = 0;
    std::uint64_t doubled = 0;
  };
  [[nodiscard]] Faults faults(std::uint64_t count) const {
    Faults found;
    for (std::uint64_t i = 0; i < count; ++i) {
      found.lost += shared_->seen[i] == 0 ? 1 : 0;
      found.doubled += shared_->seen[i] > 1 ? 1 : 0;
    }
    return found;
  }
  void expectAllSeenOnce(std::uint64_t count) const {
    EXPECT_EQ(faults(count).lost, 0u);
    EXPECT_EQ(faults(count).doubled, 0u);
  }

  Shared* shared_ = nullptr;

 private:
  static int closeBoth(zorlib_q* q, zorlib_ifg* ifg) {
    return zorlib_q_close(q) == 0 && zorlib_ifg_close(ifg) == 0 ? kDone : kLibraryFailed;
  }
};

// Programs with a sanitizer are slow.
#ifdef TARNIK_SANITIZED
inline constexpr std::uint64_t kMany = 100'000;
#else
inline constexpr std::uint64_t kMany = 1'000'000;
#endif

}  // namespace tarnik::test
