// Creating and removing groups.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "base/log.h"
#include "platform/zorvik/groups.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Change = std::function<void(zorvik_ifg_config&)>;

class CreateTest : public GroupTest {
 protected:
  int create(const char* name, const Change& change = {}) {
    zorvik_ifg_config config = config_;
    if (change) {
      change(config);
    }
    return zorlib_ifg_create(name, &config, &created_);
  }
  // zorlib_ifg_create and zorlib_ifg_configure both refuse the description.
  void refused(const Change& change, int expectedErrno, const std::string& message) {
    zorvik_ifg_config config = config_;
    change(config);
    clearRequests();
    SCOPED_TRACE(message);
    expectFailure([&] { return create("mine", change); }, expectedErrno,
                  {"Error: zorlib_ifg_create: " + message});
    expectFailure([&] { return zorlib_ifg_configure(ifg_, &config); }, expectedErrno,
                  {"Error: zorlib_ifg_configure: " + message});
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(created_, nullptr);
  }
  void accepted(const Change& change) {
    EXPECT_EQ(create("mine", change), 0);
    removeCreated();
  }
  // A later step fails, and the group is removed.
  void undone(int expectedErrno, const std::vector<std::string>& expectedLines,
              const std::string& name = "mine") {
    expectFailure([&] { return create(name.c_str()); }, expectedErrno, expectedLines);
    EXPECT_EQ(created_, nullptr);
    EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/" + name));
  }
  void removeCreated(const std::string& name = "mine") {
    EXPECT_EQ(zorlib_ifg_close(std::exchange(created_, nullptr)), 0);
    EXPECT_EQ(zorlib_ifg_remove(name.c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/" + name));
  }

  zorvik_ifg_config config_ = description(4);
  zorlib_ifg* created_ = nullptr;
};

TEST_F(CreateTest, CreatesTheGroupItsNodesAndItsFrames) {
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
  ASSERT_EQ(create("mine"), 0);
  EXPECT_THAT(requests(),
              ElementsAre(ZORVIK_IFG_CREATE, ZORVIK_FRM_DATA_CREATE, ZORVIK_IFG_CONFIGURE));
  EXPECT_EQ(name, "mine");
  EXPECT_EQ(frames, 16384u);
  EXPECT_EQ(created_->numIfs, 4u);
  EXPECT_EQ(created_->refs, 1u);
  zorlib_ifg_info info;
  EXPECT_EQ(zorlib_ifg_query(created_, &info), 0);
  EXPECT_EQ(info.num_ifs, 4u);
  EXPECT_EQ(std::memcmp(info.ifs, config_.ifs, 4 * sizeof(zorvik_if_record)), 0);
  createQueue(created_);
  zorlib_q* const q = openQueue(created_, ZORLIB_WRITE);
  zorvik_frm_desc* const frame = zorlib_ifg_frm_alloc(created_, 100);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(zorlib_frm_free(created_, frame), 0);
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(logLines(), IsEmpty());
  removeCreated();
}

// ---- The description

TEST_F(CreateTest, ChecksTheNumberOfInterfaces) {
  for (const std::uint32_t number : {0u, 1u, 3u, 33u, 34u}) {
    refused([&](auto& config) { config.num_ifs = number; }, EINVAL,
            "Invalid num_ifs " + std::to_string(number) + " (0 < N <= 32 && (N % 2) == 0)");
  }
  accepted([](auto& config) { config.num_ifs = 2; });
  accepted([](auto& config) { config.num_ifs = 32; });
}

TEST_F(CreateTest, RefusesInvalidDescriptions) {
  struct Case {
    Change change;
    int error;
    const char* message;
  };
  for (const auto& [change, error, message] : {
           Case{[](auto& c) { c.ifs[3].kern_if = 7; }, ENXIO,
                "Invalid kern IF 7 [if#3] failed - No such device or address"},
           Case{[](auto& c) { c.ifs[3].kern_if = 102; }, EEXIST,
                "Duplicate kern IF 102 [if#1 & 3] failed - File exists"},
           Case{[](auto& c) { c.ifs[1].kern_if = 101; }, EEXIST,
                "Duplicate kern IF 101 [if#0 & 1] failed - File exists"},
           Case{[](auto& c) { c.ifs[2].mode = 0; }, EINVAL, "Idx 2 unsupported mode 0"},
           Case{[](auto& c) { c.ifs[2].mode = 4; }, EINVAL, "Idx 2 unsupported mode 4"},
           Case{[](auto& c) { c.ifs[1].sub_mode = 5; }, EINVAL, "Idx 1 unsupported sub_mode 5"},
           Case{[](auto& c) { c.ifs[0].mate = 2; }, EINVAL,
                "Port not properly mated (0 2) should be (0 1)"},
           Case{[](auto& c) { c.ifs[3].mate = 3; }, EINVAL,
                "Port not properly mated (3 3) should be (3 2)"},
           Case{[](auto& c) {
                  c.ifs[0].mtu = 9000;
                  c.ifs[1].mate = 3;
                },
                EINVAL, "Port not properly mated (1 3) should be (1 0)"},
           Case{[](auto& c) { c.ifs[3].mode = 2; }, EINVAL,
                "port pair mismatch, pair 1 (1 2 1500 1000 2 vs 2 2 1500 1000 2)"},
           Case{[](auto& c) { c.ifs[0].sub_mode = 3; }, EINVAL,
                "port pair mismatch, pair 0 (1 3 1500 1000 2 vs 1 2 1500 1000 2)"},
           Case{[](auto& c) { c.ifs[0].mtu = 9000; }, EINVAL,
                "port pair mismatch, pair 0 (1 2 9000 1000 2 vs 1 2 1500 1000 2)"},
           Case{[](auto& c) { c.ifs[1].speed = 10; }, EINVAL,
                "port pair mismatch, pair 0 (1 2 1500 1000 2 vs 1 2 1500 10 2)"},
           Case{[](auto& c) { c.ifs[1].duplex = 1; }, EINVAL,
                "port pair mismatch, pair 0 (1 2 1500 1000 2 vs 1 2 1500 1000 1)"},
           Case{[](auto& c) { c.fwd_unanalyzed = 2; }, EINVAL,
                "fwd_unanalyzed setting not 0 or 1 (2)"},
           Case{[](auto& c) { c.prop_link = 2; }, EINVAL, "prop_link setting not 0 or 1 (2)"},
           Case{[](auto& c) {
                  c.prop_link = 1;
                  c.prop_link_time = 4999;
                },
                EINVAL, "prop_link_time setting too low (4999) min 5000"},
           Case{[](auto& c) { c.link_config = 0x40; }, EINVAL,
                "Unsupported link config bits (40 vs 3f)"},
           Case{[](auto& c) { c.link_config = 0xfffe; }, EINVAL,
                "Unsupported link config bits (fffe vs 3f)"},
       }) {
    refused(change, error, message);
  }
}

TEST_F(CreateTest, AcceptsTheLimitsOfADescription) {
  accepted([](auto& c) { c.ifs[0].sub_mode = c.ifs[1].sub_mode = 4; });
  for (const std::uint32_t mode : {1u, 2u, 3u}) {
    accepted([mode](auto& c) { c.ifs[2].mode = c.ifs[3].mode = mode; });
  }
  accepted([](auto& c) {
    c.fwd_unanalyzed = c.prop_link = 1;
    c.prop_link_time = 5000;
    c.link_config = 0x3f;
  });
  accepted([](auto& c) {
    c.prop_link_time = 1;  // has no meaning without prop_link
    c.link_config = 0xffff;
  });
}

TEST_F(CreateTest, ChecksInOrder) {
  // Everything is wrong. Each correction shows the next error.
  config_.num_ifs = 5;
  config_.ifs[1].kern_if = 7;
  config_.ifs[2].kern_if = 101;
  config_.ifs[0].mode = 9;
  config_.ifs[0].sub_mode = 9;
  config_.ifs[0].mate = 0;
  config_.fwd_unanalyzed = 5;
  config_.prop_link = 5;
  config_.link_config = 0x80;
  struct Step {
    int error;
    const char* message;
    Change correction;
  };
  for (const auto& [error, message, correction] : {
           Step{EINVAL, "Invalid num_ifs 5 (0 < N <= 32 && (N % 2) == 0)",
                [](auto& c) { c.num_ifs = 4; }},
           Step{ENXIO, "Invalid kern IF 7 [if#1] failed - No such device or address",
                [](auto& c) { c.ifs[1].kern_if = 102; }},
           Step{EEXIST, "Duplicate kern IF 101 [if#0 & 2] failed - File exists",
                [](auto& c) { c.ifs[2].kern_if = 103; }},
           Step{EINVAL, "Idx 0 unsupported mode 9", [](auto& c) { c.ifs[0].mode = 1; }},
           Step{EINVAL, "Idx 0 unsupported sub_mode 9", [](auto& c) { c.ifs[0].sub_mode = 0; }},
           Step{EINVAL, "Port not properly mated (0 0) should be (0 1)",
                [](auto& c) { c.ifs[0].mate = 1; }},
           Step{EINVAL, "port pair mismatch, pair 0 (1 0 1500 1000 2 vs 1 2 1500 1000 2)",
                [](auto& c) { c.ifs[0].sub_mode = 2; }},
           Step{EINVAL, "fwd_unanalyzed setting not 0 or 1 (5)",
                [](auto& c) { c.fwd_unanalyzed = 1; }},
           Step{EINVAL, "prop_link setting not 0 or 1 (5)", [](auto& c) { c.prop_link = 1; }},
           Step{EINVAL, "prop_link_time setting too low (0) min 5000",
                [](auto& c) { c.prop_link_time = 5000; }},
           Step{EINVAL, "Unsupported link config bits (80 vs 3f)",
                [](auto& c) { c.link_config = 0; }},
       }) {
    refused([](auto&) {}, error, message);
    correction(config_);
  }
  accepted({});
}

TEST_F(CreateTest, ChecksTheNameAfterTheDescription) {
  const char kLine[] = "Error: zorlib_ifg_alloc: ifg name length invalid (0 < name_len < 16)";
  for (const char* name : {"12345678901234567", "", static_cast<const char*>(nullptr)}) {
    expectFailure([&] { return create(name); }, ENAMETOOLONG, {kLine});
    expectFailure([&] { return zorlib_ifg_remove(name); }, ENAMETOOLONG, {kLine});
  }
  expectFailure([&] { return create("", [](auto& c) { c.num_ifs = 1; }); }, EINVAL,
                {"Error: zorlib_ifg_create: Invalid num_ifs 1 (0 < N <= 32 && (N % 2) == 0)"});
  EXPECT_THAT(requests(), IsEmpty());
}

// ---- Failing steps

TEST_F(CreateTest, AnExistingGroupIsLeftAlone) {
  expectFailure([&] { return create("brund"); }, EEXIST,
                {"Error: zorlib_ifg_create: Create ifg brund failed - File exists"});
  EXPECT_TRUE(std::filesystem::exists("/dev/zorvik/brund"));
}

TEST_F(CreateTest, AGroupWhoseCreationFailsIsRemoved) {
  refuse(ZORVIK_FRM_DATA_CREATE, ENOMEM);
  undone(ENOMEM, {"Error: zorlib_ifg_create_frm_data: mine Create ioctl failed - Cannot allocate "
                  "memory"});
  answerNothing();
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  undone(EIO, {"Error: zorlib_ifg_configure: configure ioctl (mine) failed - Input/output error"});
  answerNothing();
  ASSERT_EQ(zorlib_ifg_configure(ifg_, &config_), 0);  // "brund" gets the interfaces
  undone(EBUSY,
         {"Error: zorlib_ifg_configure: configure ioctl (mine) failed - Device or resource busy"});
}

TEST_F(CreateTest, WaitsForBothNodes) {
  const std::string line =
      "Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode /dev/zorvik/mine/";
  nodeVanishesAt(2);  // after the driver's control node was found
  undone(ENOENT, {line + "ctl to appear"});
  nodesAreReal();
  answer(ZORVIK_IFG_CREATE, [](int, void*) {
    zorvik::Driver* const driver = zorvik::Driver::get();
    const zorvik::Lock lock(driver->state());
    EXPECT_EQ(zorvik::createGroup(*driver, "mine"), 0);
    nodeVanishesAt(2);  // after "ctl" was found
    return 0;
  });
  undone(ENOENT, {line + "frm_desc to appear"});
}

TEST_F(CreateTest, LogsThatAGroupCannotBeRemovedAgain) {
  refuse(ZORVIK_IFG_CONFIGURE, EIO);
  refuse(ZORVIK_IFG_REMOVE, EBUSY);
  expectFailure([&] { return create("mine"); }, EIO,
                {"Error: zorlib_ifg_configure: configure ioctl (mine) failed - Input/output error",
                 "Error: zorlib_ifg_create: Remove ifg mine failed - Device or resource busy"});
  answerNothing();
  EXPECT_EQ(zorlib_ifg_remove("mine"), 0);
}

// ---- Parameters

TEST_F(CreateTest, TheNumberOfDescriptorsIsAParameter) {
  struct Case {
    const char* name;
    const char* value;
    std::uint32_t count;  // 0: not usable
  };
  for (const auto& [name, value, usable] :
       {Case{"f1", "999", 0}, Case{"f2", "1000", 1000}, Case{"f3", "1000000", 1000000},
        Case{"f4", "1000001", 0}, Case{"f5", "-1", 0}, Case{"f6", "0x400", 1024}}) {
    const std::string group = name;
    ASSERT_EQ(zorlib_set_param(("zorvik." + group + ".fd_count").c_str(), value), 0);
    std::uint32_t wanted = 0;
    answer(ZORVIK_FRM_DATA_CREATE, [&](int, void* argument) {
      wanted = *static_cast<std::uint32_t*>(argument);
      return -EIO;
    });
    std::vector<std::string> expected = {"Error: zorlib_ifg_create_frm_data: " + group +
                                         " Create ioctl failed - Input/output error"};
    if (usable == 0) {
      expected.insert(expected.begin(), "Warning: zorlib_ifg_create_frm_data: " + group +
                                            " fd_count out of bounds (1000<=N<=1000000 [per IF])");
    }
    expectFailure([&, &called = name] { return create(called); }, EIO, expected);
    EXPECT_EQ(wanted, usable == 0 ? 16384 : usable);
  }
}

TEST_F(CreateTest, TheMasksOfQueuePairsAreParameters) {
  for (const auto& [name, value] : {
           std::pair("zorvik.masked.0.if_mask", "3"),
           std::pair("zorvik.masked.3.cpu_mask", "f0"),
           std::pair("zorvik.masked.31.if_mask", "8"),
           std::pair("zorvik.masked.31.cpu_mask", "1"),
           std::pair("zorvik.masked.4.if_mask", "10"),  // the fifth interface
           std::pair("zorvik.masked.32.cpu_mask", "1"),
           std::pair("zorvik.masked.q_size", "2000"),
       }) {
    ASSERT_EQ(zorlib_set_param(name, value), 0);
  }
  struct Pair {
    std::uint32_t size;
    std::uint64_t ifMask, cpuMask;
  };
  const std::map<std::uint32_t, Pair> expected = {
      {0, {2000, 3, 0}}, {3, {2000, 0, 0xf0}}, {31, {2000, 8, 1}}};
  ASSERT_EQ(create("masked"), 0);
  EXPECT_EQ(count(ZORVIK_QPAIR_SET), 3);
  EXPECT_EQ(logLines(),
            lines({"Warning: zorlib_ifg_lookup_if_mask: masked if_mask 10 for 4 interfaces"}));
  for (std::uint32_t index = 0; index < ZORLIB_MAX_QPAIRS; ++index) {
    zorvik_qpair_cfg pair{.index = index, .size = 0, .if_mask = 0, .cpu_mask = 0};
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(created_, &pair), 0);
    const auto set = expected.find(index);
    const Pair wanted = set != expected.end() ? set->second : Pair{};
    EXPECT_EQ(pair.size, wanted.size) << index;
    EXPECT_EQ(pair.if_mask, wanted.ifMask) << index;
    EXPECT_EQ(pair.cpu_mask, wanted.cpuMask) << index;
  }
  removeCreated("masked");
  refuse(ZORVIK_QPAIR_SET, EIO);
  undone(EIO, {"Error: zorlib_ifg_set_qpair_cfg: set ioctl (masked/0) failed - Input/output error"},
         "masked");
}

// ---- Removal

TEST_F(CreateTest, AGroupInUseIsNotRemoved) {
  ASSERT_EQ(create("mine"), 0);
  createQueue(created_);
  zorlib_q* const q = openQueue(created_, ZORLIB_READ);
  const auto remove = [] { return zorlib_ifg_remove("mine"); };
  const char kBusy[] = "Error: zorlib_ifg_remove: Remove ifg mine failed - Device or resource busy";
  expectFailure(remove, EBUSY, {kBusy});
  EXPECT_EQ(zorlib_q_close(q), 0);
  expectFailure(remove, EBUSY, {kBusy});
  removeCreated();
  expectFailure(remove, ENOENT,
                {"Error: zorlib_ifg_remove: Remove ifg mine failed - No such file or directory"});
}

}  // namespace
}  // namespace tarnik::test
