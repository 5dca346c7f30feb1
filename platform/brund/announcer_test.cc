#include "platform/brund/announcer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "base/testing/files.h"

namespace tarnik::brund {
namespace {

using Clock = std::chrono::steady_clock;
using Sent = Announcer::Sent;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

class AnnouncerTest : public ::testing::Test {
 protected:
  [[nodiscard]] OwnedFd listen() const {
    OwnedFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    unlink(address.sun_path);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  static Bytes receive(const OwnedFd& fd) {
    Bytes bytes(100);
    const ssize_t got = recv(fd.get(), bytes.data(), bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  test::TempDir dir_;
  const std::string path_ = dir_ / "socket";
  Announcer announcer_{path_};
};

TEST_F(AnnouncerTest, SendsMetadataRequestsWithRisingIdentifiers) {
  const OwnedFd daemon = listen();
  ASSERT_TRUE(announcer_.connect());
  for (std::uint8_t id = 1; id <= 2; ++id) {
    ASSERT_EQ(announcer_.send({0x1112131415161718, 0x2122232425262728, 0x31323334}), Sent::kSent);
    const Bytes expected = {0,    7,                                         // component
                            0,    39,                                        // length
                            0,    0,    0,    0,    0,    0,    0,    id,    // message identifier
                            0,    0,    0,    0,                             // reserved
                            0,    4,                                         // request type
                            1,                                               // a request
                            0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  // capture
                            0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21,  // flow
                            0x34, 0x33, 0x32, 0x31};                         // trigger
    EXPECT_EQ(receive(daemon), expected);
  }
}

TEST_F(AnnouncerTest, WithoutADaemonThereIsAReason) {
  EXPECT_EQ(announcer_.connect().error(), "No such file or directory");
  EXPECT_FALSE(announcer_.daemonListens());
  EXPECT_EQ(announcer_.send({1, 2, 3}), Sent::kNoDaemon);
  listen().reset();  // the socket's file remains
  EXPECT_EQ(announcer_.connect().error(), "Connection refused");
}

TEST_F(AnnouncerTest, FindsARestartedDaemon) {
  OwnedFd daemon = listen();
  ASSERT_EQ(announcer_.send({1, 2, 3}), Sent::kSent);
  daemon.reset();
  EXPECT_EQ(announcer_.send({1, 2, 3}), Sent::kNoDaemon);
  daemon = listen();
  EXPECT_TRUE(announcer_.daemonListens());
  ASSERT_EQ(announcer_.send({4, 5, 6}), Sent::kSent);
  EXPECT_EQ(receive(daemon).size(), 39u);
}

TEST_F(AnnouncerTest, WaitsForRoomInAFullSocket) {
  const OwnedFd daemon = listen();
  Sent sent = Sent::kSent;
  for (int i = 0; i < 100000 && sent == Sent::kSent; ++i) {
    sent = announcer_.send({1, 2, 3});
  }
  EXPECT_EQ(sent, Sent::kFull);
  std::thread reader([&] {
    std::this_thread::sleep_for(milliseconds(100));
    while (!receive(daemon).empty()) {
    }
  });
  const auto begin = Clock::now();
  announcer_.waitForRoom(10000);
  EXPECT_LT(Clock::now() - begin, milliseconds(5000));
  EXPECT_EQ(announcer_.send({1, 2, 3}), Sent::kSent);
  reader.join();
}

TEST_F(AnnouncerTest, WaitsUntilTheDaemonHasReceived) {
  const OwnedFd daemon = listen();
  ASSERT_EQ(announcer_.send({1, 2, 3}), Sent::kSent);
  auto begin = Clock::now();
  announcer_.waitUntilReceived(50);
  EXPECT_GE(Clock::now() - begin, milliseconds(50));
  EXPECT_EQ(receive(daemon).size(), 39u);
  begin = Clock::now();
  announcer_.waitUntilReceived(10000);
  EXPECT_LT(Clock::now() - begin, milliseconds(5000));
}

}  // namespace
}  // namespace tarnik::brund
