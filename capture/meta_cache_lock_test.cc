// The lock of each operation of the metadata cache, and whether it reads the clock inside.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "capture/meta_cache.h"
#include "capture/testing/platform.h"

namespace {

std::string steps;  // 'r' read lock, 'w' write lock, 'u' unlock, 't' reading the clock
int initResult = 0;
int destroyed = 0;

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The program calls these instead of the functions of the system library.
extern "C" {

int pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) noexcept {
  EXPECT_EQ(attributes, nullptr);
  return initResult != 0
             ? initResult
             : real<decltype(pthread_rwlock_init)>("pthread_rwlock_init")(lock, nullptr);
}
int pthread_rwlock_destroy(pthread_rwlock_t* lock) noexcept {
  ++destroyed;
  return real<decltype(pthread_rwlock_destroy)>("pthread_rwlock_destroy")(lock);
}
int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
  steps += 'r';
  return real<decltype(pthread_rwlock_rdlock)>("pthread_rwlock_rdlock")(lock);
}
int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
  steps += 'w';
  return real<decltype(pthread_rwlock_wrlock)>("pthread_rwlock_wrlock")(lock);
}
int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
  steps += 'u';
  return real<decltype(pthread_rwlock_unlock)>("pthread_rwlock_unlock")(lock);
}
}

namespace tarnik {
namespace {

class MetaCacheLockTest : public testing::Test {
 protected:
  void SetUp() override {
    test::setTime(1000);
    test::onTime([] { steps += 't'; });
    steps.clear();
  }
  void TearDown() override {
    test::onTime({});
    test::useSystemTime();
  }
  template <typename Operation>
  static std::string stepsOf(Operation operation) {
    steps.clear();
    operation();
    return steps;
  }
};

TEST_F(MetaCacheLockTest, EachOperationTakesItsLockOnce) {
  TarnikMetaCache cache;
  std::uint64_t flowId = 0;
  std::uint32_t triggerId = 0;
  EXPECT_EQ(stepsOf([&] { cache.config(10); }), "");
  EXPECT_EQ(stepsOf([&] { cache.expire(); }), "") << "the cache is empty";
  EXPECT_EQ(stepsOf([&] { cache.add(1, 2, 3); }), "twu");
  EXPECT_EQ(stepsOf([&] { (void)cache.lookup(1, flowId, triggerId); }), "ru");
  EXPECT_EQ(stepsOf([&] { (void)cache.lookup(2, flowId, triggerId); }), "ru");
  EXPECT_EQ(stepsOf([&] { cache.update(1); }), "wtu");
  EXPECT_EQ(stepsOf([&] { cache.update(2); }), "wu");
  EXPECT_EQ(stepsOf([&] { cache.dump(); }), "ru");
  EXPECT_EQ(stepsOf([&] { cache.expire(); }), "twu");
  EXPECT_EQ(stepsOf([&] { cache.erase(2); }), "wu");
  EXPECT_EQ(stepsOf([&] { cache.erase(1); }), "wu");
}

TEST_F(MetaCacheLockTest, OnlyAnInitialisedLockIsDestroyed) {
  destroyed = 0;
  { const TarnikMetaCache cache; }
  EXPECT_EQ(destroyed, 1);
  initResult = EAGAIN;
  { const TarnikMetaCache cache; }
  initResult = 0;
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace tarnik
