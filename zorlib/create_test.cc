// Making groups, and what can be said about them.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "base/log.h"
#include "platform/zorvik/groups.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CreateTest : public GroupTest {
 protected:
  using Change = std::function<void(zorvik_ifg_config&)>;
  // A description that can neither be made nor put into force.
  void refused(const Change& change, int expected, const std::string& message) {
    zorvik_ifg_config config = config_;
    change(config);
    zorlib_ifg* ifg = nullptr;
    const std::pair<std::string, std::function<int()>> functions[] = {
        {"zorlib_ifg_create", [&] { return zorlib_ifg_create("mine", &config, &ifg); }},
        {"zorlib_ifg_configure", [&] { return zorlib_ifg_configure(ifg_, &config); }},
    };
    for (const auto& [name, function] : functions) {
      clearLog();
      clearRequests();
      errno = 0;
      EXPECT_EQ(function(), -1);
      EXPECT_EQ(errno, expected) << message;
      EXPECT_THAT(logLines(), ElementsAre(error("Error: " + name + ": " + message)));
      EXPECT_THAT(requests(), IsEmpty()) << "nothing is asked of the driver";
    }
    EXPECT_EQ(ifg, nullptr);
  }
  zorlib_ifg* created(const Change& change = [](zorvik_ifg_config&) {}) {
    zorvik_ifg_config config = config_;
    change(config);
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create("mine", &config, &ifg), 0);
    return ifg;
  }
  // A creation that the driver did not let pass: nothing is left of it.
  void undone(int expected, const std::vector<LogLine>& lines) {
    clearLog();
    errno = 0;
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create("mine", &config_, &ifg), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(ifg, nullptr);
    EXPECT_EQ(logLines(), lines);
    EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/mine"));
  }
  void removed(zorlib_ifg* ifg) {
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
    EXPECT_EQ(zorlib_ifg_remove("mine"), 0);
    EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/mine"));
  }

  zorvik_ifg_config config_ = description(4);  // "brund"
};

TEST_F(CreateTest, MakesTheGroupItsNodesAndItsFrames) {
  std::string name;
  answer(ZORVIK_IFG_CREATE, [&](int, void* argument) -> std::optional<int> {
    name = static_cast<zorvik_ifg_create*>(argument)->name;
    return std::nullopt;
  });
  std::uint32_t frames = 0;
  answer(ZORVIK_FRM_DATA_CREATE, [&](int, void* argument) -> std::optional<int> {
    frames = *static_cast<std::uint32_t*>(argument);
    return std::nullopt;
  });
  zorlib_ifg* const ifg = created();
  ASSERT_NE(ifg, nullptr);
  EXPECT_THAT(requests(),
              ElementsAre(ZORVIK_IFG_CREATE, ZORVIK_FRM_DATA_CREATE, ZORVIK_IFG_CONFIGURE));
  EXPECT_EQ(ifg->numIfs, 4u);
  zorlib_ifg_info told;
  EXPECT_EQ(zorlib_ifg_query(ifg, &told), 0);
  EXPECT_EQ(told.num_ifs, 4u);
  EXPECT_EQ(std::memcmp(told.ifs, config_.ifs, 4 * sizeof(zorvik_if_record)), 0);
  EXPECT_EQ(name, "mine");
  EXPECT_EQ(frames, 16384u);
  EXPECT_EQ(ifg->refs, 1u);
  createQueue(ifg);
  zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
  zorvik_frm_desc* const frame = zorlib_ifg_frm_alloc(ifg, 100);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(zorlib_frm_free(ifg, frame), 0);
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(logLines(), IsEmpty());
  removed(ifg);
}

TEST_F(CreateTest, ChecksTheNumberOfInterfaces) {
  for (const std::uint32_t number : {0u, 1u, 3u, 33u, 34u}) {
    refused([&](auto& config) { config.num_ifs = number; }, EINVAL,
            "Invalid num_ifs " + std::to_string(number) + " (0 < N <= 32 && (N % 2) == 0)");
  }
  removed(created([](auto& config) { config.num_ifs = 2; }));
  removed(created([](auto& config) { config.num_ifs = 32; }));
}

TEST_F(CreateTest, ChecksTheKernelsInterfaces) {
  refused([](auto& config) { config.ifs[3].kern_if = 7; }, ENXIO,
          "Invalid kern IF 7 [if#3] failed - No such device or address");
  refused([](auto& config) { config.ifs[3].kern_if = 102; }, EEXIST,
          "Duplicate kern IF 102 [if#1 & 3] failed - File exists");
  refused([](auto& config) { config.ifs[1].kern_if = 101; }, EEXIST,
          "Duplicate kern IF 101 [if#0 & 1] failed - File exists");
}

TEST_F(CreateTest, ChecksTheModes) {
  refused([](auto& config) { config.ifs[2].mode = 0; }, EINVAL, "Idx 2 unsupported mode 0");
  refused([](auto& config) { config.ifs[2].mode = 4; }, EINVAL, "Idx 2 unsupported mode 4");
  refused([](auto& config) { config.ifs[1].sub_mode = 5; }, EINVAL, "Idx 1 unsupported sub_mode 5");
  removed(created([](auto& config) { config.ifs[0].sub_mode = config.ifs[1].sub_mode = 4; }));
  for (const std::uint32_t mode : {1u, 2u, 3u}) {
    removed(created([mode](auto& config) { config.ifs[2].mode = config.ifs[3].mode = mode; }));
  }
}

TEST_F(CreateTest, ChecksThePairs) {
  refused([](auto& config) { config.ifs[0].mate = 2; }, EINVAL,
          "Port not properly mated (0 2) should be (0 1)");
  refused([](auto& config) { config.ifs[3].mate = 3; }, EINVAL,
          "Port not properly mated (3 3) should be (3 2)");
  refused(
      [](auto& config) {
        config.ifs[0].mtu = 9000;
        config.ifs[1].mate = 3;
      },
      EINVAL, "Port not properly mated (1 3) should be (1 0)");
  refused([](auto& config) { config.ifs[3].mode = 2; }, EINVAL,
          "port pair mismatch, pair 1 (1 2 1500 1000 2 vs 2 2 1500 1000 2)");
  refused([](auto& config) { config.ifs[0].sub_mode = 3; }, EINVAL,
          "port pair mismatch, pair 0 (1 3 1500 1000 2 vs 1 2 1500 1000 2)");
  refused([](auto& config) { config.ifs[0].mtu = 9000; }, EINVAL,
          "port pair mismatch, pair 0 (1 2 9000 1000 2 vs 1 2 1500 1000 2)");
  refused([](auto& config) { config.ifs[1].speed = 10; }, EINVAL,
          "port pair mismatch, pair 0 (1 2 1500 1000 2 vs 1 2 1500 10 2)");
  refused([](auto& config) { config.ifs[1].duplex = 1; }, EINVAL,
          "port pair mismatch, pair 0 (1 2 1500 1000 2 vs 1 2 1500 1000 1)");
}

TEST_F(CreateTest, ChecksTheSettingsOfTheGroup) {
  refused([](auto& config) { config.fwd_unanalyzed = 2; }, EINVAL,
          "fwd_unanalyzed setting not 0 or 1 (2)");
  refused([](auto& config) { config.prop_link = 2; }, EINVAL, "prop_link setting not 0 or 1 (2)");
  refused(
      [](auto& config) {
        config.prop_link = 1;
        config.prop_link_time = 4999;
      },
      EINVAL, "prop_link_time setting too low (4999) min 5000");
  refused([](auto& config) { config.link_config = 0x40; }, EINVAL,
          "Unsupported link config bits (40 vs 3f)");
  refused([](auto& config) { config.link_config = 0xfffe; }, EINVAL,
          "Unsupported link config bits (fffe vs 3f)");
  removed(created([](auto& config) {
    config.fwd_unanalyzed = config.prop_link = 1;
    config.prop_link_time = 5000;
    config.link_config = 0x3f;
  }));
  removed(created([](auto& config) {
    config.prop_link_time = 1;  // says nothing without prop_link
    config.link_config = 0xffff;
  }));
}

TEST_F(CreateTest, TheChecksFollowTheirOrder) {
  // Everything is wrong; each correction shows the next complaint.
  config_.num_ifs = 5;
  config_.ifs[1].kern_if = 7;
  config_.ifs[2].kern_if = 101;
  config_.ifs[0].mode = 9;
  config_.ifs[0].sub_mode = 9;
  config_.ifs[0].mate = 0;
  config_.fwd_unanalyzed = 5;
  config_.prop_link = 5;
  config_.link_config = 0x80;
  refused([](auto&) {}, EINVAL, "Invalid num_ifs 5 (0 < N <= 32 && (N % 2) == 0)");
  config_.num_ifs = 4;
  refused([](auto&) {}, ENXIO, "Invalid kern IF 7 [if#1] failed - No such device or address");
  config_.ifs[1].kern_if = 102;
  refused([](auto&) {}, EEXIST, "Duplicate kern IF 101 [if#0 & 2] failed - File exists");
  config_.ifs[2].kern_if = 103;
  refused([](auto&) {}, EINVAL, "Idx 0 unsupported mode 9");
  config_.ifs[0].mode = 1;
  refused([](auto&) {}, EINVAL, "Idx 0 unsupported sub_mode 9");
  config_.ifs[0].sub_mode = 0;
  refused([](auto&) {}, EINVAL, "Port not properly mated (0 0) should be (0 1)");
  config_.ifs[0].mate = 1;
  refused([](auto&) {}, EINVAL, "port pair mismatch, pair 0 (1 0 1500 1000 2 vs 1 2 1500 1000 2)");
  config_.ifs[0].sub_mode = 2;
  refused([](auto&) {}, EINVAL, "fwd_unanalyzed setting not 0 or 1 (5)");
  config_.fwd_unanalyzed = 1;
  refused([](auto&) {}, EINVAL, "prop_link setting not 0 or 1 (5)");
  config_.prop_link = 1;
  refused([](auto&) {}, EINVAL, "prop_link_time setting too low (0) min 5000");
  config_.prop_link_time = 5000;
  refused([](auto&) {}, EINVAL, "Unsupported link config bits (80 vs 3f)");
}

TEST_F(CreateTest, AGroupThatIsThereAlreadyIsLeftAlone) {
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_create("brund", &config_, &ifg), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_THAT(
      logLines(),
      ElementsAre(error("Error: zorlib_ifg_create: Create ifg brund failed - File exists")));
  EXPECT_TRUE(std::filesystem::exists("/dev/zorvik/brund"));
}

TEST_F(CreateTest, WhatIsHalfMadeIsUndone) {
  const LogLine frames =
      error("Error: zorlib_ifg_create_frm_data: mine Create ioctl failed - Cannot allocate memory");
  refuse(ZORVIK_FRM_DATA_CREATE, ENOMEM);
  undone(ENOMEM, {frames});
  answerNothing();
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  undone(EIO, {error("Error: zorlib_ifg_configure: configure ioctl (mine) failed - "
                     "Input/output error")});
  answerNothing();
  ASSERT_EQ(zorlib_ifg_configure(ifg_, &config_), 0);
  undone(EBUSY, {error("Error: zorlib_ifg_configure: configure ioctl (mine) failed - "
                       "Device or resource busy")});
}

TEST_F(CreateTest, ANodeThatDoesNotAppearUndoesTheGroup) {
  systemCalls.looks = 0;
  systemCalls.appearsAt = 0;
  systemCalls.vanishesAt = 2;  // the driver's control node is seen
  systemCalls.fakeNode = true;
  undone(ENOENT, {error("Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode "
                        "/dev/zorvik/mine/ctl to appear")});
}

TEST_F(CreateTest, BothNodesAreWaitedFor) {
  answer(ZORVIK_IFG_CREATE, [](int, void*) {
    zorvik::Driver* const driver = zorvik::Driver::get();
    const zorvik::Lock lock(driver->state());
    EXPECT_EQ(zorvik::createGroup(*driver, "mine"), 0);
    systemCalls.looks = 0;
    systemCalls.appearsAt = 0;
    systemCalls.vanishesAt = 2;  // "ctl" is seen
    systemCalls.fakeNode = true;
    return 0;
  });
  undone(ENOENT, {error("Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode "
                        "/dev/zorvik/mine/frm_desc to appear")});
}

TEST_F(CreateTest, AGroupThatCannotBeUndoneIsTold) {
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  refuse(ZORVIK_IFG_REMOVE, EBUSY);
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_create("mine", &config_, &ifg), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          error("Error: zorlib_ifg_configure: configure ioctl (mine) failed - Input/output error"),
          error("Error: zorlib_ifg_create: Remove ifg mine failed - Device or resource busy")));
  answerNothing();
  EXPECT_EQ(zorlib_ifg_remove("mine"), 0);
}

TEST_F(CreateTest, NamesAreCheckedAfterTheDescription) {
  zorlib_ifg* ifg = nullptr;
  const LogLine length =
      error("Error: zorlib_ifg_alloc: ifg name length invalid (0 < name_len < 16)");
  for (const char* name : {"12345678901234567", "", static_cast<const char*>(nullptr)}) {
    clearLog();
    EXPECT_EQ(zorlib_ifg_create(name, &config_, &ifg), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_THAT(logLines(), ElementsAre(length));
    EXPECT_EQ(zorlib_ifg_remove(name), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
  }
  EXPECT_THAT(requests(), IsEmpty());
  clearLog();
  config_.num_ifs = 1;
  EXPECT_EQ(zorlib_ifg_create("", &config_, &ifg), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_create: Invalid num_ifs 1 (0 < N <= "
                                            "32 && (N % 2) == 0)")));
}

TEST_F(CreateTest, NullPointersAreRefused) {
  zorlib_ifg* ifg = nullptr;
  const auto refusedSilently = [](auto call) {
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EINVAL);
  };
  refusedSilently([&] { return zorlib_ifg_create("mine", nullptr, &ifg); });
  refusedSilently([&] { return zorlib_ifg_create("mine", &config_, nullptr); });
  refusedSilently([&] { return zorlib_ifg_configure(ifg_, nullptr); });
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_EQ(zorlib_ifg_configure(nullptr, nullptr), -1);
  EXPECT_EQ(errno, EBADR);
  EXPECT_EQ(zorlib_ifg_create_frm_data(nullptr), -1);
  EXPECT_EQ(errno, EBADR);
}

TEST_F(CreateTest, TheNumberOfDescriptorsIsAParameter) {
  struct Case {
    const char* name;
    const char* value;
    std::uint32_t count;
  };
  for (const Case& each :
       {Case{"f1", "999", 16384}, Case{"f2", "1000", 1000}, Case{"f3", "1000000", 1000000},
        Case{"f4", "1000001", 16384}, Case{"f5", "-1", 16384}, Case{"f6", "0x400", 1024}}) {
    ASSERT_EQ(
        zorlib_set_param((std::string("zorvik.") + each.name + ".fd_count").c_str(), each.value),
        0);
    std::uint32_t count = 0;
    answer(ZORVIK_FRM_DATA_CREATE, [&](int, void* argument) {
      count = *static_cast<std::uint32_t*>(argument);
      return -EIO;
    });
    clearLog();
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create(each.name, &config_, &ifg), -1);
    EXPECT_EQ(count, each.count);
    EXPECT_EQ(logLines().size(), each.count == 16384 ? 2u : 1u);
    if (each.count == 16384) {
      EXPECT_EQ(
          logLines()[0],
          (LogLine{LOG_WARNING, std::string("Warning: zorlib_ifg_create_frm_data: ") + each.name +
                                    " fd_count out of bounds (1000<=N<=1000000 [per IF])"}));
    }
  }
}

TEST_F(CreateTest, AGroupInUseIsNotRemoved) {
  zorlib_ifg* const ifg = created();
  createQueue(ifg);
  zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_remove("mine"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_remove: Remove ifg mine failed - "
                                            "Device or resource busy")));
  EXPECT_EQ(zorlib_q_close(q), 0);
  removed(ifg);
  EXPECT_EQ(zorlib_ifg_remove("mine"), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace tarnik::test
