// brund-sim as it is used: the program, the driver's stand-in, real files and sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "packet/decode.h"
#include "platform/brund/testing/run.h"

namespace tarnik::brund {
namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

class BrundSim : public RunTest {
 protected:
  std::string rules() const {
    return file("rules", "ips 70000 WEB tcp port 80\nnap 7 a-rule udp port 53\n");
  }
  // Replays with these arguments; the exit status.
  int replay(const std::vector<std::string>& arguments) {
    start(rules(), arguments);
    return finish();
  }
};

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

TEST_F(BrundSim, FramesOfMatchedFlowsArriveWhole) {
  const Driver driver;
  Daemon daemon;
  const std::vector<Bytes> input = {other(), web(1, 10), dns(), web(2, 20), web(1, 1400, true),
                                    other(), web(1, 0)};
  EXPECT_EQ(replay({file("a.pcap", captureFile(input))}), 0) << errors();
  daemon.stop();

  const auto& frames = daemon.frames();
  ASSERT_THAT(frames, SizeIs(5));
  EXPECT_THAT(frames, Each(Field(&Received::announced, true)));
  const std::size_t expected[] = {1, 2, 3, 4, 6};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(frames[i].data, input[expected[i]]) << i;
    EXPECT_EQ(frames[i].wire_len, input[expected[i]].size()) << i;
    EXPECT_EQ(frames[i].ts_sec, 1700000000 + expected[i]) << i;
    EXPECT_EQ(frames[i].ts_usec, 123456u) << i;
    const bool answer = i == 3;
    EXPECT_EQ(frames[i].if_in, answer ? 1 : 0) << i;
    EXPECT_EQ(frames[i].if_out, answer ? 0 : 1) << i;
  }
  const std::uint64_t first = frames[0].capture;
  EXPECT_EQ(frames[3].capture, first);
  EXPECT_EQ(frames[4].capture, first);
  EXPECT_FALSE(frames[0].last);
  EXPECT_TRUE(frames[1].last);  // dns
  EXPECT_TRUE(frames[2].last);  // the other client
  EXPECT_FALSE(frames[3].last);
  EXPECT_TRUE(frames[4].last);
  EXPECT_THAT(daemon.metadata(), SizeIs(3));
  EXPECT_EQ(daemon.metadata().at(first).trigger_id, 70000u);
  EXPECT_EQ(daemon.metadata().at(frames[1].capture).trigger_id, 7u);
  EXPECT_EQ(daemon.metadata().at(first).flow_id, decode(frameOf(input[1])).key.id());

  EXPECT_THAT(account(), AllOf(HasSubstr("\"seen\": 7,"), HasSubstr("\"matched\": 5,"),
                               HasSubstr("\"queued\": 5,"), HasSubstr("\"captures\": 3,"),
                               HasSubstr("\"refused\": 0,"), HasSubstr("\"balanced\": true")));
  EXPECT_THAT(errors(), HasSubstr("brund-sim: 7 frames seen, 5 matched, 5 queued in 3 captures"));
}

TEST_F(BrundSim, FilesAreOneInput) {
  const Driver driver;
  Daemon daemon;
  EXPECT_EQ(replay({file("a.pcap", captureFile({web(1, 10)})),
                    file("b.pcap", captureFile({web(1, 20), dns()}))}),
            0);
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(3));
  EXPECT_EQ(daemon.frames()[0].capture, daemon.frames()[1].capture);
  EXPECT_FALSE(daemon.frames()[0].last);
  EXPECT_TRUE(daemon.frames()[1].last);
}

TEST_F(BrundSim, LoopsHaveCapturesOfTheirOwn) {
  const Driver driver;
  Daemon daemon;
  EXPECT_EQ(replay({"--loop", "3", file("a.pcap", captureFile({web(1, 1), web(1, 2)}))}), 0);
  daemon.stop();
  EXPECT_THAT(daemon.metadata(), SizeIs(3));
  for (const auto& [capture, metadata] : daemon.metadata()) {
    const auto frames = daemon.framesOf(capture);
    ASSERT_THAT(frames, SizeIs(2));
    EXPECT_FALSE(frames[0].last);
    EXPECT_TRUE(frames[1].last);
  }
  EXPECT_THAT(account(), HasSubstr("\"seen\": 6,"));
}

// A queue of 63 frames, a pool of fewer, and a reader that takes its time.
TEST_F(BrundSim, ReplayWaitsForRoom) {
  std::vector<Bytes> input;
  for (std::uint16_t i = 0; i < 3000; ++i) {
    input.push_back(web(static_cast<std::uint16_t>(1 + i % 7), i % 100));
  }
  const std::string capture = file("a.pcap", captureFile(input));
  for (const char* pool : {"2048x512", "2048x20"}) {
    const Driver driver(pool);
    Daemon daemon(50);
    EXPECT_EQ(replay({capture}), 0) << errors();
    daemon.stop();
    ASSERT_THAT(daemon.frames(), SizeIs(input.size())) << pool;
    for (std::size_t i = 0; i < input.size(); ++i) {
      ASSERT_EQ(daemon.frames()[i].data, input[i]) << i;
    }
  }
}

TEST_F(BrundSim, WhatCannotBeCarriedIsCounted) {
  const Driver driver;
  Daemon daemon;
  std::string capture = captureFile({web(1, 65481), web(1, 65482), web(2, 65490)});
  EXPECT_EQ(replay({file("a.pcap", capture)}), 0) << errors();
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(1));
  EXPECT_THAT(daemon.frames()[0].data, SizeIs(65535));
  EXPECT_TRUE(daemon.frames()[0].last);  // the frame behind it does not count
  EXPECT_THAT(daemon.metadata(), SizeIs(1));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"matched\": 3,"), HasSubstr("\"queued\": 1,"),
                               HasSubstr("\"captures\": 1,"), HasSubstr("\"too large\": 2"),
                               HasSubstr("\"balanced\": true")));
}

TEST_F(BrundSim, EmptyFramesAreCounted) {
  const Driver driver;
  Daemon daemon;
  const std::string rule = file("r2", "ips 70000 ALL greater 0\n");
  start(rule, {file("a.pcap", captureFile({Bytes(), Bytes(5, 1), Bytes()}))});
  EXPECT_EQ(finish(), 0) << errors();
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(1));
  EXPECT_EQ(daemon.frames()[0].data, Bytes(5, 1));
  EXPECT_TRUE(daemon.frames()[0].last);
  EXPECT_THAT(account(), AllOf(HasSubstr("\"matched\": 3,"), HasSubstr("\"empty\": 2")));
}

TEST_F(BrundSim, UnreadableInputIsNamedAndTheRestPlayed) {
  const Driver driver;
  Daemon daemon;
  std::string cut = captureFile({web(1, 10), web(1, 20)});
  cut.resize(cut.size() - 1);
  const std::string cutPath = file("cut.pcap", cut);
  const std::string emptyPath = file("empty.pcap", "");
  const std::string headPath = file("head.pcap", captureFile({}));
  EXPECT_EQ(replay({"--loop", "2", cutPath, dir_.path() + "/none", emptyPath, headPath,
                    file("good.pcap", captureFile({web(1, 30)}))}),
            1);
  daemon.stop();
  EXPECT_THAT(daemon.frames(), SizeIs(4));
  EXPECT_THAT(errors(),
              AllOf(HasSubstr("brund-sim: " + cutPath +
                              ": after 1 frames: truncated dump file; tried to "
                              "read 74 captured bytes, only got 73\n"),
                    HasSubstr("brund-sim: " + dir_.path() + "/none: No such file or directory\n"),
                    HasSubstr("brund-sim: " + emptyPath + ": empty file\n"),
                    HasSubstr("brund-sim: " + headPath + ": no frames in it\n")));
  const std::string lines = errors();  // and the summary, and that the daemon still has the queue
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 6) << lines;
}

TEST_F(BrundSim, RefusedRulesEndBeforeAnythingRuns) {
  const std::string bad = file("bad", "ips 1 A tcp\nnap 1 u tcp prot\n");
  start(bad, {"nothing.pcap"});
  EXPECT_EQ(finish(), 2);
  EXPECT_THAT(errors(), AllOf(HasSubstr(bad + ":1: ips identifier 1 would be read"),
                              HasSubstr(bad + ":2: filter 'tcp prot' does not compile")));
}

TEST_F(BrundSim, NoDriverIsSaidInOneLine) {
  EXPECT_EQ(replay({file("a.pcap", captureFile({web(1, 1)}))}), 1);
  EXPECT_EQ(errors(),
            "brund-sim: cannot make the interface group brund: No such file or directory (is the "
            "driver loaded, and libzorvik.so preloaded?)\n");
}

TEST_F(BrundSim, NoDaemonIsSaidAfterAWait) {
  const Driver driver;
  EXPECT_EQ(replay({file("a.pcap", captureFile({web(1, 1)}))}), 1);
  EXPECT_EQ(errors(),
            "brund-sim: waiting up to 30 seconds for tarnikd on /run/orlo/tarnikd.sock\n"
            "brund-sim: no daemon listens on /run/orlo/tarnikd.sock: No such file or directory "
            "(start tarnikd within 30 seconds of brund-sim)\n");
  EXPECT_THAT(driver.status(), Not(HasSubstr("group brund ")));
}

std::vector<Bytes> manyFrames() {
  return std::vector<Bytes>(2000, web(1, 10));
}

TEST_F(BrundSim, DaemonThatDiesDoesNotHangAReplay) {
  const Driver driver;
  auto daemon = std::make_unique<Daemon>(0, false);
  const std::string capture = file("a.pcap", captureFile(manyFrames()));
  start(rules(), {capture});
  usleep(500000);
  EXPECT_TRUE(program_->running());
  daemon.reset();
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(),
              HasSubstr("the daemon has taken no frame for 10 seconds and does not listen on "
                        "/run/orlo/tarnikd.sock any more"));
  EXPECT_THAT(account(), HasSubstr("\"balanced\": true"));
}

TEST_F(BrundSim, SignalEndsAReplayWithItsAccount) {
  const Driver driver;
  Daemon daemon;
  const std::string capture = file("a.pcap", captureFile(manyFrames()));
  start(rules(), {"--speed", "100", capture});
  usleep(500000);
  program_->signal(SIGTERM);
  EXPECT_EQ(finish(), 1);
  daemon.stop();
  EXPECT_THAT(errors(), HasSubstr("stopped by a signal before the end of the input"));
  EXPECT_THAT(account(), HasSubstr("\"queued\": " + std::to_string(daemon.frames().size()) + ","));
  EXPECT_GT(daemon.frames().size(), 10u);
  EXPECT_LT(daemon.frames().size(), 200u);
  EXPECT_THAT(account(), HasSubstr("\"balanced\": true"));
}

TEST_F(BrundSim, SignalEndsAReplayThatWaits) {
  const Driver driver;
  Daemon daemon(0, false);
  const std::string capture = file("a.pcap", captureFile(manyFrames()));
  start(rules(), {capture});
  usleep(1500000);
  program_->signal(SIGINT);
  usleep(500000);
  program_->signal(SIGINT);  // it waits for the daemon to take the rest
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(), HasSubstr("63 frames are left in the queue: stopped by a signal"));
  EXPECT_THAT(account(), AllOf(HasSubstr("\"queued\": 63,"), HasSubstr("\"stopped\": 1"),
                               HasSubstr("\"balanced\": true")));
}

}  // namespace
}  // namespace tarnik::brund
