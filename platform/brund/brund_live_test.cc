// Live capture on the loopback of the private root.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/brund/testing/whole_run.h"

namespace tarnik::brund {
namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::Each;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr std::uint16_t kPort = 48080;
constexpr std::uint16_t kClosedPort = 48081;
constexpr std::uint16_t kUdpPort = 48082;

sockaddr_in local(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

OwnedFd open(int type) {
  return OwnedFd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
}

OwnedFd openAt(int type, std::uint16_t port) {
  OwnedFd fd = open(type);
  const int yes = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  const sockaddr_in address = local(port);
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

bool connectTo(const OwnedFd& fd, std::uint16_t port) {
  const sockaddr_in address = local(port);
  return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

class Live : public RunTest {
 protected:
  // Starts to capture. False when this machine does not allow it.
  bool startLive(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"--live", "lo"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    start(file("rules",
               "ips 70000 TCP tcp portrange 48080-48081\n"
               "nap 9 datagrams udp port 48082\n"),
          arguments);
    const auto started = [this] { return errors().find("capturing from lo") != std::string::npos; };
    EXPECT_TRUE(eventually([&] { return started() || !program_->running(); }));
    return started();
  }
  // Ends the capture. Frames that were sent before are still seen. The exit status.
  int stop() {
    program_->signal(SIGINT);
    return finish();
  }
};

#define START_LIVE_OR_SKIP(...)                                       \
  if (!startLive(__VA_ARGS__)) {                                      \
    GTEST_SKIP() << "live capture is not allowed here: " << errors(); \
  }

// A request, an answer, and an orderly close from both sides.
void talk(const OwnedFd& listener) {
  const OwnedFd client = open(SOCK_STREAM);
  ASSERT_TRUE(connectTo(client, kPort));
  const OwnedFd server(accept(listener.get(), nullptr, nullptr));
  char word[6] = "hello";
  ASSERT_EQ(send(client.get(), word, sizeof word, 0), 6);
  ASSERT_EQ(recv(server.get(), word, sizeof word, 0), 6);
  ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
  ASSERT_EQ(recv(server.get(), word, sizeof word, 0), 0);
  ASSERT_EQ(shutdown(server.get(), SHUT_WR), 0);
  ASSERT_EQ(recv(client.get(), word, sizeof word, 0), 0);
}

TEST_F(Live, ConnectionsAreRecordedUpToTheirClose) {
  const Driver driver;
  Daemon daemon;
  START_LIVE_OR_SKIP();
  const OwnedFd listener = openAt(SOCK_STREAM, kPort);
  ASSERT_EQ(listen(listener.get(), 5), 0);
  talk(listener);
  talk(listener);
  EXPECT_EQ(stop(), 0) << errors();
  daemon.stop();

  ASSERT_THAT(daemon.metadata(), SizeIs(2));
  for (const auto& [capture, metadata] : daemon.metadata()) {
    EXPECT_EQ(metadata.triggerId, 70000u);
    const auto frames = daemon.framesOf(capture);
    ASSERT_GE(frames.size(), 8u);  // three to open, two with data, three or four to close
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].last, i + 1 == frames.size());
      EXPECT_TRUE(frames[i].announced);
    }
    EXPECT_EQ(frames[0].data[14 + 20 + 13], 0x02);  // SYN
  }
  EXPECT_THAT(account(), AllOf(HasSubstr("\"captures\": 2,"), HasSubstr("\"refused\": 0,"),
                               HasSubstr("\"balanced\": true")));
}

TEST_F(Live, RefusedConnectionEndsWithItsReset) {
  const Driver driver;
  Daemon daemon;
  START_LIVE_OR_SKIP();
  const OwnedFd client = open(SOCK_STREAM);
  EXPECT_FALSE(connectTo(client, kClosedPort));
  EXPECT_EQ(stop(), 0);
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(2));
  EXPECT_FALSE(daemon.frames()[0].last);
  EXPECT_TRUE(daemon.frames()[1].last);
}

TEST_F(Live, IdleFlowEndsWithoutALastFrame) {
  const Driver driver;
  Daemon daemon;
  START_LIVE_OR_SKIP({"--idle", "1"});
  const OwnedFd receiver = openAt(SOCK_DGRAM, kUdpPort);
  const OwnedFd sender = open(SOCK_DGRAM);
  ASSERT_TRUE(connectTo(sender, kUdpPort));
  ASSERT_EQ(send(sender.get(), "1", 1, 0), 1);
  ASSERT_EQ(send(sender.get(), "2", 1, 0), 1);
  usleep(2100000);  // the time is compared in whole seconds
  ASSERT_EQ(send(sender.get(), "3", 1, 0), 1);
  EXPECT_EQ(stop(), 0);
  daemon.stop();
  ASSERT_THAT(daemon.frames(), SizeIs(3));
  EXPECT_THAT(daemon.frames(), Each(Field(&Received::last, false)));
  EXPECT_EQ(daemon.frames()[0].capture, daemon.frames()[1].capture);
  EXPECT_NE(daemon.frames()[1].capture, daemon.frames()[2].capture);
  EXPECT_THAT(daemon.metadata(), SizeIs(2));
}

TEST_F(Live, NeverWaitsForTheQueue) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kNothing);
  START_LIVE_OR_SKIP();
  const OwnedFd receiver = openAt(SOCK_DGRAM, kUdpPort);
  const OwnedFd sender = open(SOCK_DGRAM);
  ASSERT_TRUE(connectTo(sender, kUdpPort));
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(send(sender.get(), "x", 1, 0), 1);
  }
  EXPECT_EQ(interrupt(), 1);
  EXPECT_THAT(account(), AllOf(HasSubstr("\"seen\": 200,"), HasSubstr("\"matched\": 200,"),
                               HasSubstr("\"queued\": 63,"), HasSubstr("\"queue full\": 137,"),
                               HasSubstr("\"balanced\": true")));
}

// Sends one datagram in each of `flows` flows.
void sendFlows(int flows, std::size_t size, useconds_t pauseUs) {
  const OwnedFd receiver = openAt(SOCK_DGRAM, kUdpPort);
  const std::string datagram(size, 'x');
  for (int i = 0; i < flows; ++i) {
    const OwnedFd sender = openAt(SOCK_DGRAM, static_cast<std::uint16_t>(10000 + i));
    ASSERT_TRUE(connectTo(sender, kUdpPort));
    ASSERT_EQ(send(sender.get(), datagram.data(), size, 0), static_cast<ssize_t>(size));
    usleep(pauseUs);
  }
}

// The daemon's socket holds about 10 announcements and the queue 63 frames.
TEST_F(Live, NewFlowsWaitUntilTheDaemonAcceptsThem) {
  const Driver driver("2048x512");
  Daemon daemon(Daemon::Reads::kFrames, 50);
  START_LIVE_OR_SKIP();
  sendFlows(2000, 10, 0);
  EXPECT_EQ(stop(), 0) << errors();
  daemon.stop();
  EXPECT_THAT(daemon.metadata(), SizeIs(2000));
  EXPECT_THAT(daemon.frames(), SizeIs(2000));
  EXPECT_THAT(daemon.frames(), Each(Field(&Received::announced, true)));
  std::uint64_t previous = 0;
  for (const Received& frame : daemon.frames()) {
    EXPECT_GT(frame.capture, previous);  // in the order of the captures
    previous = frame.capture;
  }
  EXPECT_THAT(account(), AllOf(HasSubstr("\"seen\": 2000,"), HasSubstr("\"queued\": 2000,"),
                               HasSubstr("\"captures\": 2000,"), HasSubstr("\"refused\": 0,")));
}

// The daemon takes 300 ms to accept all flows. Until then, frames of a flow that was announced wait
// too if an earlier frame of the flow does.
TEST_F(Live, FramesOfWaitingFlowsStayInOrder) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kSlowSocket, 10000);
  queueSize_ = "1000";  // so that no frame is dropped
  START_LIVE_OR_SKIP();
  const OwnedFd receiver = openAt(SOCK_DGRAM, kUdpPort);
  const std::string rounds = "012345";
  for (const char round : rounds) {
    for (std::uint16_t flow = 0; flow < 40; ++flow) {
      const OwnedFd sender = openAt(SOCK_DGRAM, static_cast<std::uint16_t>(10000 + flow));
      ASSERT_TRUE(connectTo(sender, kUdpPort));
      ASSERT_EQ(send(sender.get(), &round, 1, 0), 1);
    }
    usleep(60000);
  }
  EXPECT_EQ(stop(), 0) << errors();
  daemon.stop();
  ASSERT_THAT(daemon.metadata(), SizeIs(40));
  for (const auto& [capture, metadata] : daemon.metadata()) {
    std::string received;
    for (const Received& frame : daemon.framesOf(capture)) {
      received += static_cast<char>(frame.data.back());
    }
    EXPECT_EQ(received, rounds);
  }
}

TEST_F(Live, FlowsThatTheDaemonNeverAcceptsAreRefusedAtTheEnd) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kNothing);
  START_LIVE_OR_SKIP();
  sendFlows(300, 10, 0);
  EXPECT_EQ(interrupt(), 1);
  daemon.stop();
  const std::size_t accepted = daemon.metadata().size();
  EXPECT_GT(accepted, 0u);
  const std::string refused = std::to_string(300 - accepted);
  EXPECT_THAT(errors(), HasSubstr(refused + " frames were not announced: stopped by a signal\n"));
  EXPECT_THAT(account(),
              AllOf(HasSubstr("\"seen\": 300,"), HasSubstr("\"matched\": 300,"),
                    HasSubstr("\"queued\": " + std::to_string(accepted) + ","),
                    HasSubstr("\"stopped\": " + refused), HasSubstr("\"balanced\": true")));
}

// 2,500 frames of 60,000 bytes do not fit into 64 MiB.
TEST_F(Live, TheBacklogIsLimited) {
  const Driver driver;
  Daemon daemon(Daemon::Reads::kNothing);
  START_LIVE_OR_SKIP();
  sendFlows(2500, 60000, 200);
  EXPECT_EQ(interrupt(), 1);
  EXPECT_THAT(account(),
              AllOf(ContainsRegex("\"metadata socket full\": [1-9]"),
                    ContainsRegex("\"stopped\": [1-9][0-9]{2}"), HasSubstr("\"balanced\": true")));
}

TEST_F(Live, EndsAfterItsTime) {
  const Driver driver;
  Daemon daemon;
  START_LIVE_OR_SKIP({"--seconds", "1"});
  EXPECT_THAT(driver.status(), AllOf(HasSubstr("interface 0 lo "), HasSubstr("interface 1 ")));
  EXPECT_EQ(finish(), 0) << errors();
}

TEST_F(Live, UnknownInterfaceIsNamed) {
  const Driver driver;
  start(file("rules", "ips 70000 TCP tcp\n"), {"--live", "nosuchif0"});
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(), HasSubstr("brund-sim: nosuchif0: "));
}

}  // namespace
}  // namespace tarnik::brund
