// Interface groups: opening, mapping, references, closing.
#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST_F(IfgTest, RefusesNamesOfAWrongLength) {
  for (const char* name : {"", "12345678901234567"}) {
    clearLog();
    errno = 0;
    zorlib_ifg* ifg = reinterpret_cast<zorlib_ifg*>(1);
    EXPECT_EQ(zorlib_ifg_open(name, &ifg), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(ifg, reinterpret_cast<zorlib_ifg*>(1)) << "the caller's handle was touched";
    EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_alloc: ifg name length invalid "
                                              "(0 < name_len < 16)")));
  }
}

TEST_F(IfgTest, AcceptsANameOfSixteenCharacters) {
  const char name[] = "1234567890123456";
  std::filesystem::create_directory(std::string("/dev/zorvik/") + name);
  std::ofstream(std::string("/dev/zorvik/") + name + "/ctl");
  std::ofstream(std::string("/dev/zorvik/") + name + "/frm_desc");
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_open(name, &ifg), 0);
  EXPECT_STREQ(ifg->name.data(), name);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  std::filesystem::remove_all(std::string("/dev/zorvik/") + name);
}

TEST_F(IfgTest, SaysWhichNodeCannotBeOpened) {
  const int before = openDescriptors();
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_open("nobody", &ifg), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ifg, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_open: Cannot open ifg ctl dev "
                                            "/dev/zorvik/nobody/ctl - No such file or directory")));
  clearLog();
  std::filesystem::create_directory("/dev/zorvik/nobody");
  std::ofstream("/dev/zorvik/nobody/ctl");
  errno = 0;
  EXPECT_EQ(zorlib_ifg_open("nobody", &ifg), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_ifg_open_frm_data: Cannot open ifg frm_data dev "
                                "/dev/zorvik/nobody/frm_desc - No such file or directory")));
  EXPECT_EQ(openDescriptors(), before);
  std::filesystem::remove_all("/dev/zorvik/nobody");
}

TEST_F(IfgTest, WaitsForTheDriverBeforeItGivesUp) {
  std::filesystem::rename("/dev/zorvik/ctl", "/dev/zorvik/hidden");
  systemCalls.looks = systemCalls.sleeps = 0;
  systemCalls.appearsAt = systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
  EXPECT_EQ(zorlib_ifg_alloc("brund"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          error("Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/ctl to "
                "appear"),
          error("Error: zorlib_ifg_alloc: Cannot open zorvik ctl - No such file or directory")));
  systemCalls.fakeNode = false;
  std::filesystem::rename("/dev/zorvik/hidden", "/dev/zorvik/ctl");
}

TEST_F(IfgTest, OpensWhatIsThereThoughTheWaitSawNothing) {
  systemCalls.looks = 0;
  systemCalls.appearsAt = systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
  zorlib_ifg* const ifg = zorlib_ifg_alloc("brund");
  ASSERT_NE(ifg, nullptr);
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_GE(ifg->ctlFd.get(), 0);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_devnode_wait: Timeout waiting for "
                                            "devnode /dev/zorvik/ctl to appear")));
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

TEST_F(IfgTest, SaysWhenThereIsNoMemory) {
  systemCalls.allocationsLeft = 0;
  EXPECT_EQ(zorlib_ifg_alloc("brund"), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(
      logLines(),
      ElementsAre(error("Error: zorlib_ifg_alloc: malloc failed - Cannot allocate memory")));
}

TEST_F(IfgTest, AnAllocatedHandleHasTheControlNodeOnlyAndIsFreedByClose) {
  const int before = openDescriptors();
  zorlib_ifg* const ifg = zorlib_ifg_alloc("brund");
  ASSERT_NE(ifg, nullptr);
  EXPECT_EQ(openDescriptors(), before + 1);
  EXPECT_EQ(ifg->ifgCtlFd.get(), -1);
  EXPECT_EQ(ifg->frmDescFd.get(), -1);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(IfgTest, RefusesBadHandles) {
  alignas(8) std::uint32_t wrong[64] = {0xdeadd00d};
  auto* const dead = reinterpret_cast<zorlib_ifg*>(wrong);
  zorvik_q_enum* list = nullptr;
  zorlib_ifg_info info;
  zorvik_frm_desc* frames = nullptr;
  zorvik_frm_desc frame{};
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  std::uint64_t flags = 0;
  zorlib_q* q = nullptr;
  zorvik_ifg_config config{};
  zorvik_qpair_cfg pair{};
  zorvik_ifg_stats stats{};
  const std::function<int(zorlib_ifg*)> functions[] = {
      [&](zorlib_ifg* ifg) { return zorlib_ifg_close(ifg); },
      [&](zorlib_ifg* ifg) { return zorlib_map_frm_data(ifg, &frames, &size, &payload, &size); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_q_enum(ifg, &list); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_q_remove(ifg, 1); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_get_flags(ifg, &flags); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_set_flags(ifg, flags); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_disable(ifg); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_enable(ifg); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_query(ifg, &info); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_create_q_app(ifg, "q", 5, 100); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_q_create(ifg, "q", 5, 100, 0, 0); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_remove_q_app(ifg, "q"); },
      [&](zorlib_ifg* ifg) { return zorlib_q_app_open(ifg, "q", 7, &q); },
      [&](zorlib_ifg* ifg) { return zorlib_frm_free(ifg, &frame); },
      [&](zorlib_ifg* ifg) { return zorlib_batch_alloc(ifg, 1, &frames, 1); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_create_frm_data(ifg); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_configure(ifg, &config); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_set_qpair_cfg(ifg, &pair); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_get_qpair_cfg(ifg, &pair); },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_get_stats(ifg, &stats); },
      // No result tells these from a parameter that is not there; the caller sees errno.
      [&](zorlib_ifg* ifg) { return zorlib_ifg_lookup_qsize(ifg, "q") == 0 ? -1 : 0; },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_lookup_qsize(ifg, nullptr) == 0 ? -1 : 0; },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_lookup_if_mask(ifg, 0) == 0 ? -1 : 0; },
      [&](zorlib_ifg* ifg) { return zorlib_ifg_lookup_cpu_mask(ifg, 0) == 0 ? -1 : 0; },
  };
  for (const auto& function : functions) {
    clearLog();
    errno = 0;
    EXPECT_EQ(function(nullptr), -1);
    EXPECT_EQ(errno, EBADR);
    EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_validate: Nil handle")));
    clearLog();
    errno = 0;
    EXPECT_EQ(function(dead), -1);
    EXPECT_EQ(errno, EBADR);
    EXPECT_THAT(logLines(),
                ElementsAre(error("Error: zorlib_ifg_validate: Unknown magic deadd00d")));
  }
  EXPECT_THAT(requests(), IsEmpty());
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

TEST_F(IfgTest, LogsWhereTheDescriptorsLie) {
  zorlib_ifg* const ifg = openGroup();
  zorvik_frm_desc* descriptors = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  std::uint32_t payloadSize = 0;
  setDebugLevel(1);
  ASSERT_EQ(zorlib_map_frm_data(ifg, &descriptors, &size, &payload, &payloadSize), 0);
  char expected[100];
  std::snprintf(expected, sizeof expected, "Debug: zorlib_map_frm_data: %p - %p",
                static_cast<void*>(descriptors), static_cast<void*>(descriptors + kFrames + 1));
  EXPECT_THAT(logLines(), ElementsAre(debug(expected)));
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

TEST_F(IfgTest, SaysWhyFrameMemoryCannotBeMapped) {
  zorlib_ifg* const ifg = openGroup();
  const auto mapFails = [ifg](int expectedErrno, const std::string& message) {
    zorvik_frm_desc* descriptors = nullptr;
    std::uint8_t* payload = nullptr;
    std::uint32_t size = 0;
    clearLog();
    errno = 0;
    const int before = openDescriptors();
    EXPECT_EQ(zorlib_map_frm_data(ifg, &descriptors, &size, &payload, &size), -1);
    EXPECT_EQ(errno, expectedErrno);
    EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_map_frm_data: " + message)));
    EXPECT_EQ(ifg->refs, 1u);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(ifg->mutex.try_lock());
    ifg->mutex.unlock();
  };
  refuse(ZORVIK_FRM_DESC_SIZE, EIO);
  mapFails(EIO, "brund query frm_data ioctl failed - Input/output error");
  answer(ZORVIK_FRM_DESC_SIZE, [](int, void*) { return 0; });  // of no bytes
  mapFails(EINVAL, "brund mmap frm_data failed - Invalid argument");
  answerNothing();
  std::filesystem::rename("/dev/zorvik/net_data", "/dev/zorvik/hidden");
  mapFails(ENOENT, "brund open net_data failed - No such file or directory");
  std::filesystem::rename("/dev/zorvik/hidden", "/dev/zorvik/net_data");
  refuse(ZORVIK_NET_DATA_SIZE, EIO);
  mapFails(EIO, "brund query net ioctl failed - Input/output error");
  answer(ZORVIK_NET_DATA_SIZE, [](int, void*) { return 0; });
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
  allocFrame(ifg, 10000)->flags = 0;  // this one is not the handle's any more
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
  EXPECT_EQ(freed.size(), 61 + 3 + 7u) << "one failure does not end the draining";
  EXPECT_EQ(freed, cached);
  const LogLine line =
      error("Error: zorlib_ifg_frm_free: free_frm ioctl failed - Input/output error");
  EXPECT_EQ(logLines(), std::vector<LogLine>(freed.size(), line));
}

TEST(DevnodeWait, CountsItsLooksAndSleeps) {
  const auto wait = [](int appear, int appearsAt, int vanishesAt) {
    systemCalls.looks = systemCalls.sleeps = 0;
    systemCalls.longestSleep = 0;
    systemCalls.appearsAt = appearsAt;
    systemCalls.vanishesAt = vanishesAt;
    systemCalls.fakeNode = true;
    clearLog();
    const int result = zorlib_ifg_devnode_wait("/dev/zorvik/x", appear);
    systemCalls.fakeNode = false;
    return result;
  };
  struct Case {
    int appear, appearsAt, vanishesAt, result, looks, sleeps;
    const char* message;
  };
  constexpr char kAppear[] =
      "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/x to appear";
  constexpr char kDisappear[] =
      "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/x to disappear";
  for (const Case& each : {
           Case{1, 1, 0, 0, 1, 0, nullptr},
           Case{1, 2, 0, 0, 2, 1, nullptr},
           Case{1, 1501, 0, 0, 1501, 1500, nullptr},
           Case{1, 1502, 0, -1, 1501, 1500, kAppear},
           Case{0, 0, 1, 0, 1, 0, nullptr},
           Case{0, 0, 1501, 0, 1501, 1500, nullptr},
           Case{0, 0, 1502, -1, 1501, 1500, kDisappear},
       }) {
    EXPECT_EQ(wait(each.appear, each.appearsAt, each.vanishesAt), each.result);
    EXPECT_EQ(systemCalls.looks, each.looks);
    EXPECT_EQ(systemCalls.sleeps, each.sleeps);
    EXPECT_EQ(systemCalls.longestSleep, each.sleeps > 0 ? 1000u : 0u);
    if (each.message != nullptr) {
      EXPECT_THAT(logLines(), ElementsAre(error(each.message)));
    } else {
      EXPECT_THAT(logLines(), IsEmpty());
    }
  }
}

}  // namespace
}  // namespace tarnik::test
