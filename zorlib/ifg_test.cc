// Interface groups: opening, mapping, references, closing, and the wait for a node.
#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "base/log.h"
#include "base/testing/files.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::IsEmpty;

constexpr char kNoControlNode[] =
    "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/ctl to appear";

using IfgTest = DriverTest;

TEST_F(IfgTest, OpensWithItsNodesAndClosesThem) {
  const int before = openDescriptors();
  zorlib_ifg* const ifg = openGroup();
  ASSERT_NE(ifg, nullptr);
  EXPECT_EQ(ifg->magic.get(), 0xc0cac01au);
  EXPECT_EQ(ifg->refs, 1u);
  EXPECT_STREQ(ifg->name.data(), "brund");
  EXPECT_STREQ(ifg->dir.data(), "/dev/zorvik/brund");
  EXPECT_EQ(openDescriptors(), before + 3);
  for (const int fd : {ifg->ctlFd.get(), ifg->ifgCtlFd.get(), ifg->frmDescFd.get()}) {
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  }
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IfgTest, ANameHasOneToSixteenCharacters) {
  for (const char* name : {"", "12345678901234567"}) {
    zorlib_ifg* ifg = reinterpret_cast<zorlib_ifg*>(1);
    expectFailure([&] { return zorlib_ifg_open(name, &ifg); }, ENAMETOOLONG,
                  {"Error: zorlib_ifg_alloc: ifg name length invalid (0 < name_len < 16)"});
    EXPECT_EQ(ifg, reinterpret_cast<zorlib_ifg*>(1)) << "the caller's handle changed";
  }
  for (const std::string name : {"1", "1234567890123456"}) {
    std::filesystem::create_directory("/dev/zorvik/" + name);
    writeFile("/dev/zorvik/" + name + "/ctl", "");
    writeFile("/dev/zorvik/" + name + "/frm_desc", "");
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_open(name.c_str(), &ifg), 0);
    EXPECT_EQ(ifg->name.data(), name);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
    std::filesystem::remove_all("/dev/zorvik/" + name);
  }
}

TEST_F(IfgTest, LogsTheNodeThatCannotBeOpened) {
  const int before = openDescriptors();
  zorlib_ifg* ifg = nullptr;
  const auto open = [&] { return zorlib_ifg_open("nobody", &ifg); };
  expectFailure(open, ENOENT,
                {"Error: zorlib_ifg_open: Cannot open ifg ctl dev /dev/zorvik/nobody/ctl - No such "
                 "file or directory"});
  std::filesystem::create_directory("/dev/zorvik/nobody");
  writeFile("/dev/zorvik/nobody/ctl", "");
  expectFailure(open, ENOENT,
                {"Error: zorlib_ifg_open_frm_data: Cannot open ifg frm_data dev "
                 "/dev/zorvik/nobody/frm_desc - No such file or directory"});
  EXPECT_EQ(ifg, nullptr);
  EXPECT_EQ(openDescriptors(), before);
  std::filesystem::remove_all("/dev/zorvik/nobody");
}

TEST_F(IfgTest, WaitsForTheDriversNode) {
  const HiddenFile hidden("/dev/zorvik/ctl");
  nodeAppearsAt(kNever);
  expectFailure([] { return zorlib_ifg_alloc("brund") == nullptr ? -1 : 0; }, ENOENT,
                {kNoControlNode,
                 "Error: zorlib_ifg_alloc: Cannot open zorvik ctl - No such file or directory"});
  EXPECT_EQ(systemCalls.looks, 1501);
}

TEST_F(IfgTest, OpensTheDriversNodeEvenIfTheWaitDidNotFindIt) {
  nodeAppearsAt(kNever);
  zorlib_ifg* const ifg = zorlib_ifg_alloc("brund");
  ASSERT_NE(ifg, nullptr);
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_GE(ifg->ctlFd.get(), 0);
  EXPECT_EQ(logLines(), lines({kNoControlNode}));
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

TEST_F(IfgTest, LogsThatThereIsNoMemory) {
  systemCalls.allocationsLeft = 0;
  expectFailure([] { return zorlib_ifg_alloc("brund") == nullptr ? -1 : 0; }, ENOMEM,
                {"Error: zorlib_ifg_alloc: malloc failed - Cannot allocate memory"});
}

TEST_F(IfgTest, AnAllocatedHandleHasOnlyTheControlNode) {
  const int before = openDescriptors();
  zorlib_ifg* const ifg = zorlib_ifg_alloc("brund");
  ASSERT_NE(ifg, nullptr);
  EXPECT_EQ(openDescriptors(), before + 1);
  EXPECT_EQ(ifg->ifgCtlFd.get(), -1);
  EXPECT_EQ(ifg->frmDescFd.get(), -1);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(IfgTest, MapsFrameMemoryOnceForAllItsQueues) {
  zorlib_ifg* const ifg = openGroup();
  createQueue(ifg, ZORVIK_Q_APP, 16, "one");
  createQueue(ifg, ZORVIK_Q_APP, 16, "two");
  zorlib_q* const one = openQueue(ifg, ZORLIB_READ, "one");
  zorlib_q* const two = openQueue(ifg, ZORLIB_WRITE, "two");
  EXPECT_EQ(ifg->refs, 3u);
  EXPECT_EQ(one->frmDesc, two->frmDesc);
  EXPECT_EQ(one->payload, two->payload);
  EXPECT_EQ(count(ZORVIK_FRM_DESC_SIZE), 1);
  EXPECT_EQ(count(ZORVIK_NET_DATA_SIZE), 1);
  EXPECT_EQ(ifg->frmDescSize, (kFrames + 1) * 128);
  EXPECT_EQ(ifg->frmDescCount, kFrames + 1);
  EXPECT_EQ(ifg->payloadSize, kPayload);
  EXPECT_EQ(zorlib_q_close(one), 0);
  EXPECT_EQ(ifg->refs, 2u);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0) << "the application's own reference";
  EXPECT_EQ(mappingsOf("/dev/zorvik/brund/frm_desc"), 2) << "the driver's and the open queue's";
  EXPECT_EQ(zorlib_q_close(two), 0);
  EXPECT_EQ(mappingsOf("/dev/zorvik/brund/frm_desc"), 1) << "the driver's";
  EXPECT_EQ(mappingsOf("/dev/zorvik/net_data"), 0);
}

TEST_F(IfgTest, LogsTheAddressesOfTheDescriptors) {
  zorlib_ifg* const ifg = openGroup();
  zorvik_frm_desc* descriptors = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  std::uint32_t payloadSize = 0;
  setDebugLevel(1);
  ASSERT_EQ(zorlib_map_frm_data(ifg, &descriptors, &size, &payload, &payloadSize), 0);
  EXPECT_EQ(logLines(),
            lines({text("Debug: zorlib_map_frm_data: %p - %p", static_cast<void*>(descriptors),
                        static_cast<void*>(descriptors + kFrames + 1))}));
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0) << "the mapping's reference";
}

TEST_F(IfgTest, LogsWhyFrameMemoryCannotBeMapped) {
  zorlib_ifg* const ifg = openGroup();
  const auto mapFails = [ifg](int expectedErrno, const std::string& message) {
    zorvik_frm_desc* descriptors = nullptr;
    std::uint8_t* payload = nullptr;
    std::uint32_t size = 0;
    const int before = openDescriptors();
    expectFailure([&] { return zorlib_map_frm_data(ifg, &descriptors, &size, &payload, &size); },
                  expectedErrno, {"Error: zorlib_map_frm_data: " + message});
    EXPECT_EQ(ifg->refs, 1u);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(ifg->mutex.try_lock());
    ifg->mutex.unlock();
  };
  const Answer noBytes = [](int, void*) { return 0; };
  refuse(ZORVIK_FRM_DESC_SIZE, EIO);
  mapFails(EIO, "brund query frm_data ioctl failed - Input/output error");
  answer(ZORVIK_FRM_DESC_SIZE, noBytes);
  mapFails(EINVAL, "brund mmap frm_data failed - Invalid argument");
  answerNothing();
  {
    const HiddenFile hidden("/dev/zorvik/net_data");
    mapFails(ENOENT, "brund open net_data failed - No such file or directory");
  }
  refuse(ZORVIK_NET_DATA_SIZE, EIO);
  mapFails(EIO, "brund query net ioctl failed - Input/output error");
  answer(ZORVIK_NET_DATA_SIZE, noBytes);
  mapFails(EINVAL, "brund mmap net_data failed - Invalid argument");
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

TEST_F(IfgTest, TheLastReferenceReturnsTheCachedFrames) {
  zorlib_ifg* const ifg = openGroup();
  createQueue(ifg);
  zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
  for (const std::uint32_t size : {64u, 60000u}) {
    zorvik_frm_desc* const frame = allocFrame(ifg, size);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(zorlib_frm_free(ifg, frame), 0);
  }
  // The third list is for buffers of a size that this driver does not have.
  answer(ZORVIK_FRM_ALLOC, [q](int, void* argument) {
    auto& alloc = *static_cast<zorvik_frm_alloc*>(argument);
    alloc.count = 0;
    for (std::uint32_t i = 1; alloc.count < 4; ++i) {
      zorvik_frm_desc& frame = q->frmDesc[i];
      if ((frame.flags & ZORVIK_FRM_VALID) == 0) {
        alloc.frame_ids[alloc.count++] = i;
        frame.index = i;
        frame.flags = ZORVIK_FRM_VALID;
        frame.buf_size = 16384;
      }
    }
    return 0;
  });
  allocFrame(ifg, 10000)->flags = 0;  // the test keeps this frame
  std::set<std::uint32_t> cached;
  for (std::uint32_t i = 1; i <= kFrames; ++i) {
    if ((q->frmDesc[i].flags & ZORVIK_FRM_VALID) != 0) {
      cached.insert(static_cast<std::uint32_t>(q->frmDesc[i].generation) << 24 | i);
    }
  }
  clearRequests();
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_EQ(count(ZORVIK_FRM_FREE), 0) << "not the last reference";
  std::set<std::uint32_t> freed;
  answer(ZORVIK_FRM_FREE, [&freed](int, void* argument) {
    EXPECT_TRUE(freed.insert(static_cast<zorvik_frm_free*>(argument)->frame_id).second);
    return -EIO;
  });
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(freed.size(), 61 + 3 + 7u) << "a failure ends the draining";
  EXPECT_EQ(freed, cached);
  EXPECT_EQ(
      logLines(),
      lines(std::vector<std::string>(
          freed.size(), "Error: zorlib_ifg_frm_free: free_frm ioctl failed - Input/output error")));
}

TEST(DevnodeWait, Polls1500TimesAndOnceMore) {
  constexpr char kAppear[] =
      "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/x to appear";
  constexpr char kDisappear[] =
      "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/x to disappear";
  struct Case {
    int appear, changesAt, looks, sleeps;
    const char* message;
  };
  for (const Case& each : {
           Case{1, 1, 1, 0, nullptr},
           Case{1, 2, 2, 1, nullptr},
           Case{1, 1501, 1501, 1500, nullptr},
           Case{1, 1502, 1501, 1500, kAppear},
           Case{0, 1, 1, 0, nullptr},
           Case{0, 1501, 1501, 1500, nullptr},
           Case{0, 1502, 1501, 1500, kDisappear},
       }) {
    const auto wait = [&] { return zorlib_ifg_devnode_wait("/dev/zorvik/x", each.appear); };
    each.appear == 1 ? nodeAppearsAt(each.changesAt) : nodeVanishesAt(each.changesAt);
    if (each.message == nullptr) {
      clearLog();
      EXPECT_EQ(wait(), 0);
      EXPECT_THAT(logLines(), IsEmpty());
    } else {
      expectFailure(wait, each.appear == 1 ? ENOENT : ETIMEDOUT, {each.message});
    }
    nodesAreReal();
    EXPECT_EQ(systemCalls.looks, each.looks);
    EXPECT_EQ(systemCalls.sleeps, each.sleeps);
    EXPECT_EQ(systemCalls.longestSleep, each.sleeps > 0 ? 1000u : 0u);
  }
}

}  // namespace
}  // namespace tarnik::test
