// The cost of a frame of an open capture, from the queue to its return to the driver: no memory and
// one system call. The capture thread, the queue and the driver are the real ones.
#include <dlfcn.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>

#include "base/testing/counted_memory.h"
#include "base/testing/traced_calls.h"
#include "capture/capture_thread.h"
#include "capture/testing/manager.h"
#include "zorlib/zorlib.h"

namespace {

constexpr unsigned kOpening = 100;  // frames that open and name the writers
constexpr unsigned kFrames = 3000;
constexpr std::uint32_t kFrameSize = 500;

// Set before the thread starts. Only the thread uses them until it posts `done`.
unsigned freed = 0;
std::uint64_t allocated = 0;
sem_t done;

void frameFreed() {
  ++freed;
  if (freed == kOpening) {
    tarnik::test::markCalls();
    allocated = tarnik::test::allocations();
  } else if (freed == kOpening + kFrames) {
    allocated = tarnik::test::allocations() - allocated;
    tarnik::test::markCalls();
    ::sem_post(&done);
  }
}

}  // namespace

// The clock of the usage scans stands still, so that none happens during the test.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&clock_gettime)>(::dlsym(RTLD_NEXT, "clock_gettime"));
  if (clock != CLOCK_MONOTONIC_COARSE) {
    return real(clock, now);
  }
  *now = {};
  return 0;
}

// Calls the function of the preloaded driver.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  using Ioctl = int (*)(int, unsigned long, ...);
  static const auto real = reinterpret_cast<Ioctl>(::dlsym(RTLD_NEXT, "ioctl"));
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  const int result = real(fd, request, argument);
  if (request == ZORVIK_FRM_FREE && result == 0) {
    frameFreed();
  }
  return result;
}

namespace tarnik {
namespace {

class ThreadCostTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(
        CaptureManager::instance().Init(test::kIssuesPath, 3600, 1 << 30, 1000, 1 << 30, 10, 1000),
        0);
    announce(1, 70000);
    announce(2, 5);  // 3 and 4 have no metadata
    freed = 0;
    allocated = 0;
    ::sem_init(&done, 0, 0);
    ASSERT_NO_FATAL_FAILURE(fill());
  }
  void TearDown() override {
    ManagerTest::TearDown();
    ASSERT_EQ(TarnikIfgOpen(), 0);
    EXPECT_EQ(TarnikIfQFini(), 0);
  }

  // Queues all frames in advance, so that the thread never waits for one.
  static void fill() {
    zorlib_ifg* group = nullptr;
    ASSERT_EQ(zorlib_ifg_open("brund", &group), 0);
    ASSERT_EQ(TarnikIfQInit2(group, kOpening + kFrames), 0);
    TarnikQ* const queue = TarnikIfCreate();
    ASSERT_EQ(queue->Open(TarnikQ::kEgress), 0);
    for (unsigned i = 0; i < kOpening + kFrames; ++i) {
      zorvik_frm_desc* frame = nullptr;
      ASSERT_EQ(zorlib_batch_alloc(group, kFrameSize, &frame, 1), 1);
      frame->wire_len = kFrameSize;
      frame->cap_len = kFrameSize;
      frame->frame_size = kFrameSize;
      ASSERT_EQ(queue->WritePkt(frame, i % 4 + 1, 0), 0);
    }
    EXPECT_EQ(queue->Close(), 0);
    TarnikIfDestroy(queue);
  }

  // Returns when the last frame is free.
  void runThread() {
    thread_.start(1000);
    while (::sem_wait(&done) != 0) {
    }
  }
  void endThread() {
    thread_.stop();
    thread_.join();
  }

 private:
  CaptureThread thread_;
};

TEST_F(ThreadCostTest, FramesAllocateNothing) {
  const std::uint64_t before = test::allocations();
  runThread();
  EXPECT_EQ(allocated, 0u);
  EXPECT_GT(test::allocations(), before) << "opening the captures allocates";
  EXPECT_TRUE(test::logLinesAboveDebug().empty());
  endThread();
}

TEST_F(ThreadCostTest, FramesMakeOneSystemCallAndTheWritesOfFullBuffers) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (!test::letCallsBeTraced()) {
      ::_exit(2);
    }
    runThread();
    ::_exit(0);
  }
  std::map<std::uint64_t, unsigned> counts = test::tracedCalls(child);
  if (counts.empty()) {
    GTEST_SKIP() << "processes cannot be traced here";
  }
  // Records of 516 bytes, buffers of 64 KiB.
  const unsigned writes = std::exchange(counts[SYS_write], 0);
  EXPECT_GE(writes, kFrames * 516 / 65536 - 4);
  EXPECT_LE(writes, kFrames * 516 / 65536 + 4);
  // For each frame the usage counters ask whether the directory changed. A write is a change: the
  // events are read and the size of the file is queried. The stand-in driver frees frames without a
  // system call.
  EXPECT_EQ(std::exchange(counts[SYS_epoll_wait], 0), kFrames);
  EXPECT_EQ(std::exchange(counts[SYS_read], 0), writes);
  EXPECT_EQ(std::exchange(counts[SYS_newfstatat], 0), writes);
  std::erase_if(counts, [](const auto& item) { return item.second == 0; });
  EXPECT_TRUE(counts.empty()) << testing::PrintToString(counts);
}

}  // namespace
}  // namespace tarnik
