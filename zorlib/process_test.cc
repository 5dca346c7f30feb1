// Several processes and threads on one queue, over the driver stand-in: every frame arrives once,
// and a shutdown reaches who sleeps.
#include <vector>

#include "zorlib/testing/traffic.h"

namespace tarnik::test {
namespace {

TEST_F(ProcessTest, TwoProcessesMoveEveryFrameInOrder) {
  makeQueue(64);
  const pid_t consumer = process([&] { return consume(true); });
  const pid_t producer = process([&] { return produce(0, kMany); });
  EXPECT_EQ(statusOf(producer), 0);
  shutDownAfter(kMany);
  EXPECT_EQ(statusOf(consumer), 0);
  expectAllSeenOnce(kMany);
}

TEST_F(ProcessTest, ManyProducersAndConsumersMoveEveryFrameOnce) {
  // Larger than what is moved between two turns of a process: see the limits of the ring.
  makeQueue(1 << 20);
  constexpr std::uint64_t kEach = kMany / 10;
  std::vector<pid_t> consumers;
  std::vector<pid_t> producers;
  for (int i = 0; i < 4; ++i) {
    consumers.push_back(process([&] { return consume(false); }));
  }
  for (std::uint64_t i = 0; i < 4; ++i) {
    producers.push_back(process([&, i] { return produce(i * kEach, kEach); }));
  }
  waitUntilReady(8);
  for (const pid_t pid : producers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  shutDownAfter(4 * kEach);
  for (const pid_t pid : consumers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  expectAllSeenOnce(4 * kEach);
}

TEST_F(ProcessTest, AShutdownWakesEverySleepingReaderAtOnce) {
  makeQueue(16);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(process([&] { return consume(false); }));
  }
  waitUntilReady(3);
  ::usleep(50'000);  // they sleep by now
  const auto start = Clock::now();
  shutDownReaders();
  for (const pid_t pid : readers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace tarnik::test
