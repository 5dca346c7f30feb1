// The callbacks one by one.
#include "daemon/callbacks.h"

#include <algorithm>
#include <csignal>
#include <new>

#include "daemon/loop_context.h"
#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {
namespace {

class CallbacksTest : public DaemonTest {
 protected:
  CallbacksTest() {
    context_.watchdogTimer = OrloWatchdogTimerVirtCreate();
    sdk().clear();
  }

  std::int32_t exitStatus_ = 0;
  LoopContext context_{nullptr, &exitStatus_};
};

TEST_F(CallbacksTest, TheTickleWritesTheWordAtOffset28AndNothingElse) {
  OrloWatchdogTimer timer;
  auto* const bytes = reinterpret_cast<unsigned char*>(&timer);
  std::fill_n(bytes, sizeof timer, std::uint8_t{0xee});
  context_.watchdogTimer = &timer;
  tickleWatchdog(&context_);
  for (std::size_t i = 0; i < sizeof timer; ++i) {
    EXPECT_EQ(bytes[i], i >= 28 && i < 32 ? 0 : 0xee) << i;
  }
  context_.watchdogTimer = nullptr;
  tickleWatchdog(&context_);
  tickleWatchdog(nullptr);
}

TEST_F(CallbacksTest, Restart) {
  EXPECT_EQ(onRestart(SIGUSR1, &context_), 0);
  EXPECT_EQ(exitStatus_, 2);
  EXPECT_EQ(sdk().entries(), (Record{"<6>onRestart: Restarting", "tickle", "CaptureThread::stop()",
                                     "OrloLoopQuit()"}));
}

TEST_F(CallbacksTest, Terminate) {
  for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
    sdk().clear();
    EXPECT_EQ(onTerminate(signal, &context_), 0);
    EXPECT_EQ(exitStatus_, 0);
    EXPECT_EQ(sdk().entries(), (Record{"<6>onTerminate: Received SIGTERM, exiting", "tickle",
                                       "CaptureThread::stop()", "OrloLoopQuit()"}));
  }
}

TEST_F(CallbacksTest, Timeout) {
  EXPECT_EQ(onTimeout(3, &context_), 0);
  EXPECT_EQ(sdk().entries(), Record{"tickle"});
  sdk().clear();
  OrloLogDebugLevel = 1;
  EXPECT_EQ(onTimeout(3, &context_), 0);
  EXPECT_EQ(sdk().entries(), (Record{"<7>Debug: onTimeout: tickle watchdog", "tickle"}));
}

TEST_F(CallbacksTest, CacheExpiry) {
  EXPECT_EQ(onCacheExpiry(300, nullptr), 0);
  EXPECT_EQ(sdk().entries(), Record{"TarnikMetaCache::expire()"});
  sdk().onCall = [](const std::string&) { throw std::bad_alloc(); };
  EXPECT_EQ(onCacheExpiry(300, nullptr), 0);
  EXPECT_EQ(sdk().entries().back(),
            "<3>Error: onCacheExpiry: Failed to expire metadata: std::bad_alloc");
}

TEST_F(CallbacksTest, CommandTicklesBeforeAndAfterTheMessage) {
  EXPECT_EQ(onCommand(77, &context_), 0);
  EXPECT_EQ(sdk().entries(),
            (Record{"tickle", "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                    "<3>Error: processMessage: Failed to receive message: 0", "tickle"}));
}

}  // namespace
}  // namespace tarnik::test
