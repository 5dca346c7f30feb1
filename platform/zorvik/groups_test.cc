// Loading the driver, groups and their settings, and the arguments of all requests.
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string k16 = "ABCDEFGHIJKLMNOP";

class GroupsTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = node("brund/ctl");
  }
  void TearDown() override {
    ifg_ = Fd();
    DriverTest::TearDown();
  }
  static zorvik_ifg_enum groups(std::uint32_t capacity = ZORVIK_ENUM_MAX) {
    return enumerate<zorvik_ifg_enum>(node("ctl"), ZORVIK_IFG_ENUM, capacity);
  }

  Fd ifg_;
};

// ---- Loading

TEST_F(GroupsTest, LoadingTwiceFails) {
  EXPECT_EQ(load(kClasses), -EEXIST);
}

TEST(Load, RefusesPoolsOutsideTheLimits) {
  using Classes = std::vector<ClassSize>;
  for (const Classes& classes :
       {Classes{}, Classes{{2048, 0}}, Classes{{100, 1}}, Classes{{0, 1}}, Classes{{65600, 1}},
        Classes{{2048, 1}, {2048, 1}}, Classes{{2048, 1}, {1024, 1}}, Classes{{65536, 65536}},
        Classes{{64, 1000001}}, Classes{{64, 1}, {128, 1}, {192, 1}, {256, 1}, {320, 1}}}) {
    EXPECT_EQ(load(classes), -EINVAL);
  }
  EXPECT_EQ(unload(), -ENODEV);
  EXPECT_FALSE(exists("ctl"));
  EXPECT_FALSE(exists("net_data"));
}

TEST_F(GroupsTest, AProcessFindsADriverThatWasLoadedAgain) {
  ifg_ = Fd();
  ASSERT_EQ(unload(), 0);
  ASSERT_EQ(load(std::vector<ClassSize>{{64, 3}}), 0);
  std::uint32_t size = 0;
  EXPECT_EQ(call(node("net_data"), ZORVIK_NET_DATA_SIZE, &size), 0);
  EXPECT_EQ(size, 192u);
}

TEST_F(GroupsTest, KeepsTheLoggingMask) {
  std::uint64_t mask = 1;
  EXPECT_EQ(call(node("ctl"), ZORVIK_GET_LOG_MASK, &mask), 0);
  EXPECT_EQ(mask, 0u);
  mask = 0xfedcba9876543210;
  EXPECT_EQ(call(node("ctl"), ZORVIK_SET_LOG_MASK, &mask), 0);
  mask = 0;
  EXPECT_EQ(call(node("ctl"), ZORVIK_GET_LOG_MASK, &mask), 0);
  EXPECT_EQ(mask, 0xfedcba9876543210);
}

// ---- Groups

TEST_F(GroupsTest, OwnerAndGroupCanUseTheNodesWhateverTheUmaskIs) {
  const mode_t before = ::umask(0077);
  ASSERT_EQ(createIfg("other", 1), 0);
  ::umask(before);
  for (const char* path : {"ctl", "net_data", "other/ctl", "other/frm_desc"}) {
    struct stat status {};
    ASSERT_EQ(::stat((std::string(ZORVIK_DEV_DIR "/") + path).c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & 0777, 0660u) << path;
  }
}

TEST_F(GroupsTest, SizesOfTheSharedMemory) {
  EXPECT_EQ(descSize(node("brund/frm_desc")), 13 * 128);  // no frame has the first descriptor
  std::uint32_t payload = 0;
  EXPECT_EQ(call(node("net_data"), ZORVIK_NET_DATA_SIZE, &payload), 0);
  EXPECT_EQ(payload, 8u * 2048 + 4u * 16384 + 2u * 65536);
}

TEST_F(GroupsTest, Names) {
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, k16), 0);
  EXPECT_TRUE(exists(k16 + "/ctl"));
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, k16 + "Q"), -ENAMETOOLONG);
  for (const char* bad : {"", ".", "..", ".x", "a/b", "/", "ctl", "net_data", "_nil_ifg"}) {
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, bad), -EINVAL) << bad;
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "_nil_ifgs"), 0);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "brund"), -EEXIST);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "Brund"), 0);
  EXPECT_EQ(removeIfg(k16), 0);
  EXPECT_FALSE(exists(k16));
  EXPECT_EQ(removeIfg(k16), -ENOENT);
}

TEST_F(GroupsTest, AtMostEight) {
  for (int i = 1; i < 8; ++i) {
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g" + std::to_string(i)), 0);
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g8"), -ENOSPC);
  EXPECT_EQ(removeIfg("g3"), 0);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g8"), 0);
}

TEST_F(GroupsTest, EnumerationListsThemWithTheNumberOfInterfaces) {
  ASSERT_EQ(createIfg(k16, 4), 0);
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "bare"), 0);
  zorvik_ifg_config config = description(6);
  ASSERT_EQ(call(ifg_, ZORVIK_IFG_CONFIGURE, &config), 0);
  const zorvik_ifg_enum list = groups();
  EXPECT_THAT(names(list), ElementsAre("brund", k16, "bare"));
  EXPECT_EQ(list.records[0].num_ifs, 6u);
  EXPECT_EQ(list.records[1].num_ifs, 0u);
  EXPECT_NE(list.records[0].id, list.records[1].id);
  EXPECT_THAT(names(groups(2)), ElementsAre("brund", k16));
  EXPECT_THAT(names(groups(0)), IsEmpty());
  EXPECT_EQ(groups(0xffffffff).count, 3u);
  for (const std::string& name : {k16, std::string("bare"), std::string("brund")}) {
    ifg_ = Fd();
    ASSERT_EQ(removeIfg(name), 0);
  }
  EXPECT_EQ(groups().count, 0u);
}

TEST_F(GroupsTest, FrameDataIsCreatedOnce) {
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "bare"), 0);
  const Fd ifg = node("bare/ctl");
  const Fd desc = node("bare/frm_desc");
  EXPECT_EQ(statistics(ifg).frm_count, 0u);
  EXPECT_EQ(statistics(ifg).frm_free, 0u);
  EXPECT_EQ(descSize(desc), -ENXIO);
  EXPECT_EQ(allocError(desc, 1), -ENXIO);
  EXPECT_EQ(freeId(desc, 1), -EINVAL);
  for (std::uint32_t bad : {0u, 1000001u}) {
    EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &bad), -EINVAL);
  }
  std::uint32_t frames = 1;
  EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &frames), 0);
  EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &frames), -EEXIST);
  EXPECT_EQ(descSize(desc), 256);
}

TEST_F(GroupsTest, TheLargestFrameDataOfTwoGroups) {
  ASSERT_EQ(createIfg("one", 1000000), 0);
  ASSERT_EQ(createIfg("two", 1000000), 0);
  EXPECT_EQ(inconsistencies(), "");
}

// ---- Settings

TEST_F(GroupsTest, KeepsFlags) {
  zorvik_ifg_query query{.flags = 99, .count = 0, .reserved = 0};
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0u);
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_SET_FLAGS, reinterpret_cast<void*>(0x8000000000000003)), 0);
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0x8000000000000003u);
  // The argument 0 means no flags, not a missing argument.
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_SET_FLAGS, nullptr), 0);
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0u);
}

class SettingsTest : public GroupsTest {
 protected:
  [[nodiscard]] int configure(zorvik_ifg_config config) const {
    return call(ifg_, ZORVIK_IFG_CONFIGURE, &config);
  }
  [[nodiscard]] int set(zorvik_qpair_cfg pair) const { return call(ifg_, ZORVIK_QPAIR_SET, &pair); }
  [[nodiscard]] zorvik_qpair_cfg get(std::uint32_t index) const {
    zorvik_qpair_cfg pair{.index = index, .size = 77, .if_mask = 77, .cpu_mask = 77};
    EXPECT_EQ(call(ifg_, ZORVIK_QPAIR_GET, &pair), 0);
    EXPECT_EQ(pair.index, index);
    return pair;
  }
  // The kernel indexes of the interfaces; sets cookie_ to the request's result.
  std::vector<std::uint32_t> interfaces(std::uint32_t capacity = ZORVIK_IF_MAX) {
    zorvik_if_record records[ZORVIK_IF_MAX];
    zorvik_ifg_query query{};
    query.flags = reinterpret_cast<std::uintptr_t>(records);
    query.count = capacity;
    cookie_ = call(ifg_, ZORVIK_IFG_QUERY, &query);
    EXPECT_GE(cookie_, 0);
    const zorvik_ifg_config expected = description(32);
    std::vector<std::uint32_t> indexes;
    for (std::uint32_t i = 0; i < std::min(query.count, ZORVIK_IF_MAX); ++i) {
      indexes.push_back(std::exchange(records[i].kern_if, expected.ifs[i].kern_if));
      EXPECT_EQ(std::memcmp(&records[i], &expected.ifs[i], sizeof(zorvik_if_record)), 0);
    }
    return indexes;
  }

  int cookie_ = -1;
};

TEST_F(SettingsTest, AConfigurationReplacesTheInterfaces) {
  EXPECT_THAT(interfaces(), IsEmpty());
  EXPECT_EQ(cookie_, 0);
  ASSERT_EQ(configure(description(32)), 0);
  EXPECT_EQ(interfaces().size(), 32u);
  const int before = cookie_;
  EXPECT_GT(before, 0);
  // From another process.
  Process owner([] {
    zorvik_ifg_config config = description(4, 103);
    return call(node("brund/ctl"), ZORVIK_IFG_CONFIGURE, &config);
  });
  EXPECT_EQ(owner.wait(), test::kSucceeded);
  EXPECT_THAT(interfaces(), ElementsAre(103, 104, 105, 106));
  EXPECT_GT(cookie_, 0);
  EXPECT_NE(cookie_, before);
  EXPECT_THAT(interfaces(3), ElementsAre(103, 104, 105));
  EXPECT_EQ(interfaces(0xffffffff).size(), 4u);
  zorvik_ifg_query query{.flags = 0, .count = 4, .reserved = 0};
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), -EFAULT);
}

TEST_F(SettingsTest, RefusesNumbersOfInterfacesOutsideTheLimits) {
  ASSERT_EQ(configure(description(2, 120)), 0);
  for (const std::uint32_t count : {0u, 1u, 3u, 33u, 34u, 0xfffffffeu}) {
    EXPECT_EQ(configure(description(count)), -EINVAL) << count;
  }
  EXPECT_THAT(interfaces(), ElementsAre(120, 121));
}

TEST_F(SettingsTest, AnInterfaceBelongsToOneGroup) {
  ASSERT_EQ(createIfg("other", 4), 0);
  zorvik_ifg_config config = description(2, 103);
  ASSERT_EQ(call(node("other/ctl"), ZORVIK_IFG_CONFIGURE, &config), 0);
  EXPECT_EQ(configure(description(4)), -EBUSY);
  EXPECT_EQ(configure(description(4, 104)), -EBUSY);
  EXPECT_EQ(configure(description(2)), 0);
  EXPECT_EQ(configure(description(2)), 0) << "its own interfaces";
  ASSERT_EQ(removeIfg("other"), 0);
  EXPECT_EQ(configure(description(4)), 0);
}

TEST_F(SettingsTest, TheLinkConfigurationCanStay) {
  const auto configureLink = [&](std::uint16_t link) {
    zorvik_ifg_config config = description(2);
    config.link_config = link;
    EXPECT_EQ(configure(config), 0);
    const Lock lock(Driver::get()->state());
    return Driver::get()->state().groups[0].settings().config.link_config;
  };
  EXPECT_EQ(configureLink(0xffff), 0);
  EXPECT_EQ(configureLink(0x15), 0x15);
  EXPECT_EQ(configureLink(0xffff), 0x15);
  EXPECT_EQ(configureLink(0), 0);
}

TEST_F(SettingsTest, KeepsQueuePairs) {
  for (const std::uint32_t index : {0u, 31u}) {
    const zorvik_qpair_cfg pair = get(index);
    EXPECT_EQ(pair.size + pair.if_mask + pair.cpu_mask, 0u);
  }
  ASSERT_EQ(configure(description(32)), 0);
  EXPECT_EQ(set({.index = 0, .size = 16000000, .if_mask = 0xffffffff, .cpu_mask = ~0ull}), 0);
  EXPECT_EQ(set({.index = 31, .size = 1, .if_mask = 0xe, .cpu_mask = 3}), 0);
  EXPECT_EQ(get(0).size, 16000000u);
  EXPECT_EQ(get(0).if_mask, 0xffffffffu);
  EXPECT_EQ(get(0).cpu_mask, ~0ull);
  EXPECT_EQ(get(1).size, 0u);
  EXPECT_EQ(interfaces().size(), 32u);
  // A configuration keeps them, but removes interfaces that are gone from the masks.
  ASSERT_EQ(configure(description(2)), 0);
  ASSERT_EQ(configure(description(4)), 0);
  EXPECT_EQ(get(31).size, 1u);
  EXPECT_EQ(get(31).if_mask, 2u);
  EXPECT_EQ(get(31).cpu_mask, 3u);
}

TEST_F(SettingsTest, RefusesQueuePairsOutsideTheLimits) {
  ASSERT_EQ(set({.index = 3, .size = 9, .if_mask = 0, .cpu_mask = 0}), 0);
  EXPECT_EQ(set({.index = 3, .size = 1, .if_mask = 1, .cpu_mask = 0}), -EINVAL);
  ASSERT_EQ(configure(description(2)), 0);
  const zorvik_qpair_cfg cases[] = {
      {.index = 3, .size = 1, .if_mask = 4, .cpu_mask = 0},
      {.index = 3, .size = 1, .if_mask = 1ull << 63, .cpu_mask = 0},
      {.index = 3, .size = 16000001, .if_mask = 1, .cpu_mask = 0},
      {.index = 32, .size = 1, .if_mask = 1, .cpu_mask = 0},
      {.index = 0x80000003, .size = 1, .if_mask = 1, .cpu_mask = 0},
      {.index = 0xffffffff, .size = 1, .if_mask = 1, .cpu_mask = 0},
  };
  for (zorvik_qpair_cfg each : cases) {
    EXPECT_EQ(set(each), -EINVAL);
    EXPECT_EQ(call(ifg_, ZORVIK_QPAIR_GET, &each), each.index < 32 ? 0 : -EINVAL);
  }
  EXPECT_EQ(get(3).size, 9u);
}

TEST_F(SettingsTest, ANewGroupHasNothingOfARemovedOne) {
  ASSERT_EQ(configure(description(2)), 0);
  ASSERT_EQ(set({.index = 3, .size = 5, .if_mask = 1, .cpu_mask = 2}), 0);
  ASSERT_EQ(call(ifg_, ZORVIK_IFG_SET_FLAGS, reinterpret_cast<void*>(1)), 0);
  ASSERT_EQ(alloc(node("brund/frm_desc"), 1, 2).size(), 2u);
  ifg_ = Fd();
  ASSERT_EQ(removeIfg("brund"), 0);
  ASSERT_EQ(createIfg("brund", 4), 0);
  ifg_ = node("brund/ctl");
  EXPECT_THAT(interfaces(), IsEmpty());
  EXPECT_EQ(get(3).size, 0u);
  EXPECT_EQ(statistics(ifg_).frm_allocs, 0u);
  zorvik_ifg_query query{};
  EXPECT_EQ(call(ifg_, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0u);
}

// ---- Requests

TEST_F(GroupsTest, EachRequestNeedsItsNodeAndItsArgument) {
  ASSERT_GT(createQ(ifg_, "q", 8), 0);
  struct {
    const char* node;
    std::vector<unsigned long> requests;
  } const cases[] = {
      {"ctl",
       {ZORVIK_IFG_CREATE, ZORVIK_IFG_REMOVE, ZORVIK_IFG_ENUM, ZORVIK_GET_LOG_MASK,
        ZORVIK_SET_LOG_MASK}},
      {"net_data", {ZORVIK_NET_DATA_SIZE}},
      {"brund/ctl",
       {ZORVIK_IFG_QUERY, ZORVIK_IFG_CONFIGURE, ZORVIK_IFG_STATS, ZORVIK_QPAIR_SET,
        ZORVIK_QPAIR_GET, ZORVIK_Q_CREATE, ZORVIK_Q_REMOVE, ZORVIK_Q_ENUM, ZORVIK_FRM_DATA_CREATE}},
      {"brund/frm_desc", {ZORVIK_FRM_DESC_SIZE, ZORVIK_FRM_ALLOC, ZORVIK_FRM_FREE}},
      {"brund/q", {ZORVIK_Q_STAT, ZORVIK_Q_WAIT, ZORVIK_Q_WAKE}}};
  std::vector<std::uint8_t> argument(4096);
  for (const auto& each : cases) {
    for (const unsigned long request : each.requests) {
      EXPECT_EQ(call(node(each.node), request, nullptr), -EFAULT) << request;
      for (const auto& other : cases) {
        if (each.node != other.node) {
          EXPECT_EQ(call(node(other.node), request, argument.data()), -ENOTTY) << request;
        }
      }
    }
  }
  EXPECT_EQ(call(ifg_, _IO(ZORVIK_IOC, 0xff), argument.data()), -ENOTTY);
  EXPECT_EQ(call(-1, ZORVIK_Q_STAT, argument.data()), -ENOTTY);
  EXPECT_EQ(call(Fd::open("/dev/null"), ZORVIK_Q_STAT, argument.data()), -ENOTTY);
}

}  // namespace
}  // namespace tarnik::zorvik
