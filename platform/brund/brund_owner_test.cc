// brund-sim as the owner of the interface group and its queue, with the real daemon.
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/brund/group_owner.h"
#include "platform/brund/testing/whole_run.h"

namespace tarnik::brund {
namespace {

namespace fs = std::filesystem;
using namespace test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::Lt;
using ::testing::Not;

constexpr char kCaptures[] = "/var/support/tarnik";

class BrundOwner : public RunTest {
 protected:
  void SetUp() override {
    for (const auto& entry : fs::directory_iterator(kCaptures)) {
      fs::remove_all(entry);
    }
    writeFile("/etc/tarnik.conf", "");
    rules_ = file("rules", "ips 70000 WEB tcp port 80\n");
    const Finished policy = runProgram({BRUND_SIM, "--rules", rules_, "--write-policy", "/etc"});
    ASSERT_EQ(policy.ending, kSucceeded) << policy.errors;
  }
  // A capture file with this number of frames of one flow.
  [[nodiscard]] std::string input(std::size_t frames) const {
    const Bytes frame = ethernet(0x0800, ipv4({}, tcp(1025, 80)));
    return file("input.pcap", captureFile(std::vector<Bytes>(frames, frame)));
  }
  // Starts brund-sim, and returns when it has created the group and the queue.
  void begin(const std::vector<std::string>& arguments) {
    fs::remove(account_);
    start(rules_, arguments);
    EXPECT_TRUE(waitForQueue([this] { return !program_->running(); })) << errors();
  }
  void startDaemon() {
    daemon_ = std::make_unique<Process>(std::vector<std::string>{TARNIKD, "-D", "-p", "/etc"});
  }
  void stopDaemon() {
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), kSucceeded);
  }
  // Waits until the daemon has taken every frame.
  void waitForAccount() {
    EXPECT_TRUE(eventually([this] { return fs::exists(account_) || !program_->running(); }));
  }
  // Waits until the daemon has begun a capture. Its templates are in the same directory.
  static void waitForCapture() {
    const auto isCapture = [](const fs::directory_entry& entry) {
      return !entry.path().filename().native().starts_with("template");
    };
    EXPECT_TRUE(eventually([&] {
      return std::any_of(fs::directory_iterator(kCaptures), fs::directory_iterator(), isCapture);
    }));
  }
  void killBrund() {
    program_->signal(SIGKILL);
    EXPECT_EQ(program_->wait(), killedBy(SIGKILL));
  }
  void expectCreated() const {
    EXPECT_THAT(driver_.status(), AllOf(HasSubstr("group brund "), HasSubstr("queue TarnikQ ")));
  }
  void expectRemoved() const {
    EXPECT_THAT(driver_.status(), Not(HasSubstr("group brund ")));
    EXPECT_FALSE(fs::exists("/dev/zorvik/brund"));
  }
  void expectInterfaces(const std::string& first, const std::string& second) const {
    EXPECT_THAT(driver_.status(),
                AllOf(HasSubstr("interface 0 " + first + " "),
                      HasSubstr("interface 1 " + second + " "), Not(HasSubstr("interface 2 "))));
  }

  const Driver driver_;
  std::string rules_;
  std::unique_ptr<Process> daemon_;
};

// The number of frames in the capture files; all have the same length.
std::size_t recorded() {
  std::size_t frames = 0;
  for (const auto& entry : fs::directory_iterator(kCaptures)) {
    if (entry.path().extension() == ".pcap") {
      frames += (entry.file_size() - 24) / (16 + 54);
    }
  }
  return frames;
}

TEST_F(BrundOwner, GroupAndQueueExistFromStartToEnd) {
  begin({"--stay", input(100)});
  expectCreated();
  startDaemon();
  waitForAccount();
  expectCreated();
  EXPECT_TRUE(program_->running());
  stopDaemon();
  EXPECT_EQ(finish(), 0);
  EXPECT_THAT(errors(), Not(HasSubstr("the interface group stays")));
  expectRemoved();
  EXPECT_EQ(recorded(), 100u);
}

TEST_F(BrundOwner, TheNextRunTakesOverWhatTheDaemonHasOpen) {
  begin({input(100)});
  startDaemon();
  EXPECT_EQ(finish(), 0);
  // A chroot has no /proc. Elsewhere a child that the daemon is just forking may be named too.
  const std::string user = fs::exists("/proc/self")
                               ? "tarnikd (process " + std::to_string(daemon_->pid()) + ")"
                               : "another process";
  EXPECT_THAT(errors(), AllOf(HasSubstr("brund-sim: the interface group stays, in use by " + user),
                              HasSubstr(": the next brund-sim takes it over\n")));
  expectCreated();

  begin({"--quiet", input(10)});
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(errors(), "");
  expectCreated();

  begin({"--stay", input(1000)});
  waitForAccount();
  stopDaemon();
  EXPECT_EQ(finish(), 0);
  expectRemoved();
  EXPECT_EQ(recorded(), 1110u);
}

TEST_F(BrundOwner, AKilledRunIsTakenOverWhileTheDaemonContinues) {
  begin({"--speed", "100", input(3000)});
  startDaemon();
  waitForCapture();
  killBrund();
  expectCreated();
  begin({"--stay", input(1000)});
  waitForAccount();
  stopDaemon();
  EXPECT_EQ(finish(), 0) << errors();
  expectRemoved();
  EXPECT_THAT(recorded(), AllOf(Gt(1000u), Lt(4000u)));
}

TEST_F(BrundOwner, AKilledRunIsTakenOverBeforeTheDaemonStarts) {
  begin({input(100)});
  killBrund();
  expectCreated();
  begin({"--stay", input(100)});
  startDaemon();
  waitForAccount();
  stopDaemon();
  EXPECT_EQ(finish(), 0) << errors();
  expectRemoved();
  EXPECT_EQ(recorded(), 100u);
}

TEST_F(BrundOwner, AStoppedRunRemovesBoth) {
  begin({"--stay", "--speed", "100", input(3000)});
  startDaemon();
  waitForCapture();
  program_->signal(SIGTERM);
  waitForAccount();
  stopDaemon();
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(), HasSubstr("brund-sim: stopped by a signal before the end of the input\n"));
  expectRemoved();
}

TEST_F(BrundOwner, SignalEndsTheWaitForTheDaemon) {
  begin({input(1)});
  program_->signal(SIGINT);
  EXPECT_EQ(finish(), 1);
  EXPECT_THAT(errors(), AllOf(HasSubstr("no daemon listens on /run/orlo/tarnikd.sock: "),
                              HasSubstr(" (stopped by a signal)\n")));
  expectRemoved();
}

TEST_F(BrundOwner, SignalEndsTheStay) {
  begin({"--stay", input(1)});
  startDaemon();
  EXPECT_TRUE(program_->waitForErrors("brund-sim: all is done: waiting for tarnikd to end\n"));
  program_->signal(SIGINT);
  EXPECT_EQ(finish(), 0);
  EXPECT_THAT(errors(), HasSubstr("brund-sim: the interface group stays, in use by "));
  expectCreated();
  stopDaemon();
}

// ---- The group's interfaces

// Receives syslog lines.
class SystemLog {
 public:
  SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kPath);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
  }
  ~SystemLog() { unlink(kPath); }
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

  [[nodiscard]] std::string text() const {
    std::string all;
    char line[4096];
    ssize_t got = 0;
    while ((got = recv(socket_.get(), line, sizeof line, 0)) > 0) {
      all.append(line, static_cast<std::size_t>(got)).append("\n");
    }
    return all;
  }

 private:
  static constexpr char kPath[] = "/dev/log";
  OwnedFd socket_;
};

TEST_F(BrundOwner, WrongPortsAreRefused) {
  const SystemLog log;
  const std::string index = std::to_string(if_nametoindex("lo"));
  const struct {
    const char* ports;
    std::string said;
    std::string logged;  // by the library
  } cases[] = {
      {"lo", "an interface group takes pairs of interfaces, 2 to 32 in all, and not 1",
       "Invalid num_ifs 1 (0 < N <= 32 && (N % 2) == 0)"},
      {"lo,a,b", "an interface group takes pairs of interfaces, 2 to 32 in all, and not 3",
       "Invalid num_ifs 3 (0 < N <= 32 && (N % 2) == 0)"},
      {"a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a",
       "an interface group takes pairs of interfaces, 2 to 32 in all, and not 34",
       "Invalid num_ifs 34 (0 < N <= 32 && (N % 2) == 0)"},
      {"lo,nosuchif0", "there is no network interface 'nosuchif0' ('ip link' lists them)",
       "Invalid kern IF 0 [if#1] failed - No such device or address"},
      {"lo,lo", "an interface group takes each interface once: 'lo'",
       "Duplicate kern IF " + index + " [if#0 & 1] failed - File exists"},
  };
  for (const auto& entry : cases) {
    start(rules_, {"--ports", entry.ports, input(1)});
    EXPECT_EQ(finish(), 1);
    EXPECT_EQ(errors(), "brund-sim: " + entry.said + "\n");
    EXPECT_THAT(log.text(), HasSubstr("Error: zorlib_ifg_create: " + entry.logged));
    expectRemoved();
  }
}

// The interfaces of this machine, the loopback last.
std::vector<std::string> machinePorts() {
  std::vector<std::string> names;
  struct if_nameindex* const all = if_nameindex();
  for (const struct if_nameindex* entry = all; entry->if_index != 0; ++entry) {
    names.emplace_back(entry->if_name);
  }
  if_freenameindex(all);
  std::stable_partition(names.begin(), names.end(),
                        [](const std::string& name) { return name != "lo"; });
  return names;
}

struct CloseGroup {
  void operator()(zorlib_ifg* group) const noexcept { zorlib_ifg_close(group); }
};

// Creates a group of this process with the machine's first interface and the loopback.
std::unique_ptr<zorlib_ifg, CloseGroup> createOther() {
  zorvik_ifg_config config{};
  config.num_ifs = 2;
  const std::string ports[] = {machinePorts()[0], "lo"};
  for (std::uint32_t i = 0; i < 2; ++i) {
    config.ifs[i].kern_if = if_nametoindex(ports[i].c_str());
    config.ifs[i].mate = 1 - i;
    config.ifs[i].mode = ZORVIK_IF_INLINE;
  }
  zorlib_ifg* other = nullptr;
  EXPECT_EQ(zorlib_ifg_create("other", &config, &other), 0) << std::strerror(errno);
  return std::unique_ptr<zorlib_ifg, CloseGroup>(other);
}

TEST_F(BrundOwner, PortsOfAnotherGroupAreRefused) {
  const auto other = createOther();
  start(rules_, {input(1)});
  EXPECT_EQ(finish(), 1);
  EXPECT_EQ(errors(),
            "brund-sim: cannot make the interface group brund: Device or resource busy (another "
            "group has one of its interfaces: name others with --ports)\n");
  expectRemoved();
}

TEST_F(BrundOwner, AGroupThatCannotBeTakenOverStays) {
  const Finished created = runProgram({ZORVIKCTL, "create-ifg", "brund"});
  ASSERT_EQ(created.ending, kSucceeded) << created.errors;
  const auto other = createOther();
  start(rules_, {input(1)});
  EXPECT_EQ(finish(), 1);
  EXPECT_EQ(errors(),
            "brund-sim: cannot configure the interface group brund: Device or resource busy "
            "(another group has one of its interfaces: name others with --ports)\n");
  EXPECT_THAT(driver_.status(), HasSubstr("group brund "));
}

TEST_F(BrundOwner, PortsAreChosen) {
  const std::vector<std::string> all = machinePorts();
  EXPECT_THAT(choosePorts(""), ElementsAre(all[0], all[1]));
  EXPECT_THAT(choosePorts(all[0]), ElementsAre(all[0], all[1]));
  EXPECT_THAT(choosePorts(all[1]), ElementsAre(all[1], all[0]));
  EXPECT_THAT(choosePorts("lo"), ElementsAre("lo", all[0]));
  begin({input(1)});
  expectInterfaces(all[0], all[1]);
  killBrund();
}

TEST_F(BrundOwner, PortsAreNamed) {
  const std::vector<std::string> all = machinePorts();
  begin({"--ports", all[1] + ",lo", input(1)});
  expectInterfaces(all[1], "lo");
  killBrund();
  // A run that takes over changes them.
  begin({"--ports", all[0] + "," + all[1], input(1)});
  EXPECT_TRUE(program_->waitForErrors("waiting up to 30 seconds"));
  expectInterfaces(all[0], all[1]);
  killBrund();
}

TEST_F(BrundOwner, TheLoopbackAloneIsNotAPair) {
  const std::string path = input(1);
  int error = 0;
  std::thread elsewhere([&] {  // in a new network namespace
    error = unshare(CLONE_NEWNET) == 0 ? 0 : errno;
    if (error == 0) {
      start(rules_, {path});
    }
  });
  elsewhere.join();
  if (error != 0) {
    GTEST_SKIP() << "cannot create a network namespace here: " << std::strerror(error);
  }
  EXPECT_EQ(finish(), 1);
  EXPECT_EQ(errors(),
            "brund-sim: the interface group takes a pair of network interfaces, and here is only "
            "lo: make a pair (ip link add port0 type veth peer name port1) or name one with "
            "--ports\n");
  expectRemoved();
}

}  // namespace
}  // namespace tarnik::brund
