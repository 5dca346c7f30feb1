// Open groups: their interfaces, queue pairs and counters, and the list of all groups.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ConfigTest : public GroupTest {
 protected:
  // Parameters stay for the life of the process.
  static void SetUpTestSuite() {
    ASSERT_EQ(zorlib_set_param("zorvik.brund.q_size", "2000"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.5.if_mask", "3"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.5.cpu_mask", "c"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.6.if_mask", "10"), 0);  // the fifth interface
  }
  [[nodiscard]] zorvik_qpair_cfg pair(std::uint32_t index) const {
    zorvik_qpair_cfg cfg{.index = index, .size = 77, .if_mask = 77, .cpu_mask = 77};
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg_, &cfg), 0);
    EXPECT_EQ(cfg.index, index);
    return cfg;
  }
  [[nodiscard]] zorvik_ifg_stats stats() const {
    zorvik_ifg_stats result{};
    EXPECT_EQ(zorlib_ifg_get_stats(ifg_, &result), 0);
    return result;
  }
};

// ---- Interfaces

TEST_F(ConfigTest, TheDriverIsToldTheWholeDescription) {
  zorvik_ifg_config config = description(6);
  config.link_config = 0x2a;
  config.fwd_unanalyzed = config.prop_link = 1;
  config.prop_link_time = 5000;
  zorvik_ifg_config seen{};
  answer(ZORVIK_IFG_CONFIGURE, [&](int, void* argument) -> std::optional<int> {
    seen = *static_cast<zorvik_ifg_config*>(argument);
    return std::nullopt;
  });
  EXPECT_EQ(zorlib_ifg_configure(ifg_, &config), 0);
  EXPECT_EQ(std::memcmp(&seen, &config, sizeof seen), 0);
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_IFG_CONFIGURE));
  zorlib_ifg_info info;
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 6u);
  EXPECT_EQ(std::memcmp(info.ifs, config.ifs, 6 * sizeof(zorvik_if_record)), 0);
  EXPECT_EQ(info.ifs[6].kern_if, 0u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(ConfigTest, ARefusalLeavesTheInterfacesAsTheyWere) {
  configureElsewhere(4);
  const zorvik_ifg_config config = description(2);
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  EXPECT_EQ(zorlib_ifg_configure(ifg_, &config), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_configure: configure ioctl (brund) "
                                            "failed - Input/output error")));
  zorlib_ifg_info info;
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 4u);
}

TEST_F(ConfigTest, AnOpenGroupKnowsItsInterfacesWhoeverConfiguresIt) {
  const LogLine tooLow = {LOG_WARNING,
                          "Warning: zorlib_ifg_lookup_qsize: brund q_size out of bounds "
                          "(500<=N<=50000 [per IF])"};
  configureElsewhere(4);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  EXPECT_THAT(logLines(), IsEmpty());
  configureElsewhere(6);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 0u);
  EXPECT_THAT(logLines(), ElementsAre(tooLow));
  configureElsewhere(2);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  // A driver that does not tell: what was known stays.
  refuse(ZORVIK_IFG_QUERY, EIO);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(logLines(), ElementsAre(tooLow));
}

// What a driver says without a cookie, or more than it can have said, is not believed.
TEST_F(ConfigTest, InterfacesTheDriverCannotMeanAreNone) {
  int cookie = 0;
  std::uint32_t count = 4;
  answer(ZORVIK_IFG_QUERY, [&](int, void* argument) {
    auto& query = *static_cast<zorvik_ifg_query*>(argument);
    auto* const records = reinterpret_cast<zorvik_if_record*>(query.flags);
    zorvik_if_record nine{};
    nine.kern_if = 9;
    std::fill_n(records, query.count, nine);
    query.count = count;
    return cookie;
  });
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 0u);
  EXPECT_EQ(ifg_->numIfs, 0u);
  cookie = 1;
  zorlib_ifg_info info;
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 4u);
  EXPECT_EQ(info.ifs[3].kern_if, 9u);
  EXPECT_EQ(info.ifs[4].kern_if, 0u);
  count = 0xffffffff;
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 32u);
  (void)zorlib_ifg_lookup_qsize(ifg_, nullptr);
  EXPECT_EQ(ifg_->numIfs, 32u);
}

// ---- Queue pairs

TEST_F(ConfigTest, WhatAQueuePairLacksComesFromTheParameters) {
  configureElsewhere(4);
  zorvik_qpair_cfg cfg{.index = 5, .size = 0, .if_mask = 0, .cpu_mask = 0};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  EXPECT_EQ(cfg.if_mask, 0u) << "the caller's stays as it is";
  EXPECT_EQ(pair(5).size, 2000u);
  EXPECT_EQ(pair(5).if_mask, 3u);
  EXPECT_EQ(pair(5).cpu_mask, 0xcu);
  cfg = {.index = 5, .size = 900, .if_mask = 8, .cpu_mask = 1};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  EXPECT_EQ(pair(5).size, 900u);
  EXPECT_EQ(pair(5).if_mask, 8u);
  EXPECT_EQ(pair(5).cpu_mask, 1u);
  EXPECT_THAT(logLines(), IsEmpty());
  cfg = {.index = 6, .size = 1, .if_mask = 0, .cpu_mask = 0};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  EXPECT_EQ(pair(6).if_mask, 0u);
  EXPECT_EQ(pair(6).cpu_mask, 0u);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_WARNING,
                                              "Warning: zorlib_ifg_lookup_if_mask: brund if_mask "
                                              "10 for 4 interfaces"}));
}

TEST_F(ConfigTest, AQueuePairThatWasNeverSetIsAllZero) {
  for (const std::uint32_t index : {0u, 31u}) {
    EXPECT_EQ(pair(index).size, 0u);
    EXPECT_EQ(pair(index).if_mask, 0u);
    EXPECT_EQ(pair(index).cpu_mask, 0u);
  }
}

TEST_F(ConfigTest, QueuePairRefusals) {
  zorvik_qpair_cfg cfg{.index = 0, .size = 1, .if_mask = 1, .cpu_mask = 1};
  for (const std::uint32_t index : {32u, 0xffffffffu}) {
    cfg.index = index;
    errno = 0;
    EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg_, &cfg), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_THAT(requests(), IsEmpty());
  cfg.index = 31;
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), -1) << "there is no interface";
  EXPECT_EQ(errno, EINVAL);
  refuse(ZORVIK_QPAIR_GET, EIO);
  EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg_, &cfg), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(cfg.size, 1u);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_set_qpair_cfg: set ioctl (brund/31) "
                                            "failed - Invalid argument"),
                                      error("Error: zorlib_ifg_get_qpair_cfg: get ioctl (brund/31) "
                                            "failed - Input/output error")));
}

// ---- Counters

TEST_F(ConfigTest, FramesAreCounted) {
  createQueue(ifg_);
  zorlib_q* const q = openQueue(ifg_, ZORLIB_WRITE);
  EXPECT_EQ(stats().frm_count, 256u);
  EXPECT_EQ(stats().buf_count, 136u);
  zorvik_frm_desc* frames[3] = {};
  ASSERT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 3), 3);
  EXPECT_EQ(stats().frm_allocs, 62u) << "what was not wanted yet waits in the handle";
  EXPECT_EQ(stats().frm_free, 256u - 62u);
  EXPECT_EQ(stats().buf_free, 136u - 62u);
  EXPECT_EQ(zorlib_frm_free(ifg_, frames[0]), 0);
  EXPECT_EQ(stats().frm_frees, 1u);
  zorvik_frm_desc* none = nullptr;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 65537, &none, 1), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(stats().alloc_too_large, 1u);
  while (zorlib_batch_alloc(ifg_, 65536, &none, 1) == 1) {
  }
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(stats().alloc_empty, 1u);
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(ConfigTest, SaysWhyTheCountersFailed) {
  refuse(ZORVIK_IFG_STATS, EIO);
  zorvik_ifg_stats counters{};
  counters.frm_count = 7;
  EXPECT_EQ(zorlib_ifg_get_stats(ifg_, &counters), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(counters.frm_count, 7u);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_get_stats: stats ioctl (brund) "
                                            "failed - Input/output error")));
}

// ---- The list of groups

TEST_F(ConfigTest, GroupsAreListed) {
  configureElsewhere(4);
  const zorvik_ifg_config config = description(2, 140);
  zorlib_ifg* mine = nullptr;
  ASSERT_EQ(zorlib_ifg_create("1234567890123456", &config, &mine), 0);
  clearRequests();
  zorvik_ifg_enum list;
  std::memset(&list, 0xff, sizeof list);
  ASSERT_EQ(zorlib_ifg_enum(&list), 0);
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_IFG_ENUM));
  ASSERT_EQ(list.count, 2u);
  EXPECT_STREQ(list.records[0].name, "brund");
  EXPECT_EQ(list.records[0].num_ifs, 4u);
  EXPECT_EQ(std::string(list.records[1].name, 16), "1234567890123456");
  EXPECT_EQ(list.records[1].num_ifs, 2u);
  for (std::uint32_t i = 2; i < ZORVIK_ENUM_MAX; ++i) {
    EXPECT_STREQ(list.records[i].name, "_nil_ifg");
    EXPECT_EQ(list.records[i].num_ifs, 0u);
  }
  EXPECT_EQ(zorlib_ifg_close(mine), 0);
  EXPECT_EQ(zorlib_ifg_remove("1234567890123456"), 0);
  ASSERT_EQ(zorlib_ifg_enum(&list), 0);
  EXPECT_EQ(list.count, 1u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(ConfigTest, ADriverThatClaimsMoreGroupsThanFitIsBounded) {
  answer(ZORVIK_IFG_ENUM, [](int, void* argument) {
    EXPECT_EQ(static_cast<zorvik_ifg_enum*>(argument)->count, 32u);
    static_cast<zorvik_ifg_enum*>(argument)->count = 0xffffffff;
    return 0;
  });
  zorvik_ifg_enum list{};
  EXPECT_EQ(zorlib_ifg_enum(&list), 0);
  EXPECT_EQ(list.count, 32u);
}

TEST_F(ConfigTest, SaysWhyTheListFailed) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  zorvik_ifg_enum list{};
  list.count = 5;
  refuse(ZORVIK_IFG_ENUM, EIO);
  EXPECT_EQ(zorlib_ifg_enum(&list), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(list.count, 5u);
  EXPECT_EQ(descriptors(), before);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_ifg_enum: enum ioctl failed - Input/output error")));
  std::filesystem::rename("/dev/zorvik/ctl", "/dev/zorvik/hidden");
  clearLog();
  systemCalls.looks = 0;
  systemCalls.appearsAt = 1;
  systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
  EXPECT_EQ(zorlib_ifg_enum(&list), -1);
  EXPECT_EQ(errno, ENOENT);
  systemCalls.fakeNode = false;
  std::filesystem::rename("/dev/zorvik/hidden", "/dev/zorvik/ctl");
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_alloc: Cannot open zorvik ctl - "
                                            "No such file or directory")));
}

}  // namespace
}  // namespace tarnik::test
