// Joining the capture thread reports progress while captures are being finished.
#include <algorithm>
#include <chrono>

#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using std::chrono::milliseconds;
using test::calls;
using testing::Contains;
using testing::Not;
using testing::SizeIs;

class ThreadJoinTest : public test::ThreadTest {};

// A process that shares the queue's memory may clear a shutdown. The read then waits without end.
TEST_F(ThreadJoinTest, RepeatsAShutdownThatWasCleared) {
  announce(1, 70000);
  test::play({.reads = {read(1)}, .lostShutdowns = 2});
  thread.start(1000);
  test::awaitEndOfScript();
  thread.stop();
  thread.join();
  EXPECT_THAT(captures(), SizeIs(1));
  EXPECT_GE(std::ranges::count(calls(), "Shutdown"), 3);
  EXPECT_EQ(calls().back(), "TarnikIfgClose");
}

TEST_F(ThreadJoinTest, WithoutAStopItOnlyWaits) {
  test::play({});
  thread.start(1000);
  test::awaitEndOfScript();
  std::thread stopper([&] {
    std::this_thread::sleep_for(milliseconds(350));
    EXPECT_THAT(calls(), Not(Contains("Shutdown")));
    thread.stop();
  });
  thread.join([] { ADD_FAILURE() << "no capture was finished"; });
  stopper.join();
}

// The log line of each finished capture takes longer than two rounds.
TEST_F(ThreadJoinTest, ReportsProgressAsLongAsCapturesAreFinished) {
  run({.reads = {read(7)}});  // what was finished before does not count
  test::play({.reads = {read(1), read(2), read(3)}});
  thread.start(1000);
  test::awaitEndOfScript();
  test::onLogLine([](const test::LogLine& line) {
    if (line.text.starts_with("Warning: Finalize: Failed to determine capture name")) {
      std::this_thread::sleep_for(milliseconds(250));
    }
  });
  thread.stop();
  unsigned reports = 0;
  thread.join([&] { ++reports; });
  test::onLogLine(nullptr);
  EXPECT_GE(reports, 2u);
  EXPECT_LE(reports, 3u) << "one for each capture";
}

TEST_F(ThreadJoinTest, ReportsNothingWhileTheThreadHangs) {
  test::play({.reads = {read(1)}, .onCall = [](const std::string& call) {
                if (call == "Close") {  // after the last capture
                  std::this_thread::sleep_for(milliseconds(650));
                }
              }});
  thread.start(1000);
  test::awaitEndOfScript();
  thread.stop();
  unsigned reports = 0;
  thread.join([&] { ++reports; });
  EXPECT_LE(reports, 1u);
}

}  // namespace
}  // namespace tarnik
