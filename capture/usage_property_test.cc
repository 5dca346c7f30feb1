// Whatever several processes do to the capture directory, the ledger agrees with the scan.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <random>
#include <vector>

#include "base/owned.h"
#include "capture/testing/files.h"
#include "capture/testing/usage.h"

namespace {
int listings = 0;  // of directories, by this process
}

// In the place of the system library's.
extern "C" DIR* opendir(const char* path) {
  static auto* const real = reinterpret_cast<decltype(&opendir)>(::dlsym(RTLD_NEXT, "opendir"));
  ++listings;
  return real(path);
}

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;

using Number = std::mt19937::result_type;

// One process's share of the disorder. Most operations fail now and then, which is as good.
class Vandal {
 public:
  explicit Vandal(Number seed) : random_(seed) {}

  void act() {
    static const std::vector<void (Vandal::*)()> kActs = {
        &Vandal::write,         &Vandal::write,    &Vandal::append,  &Vandal::append,
        &Vandal::truncate,      &Vandal::rename,   &Vandal::rename,  &Vandal::exchange,
        &Vandal::link,          &Vandal::link,     &Vandal::symlink, &Vandal::makeDirectory,
        &Vandal::fillDirectory, &Vandal::remove,   &Vandal::remove,  &Vandal::hold,
        &Vandal::holdNew,       &Vandal::useHeld,  &Vandal::useHeld, &Vandal::useHeld,
        &Vandal::changeMode,    &Vandal::neighbour};
    static const std::vector<void (Vandal::*)()> kRareActs = {
        &Vandal::replaceDirectory, &Vandal::putBack, &Vandal::emptyAnew, &Vandal::becomeLink};
    if (pick(60) == 0) {
      (this->*kRareActs[pick(kRareActs.size())])();
    } else {
      (this->*kActs[pick(kActs.size())])();
    }
  }

 private:
  std::size_t pick(std::size_t count) { return random_() % count; }

  std::string inside() {
    static const std::array<const char*, 10> kNames = {
        "a.pcap", "b.pcap", "c.pcap.info", "d", "e.info", "1f", "2f", "g.pcap", "h", "i"};
    return kCaptureDir + std::string(kNames[pick(kNames.size())]);
  }
  std::string outside() { return "/var/other/" + std::to_string(pick(5)); }
  std::string old() { return "/var/other/old" + std::to_string(pick(2)); }
  std::string anywhere() {
    switch (pick(8)) {
      case 0:
        return old() + inside().substr(std::string(kCaptureDir).size() - 1);
      case 1:
      case 2:
        return outside();
      default:
        return inside();
    }
  }
  std::string content() { return std::string(pick(3000), 'x'); }
  void put(const std::string& path, int flags) {
    const OwnedFd fd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | flags, 0666));
    const std::string bytes = content();
    (void)!::write(fd.get(), bytes.data(), bytes.size());
  }

  void write() { put(anywhere(), O_CREAT | O_TRUNC); }
  void append() { put(anywhere(), O_APPEND); }
  void truncate() { (void)!::truncate(anywhere().c_str(), static_cast<off_t>(pick(5000))); }
  void rename() { (void)!::rename(anywhere().c_str(), anywhere().c_str()); }
  void exchange() {
    ::renameat2(AT_FDCWD, inside().c_str(), AT_FDCWD, anywhere().c_str(), RENAME_EXCHANGE);
  }
  void link() { (void)!::link(anywhere().c_str(), anywhere().c_str()); }
  void symlink() {
    (void)!::symlink(pick(3) == 0 ? "/var/other/nothing" : anywhere().c_str(), inside().c_str());
  }
  void makeDirectory() { ::mkdir(inside().c_str(), 0777); }
  void fillDirectory() { put(inside() + "/" + std::to_string(pick(20)), O_CREAT); }
  void remove() {
    std::error_code error;
    fs::remove_all(anywhere(), error);
  }
  void hold() {
    held_[pick(held_.size())].reset(::open(anywhere().c_str(), O_RDWR | O_APPEND | O_NONBLOCK));
  }
  // A file that has its name only once it is open.
  void holdNew() {
    OwnedFd& fd = held_[pick(held_.size())];
    fd.reset(::open(pick(2) == 0 ? kCaptureDir : "/var/other", O_RDWR | O_TMPFILE, 0666));
    const std::string path = "/proc/self/fd/" + std::to_string(fd.get());
    ::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, anywhere().c_str(), AT_SYMLINK_FOLLOW);
  }
  void useHeld() {
    const int fd = held_[pick(held_.size())].get();
    const std::string bytes = content();
    switch (pick(3)) {
      case 0:
        (void)!::ftruncate(fd, static_cast<off_t>(pick(5000)));
        break;
      case 1:
        ::fallocate(fd, 0, 0, static_cast<off_t>(pick(8000) + 1));
        break;
      default:
        (void)!::write(fd, bytes.data(), bytes.size());
    }
  }
  void changeMode() { ::chmod(anywhere().c_str(), 0600); }
  void neighbour() {
    const std::string path = "/var/support/" + std::to_string(pick(10));
    if (pick(2) == 0) {
      put(path, O_CREAT);
    } else {
      ::unlink(path.c_str());
    }
  }

  void replaceDirectory() {
    (void)!::rename("/var/support/tarnik", old().c_str());
    if (pick(3) != 0) {
      ::mkdir("/var/support/tarnik", 0777);
    }
  }
  void putBack() {
    ::renameat2(AT_FDCWD, old().c_str(), AT_FDCWD, "/var/support/tarnik", RENAME_EXCHANGE);
    (void)!::rename(old().c_str(), "/var/support/tarnik");
  }
  void emptyAnew() {
    std::error_code error;
    fs::remove_all("/var/support/tarnik", error);
    ::mkdir("/var/support/tarnik", 0777);
  }
  void becomeLink() {
    std::error_code error;
    fs::remove_all("/var/support/tarnik", error);
    (void)!::symlink(old().c_str(), "/var/support/tarnik");
  }

  std::mt19937 random_;
  std::array<OwnedFd, 4> held_;
};

// A process that acts when it is told to, and says when it is done.
class Worker {
 public:
  explicit Worker(Number seed) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    process_ = ::fork();
    if (process_ == 0) {
      ::close(ends[0]);
      serve(ends[1], seed);
    }
    ::close(ends[1]);
    end_.reset(ends[0]);
  }
  ~Worker() {
    end_.reset();
    ::waitpid(process_, nullptr, 0);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void begin(Number acts) {
    EXPECT_EQ(::write(end_.get(), &acts, sizeof acts), static_cast<ssize_t>(sizeof acts));
  }
  [[nodiscard]] bool done(bool wait) {
    char answer = 0;
    return ::recv(end_.get(), &answer, 1, wait ? 0 : MSG_DONTWAIT) == 1;
  }

 private:
  [[noreturn]] static void serve(int end, Number seed) {
    Vandal vandal(seed);
    Number acts = 0;
    while (::read(end, &acts, sizeof acts) == static_cast<ssize_t>(sizeof acts)) {
      while (acts-- > 0) {
        vandal.act();
      }
      (void)!::write(end, "", 1);
    }
    ::_exit(0);
  }

  pid_t process_ = -1;
  OwnedFd end_;
};

class UsagePropertyTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  UsagePropertyTest() {
    std::error_code error;
    fs::remove_all("/var/other", error);
    fs::remove_all("/var/support", error);
    fs::create_directory("/var/other");
    emptyCaptureDir();
  }
};

INSTANTIATE_TEST_SUITE_P(Seeds, UsagePropertyTest, testing::Range(1U, 13U));

TEST_P(UsagePropertyTest, LedgerAndScanAgreeAfterEachAct) {
  std::mt19937 random(GetParam());
  Worker workers[] = {Worker(random()), Worker(random()), Worker(random())};
  DiskUsage usage;
  constexpr int kSteps = 600;
  listings = 0;
  for (int step = 0; step < kSteps; ++step) {
    Worker& worker = workers[random() % std::size(workers)];
    worker.begin(random() % 4 == 0 ? random() % 20 : 1);  // sometimes much between two looks
    ASSERT_TRUE(worker.done(true));
    ASSERT_TRUE(agrees(usage)) << "step " << step;
  }
  if (::access("/proc/self/mountinfo", R_OK) == 0) {
    EXPECT_LT(listings - kSteps, kSteps * 9 / 10) << "the ledger does not list it each time";
  }
}

TEST_P(UsagePropertyTest, LedgerAndScanAgreeOnceThereIsQuiet) {
  std::mt19937 random(GetParam());
  Worker workers[] = {Worker(random()), Worker(random()), Worker(random())};
  DiskUsage usage;
  for (int round = 0; round < 5; ++round) {
    for (Worker& worker : workers) {
      worker.begin(200);
    }
    for (Worker& worker : workers) {
      while (!worker.done(false)) {  // meanwhile the ledger is read as fast as it can
        std::uint64_t bytes = 0;
        std::uint64_t files = 0;
        usage.update(bytes, files);
      }
    }
    ASSERT_TRUE(agrees(usage)) << "round " << round;
  }
}

}  // namespace
}  // namespace tarnik::test
