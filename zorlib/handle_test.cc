// Handles release everything: when they are closed, and when they cannot be opened.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"
#include "zorlib/testing/two_threads.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kDeadGroup = 0xdeadd00d;
constexpr std::uint32_t kDeadQueue = 0xbaadf00d;
constexpr char kQueueNode[] = "/dev/zorvik/brund/TarnikQ";
constexpr char kDescriptorNode[] = "/dev/zorvik/brund/frm_desc";
constexpr char kPayloadNode[] = "/dev/zorvik/net_data";

// The resources that the process holds.
struct Holdings {
  int descriptors = openDescriptors();
  int queueMappings = mappingsOf(kQueueNode);
  int descriptorMappings = mappingsOf(kDescriptorNode);
  int payloadMappings = mappingsOf(kPayloadNode);
  int objects = livingObjects();
  bool operator==(const Holdings&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Holdings& held) {
  return out << held.descriptors << " descriptors, " << held.queueMappings << '/'
             << held.descriptorMappings << '/' << held.payloadMappings << " mappings, "
             << held.objects << " objects";
}

// The calls of close and munmap while it is set, by the file or memory that they release.
std::vector<std::string>* releases = nullptr;
std::map<void*, std::string> mappings;

}  // namespace
}  // namespace tarnik::test

// The dynamic linker prefers these functions to libc's.
extern "C" int close(int fd) {
  if (tarnik::test::releases != nullptr) {
    std::error_code ignored;
    tarnik::test::releases->push_back(
        "close " +
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored).string());
  }
  return static_cast<int>(::syscall(SYS_close, fd));
}
extern "C" int munmap(void* address, std::size_t size) noexcept {
  if (tarnik::test::releases != nullptr && tarnik::test::mappings.contains(address)) {
    tarnik::test::releases->push_back("unmap " + tarnik::test::mappings[address]);
  }
  return static_cast<int>(::syscall(SYS_munmap, address, size));
}

namespace tarnik::test {
namespace {

class HandleTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    // The driver is in this program and keeps its own mapping of a queue that was opened once.
    zorlib_ifg* const ifg = openGroup();
    createQueue(ifg);
    EXPECT_EQ(zorlib_q_close(openQueue(ifg, ZORLIB_READ)), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
    before_ = Holdings();
    forgetObjects();
    clearRequests();
  }

  Holdings before_;
};

// ---- Groups

TEST_F(HandleTest, TheLastReferenceEndsAGroup) {
  zorlib_ifg* const ifg = openGroup();
  zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_THAT(lastWords(), IsEmpty()) << "the queue has a reference";
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(lastWords(), ElementsAre(kDeadGroup, kDeadQueue));
  EXPECT_EQ(Holdings(), before_);
}

TEST_F(HandleTest, AFailedGroupOpenReleasesEverything) {
  const std::string dir = "/dev/zorvik/";
  for (const char* const missing : {"ctl", "brund/ctl", "brund/frm_desc"}) {
    std::filesystem::rename(dir + missing, dir + "hidden");
    systemCalls.looks = 0;
    systemCalls.appearsAt = 1;  // the wait for the control node is not what is tried
    systemCalls.vanishesAt = 0;
    systemCalls.fakeNode = true;
    forgetObjects();
    zorlib_ifg* ifg = nullptr;
    errno = 0;
    EXPECT_EQ(zorlib_ifg_open("brund", &ifg), -1) << missing;
    EXPECT_EQ(errno, ENOENT) << missing;
    EXPECT_EQ(ifg, nullptr);
    EXPECT_THAT(lastWords(), ElementsAre(kDeadGroup)) << missing;
    std::filesystem::rename(dir + "hidden", dir + missing);
    EXPECT_EQ(Holdings(), before_) << missing;
  }
}

TEST_F(HandleTest, AGroupOpenWithoutMemoryFails) {
  systemCalls.allocationsLeft = 0;
  zorlib_ifg* ifg = nullptr;
  errno = 0;
  EXPECT_EQ(zorlib_ifg_open("brund", &ifg), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(ifg, nullptr);
  EXPECT_THAT(lastWords(), IsEmpty());
  EXPECT_EQ(Holdings(), before_);
}

TEST_F(HandleTest, ThreadsMapTheFrameMemoryOnce) {
  for (int round = 0; round < 20; ++round) {
    zorlib_ifg* const ifg = openGroup();
    clearRequests();
    forgetObjects();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([ifg] {
        for (int turn = 0; turn < 10; ++turn) {
          EXPECT_EQ(zorlib_q_close(openQueue(ifg, ZORLIB_WRITE)), 0);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(ifg->refs, 1u);
    EXPECT_EQ(count(ZORVIK_FRM_DESC_SIZE), 1);
    EXPECT_EQ(count(ZORVIK_NET_DATA_SIZE), 1);
    const std::vector<std::uint32_t> soFar = lastWords();
    EXPECT_EQ(soFar, std::vector<std::uint32_t>(40, kDeadQueue));
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
    EXPECT_EQ(lastWords().back(), kDeadGroup);
    EXPECT_EQ(Holdings(), before_);
  }
}

TEST_F(HandleTest, ThreadsTakeAndReleaseReferencesAtTheSameTime) {
  zorlib_ifg* const ifg = openGroup();
  const auto mapAndClose = [ifg] {
    zorvik_frm_desc* descriptors = nullptr;
    std::uint8_t* payload = nullptr;
    std::uint32_t size = 0;
    EXPECT_EQ(zorlib_map_frm_data(ifg, &descriptors, &size, &payload, &size), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  };
  inTwoThreads(mapAndClose, mapAndClose);
  EXPECT_EQ(ifg->refs, 1u);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(Holdings(), before_);
}

TEST_F(HandleTest, ReleasesInOrder) {
  zorlib_ifg* const ifg = openGroup();
  zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  mappings = {{q->qmem.base(), "queue"},
              {ifg->frmDesc.base(), "descriptors"},
              {ifg->payload.base(), "payload"}};
  std::vector<std::string> order;
  order.reserve(20);
  releases = &order;
  EXPECT_EQ(zorlib_q_close(q), 0);
  releases = nullptr;
  EXPECT_THAT(order,
              ElementsAre(std::string("close ") + kQueueNode, "unmap queue",
                          "close /dev/zorvik/brund/ctl", std::string("close ") + kDescriptorNode,
                          "unmap descriptors", "close /dev/zorvik/ctl", "unmap payload"));
  EXPECT_THAT(lastWords(), ElementsAre(kDeadGroup, kDeadQueue));
}

// ---- Queues

class QueueHandleTest : public HandleTest {
 protected:
  void SetUp() override {
    HandleTest::SetUp();
    ifg_ = openGroup();
    // The frame memory stays mapped until the group is closed; a failed open does not unmap it.
    EXPECT_EQ(zorlib_q_close(openQueue(ifg_, ZORLIB_READ)), 0);
    before_ = Holdings();
    forgetObjects();
    clearLog();
    clearRequests();
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_ifg_close(ifg_), 0);
    HandleTest::TearDown();
  }

  void openFails(const char* name, int expected) {
    zorlib_q* q = nullptr;
    errno = 0;
    EXPECT_EQ(zorlib_q_app_open(ifg_, name, ZORLIB_READ, &q), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(q, nullptr);
    EXPECT_EQ(Holdings(), before_);
    EXPECT_EQ(ifg_->refs, 1u);
  }

  zorlib_ifg* ifg_ = nullptr;
};

TEST_F(QueueHandleTest, ACloseReleasesEverything) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_WRITE);
  EXPECT_THAT(lastWords(), IsEmpty());
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(lastWords(), ElementsAre(kDeadQueue));
  EXPECT_EQ(Holdings(), before_);
}

TEST_F(QueueHandleTest, AFailedOpenReleasesEverything) {
  int fd = -1;
  const auto statOf = [&](std::uint32_t size, bool replaced) {
    return [&fd, size, replaced](int descriptor, void* argument) {
      fd = descriptor;
      static_cast<zorvik_q_stat*>(argument)->mem_size = size;
      if (replaced) {  // by a directory, which cannot be mapped
        const int directory = ::open("/dev/zorvik", O_RDONLY | O_DIRECTORY);
        EXPECT_EQ(::dup2(directory, descriptor), descriptor);
        ::close(directory);
      }
      return 0;
    };
  };
  struct Case {
    const char* step;
    int error;
    std::function<void()> prepare;
  };
  const Case cases[] = {
      {"stat", EIO, [] { refuse(ZORVIK_Q_STAT, EIO); }},
      {"no memory", ENXIO, [&] { answer(ZORVIK_Q_STAT, statOf(0, false)); }},
      {"mmap", EACCES, [&] { answer(ZORVIK_Q_STAT, statOf(448, true)); }},
      {"no ring", ENXIO, [&] { answer(ZORVIK_Q_STAT, statOf(100, false)); }},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.step);
    forgetObjects();
    clearRequests();
    each.prepare();
    openFails("TarnikQ", each.error);
    EXPECT_THAT(lastWords(), ElementsAre(kDeadQueue));
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 0) << "the queue is not changed";
    answerNothing();
  }
  EXPECT_GE(fd, 0);
  forgetObjects();
  clearRequests();
  openFails("none", ENOENT);
  EXPECT_THAT(lastWords(), ElementsAre(kDeadQueue));
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(QueueHandleTest, AnOpenWithoutMemoryFails) {
  systemCalls.allocationsLeft = 0;
  openFails("TarnikQ", ENOMEM);
  EXPECT_THAT(lastWords(), IsEmpty());
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(HandleTest, AnOpenWithoutFrameMemoryReleasesEverything) {
  zorlib_ifg* const ifg = openGroup();
  const Holdings held;
  for (const unsigned long request : {ZORVIK_FRM_DESC_SIZE, ZORVIK_NET_DATA_SIZE}) {
    forgetObjects();
    clearRequests();
    refuse(request, EIO);
    zorlib_q* q = nullptr;
    errno = 0;
    EXPECT_EQ(zorlib_q_app_open(ifg, "TarnikQ", ZORLIB_READ, &q), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(q, nullptr);
    EXPECT_EQ(ifg->refs, 1u);
    EXPECT_THAT(lastWords(), ElementsAre(kDeadQueue));
    EXPECT_EQ(openDescriptors(), held.descriptors);
    EXPECT_EQ(livingObjects(), held.objects);
    EXPECT_EQ(count(ZORVIK_Q_STAT), 0);
    answerNothing();
  }
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(Holdings(), before_) << "with the descriptors that were mapped";
}

}  // namespace
}  // namespace tarnik::test
