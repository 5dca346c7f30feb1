// Open groups: flags, interfaces, queue pairs and counters, and the list of groups.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ConfigTest : public GroupTest {
 protected:
  // Parameters remain until the process ends.
  static void SetUpTestSuite() {
    ASSERT_EQ(zorlib_set_param("zorvik.brund.q_size", "2000"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.5.if_mask", "3"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.5.cpu_mask", "c"), 0);
    ASSERT_EQ(zorlib_set_param("zorvik.brund.6.if_mask", "10"), 0);  // the fifth interface
  }

  [[nodiscard]] std::uint64_t flags() const {
    std::uint64_t result = 0;
    EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &result), 0);
    return result;
  }
  [[nodiscard]] zorlib_ifg_info interfaces() const {
    zorlib_ifg_info info;
    EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
    return info;
  }
  void expectPair(std::uint32_t index, std::uint32_t size, std::uint64_t ifMask,
                  std::uint64_t cpuMask) const {
    zorvik_qpair_cfg cfg{.index = index, .size = 77, .if_mask = 77, .cpu_mask = 77};
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg_, &cfg), 0);
    EXPECT_EQ(cfg.index, index);
    EXPECT_EQ(cfg.size, size);
    EXPECT_EQ(cfg.if_mask, ifMask);
    EXPECT_EQ(cfg.cpu_mask, cpuMask);
  }
};

// ---- Flags

TEST_F(ConfigTest, ReadsAndSetsTheFlags) {
  EXPECT_EQ(flags(), 0u);
  EXPECT_EQ(zorlib_ifg_set_flags(ifg_, 0xf000000000000002), 0);
  EXPECT_EQ(flags(), 0xf000000000000002u);
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(zorlib_ifg_enable(ifg_), 0);
    EXPECT_EQ(flags(), 0xf000000000000003u);
  }
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(zorlib_ifg_disable(ifg_), 0);
    EXPECT_EQ(flags(), 0xf000000000000002u);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(ConfigTest, ARefusalToSetFlagsIsOnlyLogged) {
  refuse(ZORVIK_IFG_SET_FLAGS, EPERM);
  EXPECT_EQ(zorlib_ifg_set_flags(ifg_, 1), 0);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_ifg_set_flags: set_flags ioctl (brund) failed - "
                               "Operation not permitted"}));
}

TEST_F(ConfigTest, FlagsThatCannotBeReadAreNotWritten) {
  const char kLine[] =
      "Error: zorlib_ifg_get_flags: query ioctl (brund) failed - Input/output error";
  for (const int result : {-1, -4, -1000}) {
    answerAsIs(ZORVIK_IFG_QUERY, result, EIO);
    std::uint64_t flags = 77;
    clearLog();
    EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), result) << "the driver's result";
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(flags, 77u);
    EXPECT_EQ(logLines(), lines({kLine}));
    expectFailure([&] { return zorlib_ifg_enable(ifg_); }, EIO, {kLine});
    expectFailure([&] { return zorlib_ifg_disable(ifg_); }, EIO, {kLine});
  }
  EXPECT_EQ(count(ZORVIK_IFG_SET_FLAGS), 0);
}

// ---- Interfaces

TEST_F(ConfigTest, TheDriverGetsTheWholeDescription) {
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
  const zorlib_ifg_info info = interfaces();
  EXPECT_EQ(info.num_ifs, 6u);
  EXPECT_EQ(std::memcmp(info.ifs, config.ifs, 6 * sizeof(zorvik_if_record)), 0);
  EXPECT_EQ(info.ifs[6].kern_if, 0u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(ConfigTest, ARefusedDescriptionChangesNothing) {
  configureElsewhere(4);
  const zorvik_ifg_config config = description(2);
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  expectFailure(
      [&] { return zorlib_ifg_configure(ifg_, &config); }, EIO,
      {"Error: zorlib_ifg_configure: configure ioctl (brund) failed - Input/output error"});
  EXPECT_EQ(interfaces().num_ifs, 4u);
}

TEST_F(ConfigTest, AHandleSeesAConfigurationThroughAnotherHandle) {
  const char kTooLow[] =
      "Warning: zorlib_ifg_lookup_qsize: brund q_size out of bounds (500<=N<=50000 [per IF])";
  configureElsewhere(4);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  EXPECT_THAT(logLines(), IsEmpty());
  configureElsewhere(6);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 0u);
  EXPECT_EQ(logLines(), lines({kTooLow}));
  configureElsewhere(2);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  // If the query fails, the handle keeps the last number.
  refuse(ZORVIK_IFG_QUERY, EIO);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 2000u);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(logLines(), lines({kTooLow}));
}

// A count without a cookie counts as 0, and a count above the capacity is limited.
TEST_F(ConfigTest, TheDriversCountOfInterfacesIsChecked) {
  int cookie = 0;
  std::uint32_t count = 4;
  answer(ZORVIK_IFG_QUERY, [&](int, void* argument) {
    auto& query = *static_cast<zorvik_ifg_query*>(argument);
    EXPECT_EQ(query.count, 32u);
    zorvik_if_record nine{};
    nine.kern_if = 9;
    std::fill_n(reinterpret_cast<zorvik_if_record*>(query.flags), query.count, nine);
    query.count = count;
    return cookie;
  });
  EXPECT_EQ(zorlib_ifg_lookup_qsize(ifg_, nullptr), 0u);
  EXPECT_EQ(ifg_->numIfs, 0u);
  clearLog();
  EXPECT_EQ(interfaces().num_ifs, 0u);
  EXPECT_EQ(interfaces().ifs[0].kern_if, 0u);
  const char kLine[] = "Error: zorlib_ifg_query: Rtnd cookie 0 but count != 0 (4)";
  EXPECT_EQ(logLines(), lines({kLine, kLine}));
  cookie = 1;
  const zorlib_ifg_info info = interfaces();
  EXPECT_EQ(info.num_ifs, 4u);
  EXPECT_EQ(info.ifs[3].kern_if, 9u);
  EXPECT_EQ(info.ifs[4].kern_if, 0u);
  count = 0xffffffff;
  EXPECT_EQ(interfaces().num_ifs, 32u);
  (void)zorlib_ifg_lookup_qsize(ifg_, nullptr);
  EXPECT_EQ(ifg_->numIfs, 32u);
}

TEST_F(ConfigTest, AFailedQueryChangesNothing) {
  for (const int result : {-1, -4, -1000}) {
    answerAsIs(ZORVIK_IFG_QUERY, result, EIO);
    zorlib_ifg_info info;
    info.num_ifs = 77;
    expectFailure([&] { return zorlib_ifg_query(ifg_, &info); }, EIO,
                  {"Error: zorlib_ifg_query: query ioctl (brund) failed - Input/output error"});
    EXPECT_EQ(info.num_ifs, 77u);
  }
}

// ---- Queue pairs

TEST_F(ConfigTest, AMemberOfAQueuePairThatIsZeroComesFromTheParameters) {
  configureElsewhere(4);
  zorvik_qpair_cfg cfg{.index = 5, .size = 0, .if_mask = 0, .cpu_mask = 0};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  EXPECT_EQ(cfg.if_mask, 0u) << "the caller's structure changed";
  expectPair(5, 2000, 3, 0xc);
  cfg = {.index = 5, .size = 900, .if_mask = 8, .cpu_mask = 1};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  expectPair(5, 900, 8, 1);
  EXPECT_THAT(logLines(), IsEmpty());
  cfg = {.index = 6, .size = 1, .if_mask = 0, .cpu_mask = 0};
  EXPECT_EQ(zorlib_ifg_set_qpair_cfg(ifg_, &cfg), 0);
  expectPair(6, 1, 0, 0);
  EXPECT_EQ(logLines(),
            lines({"Warning: zorlib_ifg_lookup_if_mask: brund if_mask 10 for 4 interfaces"}));
}

TEST_F(ConfigTest, AQueuePairIsZeroUntilItIsSet) {
  expectPair(0, 0, 0, 0);
  expectPair(31, 0, 0, 0);
}

TEST_F(ConfigTest, RefusesQueuePairs) {
  zorvik_qpair_cfg cfg{.index = 0, .size = 1, .if_mask = 1, .cpu_mask = 1};
  const auto set = [&] { return zorlib_ifg_set_qpair_cfg(ifg_, &cfg); };
  const auto get = [&] { return zorlib_ifg_get_qpair_cfg(ifg_, &cfg); };
  for (const std::uint32_t index : {32u, 0xffffffffu}) {
    cfg.index = index;
    expectFailure(set, EINVAL);
    expectFailure(get, EINVAL);
  }
  EXPECT_THAT(requests(), IsEmpty());
  cfg.index = 31;  // the group has no interface
  expectFailure(
      set, EINVAL,
      {"Error: zorlib_ifg_set_qpair_cfg: set ioctl (brund/31) failed - Invalid argument"});
  refuse(ZORVIK_QPAIR_GET, EIO);
  expectFailure(
      get, EIO,
      {"Error: zorlib_ifg_get_qpair_cfg: get ioctl (brund/31) failed - Input/output error"});
  EXPECT_EQ(cfg.size, 1u);
}

// ---- Counters

TEST_F(ConfigTest, ReadsTheCounters) {
  zorvik_ifg_stats stats{};
  EXPECT_EQ(zorlib_ifg_get_stats(ifg_, &stats), 0);
  EXPECT_EQ(stats.frm_count, kFrames);
  EXPECT_EQ(stats.buf_count, 136u);
  EXPECT_EQ(stats.buf_free, 136u);
  EXPECT_EQ(stats.frm_allocs, 0u);
}

TEST_F(ConfigTest, LogsWhyTheCountersCannotBeRead) {
  refuse(ZORVIK_IFG_STATS, EIO);
  zorvik_ifg_stats counters{};
  counters.frm_count = 7;
  expectFailure([&] { return zorlib_ifg_get_stats(ifg_, &counters); }, EIO,
                {"Error: zorlib_ifg_get_stats: stats ioctl (brund) failed - Input/output error"});
  EXPECT_EQ(counters.frm_count, 7u);
}

// ---- The list of groups

TEST_F(ConfigTest, ListsGroups) {
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

TEST_F(ConfigTest, TheDriversCountOfGroupsIsLimited) {
  answer(ZORVIK_IFG_ENUM, [](int, void* argument) {
    EXPECT_EQ(static_cast<zorvik_ifg_enum*>(argument)->count, 32u);
    static_cast<zorvik_ifg_enum*>(argument)->count = 0xffffffff;
    return 0;
  });
  zorvik_ifg_enum list{};
  EXPECT_EQ(zorlib_ifg_enum(&list), 0);
  EXPECT_EQ(list.count, 32u);
}

TEST_F(ConfigTest, LogsWhyTheListFailed) {
  const int before = openDescriptors();
  zorvik_ifg_enum list{};
  list.count = 5;
  const auto enumerate = [&] { return zorlib_ifg_enum(&list); };
  refuse(ZORVIK_IFG_ENUM, EIO);
  expectFailure(enumerate, EIO, {"Error: zorlib_ifg_enum: enum ioctl failed - Input/output error"});
  EXPECT_EQ(list.count, 5u);
  EXPECT_EQ(openDescriptors(), before);
  const HiddenFile hidden("/dev/zorvik/ctl");
  nodeAppearsAt(1);
  expectFailure(enumerate, ENOENT,
                {"Error: zorlib_ifg_alloc: Cannot open zorvik ctl - No such file or directory"});
}

}  // namespace
}  // namespace tarnik::test
