// Which of the daemon's calls take the process-wide mutex, and when they look at the group's
// handle.
#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "base/log.h"
#include "frameq/tarnik_if.h"
#include "frameq/tarnik_if_state.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

std::atomic<void*> watchedMutex{nullptr};
std::function<void()> beforeLock;

// Lets something happen once, when the process-wide mutex is about to be taken.
void atTheMutex(std::function<void()> happens) {
  beforeLock = std::move(happens);
  watchedMutex = capture_if::mutex.native_handle();
}

}  // namespace
}  // namespace tarnik::test

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  void* expected = mutex;
  if (tarnik::test::watchedMutex.compare_exchange_strong(expected, nullptr)) {
    tarnik::test::beforeLock();
  }
  return __real_pthread_mutex_lock(mutex);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace tarnik::test {
namespace {

class MutexTest : public DriverTest {
 protected:
  void TearDown() override {
    answerNothing();
    TarnikIfgClose();
    DriverTest::TearDown();
  }
};

TEST_F(MutexTest, TheHandleIsLookedAtAndGivenOutsideTheMutex) {
  zorlib_ifg* const mine = openGroup();
  std::unique_lock held(capture_if::mutex);
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup) << "nothing to do, and no wait";
  std::thread giver([mine] { EXPECT_EQ(TarnikIfQInit2(mine, 51), 0); });
  while (capture_if::ifg != mine) {
    std::this_thread::yield();
  }
  EXPECT_EQ(count(ZORVIK_Q_CREATE), 0) << "the queue waits for the mutex";
  EXPECT_EQ(TarnikIfgOpen(), 0) << "it is open";
  held.unlock();
  giver.join();
  EXPECT_EQ(count(ZORVIK_Q_CREATE), 1);
  EXPECT_EQ(TarnikIfQFini2(), 0);
}

TEST_F(MutexTest, OneRemovalLooksAtTheHandleBeforeItTakesTheMutexAndTheOtherAfter) {
  zorlib_ifg* const mine = openGroup();
  const auto give = [mine] { capture_if::ifg = mine; };
  atTheMutex(give);
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup);
  EXPECT_EQ(capture_if::ifg, nullptr) << "it does without the mutex";
  atTheMutex(give);
  TarnikIfgClose();
  EXPECT_EQ(capture_if::ifg, nullptr) << "and so does a close of nothing";
  atTheMutex(give);
  EXPECT_EQ(TarnikIfQInit2(mine, 51), 0);
  capture_if::ifg = nullptr;
  atTheMutex(give);
  EXPECT_EQ(TarnikIfQFini2(), 0) << "it has seen what was there once it had the mutex";
  EXPECT_EQ(count(ZORVIK_Q_REMOVE), 1);
}

// Whether another thread could take the mutex now.
bool isFree() {
  bool taken = false;
  std::thread([&taken] {
    taken = capture_if::mutex.try_lock();
    if (taken) {
      capture_if::mutex.unlock();
    }
  }).join();
  return taken;
}

TEST_F(MutexTest, WhatMakesOpensAndRemovesHoldsTheMutex) {
  int seen = 0;
  for (const unsigned long request :
       {ZORVIK_Q_CREATE, ZORVIK_Q_STAT, ZORVIK_Q_ENUM, ZORVIK_Q_REMOVE, ZORVIK_FRM_FREE}) {
    answer(request, [&seen](int, void*) -> std::optional<int> {
      ++seen;
      EXPECT_FALSE(isFree());
      return std::nullopt;
    });
  }
  EXPECT_EQ(TarnikIfQInit(51), 0);
  EXPECT_EQ(seen, 1) << "the queue's creation";
  TarnikQ* const q = TarnikIfCreate();
  EXPECT_EQ(q->Open(TarnikQ::kEgress), 0);
  EXPECT_EQ(seen, 2) << "the opening of the queue";
  EXPECT_EQ(q->Close(), 0);
  TarnikIfDestroy(q);
  EXPECT_EQ(TarnikIfQFini(), 0);
  EXPECT_EQ(seen, 4) << "the search for it and its removal";
  EXPECT_EQ(TarnikIfQInit2(openGroup(), 51), 0);
  EXPECT_EQ(TarnikIfQFini2(), 0);
  EXPECT_EQ(seen, 7);
  // The closing of a group gives its cached frames back.
  zorvik_frm_desc* frames = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  ASSERT_EQ(zorlib_map_frm_data(capture_if::ifg, &frames, &size, &payload, &size), 0);
  ASSERT_NE(allocFrame(capture_if::ifg), nullptr);
  EXPECT_EQ(zorlib_ifg_close(capture_if::ifg), 0) << "the mapping's reference";
  TarnikIfgClose();
  EXPECT_EQ(seen, 7 + 61);
  // Its opening tells nothing but a failure; an object is made without a word.
  std::filesystem::rename("/dev/zorvik/brund/ctl", "/dev/zorvik/brund/hidden");
  onLogLine([](const LogLine& line) {
    if (line.text.starts_with("Error: zorlib_")) {
      EXPECT_FALSE(isFree());
    }
  });
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(TarnikIfQInit(51), kQNoGroup);
  onLogLine(nullptr);
  std::filesystem::rename("/dev/zorvik/brund/hidden", "/dev/zorvik/brund/ctl");
  EXPECT_EQ(TarnikIfgOpen(), 0);
  bool taken = false;
  atTheMutex([&taken] { taken = true; });
  TarnikIfDestroy(TarnikIfCreate());
  EXPECT_TRUE(taken);
}

TEST_F(MutexTest, WhatIsDoneWithAnOpenQueueTakesNoMutex) {
  EXPECT_EQ(TarnikIfQInit(51), 0);
  TarnikQ* const reader = TarnikIfCreate();
  TarnikQ* const writer = TarnikIfCreate();
  EXPECT_EQ(reader->Open(TarnikQ::kIngress), 0);
  EXPECT_EQ(writer->Open(TarnikQ::kEgress), 0);
  zorvik_frm_desc* const frame = allocFrame(capture_if::ifg);
  bool taken = false;
  atTheMutex([&taken] { taken = true; });
  reader->SetTimeout(0);
  zorvik_frm_desc* read = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(writer->WritePkt(frame, 1, 4), 0);
  EXPECT_EQ(reader->ReadPkt(&read, &data, &tag, &flags), 0);
  EXPECT_EQ(writer->Write(frame), 0);
  EXPECT_EQ(reader->Read(&read), 0);
  reader->Dump(read, "frame");
  EXPECT_EQ(reader->Free(read), 0);
  EXPECT_EQ(reader->getSize(), 64);
  EXPECT_GE(reader->getFd(), 0);
  reader->Shutdown();
  EXPECT_EQ(reader->Drain(), 0);
  EXPECT_EQ(reader->Close(), 0);
  EXPECT_EQ(writer->Close(), 0);
  EXPECT_FALSE(taken);
  TarnikIfDestroy(reader);
  TarnikIfDestroy(writer);
  TarnikIfgClose();
  EXPECT_TRUE(taken);
}

TEST_F(MutexTest, ThreadsMayInitialiseAndRemoveAtATime) {
  zorlib_ifg* const mine = openGroup();
  EXPECT_EQ(TarnikIfQInit2(mine, 100), 0);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine] {
      for (int round = 0; round < 50; ++round) {
        static_cast<void>(TarnikIfQInit2(mine, 100));
        static_cast<void>(TarnikIfQFini2());
        TarnikIfDestroy(TarnikIfCreate());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(TarnikIfQInit2(mine, 100), 0);
}

}  // namespace
}  // namespace tarnik::test
