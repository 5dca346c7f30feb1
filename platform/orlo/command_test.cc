// The command socket, with real clients.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/orlo/testing/child.h"

namespace orlo::test {
namespace {

constexpr char kPath[] = ORLO_RUN_DIR "/tarnikd.sock";

// A client, bound to `path` unless that is empty.
class Client {
 public:
  explicit Client(const std::string& path) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)), path_(path) {
    if (!path.empty()) {
      const sockaddr_un address = socketAddress(path);
      EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
          << std::strerror(errno);
    }
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    close(fd_);
    if (!path_.empty()) {
      unlink(path_.c_str());
    }
  }
  void send(const std::string& bytes) const {
    const sockaddr_un address = socketAddress(kPath);
    EXPECT_EQ(sendto(fd_, bytes.data(), bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(bytes.size()))
        << std::strerror(errno);
  }
  [[nodiscard]] std::string receive() const {
    char buffer[70000];
    const ssize_t length = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    return length < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(length));
  }
  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_;
  std::string path_;
};

class Command : public RunDirTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(RunDirTest::SetUp());
    ASSERT_EQ(OrloCmdInit("tarnikd", 0), 0);
  }
  void TearDown() override { OrloCmdFini(); }
};

std::string received(OrloCmdSender* sender, std::size_t size = 4096) {
  std::string buffer(size, '?');
  buffer.resize(OrloCmdRecv(buffer.data(), size, sender, 0));
  return buffer;
}

TEST_F(Command, IsAccessibleToItsOwnerOnly) {
  struct stat status {};
  ASSERT_EQ(lstat(kPath, &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(fcntl(OrloCmdFd(), F_GETFD), FD_CLOEXEC);
  EXPECT_NE(fcntl(OrloCmdFd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Command, HasModeDespiteTheUmask) {
  for (const mode_t mask : {0000u, 0022u, 0077u}) {
    OrloCmdFini();
    const mode_t before = umask(mask);
    ASSERT_EQ(OrloCmdInit("tarnikd", 0), 0);
    EXPECT_EQ(umask(before), mask);
    struct stat status {};
    ASSERT_EQ(lstat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u) << mask;
  }
}

TEST_F(Command, ReceivesADatagramAndAnswersItsSender) {
  const Client client("/tmp/client.sock");
  client.send(std::string("a\0b", 3));
  OrloCmdSender sender;
  std::memset(&sender, 0xFF, sizeof sender);
  EXPECT_EQ(received(&sender), std::string("a\0b", 3));
  EXPECT_STREQ(reinterpret_cast<const char*>(&sender) + 2, "/tmp/client.sock");
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), 6);
  EXPECT_EQ(client.receive(), "answer");
}

TEST_F(Command, FillsASenderBlockOf116Bytes) {
  EXPECT_EQ(sizeof(OrloCmdSender), 116u);
}

TEST_F(Command, ReceivesNothingWithoutWaiting) {
  OrloCmdSender sender;
  std::memset(&sender, 0x5A, sizeof sender);
  char buffer[4] = "old";
  EXPECT_EQ(OrloCmdRecv(buffer, sizeof buffer, &sender, 0), 0u);
  EXPECT_STREQ(buffer, "old");
  EXPECT_EQ(sender.address.sun_family, 0x5A5A);
}

TEST_F(Command, KeepsDatagramsSeparateAndInOrder) {
  const Client client("");
  for (const char* text : {"first", "", "third"}) {
    client.send(text);
  }
  EXPECT_EQ(received(nullptr), "first");
  EXPECT_EQ(received(nullptr), "");
  EXPECT_EQ(received(nullptr), "third");
}

TEST_F(Command, TruncatesALongDatagram) {
  const Client client("");
  client.send(std::string(5000, 'x') + "rest");
  client.send("next");
  EXPECT_EQ(received(nullptr, 4096), std::string(4096, 'x'));
  EXPECT_EQ(received(nullptr), "next");
}

TEST_F(Command, CannotAnswerASenderWithoutAName) {
  const Client client("");
  client.send("x");
  OrloCmdSender sender;
  std::memset(&sender, 0xFF, sizeof sender);
  EXPECT_EQ(received(&sender), "x");
  EXPECT_EQ(sender.address.sun_path[0], '\0');
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -EDESTADDRREQ);
}

TEST_F(Command, CannotAnswerAClosedSender) {
  OrloCmdSender sender{};
  {
    const Client client("/tmp/client.sock");
    client.send("x");
  }
  EXPECT_EQ(received(&sender), "x");
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -ENOENT);
  std::ofstream("/tmp/client.sock");  // a file took its name
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -ECONNREFUSED);
  std::filesystem::remove("/tmp/client.sock");
}

TEST_F(Command, DoesNotWaitForASenderThatDoesNotRead) {
  const Client client("/tmp/client.sock");
  client.send("x");
  OrloCmdSender sender{};
  EXPECT_EQ(received(&sender), "x");
  int result = 0;
  for (int i = 0; i < 100'000 && result >= 0; ++i) {
    result = OrloCmdResp("answer", 6, &sender);
  }
  EXPECT_EQ(result, -EAGAIN);
}

TEST_F(Command, AnswersASenderWhosePathHasFullLength) {
  const std::string path = "/tmp/" + std::string(103, 'p');  // 108 bytes, without a NUL
  const Client client(path);
  client.send("x");
  OrloCmdSender sender;
  std::memset(&sender, 0xFF, sizeof sender);
  EXPECT_EQ(received(&sender), "x");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&sender) + 2), path);
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), 6);
  EXPECT_EQ(client.receive(), "answer");
}

TEST_F(Command, AnswersASenderWithAnAbstractName) {
  const Client client("");
  const sockaddr_un family{AF_UNIX, ""};
  ASSERT_EQ(bind(client.fd(), reinterpret_cast<const sockaddr*>(&family), sizeof(sa_family_t)), 0);
  client.send("x");
  OrloCmdSender sender{};
  EXPECT_EQ(received(&sender), "x");
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), 6);
  EXPECT_EQ(client.receive(), "answer");
}

TEST_F(Command, RefusesAnInvalidSender) {
  OrloCmdSender sender{};
  EXPECT_EQ(OrloCmdResp("answer", 6, nullptr), -EDESTADDRREQ);
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -EDESTADDRREQ);
  sender.addressLength = 2;
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -EDESTADDRREQ);
  sender.addressLength = sizeof sender.address + 1;
  EXPECT_EQ(OrloCmdResp("answer", 6, &sender), -EINVAL);
}

TEST_F(Command, SendsALongAnswer) {
  const Client client("/tmp/client.sock");
  client.send("x");
  OrloCmdSender sender{};
  EXPECT_EQ(received(&sender), "x");
  const std::string answer(UINT16_MAX, 'y');
  EXPECT_EQ(OrloCmdResp(answer.data(), UINT16_MAX, &sender), UINT16_MAX);
  EXPECT_EQ(client.receive(), answer);
}

TEST_F(Command, ServesABurstThroughTheLoop) {
  EXPECT_EQ(inChild([] {
              constexpr int kDatagrams = 10'000;
              struct Count {
                int good = 0;
              } count;
              const auto onReadable = [](int fd, void* userData) {
                EXPECT_EQ(fd, OrloCmdFd());
                auto* const counted = static_cast<Count*>(userData);
                if (received(nullptr) == std::to_string(counted->good)) {
                  ++counted->good;
                }
                if (counted->good == kDatagrams) {
                  OrloLoopQuit();
                }
                return 0;
              };
              ASSERT_EQ(OrloLoopFdAdd(OrloCmdFd(), onReadable, &count), 0);
              std::thread sender([] {
                const Client client("");
                for (int i = 0; i < kDatagrams; ++i) {
                  client.send(std::to_string(i));
                }
              });
              EXPECT_EQ(OrloLoop(), 0);
              sender.join();
              EXPECT_EQ(count.good, kDatagrams);
            }),
            kSucceeded);
}

}  // namespace
}  // namespace orlo::test
