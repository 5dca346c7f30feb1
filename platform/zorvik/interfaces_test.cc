// What a group is told: its interfaces and queue pairs; and the list of groups.
#include <functional>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class InterfacesTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = node("brund/ctl");
  }
  void TearDown() override {
    ifg_ = Fd();
    DriverTest::TearDown();
  }

  [[nodiscard]] int configure(zorvik_ifg_config config) const {
    return call(ifg_, ZORVIK_IFG_CONFIGURE, &config);
  }
  using Change = std::function<void(zorvik_ifg_config&)>;
  [[nodiscard]] int configure(const Change& change) const {
    zorvik_ifg_config config = description(4);
    change(config);
    return configure(config);
  }
  [[nodiscard]] int set(zorvik_qpair_cfg pair) const { return call(ifg_, ZORVIK_QPAIR_SET, &pair); }
  [[nodiscard]] zorvik_qpair_cfg get(std::uint32_t index) const {
    zorvik_qpair_cfg pair{.index = index, .size = 77, .if_mask = 77, .cpu_mask = 77};
    EXPECT_EQ(call(ifg_, ZORVIK_QPAIR_GET, &pair), 0);
    EXPECT_EQ(pair.index, index);
    return pair;
  }

  Fd ifg_;
};

std::vector<std::uint32_t> kernelIndexes(const std::vector<zorvik_if_record>& records) {
  std::vector<std::uint32_t> indexes;
  for (const zorvik_if_record& each : records) {
    indexes.push_back(each.kern_if);
  }
  return indexes;
}

TEST_F(InterfacesTest, AGroupBeginsWithoutInterfaces) {
  int cookie = -1;
  EXPECT_THAT(interfaces(ifg_, &cookie), IsEmpty());
  EXPECT_EQ(cookie, 0);
}

TEST_F(InterfacesTest, AreToldAsTheyWereConfigured) {
  const zorvik_ifg_config wanted = description(4);
  ASSERT_EQ(configure(wanted), 0);
  int cookie = 0;
  const std::vector<zorvik_if_record> found = interfaces(ifg_, &cookie);
  ASSERT_THAT(found, SizeIs(4));
  EXPECT_EQ(std::memcmp(found.data(), wanted.ifs, 4 * sizeof(zorvik_if_record)), 0);
  EXPECT_GT(cookie, 0);
  zorvik_ifg_query query{};
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), 0) << "the flags are another question";
  EXPECT_EQ(query.flags, 0u);
}

TEST_F(InterfacesTest, OtherProcessesFindThem) {
  Child owner([] {
    zorvik_ifg_config wanted = description(2);
    return call(node("brund/ctl"), ZORVIK_IFG_CONFIGURE, &wanted);
  });
  EXPECT_EQ(owner.join(), 0);
  EXPECT_THAT(kernelIndexes(interfaces(ifg_)), ElementsAre(101, 102));
}

TEST_F(InterfacesTest, ANewConfigurationReplacesTheOldOne) {
  ASSERT_EQ(configure(description(32)), 0);
  int before = 0;
  EXPECT_THAT(interfaces(ifg_, &before), SizeIs(32));
  ASSERT_EQ(configure(description(2, 103)), 0);
  int after = 0;
  EXPECT_THAT(kernelIndexes(interfaces(ifg_, &after)), ElementsAre(103, 104));
  EXPECT_GT(after, 0);
  EXPECT_NE(before, after);
}

TEST_F(InterfacesTest, AsManyAreToldAsFit) {
  ASSERT_EQ(configure(description(4)), 0);
  EXPECT_THAT(kernelIndexes(interfaces(ifg_, nullptr, 3)), ElementsAre(101, 102, 103));
  EXPECT_THAT(interfaces(ifg_, nullptr, 0xffffffff), SizeIs(4));
  zorvik_ifg_query query{.flags = 0, .count = 4, .reserved = 0};
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), -EFAULT);
  EXPECT_EQ(query.count, 4u);
}

TEST_F(InterfacesTest, WhatIsRefusedChangesNothing) {
  ASSERT_EQ(configure(description(2, 120)), 0);
  int before = 0;
  (void)interfaces(ifg_, &before);
  const auto refused = [&](int error, const Change& change) {
    EXPECT_EQ(configure(change), error);
    int after = 0;
    EXPECT_THAT(kernelIndexes(interfaces(ifg_, &after)), ElementsAre(120, 121));
    EXPECT_EQ(after, before);
  };
  for (const std::uint32_t count : {0u, 1u, 3u, 33u, 34u, 0xfffffffeu}) {
    refused(-EINVAL, [=](auto& config) { config.num_ifs = count; });
  }
  refused(-EINVAL, [](auto& config) { config.ifs[0].mate = 2; });
  refused(-EINVAL, [](auto& config) { config.ifs[3].mate = 0xffffffff; });
  refused(-EINVAL, [](auto& config) { config.ifs[2].mode = config.ifs[3].mode = 0; });
  refused(-EINVAL, [](auto& config) { config.ifs[2].mode = config.ifs[3].mode = 4; });
  refused(-EINVAL, [](auto& config) { config.ifs[0].sub_mode = config.ifs[1].sub_mode = 5; });
  refused(-EINVAL, [](auto& config) { config.ifs[0].duplex = config.ifs[1].duplex = 3; });
  refused(-EINVAL, [](auto& config) { config.ifs[1].mode = ZORVIK_IF_INLINE; });
  refused(-EINVAL, [](auto& config) { config.ifs[1].sub_mode = 0; });
  refused(-EINVAL, [](auto& config) { config.ifs[1].mtu = 0; });
  refused(-EINVAL, [](auto& config) { config.ifs[1].speed = 0; });
  refused(-EINVAL, [](auto& config) { config.ifs[1].duplex = 0; });
  refused(-EINVAL, [](auto& config) { config.fwd_unanalyzed = 2; });
  refused(-EINVAL, [](auto& config) { config.prop_link = 2; });
  refused(-EINVAL, [](auto& config) { config.prop_link = 1; });
  refused(-EINVAL, [](auto& config) {
    config.prop_link = 1;
    config.prop_link_time = 4999;
  });
  refused(-EINVAL, [](auto& config) { config.link_config = 0x40; });
  refused(-EINVAL, [](auto& config) { config.link_config = 0xfffe; });
  refused(-ENXIO, [](auto& config) { config.ifs[3].kern_if = 7; });
  refused(-ENXIO, [](auto& config) { config.ifs[0].kern_if = 0; });
  refused(-EEXIST, [](auto& config) { config.ifs[3].kern_if = 101; });
}

TEST_F(InterfacesTest, TheBoundsAreAccepted) {
  EXPECT_EQ(configure([](auto& config) { config.num_ifs = 2; }), 0);
  EXPECT_EQ(configure(description(32)), 0);
  EXPECT_EQ(configure([](auto& config) {
              config.fwd_unanalyzed = config.prop_link = 1;
              config.prop_link_time = 5000;
              config.link_config = 0x3f;
            }),
            0);
  for (const std::uint32_t mode : {ZORVIK_IF_INLINE, ZORVIK_IF_PASSIVE, ZORVIK_IF_BYPASS}) {
    EXPECT_EQ(configure([=](auto& config) {
                config.num_ifs = 2;
                config.ifs[0].mode = config.ifs[1].mode = mode;
                config.ifs[0].sub_mode = config.ifs[1].sub_mode = 0;
              }),
              0);
  }
}

TEST_F(InterfacesTest, LinkConfigurationCanStayAsItIs) {
  const auto now = [] {
    const Lock lock(Driver::get()->state());
    return Driver::get()->state().groups[0].settings().config.link_config;
  };
  EXPECT_EQ(configure([](auto& config) { config.link_config = 0xffff; }), 0);
  EXPECT_EQ(now(), 0);
  EXPECT_EQ(configure([](auto& config) { config.link_config = 0x15; }), 0);
  EXPECT_EQ(configure([](auto& config) { config.link_config = 0xffff; }), 0);
  EXPECT_EQ(now(), 0x15);
  EXPECT_EQ(configure(description(2)), 0);
  EXPECT_EQ(now(), 0);
}

TEST_F(InterfacesTest, AnInterfaceBelongsToOneGroup) {
  ASSERT_EQ(createIfg("other", 4), 0);
  zorvik_ifg_config wanted = description(2, 103);
  ASSERT_EQ(call(node("other/ctl"), ZORVIK_IFG_CONFIGURE, &wanted), 0);
  EXPECT_EQ(configure(description(4)), -EBUSY);
  EXPECT_EQ(configure(description(2)), 0);
  EXPECT_EQ(configure(description(2)), 0) << "its own it may name again";
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), 0);
  EXPECT_EQ(configure(description(4)), 0);
}

TEST_F(InterfacesTest, AGroupMadeAnewKnowsNothingOfTheOldOne) {
  ASSERT_EQ(createIfg("other", 4), 0);
  zorvik_ifg_config wanted = description(2);
  zorvik_qpair_cfg pair{.index = 3, .size = 5, .if_mask = 1, .cpu_mask = 2};
  {
    const Fd other = node("other/ctl");
    ASSERT_EQ(call(other, ZORVIK_IFG_CONFIGURE, &wanted), 0);
    ASSERT_EQ(call(other, ZORVIK_QPAIR_SET, &pair), 0);
    ASSERT_THAT(alloc(node("other/frm_desc"), 1, 2), SizeIs(2));
  }
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), 0);
  ASSERT_EQ(createIfg("other", 4), 0);
  const Fd other = node("other/ctl");
  EXPECT_THAT(interfaces(other), IsEmpty());
  EXPECT_EQ(call(other, ZORVIK_QPAIR_GET, &pair), 0);
  EXPECT_EQ(pair.size, 0u);
  EXPECT_EQ(statistics(other).frm_allocs, 0u);
}

// ---- Queue pairs

TEST_F(InterfacesTest, AQueuePairBeginsAllZero) {
  for (const std::uint32_t index : {0u, 31u}) {
    const zorvik_qpair_cfg pair = get(index);
    EXPECT_EQ(pair.size, 0u);
    EXPECT_EQ(pair.if_mask, 0u);
    EXPECT_EQ(pair.cpu_mask, 0u);
  }
}

TEST_F(InterfacesTest, AQueuePairIsKept) {
  ASSERT_EQ(configure(description(32)), 0);
  EXPECT_EQ(set({.index = 0, .size = 16000000, .if_mask = 0xffffffff, .cpu_mask = ~0ull}), 0);
  EXPECT_EQ(set({.index = 31, .size = 1, .if_mask = 0, .cpu_mask = 0}), 0);
  Child other([this] { return set({.index = 5, .size = 7, .if_mask = 2, .cpu_mask = 8}); });
  EXPECT_EQ(other.join(), 0);
  EXPECT_EQ(get(0).size, 16000000u);
  EXPECT_EQ(get(0).if_mask, 0xffffffffu);
  EXPECT_EQ(get(0).cpu_mask, ~0ull);
  EXPECT_EQ(get(31).size, 1u);
  EXPECT_EQ(get(5).size, 7u);
  EXPECT_EQ(get(5).if_mask, 2u);
  EXPECT_EQ(get(5).cpu_mask, 8u);
  EXPECT_EQ(get(1).size, 0u);
  EXPECT_THAT(interfaces(ifg_), SizeIs(32));
}

TEST_F(InterfacesTest, QueuePairRefusals) {
  const zorvik_qpair_cfg sound{.index = 3, .size = 9, .if_mask = 0, .cpu_mask = 0};
  ASSERT_EQ(set(sound), 0);
  EXPECT_EQ(set({.index = 3, .size = 1, .if_mask = 1, .cpu_mask = 0}), -EINVAL);
  ASSERT_EQ(configure(description(2)), 0);
  EXPECT_EQ(set({.index = 3, .size = 1, .if_mask = 4, .cpu_mask = 0}), -EINVAL);
  EXPECT_EQ(set({.index = 3, .size = 1, .if_mask = 1ull << 63, .cpu_mask = 0}), -EINVAL);
  EXPECT_EQ(set({.index = 3, .size = 16000001, .if_mask = 1, .cpu_mask = 0}), -EINVAL);
  for (const std::uint32_t index : {32u, 0x80000003u, 0xffffffffu}) {
    zorvik_qpair_cfg pair = sound;
    pair.index = index;
    EXPECT_EQ(set(pair), -EINVAL);
    EXPECT_EQ(call(ifg_, ZORVIK_QPAIR_GET, &pair), -EINVAL);
  }
  EXPECT_EQ(get(3).size, 9u);
}

TEST_F(InterfacesTest, AConfigurationKeepsQueuePairsButForInterfacesThatAreGone) {
  ASSERT_EQ(configure(description(4)), 0);
  ASSERT_EQ(set({.index = 1, .size = 9, .if_mask = 0xe, .cpu_mask = 3}), 0);
  ASSERT_EQ(configure(description(2)), 0);
  EXPECT_EQ(get(1).size, 9u);
  EXPECT_EQ(get(1).if_mask, 2u);
  EXPECT_EQ(get(1).cpu_mask, 3u);
  ASSERT_EQ(configure(description(4)), 0);
  EXPECT_EQ(get(1).if_mask, 2u);
}

// ---- The list of groups

zorvik_ifg_enum groups(std::uint32_t capacity = ZORVIK_ENUM_MAX) {
  zorvik_ifg_enum list{};
  list.count = capacity;
  EXPECT_EQ(call(node("ctl"), ZORVIK_IFG_ENUM, &list), 0);
  return list;
}

std::vector<std::string> names(const zorvik_ifg_enum& list) {
  std::vector<std::string> result;
  for (std::uint32_t i = 0; i < std::min(list.count, ZORVIK_ENUM_MAX); ++i) {
    result.emplace_back(list.records[i].name, ::strnlen(list.records[i].name, ZORVIK_NAME_MAX));
  }
  return result;
}

TEST_F(InterfacesTest, GroupsAreListedWithTheNumberOfTheirInterfaces) {
  ASSERT_EQ(createIfg("ABCDEFGHIJKLMNOP", 4), 0);
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "bare"), 0);
  ASSERT_EQ(configure(description(6)), 0);
  const zorvik_ifg_enum list = groups();
  EXPECT_THAT(names(list), ElementsAre("brund", "ABCDEFGHIJKLMNOP", "bare"));
  EXPECT_EQ(list.records[0].num_ifs, 6u);
  EXPECT_EQ(list.records[1].num_ifs, 0u);
  EXPECT_NE(list.records[0].id, list.records[1].id);
  EXPECT_THAT(names(groups(2)), SizeIs(2));
  EXPECT_THAT(names(groups(0)), IsEmpty());
  EXPECT_THAT(names(groups(0xffffffff)), SizeIs(3));
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "ABCDEFGHIJKLMNOP"), 0);
  EXPECT_THAT(names(groups()), ElementsAre("brund", "bare"));
}

TEST_F(InterfacesTest, WithoutGroupsTheListIsEmpty) {
  ifg_ = Fd();
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "brund"), 0);
  EXPECT_EQ(groups().count, 0u);
}

TEST_F(InterfacesTest, NoGroupHasTheNameOfNone) {
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "_nil_ifg"), -EINVAL);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "_nil_ifgs"), 0);
}

TEST_F(InterfacesTest, NullArgumentsAndTheWrongNodeAreRefused) {
  zorvik_ifg_config wanted = description(2);
  zorvik_ifg_enum list{};
  for (const unsigned long request :
       {ZORVIK_IFG_CONFIGURE, ZORVIK_IFG_STATS, ZORVIK_QPAIR_SET, ZORVIK_QPAIR_GET}) {
    EXPECT_EQ(call(ifg_, request, nullptr), -EFAULT);
    EXPECT_EQ(call(node("ctl"), request, &wanted), -ENOTTY);
    EXPECT_EQ(call(node("brund/frm_desc"), request, &wanted), -ENOTTY);
  }
  EXPECT_EQ(call(node("ctl"), ZORVIK_IFG_ENUM, nullptr), -EFAULT);
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_ENUM, &list), -ENOTTY);
}

}  // namespace
}  // namespace tarnik::zorvik
