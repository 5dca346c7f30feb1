// Replays: the program, the driver stand-in, real files and sockets.
#include <signal.h>

#include <algorithm>

#include "packet/decode.h"
#include "platform/brund/testing/whole_run.h"

namespace tarnik::brund {
namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::Lt;
using ::testing::Not;
using ::testing::SizeIs;

Bytes web(std::uint16_t client, std::size_t payload, bool back = false) {
  return back ? ethernet(0x0800,
                         ipv4({.source = {10, 0, 0, 2}, .destination = {10, 0, 0, 1}},
                              tcp(80, client, 0x10, 1, 1, Bytes(payload, 2))),
                         true)
              : ethernet(0x0800, ipv4({}, tcp(client, 80, 0x10, 1, 1, Bytes(payload, 1))));
}
Bytes dns() {
  return ethernet(0x0800, ipv4({.protocol = 17}, udp(999, 53)));
}
Bytes other() {
  return ethernet(0x0806, be(1, 28));
}

class Replay : public RunTest {
 protected:
  [[nodiscard]] std::string capture(const std::string& name,
                                    const std::vector<Bytes>& frames) const {
    return file(name, captureFile(frames));
  }
  void startReplay(const std::vector<std::string>& arguments) {
    start(file("rules", "ips 70000 WEB tcp port 80\nnap 7 a-rule udp port 53\n"), arguments);
  }
  // The exit status.
  int replay(const std::vector<std::string>& arguments) {
    startReplay(arguments);
    return finish();
  }
};

TEST_F(Replay, FramesOfMatchedFlowsArriveUnchanged) {
  const Driver driver;
  Daemon daemon;
  const std::vector<Bytes> input = {other(), web(1, 10), dns(), web(2, 20), web(1, 1400, true),
                                    other(), web(1, 0)};
  EXPECT_EQ(replay({capture("a.pcap", input)}), 0) << errors();
  daemon.stop();

  const auto& frames = daemon.frames();
  ASSERT_THAT(frames, SizeIs(5));
  const std::uint64_t first = frames[0].capture;
  const struct {
    std::size_t number;
    bool answer;
    bool last;
    bool sameCapture;
  } expected[] = {{1, false, false, true},
                  {2, false, true, false},
                  {3, false, true, false},
                  {4, true, false, true},
                  {6, false, true, true}};
  for (std::size_t i = 0; i < 5; ++i) {
    const auto& [number, answer, last, sameCapture] = expected[i];
    EXPECT_EQ(frames[i].data, input[number]) << i;
    EXPECT_EQ(frames[i].wireLength, input[number].size()) << i;
    EXPECT_EQ(frames[i].seconds, 1700000000 + number) << i;
    EXPECT_EQ(frames[i].microseconds, 123456u) << i;
    EXPECT_EQ(frames[i].ifIn, answer ? 1 : 0) << i;
    EXPECT_EQ(frames[i].ifOut, answer ? 0 : 1) << i;
    EXPECT_EQ(frames[i].last, last) << i;
    EXPECT_EQ(frames[i].capture == first, sameCapture) << i;
    EXPECT_TRUE(frames[i].announced) << i;
  }
  ASSERT_THAT(daemon.metadata(), SizeIs(3));
  EXPECT_EQ(daemon.metadata().at(first).triggerId, 70000u);
  EXPECT_EQ(daemon.metadata().at(first).flowId, decode(frameOf(input[1])).key.id());
  EXPECT_EQ(daemon.metadata().at(frames[1].capture).triggerId, 7u);

  EXPECT_THAT(account(), AllOf(HasSubstr("\"seen\": 7,"), HasSubstr("\"matched\": 5,"),
                               HasSubstr("\"queued\": 5,"), HasSubstr("\"captures\": 3,"),
                               HasSubstr("\"refused\": 0,"), HasSubstr("\"balanced\": true")));
  EXPECT_THAT(errors(), HasSubstr("brund-sim: 7 frames seen, 5 matched, 5 queued in 3 captures"));
  EXPECT_THAT(errors(), EndsWith("brund-sim: all 5 matched frames were queued\n"));
}

TEST_F(Replay, FilesAreOneInput) {
  const Driver driver;
  Daemon daemon;
  EXPECT_EQ(replay({capture("a.pcap", {web(1, 10)}), capture("b.pcap", {web(1, 20), dns()})}), 0);
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(3));
  EXPECT_EQ(daemon.frames()[0].capture, daemon.frames()[1].capture);
  EXPECT_FALSE(daemon.frames()[0].last);
  EXPECT_TRUE(daemon.frames()[1].last);
}

TEST_F(Replay, EachLoopHasNewCaptures) {
  const Driver driver;
  Daemon daemon;
  EXPECT_EQ(replay({"--loop", "3", capture("a.pcap", {web(1, 1), web(1, 2)})}), 0);
  daemon.stop();
  EXPECT_THAT(daemon.metadata(), SizeIs(3));
  for (const auto& [id, metadata] : daemon.metadata()) {
    const auto frames = daemon.framesOf(id);
    ASSERT_THAT(frames, SizeIs(2));
    EXPECT_FALSE(frames[0].last);
    EXPECT_TRUE(frames[1].last);
  }
  EXPECT_THAT(account(), HasSubstr("\"seen\": 6,"));
}

// The daemon is slow. First the queue of 63 frames is full, then a smaller pool is empty.
TEST_F(Replay, WaitsForRoom) {
  std::vector<Bytes> input;
  for (std::uint16_t i = 0; i < 1500; ++i) {
    input.push_back(web(static_cast<std::uint16_t>(1 + i % 7), i % 100));
  }
  const std::string path = capture("a.pcap", input);
  for (const char* pool : {"2048x512", "2048x20"}) {
    const Driver driver(pool);
    Daemon daemon(Daemon::Reads::kFrames, 50);
    EXPECT_EQ(replay({path}), 0) << errors();
    daemon.stop();
    ASSERT_THAT(daemon.frames(), SizeIs(input.size())) << pool;
    for (std::size_t i = 0; i < input.size(); ++i) {
      ASSERT_EQ(daemon.frames()[i].data, input[i]) << i;
    }
  }
}

TEST_F(Replay, FramesThatCannotBeCarriedAreCounted) {
  const Driver driver;
  Daemon daemon;
  EXPECT_EQ(replay({capture("a.pcap", {web(1, 65481), web(1, 65482), web(2, 65490)})}), 3)
      << errors();
  EXPECT_THAT(errors(), EndsWith("brund-sim: 2 of 3 matched frames were not queued (2: longer than "
                                 "a frame of the driver)\n"));
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(1));
  EXPECT_THAT(daemon.frames()[0].data, SizeIs(65535));
  EXPECT_TRUE(daemon.frames()[0].last);  // the flow's next frame cannot be queued
  EXPECT_THAT(daemon.metadata(), SizeIs(1));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"matched\": 3,"), HasSubstr("\"queued\": 1,"),
                               HasSubstr("\"captures\": 1,"), HasSubstr("\"too large\": 2"),
                               HasSubstr("\"balanced\": true")));
}

TEST_F(Replay, EmptyFramesAreCounted) {
  const Driver driver;
  Daemon daemon;
  start(file("all", "ips 70000 ALL greater 0\n"),
        {capture("a.pcap", {Bytes(), Bytes(5, 1), Bytes()})});
  EXPECT_EQ(finish(), 3) << errors();
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(1));
  EXPECT_EQ(daemon.frames()[0].data, Bytes(5, 1));
  EXPECT_TRUE(daemon.frames()[0].last);
  EXPECT_THAT(account(), AllOf(HasSubstr("\"matched\": 3,"), HasSubstr("\"empty\": 2")));
}

TEST_F(Replay, UnreadableInputIsNamedAndTheRestPlayed) {
  const Driver driver;
  Daemon daemon;
  std::string cut = captureFile({web(1, 10), web(1, 20)});
  cut.resize(cut.size() - 1);
  const std::string cutPath = file("cut.pcap", cut);
  const std::string emptyPath = file("empty.pcap", "");
  const std::string noFrames = capture("none.pcap", {});
  const std::string missing = dir_ / "missing";
  EXPECT_EQ(replay({"--loop", "2", cutPath, missing, emptyPath, noFrames,
                    capture("good.pcap", {web(1, 30)})}),
            1);
  daemon.stop();
  EXPECT_THAT(daemon.frames(), SizeIs(4));
  const std::string lines = errors();
  EXPECT_THAT(lines, AllOf(HasSubstr("brund-sim: " + cutPath +
                                     ": after 1 frames: truncated dump file; tried to "
                                     "read 74 captured bytes, only got 73\n"),
                           HasSubstr("brund-sim: " + missing + ": No such file or directory\n"),
                           HasSubstr("brund-sim: " + emptyPath + ": empty file\n"),
                           HasSubstr("brund-sim: " + noFrames + ": no frames in it\n")));
  // Each once; the other lines are the summary, who still uses the group, and the verdict.
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 7) << lines;
}

TEST_F(Replay, RefusedRulesEndItBeforeItStarts) {
  const std::string bad = file("bad", "ips 1 A tcp\nnap 1 u tcp prot\n");
  start(bad, {"nothing.pcap"});
  EXPECT_EQ(finish(), 2);
  EXPECT_THAT(errors(), AllOf(HasSubstr(bad + ":1: ips identifier 1 is outside"),
                              HasSubstr(bad + ":2: filter 'tcp prot' does not compile")));
}

TEST_F(Replay, MissingDriverIsReportedInOneLine) {
  EXPECT_EQ(replay({capture("a.pcap", {web(1, 1)})}), 1);
  EXPECT_EQ(errors(),
            "brund-sim: cannot make the interface group brund: No such file or directory (is the "
            "driver loaded, and libzorvik.so preloaded?)\n");
}

TEST_F(Replay, MissingDaemonIsReportedAfterAWait) {
  const Driver driver;
  EXPECT_EQ(replay({"--wait", "2", capture("a.pcap", {web(1, 1)})}), 1);
  EXPECT_EQ(errors(),
            "brund-sim: waiting up to 2 seconds for tarnikd on /run/orlo/tarnikd.sock\n"
            "brund-sim: no daemon listens on /run/orlo/tarnikd.sock: No such file or directory "
            "(start tarnikd within 2 seconds of brund-sim)\n");
  EXPECT_THAT(driver.status(), Not(HasSubstr("group brund ")));
}

TEST_F(Replay, GivesUpWhenTheDaemonIsGone) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kNothing);
  startReplay({"--wait", "1", capture("a.pcap", std::vector<Bytes>(200, web(1, 10)))});
  EXPECT_TRUE(eventually([&] { return daemon.queued() == 63; }));
  EXPECT_TRUE(program_->running());
  daemon.stop();
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(), HasSubstr("the daemon has taken no frame for 1 seconds and does not listen "
                                  "on /run/orlo/tarnikd.sock any more"));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"queue full\": 1"), HasSubstr("\"balanced\": true")));
}

TEST_F(Replay, SignalEndsItWithItsAccount) {
  const Driver driver;
  Daemon daemon;
  startReplay({"--speed", "100", capture("a.pcap", std::vector<Bytes>(2000, web(1, 10)))});
  EXPECT_TRUE(eventually([&] { return daemon.taken() > 10; }));
  program_->signal(SIGTERM);
  EXPECT_EQ(finish(), 1);
  daemon.stop();
  EXPECT_THAT(errors(), HasSubstr("stopped by a signal before the end of the input"));
  EXPECT_THAT(daemon.frames(), SizeIs(AllOf(Gt(10u), Lt(1000u))));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"queued\": " + std::to_string(daemon.frames().size())),
                               HasSubstr("\"balanced\": true")));
}

TEST_F(Replay, SignalEndsAWaitForRoom) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kNothing);
  startReplay({capture("a.pcap", std::vector<Bytes>(200, web(1, 10)))});
  EXPECT_TRUE(eventually([&] { return daemon.queued() == 63; }));
  usleep(100000);  // until it waits for room
  EXPECT_EQ(interrupt(), 1);
  EXPECT_THAT(errors(), HasSubstr("63 frames are left in the queue: stopped by a signal"));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"queued\": 63,"), HasSubstr("\"stopped\": 1"),
                               HasSubstr("\"balanced\": true")));
}

}  // namespace
}  // namespace tarnik::brund
