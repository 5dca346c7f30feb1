// Which calls lock the process-wide mutex, and when they read the group's handle.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "frameq/testing/tarnik_q.h"

namespace tarnik::test {
namespace {

std::atomic<void*> watchedMutex{nullptr};
std::function<void()> onLock;

// Calls `action` once, before the next lock of the process-wide mutex.
void beforeLock(std::function<void()> action) {
  onLock = std::move(action);
  watchedMutex = capture_if::mutex.native_handle();
}

}  // namespace
}  // namespace tarnik::test

// The thread sanitizer's own function, if the program has one: it must see each lock.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" [[gnu::weak]] int __interceptor_pthread_mutex_lock(pthread_mutex_t* mutex);

// The dynamic linker prefers this function to libc's.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real =
      __interceptor_pthread_mutex_lock != nullptr
          ? &__interceptor_pthread_mutex_lock
          : reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  void* expected = mutex;
  if (tarnik::test::watchedMutex.compare_exchange_strong(expected, nullptr)) {
    tarnik::test::onLock();
  }
  return real(mutex);
}

namespace tarnik::test {
namespace {

class MutexTest : public TarnikIfTest {};

TEST_F(MutexTest, ReadsAndSetsTheHandleOutsideTheMutex) {
  zorlib_ifg* const mine = openGroup();
  std::unique_lock held(capture_if::mutex);
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup) << "it does not wait for the mutex";
  std::thread other([mine] { EXPECT_EQ(TarnikIfQInit2(mine, 51), kQOk); });
  while (capture_if::ifg != mine) {
    std::this_thread::yield();
  }
  EXPECT_EQ(count(ZORVIK_Q_CREATE), 0) << "the request waits for the mutex";
  EXPECT_EQ(TarnikIfgOpen(), kQOk) << "the group is open";
  held.unlock();
  other.join();
  EXPECT_EQ(count(ZORVIK_Q_CREATE), 1);
  EXPECT_EQ(TarnikIfQFini2(), kQOk);
}

TEST_F(MutexTest, OnlyQFini2ReadsTheHandleUnderTheMutex) {
  zorlib_ifg* const mine = openGroup();
  const auto setHandle = [mine] { capture_if::ifg = mine; };
  beforeLock(setHandle);
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup);
  EXPECT_EQ(capture_if::ifg, nullptr) << "QFini does not lock without a handle";
  beforeLock(setHandle);
  TarnikIfgClose();
  EXPECT_EQ(capture_if::ifg, nullptr) << "nor does a close";
  beforeLock(setHandle);
  EXPECT_EQ(TarnikIfQInit2(mine, 51), kQOk);
  capture_if::ifg = nullptr;
  beforeLock(setHandle);
  EXPECT_EQ(TarnikIfQFini2(), kQOk) << "it reads the handle after the lock";
  EXPECT_EQ(count(ZORVIK_Q_REMOVE), 1);
}

// Whether another thread can lock the mutex now.
bool isUnlocked() {
  bool locked = false;
  std::thread([&locked] {
    locked = capture_if::mutex.try_lock();
    if (locked) {
      capture_if::mutex.unlock();
    }
  }).join();
  return locked;
}

TEST_F(MutexTest, CreatesOpensAndRemovesUnderTheMutex) {
  int seen = 0;
  for (const unsigned long request :
       {ZORVIK_Q_CREATE, ZORVIK_Q_STAT, ZORVIK_Q_ENUM, ZORVIK_Q_REMOVE, ZORVIK_FRM_FREE}) {
    answer(request, [&seen](int, void*) -> std::optional<int> {
      ++seen;
      EXPECT_FALSE(isUnlocked());
      return std::nullopt;
    });
  }
  EXPECT_EQ(TarnikIfQInit(51), kQOk);
  EXPECT_EQ(seen, 1) << "create";
  TarnikQ* const q = TarnikIfCreate();
  EXPECT_EQ(q->Open(TarnikQ::kEgress), kQOk);
  EXPECT_EQ(seen, 2) << "stat";
  EXPECT_EQ(q->Close(), kQOk);
  TarnikIfDestroy(q);
  EXPECT_EQ(TarnikIfQFini(), kQOk);
  EXPECT_EQ(seen, 4) << "enumerate and remove";
  EXPECT_EQ(TarnikIfQInit2(openGroup(), 51), kQOk);
  EXPECT_EQ(TarnikIfQFini2(), kQOk);
  EXPECT_EQ(seen, 7);
  // Closing a group frees its cached frames.
  zorvik_frm_desc* frames = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  ASSERT_EQ(zorlib_map_frm_data(capture_if::ifg, &frames, &size, &payload, &size), 0);
  ASSERT_NE(allocFrame(capture_if::ifg), nullptr);
  EXPECT_EQ(zorlib_ifg_close(capture_if::ifg), 0) << "the mapping's reference";
  TarnikIfgClose();
  EXPECT_EQ(seen, 7 + 61);
  // Opening a group makes no request: a failure's log line shows the moment.
  std::optional<HiddenFile> hidden("/dev/zorvik/brund/ctl");
  onLogLine([](const LogLine& line) {
    if (line.text.starts_with("Error: zorlib_")) {
      EXPECT_FALSE(isUnlocked());
    }
  });
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(TarnikIfQInit(51), kQNoGroup);
  onLogLine(nullptr);
  hidden.reset();
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  bool locked = false;
  beforeLock([&locked] { locked = true; });
  TarnikIfDestroy(TarnikIfCreate());
  EXPECT_TRUE(locked) << "by TarnikIfCreate";
}

TEST_F(MutexTest, OperationsOfAnOpenQueueDoNotLockTheMutex) {
  EXPECT_EQ(TarnikIfQInit(51), kQOk);
  TarnikQ* const reader = TarnikIfCreate();
  TarnikQ* const writer = TarnikIfCreate();
  EXPECT_EQ(reader->Open(TarnikQ::kIngress), kQOk);
  EXPECT_EQ(writer->Open(TarnikQ::kEgress), kQOk);
  zorvik_frm_desc* const frame = allocFrame(capture_if::ifg);
  bool locked = false;
  beforeLock([&locked] { locked = true; });
  reader->SetTimeout(0);
  zorvik_frm_desc* read = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(writer->WritePkt(frame, 1, 4), kQOk);
  EXPECT_EQ(reader->ReadPkt(&read, &data, &tag, &flags), kQOk);
  EXPECT_EQ(writer->Write(frame), kQOk);
  EXPECT_EQ(reader->Read(&read), kQOk);
  reader->Dump(read, "frame");
  EXPECT_EQ(reader->Free(read), kQOk);
  EXPECT_EQ(reader->getSize(), 64);
  EXPECT_GE(reader->getFd(), 0);
  reader->Shutdown();
  EXPECT_EQ(reader->Drain(), kQOk);
  EXPECT_EQ(reader->Close(), kQOk);
  EXPECT_EQ(writer->Close(), kQOk);
  EXPECT_FALSE(locked);
  TarnikIfDestroy(reader);
  TarnikIfDestroy(writer);
  TarnikIfgClose();
  EXPECT_TRUE(locked);
}

TEST_F(MutexTest, ThreadsMayCreateAndRemoveTheQueueAtTheSameTime) {
  zorlib_ifg* const mine = openGroup();
  EXPECT_EQ(TarnikIfQInit2(mine, 100), kQOk);
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine] {
      for (int round = 0; round < 50; ++round) {
        static_cast<void>(TarnikIfQInit2(mine, 100));
        static_cast<void>(TarnikIfQFini2());
        TarnikIfDestroy(TarnikIfCreate());
      }
    });
  }
  threads.clear();  // joins them
  EXPECT_EQ(TarnikIfQInit2(mine, 100), kQOk);
}

}  // namespace
}  // namespace tarnik::test
