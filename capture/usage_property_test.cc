// Random changes to the capture directory: the updates agree with the scan, at once for what the
// kernel reports and within a second for everything else.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <random>
#include <thread>
#include <vector>

#include "base/owned.h"
#include "capture/testing/usage.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;

using Number = std::mt19937::result_type;

// Makes random changes to a few files in and outside the directory, and to the directory itself.
// Many of them fail, as when a file does not exist.
class Changer {
 public:
  explicit Changer(Number seed) : random_(seed) {}

  // A change that the kernel reports.
  void changeReported() {
    static const std::vector<Act> kActs = {
        &Changer::write,   &Changer::write,         &Changer::append,     &Changer::append,
        &Changer::rename,  &Changer::rename,        &Changer::truncate,   &Changer::exchange,
        &Changer::remove,  &Changer::remove,        &Changer::hold,       &Changer::useHeld,
        &Changer::useHeld, &Changer::makeDirectory, &Changer::changeMode,
    };
    static const std::vector<Act> kRareActs = {&Changer::replaceDirectory, &Changer::putBack};
    act(kActs, kRareActs);
  }
  void changeAnything() {
    static const std::vector<Act> kActs = {
        &Changer::changeReported, &Changer::changeReported, &Changer::changeReported,
        &Changer::link,           &Changer::symlink,        &Changer::fillDirectory,
        &Changer::holdNew,        &Changer::useHeld,        &Changer::neighbour,
    };
    static const std::vector<Act> kRareActs = {&Changer::emptyAnew, &Changer::becomeLink};
    act(kActs, kRareActs);
  }

 private:
  using Act = void (Changer::*)();

  void act(const std::vector<Act>& acts, const std::vector<Act>& rareActs) {
    (this->*(pick(60) == 0 ? rareActs[pick(rareActs.size())] : acts[pick(acts.size())]))();
  }
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
  void makeDirectory() { ::mkdir(inside().c_str(), 0777); }
  void changeMode() { ::chmod(anywhere().c_str(), 0600); }
  void remove() {
    std::error_code ignored;
    fs::remove_all(anywhere(), ignored);
  }
  void hold() {
    held_[pick(held_.size())].reset(::open(anywhere().c_str(), O_RDWR | O_APPEND | O_NONBLOCK));
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

  void link() { (void)!::link(anywhere().c_str(), anywhere().c_str()); }
  void symlink() {
    (void)!::symlink(pick(3) == 0 ? "/var/other/nothing" : anywhere().c_str(), inside().c_str());
  }
  void fillDirectory() { put(inside() + "/" + std::to_string(pick(20)), O_CREAT); }
  // A file that gets its name after it was opened.
  void holdNew() {
    OwnedFd& fd = held_[pick(held_.size())];
    fd.reset(::open(pick(2) == 0 ? kCaptureDir : "/var/other", O_RDWR | O_TMPFILE, 0666));
    const std::string path = "/proc/self/fd/" + std::to_string(fd.get());
    ::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, anywhere().c_str(), AT_SYMLINK_FOLLOW);
  }
  void neighbour() {
    const std::string path = "/var/support/" + std::to_string(pick(10));
    if (pick(2) == 0) {
      put(path, O_CREAT);
    } else {
      ::unlink(path.c_str());
    }
  }
  void emptyAnew() {
    std::error_code ignored;
    fs::remove_all("/var/support/tarnik", ignored);
    ::mkdir("/var/support/tarnik", 0777);
  }
  void becomeLink() {
    std::error_code ignored;
    fs::remove_all("/var/support/tarnik", ignored);
    (void)!::symlink(old().c_str(), "/var/support/tarnik");
  }

  std::mt19937 random_;
  std::array<OwnedFd, 4> held_;
};

class UsagePropertyTest : public UsageTest, public testing::WithParamInterface<Number> {
 protected:
  DiskUsage usage_;
};

INSTANTIATE_TEST_SUITE_P(Seeds, UsagePropertyTest, testing::Range<Number>(1, 5));

TEST_P(UsagePropertyTest, AgreesAtOnceAboutWhatTheKernelReports) {
  std::mt19937 random(GetParam());
  Changer changer(random());
  constexpr int kSteps = 2000;
  listings = 0;
  for (int step = 0; step < kSteps; ++step) {
    const Number changes = random() % 4 == 0 ? random() % 20 : 1;
    for (Number change = 0; change < changes; ++change) {
      changer.changeReported();
    }
    ASSERT_TRUE(agrees(usage_)) << "step " << step;
  }
  EXPECT_LT(listings - kSteps, kSteps / 2) << "most updates do not scan";
}

TEST_P(UsagePropertyTest, AgreesWithinASecondAboutAnything) {
  std::mt19937 random(GetParam());
  Changer changer(random());
  for (int step = 0; step < 1000; ++step) {
    for (Number change = random() % 10; change > 0; --change) {
      changer.changeAnything();
      std::uint64_t bytes = 0;
      std::uint64_t files = 0;
      usage_.update(bytes, files);
    }
    passOneSecond();
    ASSERT_TRUE(agrees(usage_)) << "step " << step;
  }
}

// Changes that others make while updates run are not lost.
TEST_P(UsagePropertyTest, AgreesAtOnceAfterConcurrentChanges) {
  std::mt19937 random(GetParam());
  std::vector<Changer> changers;
  for (int i = 0; i < 3; ++i) {
    changers.emplace_back(random());
  }
  for (int round = 0; round < 5; ++round) {
    std::atomic<int> running = 3;
    std::vector<std::thread> threads;
    for (Changer& changer : changers) {
      threads.emplace_back([&changer, &running] {
        for (int change = 0; change < 200; ++change) {
          changer.changeReported();
        }
        --running;
      });
    }
    while (running > 0) {
      std::uint64_t bytes = 0;
      std::uint64_t files = 0;
      usage_.update(bytes, files);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_TRUE(agrees(usage_)) << "round " << round;
  }
}

}  // namespace
}  // namespace tarnik::test
