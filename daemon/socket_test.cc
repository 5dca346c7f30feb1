// The real daemon's command socket: valid, invalid and very many messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "daemon/testing/daemon_process.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

const Bytes kState = Message().bytes();
const Bytes kStateResponse = {0, 7, 0, 23, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                              0, 0, 0, 0,  0,    2,    2,    0,    0,    2,    0};

class SocketTest : public ::testing::Test {
 protected:
  SocketTest() {
    prepareRoot();
    writeFile("/etc/tarnik.conf", "tarnik.debuglevel=1\n");
    daemon_.emplace();
    daemon_->waitFor("Daemon started");
    // The last line of the capture thread, which finds no driver.
    daemon_->waitFor("Error: threadFunc: Failed initialize the thread for capture");
    answers();
    writeFile("/etc/tarnik.conf", "tarnik.debuglevel=0\n");
    // Level 0 leaves only the lines that the tests cause.
    EXPECT_TRUE(client_.ask(Message{.type = 1}.bytes()).has_value());
    daemon_->mark();
  }
  ~SocketTest() override { EXPECT_EQ(daemon_->stop(), kSucceeded); }

  void answers() const { EXPECT_EQ(client_.ask(kState), kStateResponse); }

  std::optional<DaemonProcess> daemon_;
  const Client client_;
};

TEST_F(SocketTest, ResponsesByteByByte) {
  answers();
  const Bytes reload = Message{.type = 1, .id = 0xfedcba9876543210}.bytes();
  EXPECT_EQ(client_.ask(reload), (Bytes{0,    7, 0, 21, 0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32,
                                        0x10, 0, 0, 0,  0,    0,    1,    2,    0,    0}));
  writeFile("/etc/tarnik.conf", "tarnik.file.maxno=9\n");
  EXPECT_EQ(client_.ask(reload), (Bytes{0,    7, 0, 21, 0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32,
                                        0x10, 0, 0, 0,  0,    0,    1,    2,    0,    12}));
  Bytes invalid = kStateResponse;
  invalid[21] = 7;
  EXPECT_EQ(client_.ask(kState), invalid);
}

TEST_F(SocketTest, MetadataReachesTheCacheAndTheDump) {
  client_.send(metadataMessage());
  client_.send(Message{.type = 4, .length = 39, .payload = Bytes(20, 1)}.bytes());
  client_.send(Message{.type = 3}.bytes());
  answers();
  EXPECT_THAT(
      daemon_->newLog(),
      ElementsAre("tarnik.enabled=0", "tarnik.debugLevel=0", "tarnik.diskspace.bytes=53687091",
                  "tarnik.diskspace.percent=4", "tarnik.file.maxno=1000",
                  "tarnik.file.maxsize=1048576", "tarnik.file.timeout=120",
                  "tarnik.brund.timeout=300", "tarnik.brund.interval=300",
                  "tarnik.brund.qtimeout=5000000", "tarnik.brund.qsize=5000000",
                  "dump: TarnikMetaCache", "0x101010101010101: 0x101010101010101 0x1010101",
                  "0x102030405060708: 0x1112131415161718 0x21222324"));
}

TEST_F(SocketTest, EmptyAndShortDatagramsAreRefused) {
  const Bytes whole = Message{.type = 3, .flags = 0}.bytes();  // never accepted
  for (const std::size_t size : {0U, 15U, 18U, 19U}) {
    client_.send(resized(whole, size));
  }
  answers();
  const std::string from = "Error: processMessage: Invalid message from " + client_.path();
  EXPECT_THAT(daemon_->newLog(),
              ElementsAre("Error: processMessage: Failed to receive message: 0",
                          "Error: validateMessage: Component ID invalid: 0", from,
                          "Error: validateMessage: Incomplete message: exp 19 got 18", from,
                          "Error: validateMessage: Invalid flags: 00", from));
}

TEST_F(SocketTest, ALongDatagramIsCutAt4096) {
  Bytes claims = resized(Message{.length = 4097}.bytes(), 5000);
  client_.send(claims);
  claims[3] = 0;  // 4096
  EXPECT_EQ(client_.ask(claims), kStateResponse);
  EXPECT_THAT(daemon_->newLog(),
              ElementsAre("Error: validateMessage: Incomplete message: exp 4097 got 4096",
                          "Error: processMessage: Invalid message from " + client_.path()));
}

TEST_F(SocketTest, ASenderWithoutAName) {
  const Client nameless(Client::Name::kNone);
  nameless.send(kState);
  nameless.send(Message{.component = 1}.bytes());
  answers();
  EXPECT_THAT(daemon_->newLog(), ElementsAre("Error: clientResp: Socket comms failed: -89 ",
                                             "Error: processMessage: Failed to process message: 2",
                                             "Error: validateMessage: Component ID invalid: 1",
                                             "Error: processMessage: Invalid message from "));
}

TEST_F(SocketTest, ASenderThatVanishedBeforeTheAnswer) {
  Client closed;
  Client removed;
  daemon_->signal(SIGSTOP);
  closed.send(kState);
  removed.send(kState);
  closed.close(Client::SocketFile::kKeep);
  removed.close();
  daemon_->signal(SIGCONT);
  answers();
  EXPECT_THAT(daemon_->newLog(),
              ElementsAre("Error: clientResp: Socket comms failed: -111 ",
                          "Error: processMessage: Failed to process message: 2",
                          "Error: clientResp: Socket comms failed: -2 ",
                          "Error: processMessage: Failed to process message: 2"));
  std::filesystem::remove(closed.path());
}

TEST_F(SocketTest, ASenderThatNeverReadsItsAnswers) {
  const Client deaf;
  for (int i = 0; i < 5000; ++i) {
    deaf.send(kState);
  }
  answers();
  EXPECT_TRUE(daemon_->waitFor("Error: clientResp: Socket comms failed: -11 "));
}

TEST_F(SocketTest, TenThousandInABurst) {
  Bytes message = metadataMessage();
  for (unsigned i = 0; i < 10000; ++i) {
    message[19] = static_cast<std::uint8_t>(i);
    message[20] = static_cast<std::uint8_t>(i >> 8U);
    client_.send(message);
  }
  client_.send(Message{.type = 3}.bytes());
  answers();
  const std::vector<std::string> log = daemon_->newLog();
  ASSERT_EQ(log.size(), 12U + 10000U);
  EXPECT_EQ(log.at(12), "0x102030405060000: 0x1112131415161718 0x21222324");
  EXPECT_EQ(log.back(), "0x10203040506270f: 0x1112131415161718 0x21222324");
}

}  // namespace
}  // namespace tarnik::test
