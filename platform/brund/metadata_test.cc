#include "platform/brund/metadata.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "command/message.h"
#include "platform/brund/testing/data.h"

namespace tarnik::brund {
namespace {

using Sent = MetadataSender::Sent;

class MetadataSenderTest : public ::testing::Test {
 protected:
  std::string path() const { return dir_.path() + "/socket"; }
  OwnedFd listen() const {
    OwnedFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path().c_str());
    unlink(address.sun_path);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  static std::vector<std::uint8_t> receive(const OwnedFd& fd) {
    std::vector<std::uint8_t> bytes(100);
    const ssize_t got = recv(fd.get(), bytes.data(), bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  test::TempDir dir_;
};

TEST_F(MetadataSenderTest, SendsWithRisingIdentifiers) {
  const OwnedFd daemon = listen();
  MetadataSender sender(path());
  ASSERT_TRUE(sender.connect());
  for (std::uint8_t id = 1; id <= 2; ++id) {
    ASSERT_EQ(sender.send({5, 6, 7}), Sent::kSent);
    const auto expected = encodeMetadataRequest(id, {5, 6, 7});
    EXPECT_EQ(receive(daemon), std::vector<std::uint8_t>(expected.begin(), expected.end()));
  }
}

TEST_F(MetadataSenderTest, NobodyListens) {
  MetadataSender sender(path());
  EXPECT_FALSE(sender.connect());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(sender.daemonListens());
  EXPECT_EQ(sender.send({1, 2, 3}), Sent::kNoDaemon);
  listen().reset();  // leaves the socket's file behind
  EXPECT_FALSE(sender.connect());
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(MetadataSenderTest, FindsARestartedDaemon) {
  OwnedFd daemon = listen();
  MetadataSender sender(path());
  ASSERT_EQ(sender.send({1, 2, 3}), Sent::kSent);
  daemon.reset();
  EXPECT_EQ(sender.send({1, 2, 3}), Sent::kNoDaemon);
  daemon = listen();
  EXPECT_TRUE(sender.daemonListens());
  ASSERT_EQ(sender.send({4, 5, 6}), Sent::kSent);
  EXPECT_EQ(receive(daemon).size(), 39u);
}

TEST_F(MetadataSenderTest, FullSocketIsToldAndRoomWaitedFor) {
  const OwnedFd daemon = listen();
  MetadataSender sender(path());
  Sent sent = Sent::kSent;
  for (int i = 0; i < 100000 && sent == Sent::kSent; ++i) {
    sent = sender.send({1, 2, 3});
  }
  EXPECT_EQ(sent, Sent::kFull);
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    while (!receive(daemon).empty()) {
    }
  });
  const auto begin = std::chrono::steady_clock::now();
  sender.waitForRoom(10000);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(sender.send({1, 2, 3}), Sent::kSent);
  reader.join();
}

TEST_F(MetadataSenderTest, WaitsUntilReceived) {
  const OwnedFd daemon = listen();
  MetadataSender sender(path());
  ASSERT_EQ(sender.send({1, 2, 3}), Sent::kSent);
  auto begin = std::chrono::steady_clock::now();
  sender.waitUntilReceived(50);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_EQ(receive(daemon).size(), 39u);
  begin = std::chrono::steady_clock::now();
  sender.waitUntilReceived(10000);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
}  // namespace tarnik::brund
