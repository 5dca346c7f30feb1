// The real daemon without memory to allocate: it drops messages, fails reloads and carries on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

#include "daemon/testing/daemon_process.h"

namespace tarnik::test {
namespace {

using ::testing::Contains;

// While it exists, a process can take only 1 MiB more from the system than it has.
class MemoryLimit {
 public:
  explicit MemoryLimit(pid_t pid) : pid_(pid) {
    rlim_t pages = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> pages;
    EXPECT_EQ(::prlimit(pid, RLIMIT_AS, nullptr, &before_), 0);
    const rlimit limit{pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + (1U << 20U),
                       before_.rlim_max};
    EXPECT_EQ(::prlimit(pid, RLIMIT_AS, &limit, nullptr), 0);
  }
  ~MemoryLimit() { EXPECT_EQ(::prlimit(pid_, RLIMIT_AS, &before_, nullptr), 0); }
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  pid_t pid_;
  rlimit before_{};
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) {
      GTEST_SKIP() << "a sanitizer does not work with limited memory";
    }
  }
  MemoryTest() {
    prepareRoot();
    writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 1\n");
    // One arena: that of the capture thread has 64 MiB reserved.
    daemon_.emplace(std::vector<std::string>{"-D"}, std::vector<std::string>{"MALLOC_ARENA_MAX=1"});
    daemon_->waitFor("Daemon started");
    // The capture thread's last line. From here on only the main thread allocates.
    daemon_->waitFor("Error: threadFunc: Failed initialize the thread for capture");
    writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 0\n");
    EXPECT_EQ(reload(), 0);
    daemon_->mark();
  }
  ~MemoryTest() override { EXPECT_EQ(daemon_->stop(), kSucceeded); }

  // The status in the response to a reload request.
  static int reload() {
    const std::optional<Bytes> response = Client().ask(Message{.type = 1}.bytes());
    return response && response->size() == 21 ? response->at(20) : -1;
  }

  std::optional<DaemonProcess> daemon_;
};

TEST_F(MemoryTest, DropsMetadataThatItCannotStore) {
  const Client client;
  {
    const MemoryLimit limit(daemon_->pid());
    Bytes message = metadataMessage();
    for (unsigned i = 0; i < 65000 && daemon_->newLog().empty(); ++i) {
      message[19] = static_cast<std::uint8_t>(i);
      message[20] = static_cast<std::uint8_t>(i >> 8U);
      ASSERT_NO_FATAL_FAILURE(client.send(message));
    }
    EXPECT_EQ(daemonState(), 2);
  }
  EXPECT_THAT(daemon_->newLog(),
              Contains("Error: processMessage: Dropped a message: std::bad_alloc"));
}

// The references need more than is left, the parser does not.
TEST_F(MemoryTest, FailsAReloadThatDoesNotFit) {
  std::string policy;
  for (int number = 0; number < 50000; ++number) {
    policy += "ips.responses.object.response" + std::to_string(number) + " = tarnik:\n";
  }
  writeFile("/etc/ips.conf", policy);
  {
    const MemoryLimit limit(daemon_->pid());
    EXPECT_EQ(reload(), 12) << daemon_->errors();
    EXPECT_EQ(daemonState(), 7);
  }
  EXPECT_THAT(daemon_->newLog(), Contains("Error: onReload: Failed to reload: std::bad_alloc"));
  writeFile("/etc/ips.conf", "");
  EXPECT_EQ(reload(), 0);
  EXPECT_EQ(daemonState(), 2);
}

}  // namespace
}  // namespace tarnik::test
