// Making groups, and what can be said about them.
#include <net/if.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "base/log.h"
#include "frameq/testing/driver.h"
#include "frameq/zorlib_internal.h"

namespace tarnik::test {

namespace {
bool fakeInterfaces = false;
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The host's interfaces are not the test's: 101 to 132 are there.
class CreateTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    fakeInterfaces = true;
    config_ = {};
    config_.num_ifs = 4;
    for (std::uint32_t i = 0; i < ZORVIK_IF_MAX; ++i) {
      config_.ifs[i] = {.kern_if = 101 + i,
                        .mate = i ^ 1u,
                        .mode = ZORVIK_IF_INLINE,
                        .sub_mode = 2,
                        .mtu = 1500,
                        .speed = 1000,
                        .duplex = 2,
                        .reserved = 0};
    }
    clearRequests();
  }
  void TearDown() override {
    fakeInterfaces = false;
    DriverTest::TearDown();
  }

  using Change = std::function<void(zorvik_ifg_config&)>;
  void refused(const Change& change, int expected, const std::string& message) {
    zorvik_ifg_config config = config_;
    change(config);
    clearLog();
    errno = 0;
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create("mine", &config, &ifg), -1);
    EXPECT_EQ(errno, expected) << message;
    EXPECT_EQ(ifg, nullptr);
    EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_create: " + message)));
    EXPECT_THAT(requests(), IsEmpty()) << "nothing is asked of the driver";
  }
  zorlib_ifg* created(const Change& change = [](zorvik_ifg_config&) {}) {
    zorvik_ifg_config config = config_;
    change(config);
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create("mine", &config, &ifg), 0);
    return ifg;
  }
  void removed(zorlib_ifg* ifg) {
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
    EXPECT_EQ(zorlib_ifg_remove("mine"), 0);
    EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/mine"));
  }

  zorvik_ifg_config config_{};
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
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_IFG_CREATE, ZORVIK_FRM_DATA_CREATE));
  EXPECT_EQ(name, "mine");
  EXPECT_EQ(frames, 16384u);
  EXPECT_EQ(ifg->numIfs, 4u);
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
}

TEST_F(CreateTest, ChecksTheModes) {
  refused([](auto& config) { config.ifs[2].mode = 0; }, EINVAL, "Idx 2 unsupported mode 0");
  refused([](auto& config) { config.ifs[2].mode = 4; }, EINVAL, "Idx 2 unsupported mode 4");
  refused([](auto& config) { config.ifs[1].sub_mode = 5; }, EINVAL, "Idx 1 unsupported sub_mode 5");
  removed(created([](auto& config) { config.ifs[0].sub_mode = config.ifs[1].sub_mode = 4; }));
}

TEST_F(CreateTest, ChecksThePairs) {
  refused([](auto& config) { config.ifs[0].mate = 2; }, EINVAL,
          "Port not properly mated (0 2) should be (0 1)");
  refused([](auto& config) { config.ifs[3].mate = 3; }, EINVAL,
          "Port not properly mated (3 3) should be (3 2)");
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

TEST_F(CreateTest, AHalfMadeGroupIsRemoved) {
  refuse(ZORVIK_FRM_DATA_CREATE, ENOMEM);
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_create("mine", &config_, &ifg), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_create_frm_data: mine Create ioctl "
                                            "failed - Cannot allocate memory")));
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/mine"));
}

TEST_F(CreateTest, TheNumberOfDescriptorsIsAParameter) {
  struct Case {
    const char* name;
    const char* value;
    std::uint32_t count;
  };
  for (const Case& each : {Case{"f1", "999", 16384}, Case{"f2", "1000", 1000},
                           Case{"f3", "1000000", 1000000}, Case{"f4", "1000001", 16384}}) {
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

// ---- What the driver is told and asked of a group

TEST_F(CreateTest, ConfiguresTheGroup) {
  zorlib_ifg* const ifg = openGroup();
  zorvik_ifg_config seen{};
  answer(ZORVIK_IFG_CONFIGURE, [&](int, void* argument) {
    seen = *static_cast<zorvik_ifg_config*>(argument);
    return 0;
  });
  EXPECT_EQ(zorlib_ifg_configure(ifg, &config_), 0);
  EXPECT_EQ(std::memcmp(&seen, &config_, sizeof seen), 0);
  EXPECT_EQ(ifg->numIfs, 4u);
  refuse(ZORVIK_IFG_CONFIGURE, EINVAL);
  EXPECT_EQ(zorlib_ifg_configure(ifg, &config_), -1);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_configure: configure ioctl (brund) "
                                            "failed - Invalid argument")));
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

TEST_F(CreateTest, AQueuePairsGapsAreFilledFromTheParameters) {
  zorlib_ifg* const ifg = openGroup();
  ifg->numIfs = 2;
  ASSERT_EQ(zorlib_set_param("zorvik.brund.q_size", "4000"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.brund.5.if_mask", "3"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.brund.5.cpu_mask", "c"), 0);
  zorvik_qpair_cfg seen{};
  answer(ZORVIK_QPAIR_SET, [&](int, void* argument) {
    seen = *static_cast<zorvik_qpair_cfg*>(argument);
    return 0;
  });
  zorvik_qpair_cfg cfg{.index = 5, .size = 0, .if_mask = 0, .cpu_mask = 1};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg, &cfg), 0);
  EXPECT_EQ(seen.size, 4000u);
  EXPECT_EQ(seen.if_mask, 3u);
  EXPECT_EQ(seen.cpu_mask, 1u);
  answer(ZORVIK_QPAIR_GET, [&](int, void* argument) {
    EXPECT_EQ(static_cast<zorvik_qpair_cfg*>(argument)->index, 5u);
    *static_cast<zorvik_qpair_cfg*>(argument) = seen;
    return 0;
  });
  EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg, &cfg), 0);
  EXPECT_EQ(cfg.size, 4000u);
  for (const std::uint32_t index : {32u, 0xffffffffu}) {
    cfg.index = index;
    errno = 0;
    EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg, &cfg), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg, &cfg), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

}  // namespace
}  // namespace tarnik::test

extern "C" char* if_indextoname(unsigned index, char* name) noexcept {
  if (tarnik::test::fakeInterfaces && index >= 101 && index <= 132) {
    std::snprintf(name, IF_NAMESIZE, "test%u", index);
    return name;
  }
  errno = ENXIO;
  return nullptr;
}
