// Joining the capture thread: it goes in rounds, in which the caller can show that it lives.
#include <algorithm>
#include <chrono>

#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using test::calls;
using testing::Contains;
using testing::Not;
using testing::SizeIs;

class ThreadJoinTest : public test::ThreadTest {};

// Whoever shares the queue's memory can take a shutdown back; the read waits without end.
TEST_F(ThreadJoinTest, RaisesAShutdownThatWasTakenBack) {
  announce(1, 70000);
  test::play({.reads = {read(1)}, .lostShutdowns = 2});
  thread.start(1000);
  test::awaitEndOfScript();
  thread.stop();
  unsigned rounds = 0;
  thread.join([&] { ++rounds; });
  EXPECT_GE(rounds, 2u);
  EXPECT_THAT(captures(), SizeIs(1));
  EXPECT_GE(std::ranges::count(calls(), "Shutdown"), 3);
  EXPECT_EQ(calls().back(), "TarnikIfgClose");
}

TEST_F(ThreadJoinTest, WithoutAStopItOnlyWaits) {
  test::play({});
  thread.start(1000);
  unsigned rounds = 0;
  thread.join([&] {
    EXPECT_THAT(calls(), Not(Contains("Shutdown")));
    if (++rounds == 2) {
      thread.stop();
    }
  });
  EXPECT_GE(rounds, 2u);
}

TEST_F(ThreadJoinTest, CallsBackOnceASecondWhileCapturesAreClosed) {
  run({});  // an end before this one does not count
  const auto begin = steady_clock::now();
  test::play({.onCall = [](const std::string& call) {
    if (call == "Close") {
      std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    }
  }});
  thread.start(1000);
  test::awaitEndOfScript();
  thread.stop();
  unsigned rounds = 0;
  thread.join([&] {
    ++rounds;
    EXPECT_GE(steady_clock::now() - begin, seconds(rounds));
  });
  EXPECT_GE(rounds, 2u);
}

TEST_F(ThreadJoinTest, WaitsNoRoundForAThreadThatHasEnded) {
  test::play({.ifgOpen = kQNoGroup});
  thread.start(1000);
  thread.join([] { FAIL() << "it has long ended"; });
}

}  // namespace
}  // namespace tarnik
