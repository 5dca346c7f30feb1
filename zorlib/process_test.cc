// Several processes on one queue: every frame arrives once, and a shutdown wakes all sleepers.
#include <deque>

#include "zorlib/testing/traffic.h"

namespace tarnik::test {
namespace {

TEST_F(ProcessTest, TwoProcessesMoveEveryFrameInOrder) {
  makeQueue(64);
  Process consumer([&] { return consume(Order::kWritten); });
  Process producer([&] { return produce(0, kMany); });
  EXPECT_EQ(producer.wait(), kSucceeded);
  shutDownAfter(kMany);
  EXPECT_EQ(consumer.wait(), kSucceeded);
  expectAllSeenOnce(kMany);
}

TEST_F(ProcessTest, FourProducersAndFourConsumersMoveEveryFrameOnce) {
  // No counter advances around the ring while a process is preempted: see the limit in ring.h.
  makeQueue(1 << 20);
  constexpr std::uint64_t kEach = kMany / 10;
  std::deque<Process> consumers;
  std::deque<Process> producers;
  for (std::uint64_t i = 0; i < 4; ++i) {
    consumers.emplace_back([&] { return consume(Order::kAny); });
    producers.emplace_back([&, i] { return produce(i * kEach, kEach); });
  }
  waitUntilReady(8);
  for (Process& each : producers) {
    EXPECT_EQ(each.wait(), kSucceeded);
  }
  shutDownAfter(4 * kEach);
  for (Process& each : consumers) {
    EXPECT_EQ(each.wait(), kSucceeded);
  }
  expectAllSeenOnce(4 * kEach);
}

TEST_F(ProcessTest, AShutdownWakesEverySleepingReader) {
  makeQueue(16);
  std::deque<Process> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] { return consume(Order::kAny); });
  }
  waitUntilReady(3);
  ::usleep(50'000);  // until they sleep
  const auto start = std::chrono::steady_clock::now();
  shutDown(ZORLIB_READ);
  for (Process& each : readers) {
    EXPECT_EQ(each.wait(), kSucceeded);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace tarnik::test
