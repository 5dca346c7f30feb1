// The capture side when memory runs out: each allocation in turn fails. No table or file is left
// half done, and everything works again afterwards.
#include <cstdlib>
#include <new>

#include "capture/testing/thread.h"

namespace {

// The number of allocations that still succeed; negative for no limit.
thread_local long allocationsLeft = -1;
thread_local bool allocationFailed = false;
bool failAllLater = false;  // otherwise only one allocation fails

bool mayAllocate() {
  if (allocationsLeft < 0) {
    return true;
  }
  if (allocationsLeft > 0) {
    --allocationsLeft;
    return true;
  }
  allocationFailed = true;
  allocationsLeft = failAllLater ? 0 : -1;
  return false;
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = mayAllocate() ? std::malloc(size) : nullptr;
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  void* const memory =
      mayAllocate() ? std::aligned_alloc(static_cast<std::size_t>(alignment), size) : nullptr;
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

namespace tarnik {
namespace {

using testing::AnyOf;
using testing::SizeIs;

class OutOfMemoryTest : public test::ThreadTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    ThreadTest::SetUp();
    failAllLater = GetParam() == std::string("AllLater");
  }
  // Runs `operation` again and again. The first allocation fails in the first run, the second one
  // in the second run, and so on until all succeed. `prepare` and `check` run before and after
  // each.
  static void failEach(const std::function<void(std::uint64_t run)>& prepare,
                       const std::function<void(std::uint64_t run)>& operation,
                       const std::function<void(std::uint64_t run)>& check) {
    std::uint64_t run = 0;
    do {
      ASSERT_LT(run, 10'000u);
      prepare(run);
      test::clearLog();
      allocationFailed = false;
      allocationsLeft = static_cast<long>(run);
      operation(run);
      allocationsLeft = -1;
      check(run);
      ++run;
    } while (allocationFailed);
    EXPECT_GT(run, 1u) << "nothing was allocated";
  }
};

TEST_P(OutOfMemoryTest, AFirstFrame) {
  int result = 0;
  std::size_t published = 0;
  const std::vector<std::uint8_t> data = test::frameData(100);
  failEach([](std::uint64_t run) { announce(run, 70000); },
           [&](std::uint64_t run) {
             result = manager.ConsumeFrame(run, test::frame(104, 100), data.data(), 0);
           },
           [&](std::uint64_t run) {
             EXPECT_THAT(result, AnyOf(0, 5));
             EXPECT_EQ(writerOf(run) != nullptr, result == 0);
             if (result == 5) {
               EXPECT_THAT(entries(), SizeIs(2 * published));
             } else {
               ++published;
               ASSERT_EQ(consumeLast(run), 0) << "which names it at last";
               EXPECT_EQ(writerOf(run), nullptr);
             }
             manager.CloseWriters();
           });
}

TEST_P(OutOfMemoryTest, AnOnlyFrame) {
  int result = 0;
  const std::vector<std::uint8_t> data = test::frameData(100);
  failEach([](std::uint64_t run) { announce(run, 70000); },
           [&](std::uint64_t run) {
             result = manager.ConsumeFrame(run, test::frame(104, 100), data.data(), kPktLastFrame);
           },
           [&](std::uint64_t) {
             EXPECT_THAT(result, AnyOf(0, 5));
             manager.CloseWriters();
           });
}

TEST_P(OutOfMemoryTest, LateMetadataAndTheEndOfCaptures) {
  for (const bool idle : {false, true}) {
    failEach(
        [&](std::uint64_t run) {
          wait(0);
          for (std::uint64_t captureId = 0; captureId < 3; ++captureId) {
            ASSERT_EQ(consume(10 * run + captureId), 0);
            announce(10 * run + captureId, 70000);
          }
          wait(121);
        },
        [&](std::uint64_t) { idle ? manager.ExpireWriters() : manager.CloseWriters(); },
        [&](std::uint64_t run) { EXPECT_EQ(writerOf(10 * run), nullptr); });
  }
}

TEST_P(OutOfMemoryTest, TheMetadataCache) {
  TarnikMetaCache cache;
  std::uint64_t flowId = 0;
  std::uint32_t triggerId = 0;
  bool thrown = false;
  failEach([&](std::uint64_t) { thrown = false; },
           [&](std::uint64_t run) {
             try {
               cache.add(run, 1, 2);
             } catch (const std::bad_alloc&) {
               thrown = true;
             }
           },
           [&](std::uint64_t run) {
             EXPECT_EQ(thrown, allocationFailed);
             EXPECT_NE(cache.lookup(run, flowId, triggerId), thrown);
           });
  failEach([&](std::uint64_t run) { cache.add(run, 1, 2); }, [&](std::uint64_t) { cache.dump(); },
           [&](std::uint64_t) {});
  failEach(
      [&](std::uint64_t run) {
        wait(0);
        cache.add(run, 1, 2);
        wait(1);
      },
      [&](std::uint64_t) { cache.expire(); },
      [&](std::uint64_t run) { EXPECT_FALSE(cache.lookup(run, flowId, triggerId)); });
}

TEST_P(OutOfMemoryTest, TheMeasurement) {
  failEach(
      [](std::uint64_t run) { test::writeFile(kCaptureDir + std::to_string(run) + ".pcap", "x"); },
      [&](std::uint64_t) { manager.UpdateUsageCounters(); },
      [&](std::uint64_t run) {
        manager.UpdateUsageCounters();
        EXPECT_EQ(manager.filesUsed(), run + 1);
      });
}

INSTANTIATE_TEST_SUITE_P(, OutOfMemoryTest, testing::Values("One", "AllLater"));

}  // namespace
}  // namespace tarnik
