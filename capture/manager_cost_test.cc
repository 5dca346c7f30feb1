// What a frame costs once its capture's writer exists: no memory, and next to no system calls.
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>

#include "capture/manager_test.h"
#include "tests/support/counted_memory.h"

namespace tarnik {
namespace {

constexpr unsigned kFrames = 5000;
constexpr std::uint32_t kFrameSize = 500;

class CostTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(init({.maxFileSize = 1'000'000'000}), 0);
    announce(1, 70000);
    announce(2, 5);
    data = test::frameData(kFrameSize);
    frames(100);  // opens the writers; two have a name, two wait for theirs
  }
  // What the capture thread does with each of `count` frames, but for reading and freeing it.
  void frames(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const zorvik_frm_desc frame = test::frame(kFrameSize, kFrameSize, i, i);
      refused += manager.ConsumeFrame(i % 4 + 1, frame, data.data(), 0) != 0;
      manager.UpdateUsageCounters();
    }
  }

  std::vector<std::uint8_t> data;
  int refused = 0;
};

TEST_F(CostTest, FramesAllocateNothing) {
  const std::uint64_t before = test::allocations();
  consume(1);
  ASSERT_GT(test::allocations(), before) << "the test itself allocates for such a frame";
  const std::uint64_t start = test::allocations();
  frames(kFrames);
  EXPECT_EQ(test::allocations(), start);
  EXPECT_EQ(refused, 0);
}

// The system calls that a child makes from its stop to its end, by their numbers; nothing when it
// cannot be traced.
std::map<std::uint64_t, unsigned> systemCalls(pid_t child) {
  std::map<std::uint64_t, unsigned> counts;
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
    return counts;
  }
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  while (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 &&
         ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
    __ptrace_syscall_info info{};
    if (::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) > 0 &&
        info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      ++counts[info.entry.nr];
    }
  }
  return counts;
}

TEST_F(CostTest, FramesMakeOneSystemCallAndTheWritesOfFullBuffers) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      ::_exit(2);
    }
    ::raise(SIGSTOP);
    frames(kFrames);
    ::_exit(refused);
  }
  std::map<std::uint64_t, unsigned> counts = systemCalls(child);
  if (counts.empty()) {
    GTEST_SKIP() << "this machine lets no process be traced";
  }
  const unsigned writes = counts[SYS_write];
  // 516 bytes a record, and buffers of at least 4096.
  EXPECT_GT(writes, 0u);
  EXPECT_LE(writes, kFrames / 7);
  unsigned total = 0;
  for (const auto& [number, count] : counts) {
    total += count;
  }
  // One look for changes a frame; a write is seen as a change, which takes a few calls to follow.
  EXPECT_LE(total, kFrames + 5 * writes + 10) << testing::PrintToString(counts);
}

}  // namespace
}  // namespace tarnik
