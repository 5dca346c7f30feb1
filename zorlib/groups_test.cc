// Groups on the preloaded driver, used by several processes. They see each other's changes, and the
// death of one leaves nothing lost or half-written. The interfaces are the machine's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/testing/captured_log.h"
#include "base/testing/process.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Finished zorvikctl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), ZORVIKCTL);
  const Finished result = runProgram(arguments);
  EXPECT_EQ(result.ending, kSucceeded) << result.errors;
  return result;
}

// A number in memory that this process and its children share, for the progress of a child.
class Steps {
 public:
  Steps()
      : memory_(::mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)),
        count_(new (memory_) Count(0)) {}
  ~Steps() { ::munmap(memory_, sizeof(Count)); }
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;

  void add() { ++*count_; }
  void await(int steps) const {
    ASSERT_TRUE(eventually([&] { return *count_ >= steps; }));
  }

 private:
  using Count = std::atomic<int>;
  void* memory_;
  Count* count_;
};

zorlib_ifg* opened(const char* name) {
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_open(name, &ifg), 0);
  return ifg;
}

zorvik_ifg_stats statsOf(zorlib_ifg* ifg) {
  zorvik_ifg_stats stats{};
  EXPECT_EQ(zorlib_ifg_get_stats(ifg, &stats), 0);
  return stats;
}

std::vector<std::pair<std::string, std::uint32_t>> groups() {
  zorvik_ifg_enum list{};
  EXPECT_EQ(zorlib_ifg_enum(&list), 0);
  std::vector<std::pair<std::string, std::uint32_t>> result;
  for (std::uint32_t i = 0; i < list.count; ++i) {
    const zorvik_ifg_record& each = list.records[i];
    result.emplace_back(std::string(each.name, ::strnlen(each.name, sizeof each.name)),
                        each.num_ifs);
  }
  return result;
}

// The driver, loaded by its own program, with the group "brund" of 64 frames.
class GroupsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zorvikctl({"load", "--frames", "2048x64"});
    zorvikctl({"create-ifg", "brund"});
    clearLog();
  }
  void TearDown() override { zorvikctl({"unload"}); }
};

TEST_F(GroupsTest, ListsTheGroupsOfNow) {
  EXPECT_THAT(groups(), ElementsAre(std::pair("brund", 0u)));
  zorvikctl({"create-ifg", "1234567890123456", "--frames", "5"});
  EXPECT_THAT(groups(), ElementsAre(std::pair("brund", 0u), std::pair("1234567890123456", 0u)));
  EXPECT_EQ(Process([] { return zorlib_ifg_remove("brund"); }).wait(), kSucceeded);
  EXPECT_THAT(groups(), ElementsAre(std::pair("1234567890123456", 0u)));
  EXPECT_EQ(zorlib_ifg_remove("1234567890123456"), 0);
  EXPECT_THAT(groups(), IsEmpty());
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(GroupsTest, CountersOutliveTheirProcesses) {
  zorlib_ifg* const ifg = opened("brund");
  EXPECT_EQ(statsOf(ifg).frm_count, 64u);
  Steps steps;
  Process holder([&] {
    zorlib_ifg* const mine = opened("brund");
    zorvik_frm_desc* descriptors = nullptr;
    std::uint32_t size = 0;
    std::uint8_t* payload = nullptr;
    EXPECT_EQ(zorlib_map_frm_data(mine, &descriptors, &size, &payload, &size), 0);
    zorvik_frm_desc* frames[60] = {};
    EXPECT_EQ(zorlib_batch_alloc(mine, 100, frames, 60), 60);
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(zorlib_frm_free(mine, frames[i]), 0);
    }
    zorvik_frm_desc* large = nullptr;
    EXPECT_EQ(zorlib_batch_alloc(mine, 4000, &large, 1), -1);
    steps.add();
    ::pause();
    return 0;
  });
  steps.await(1);
  EXPECT_EQ(statsOf(ifg).frm_allocs, 62u);
  EXPECT_EQ(statsOf(ifg).frm_frees, 7u);
  EXPECT_EQ(statsOf(ifg).frm_free, 9u);
  EXPECT_EQ(statsOf(ifg).buf_free, 9u);
  EXPECT_EQ(statsOf(ifg).alloc_too_large, 1u);
  holder.signal(SIGKILL);
  EXPECT_EQ(holder.wait(), killedBy(SIGKILL));
  EXPECT_EQ(statsOf(ifg).frm_allocs, 62u);
  EXPECT_EQ(statsOf(ifg).frm_frees, 62u);
  EXPECT_EQ(statsOf(ifg).frm_free, 64u);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
}

// Two interfaces of the machine, mated.
class PairTest : public GroupsTest {
 protected:
  void SetUp() override {
    GroupsTest::SetUp();
    struct if_nameindex* const all = ::if_nameindex();
    for (const struct if_nameindex* each = all; all != nullptr && each->if_index != 0; ++each) {
      if (std::string(each->if_name) != "lo" && names_.size() < 2) {
        names_.emplace_back(each->if_name);
      }
    }
    ::if_freenameindex(all);
    if (names_.size() < 2) {
      GTEST_SKIP() << "a group needs two network interfaces besides lo, and this machine has "
                   << names_.size();
    }
    config_.num_ifs = 2;
    for (std::uint32_t i = 0; i < 2; ++i) {
      config_.ifs[i] = {.kern_if = ::if_nametoindex(names_[i].c_str()),
                        .mate = 1 - i,
                        .mode = ZORVIK_IF_INLINE,
                        .sub_mode = 0,
                        .mtu = 0,
                        .speed = 0,
                        .duplex = 0,
                        .reserved = 0};
    }
  }

  std::vector<std::string> names_;
  zorvik_ifg_config config_{};
};

TEST_F(PairTest, OtherProcessesSeeTheCreatorsSettings) {
  Process creator([this] {
    EXPECT_EQ(zorlib_set_param("zorvik.mine.fd_count", "1000"), 0);
    EXPECT_EQ(zorlib_set_param("zorvik.mine.q_size", "3000"), 0);
    EXPECT_EQ(zorlib_set_param("zorvik.mine.3.if_mask", "2"), 0);
    EXPECT_EQ(zorlib_set_param("zorvik.mine.3.cpu_mask", "f0"), 0);
    zorlib_ifg* ifg = nullptr;
    EXPECT_EQ(zorlib_ifg_create("mine", &config_, &ifg), 0);
    return zorlib_ifg_close(ifg);
  });
  ASSERT_EQ(creator.wait(), kSucceeded);
  EXPECT_THAT(groups(), ElementsAre(std::pair("brund", 0u), std::pair("mine", 2u)));
  zorlib_ifg* const ifg = opened("mine");
  zorlib_ifg_info info{};
  EXPECT_EQ(zorlib_ifg_query(ifg, &info), 0);
  ASSERT_EQ(info.num_ifs, 2u);
  EXPECT_EQ(info.ifs[0].kern_if, config_.ifs[0].kern_if);
  EXPECT_EQ(info.ifs[1].kern_if, config_.ifs[1].kern_if);
  EXPECT_EQ(statsOf(ifg).frm_count, 1000u);
  zorvik_qpair_cfg pair{.index = 3, .size = 0, .if_mask = 0, .cpu_mask = 0};
  EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg, &pair), 0);
  EXPECT_EQ(pair.size, 3000u);
  EXPECT_EQ(pair.if_mask, 2u);
  EXPECT_EQ(pair.cpu_mask, 0xf0u);
  EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  EXPECT_EQ(zorlib_ifg_remove("mine"), 0);
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/mine"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PairTest, ListsTheMachinesInterfaces) {
  std::vector<zorlib_if> list(64);
  const int count = zorlib_if_enum(list.data(), 64);
  ASSERT_GE(count, 2);
  list.resize(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < names_.size(); ++i) {
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const zorlib_if& each) { return names_[i] == each.name; });
    ASSERT_NE(found, list.end()) << names_[i];
    EXPECT_EQ(found->index, config_.ifs[i].kern_if);
  }
  EXPECT_EQ(zorlib_if_enum(list.data(), 1), 1);
}

TEST_F(PairTest, AKilledProcessLeavesNoHalfWrittenConfiguration) {
  for (int killed = 0; killed < 30; ++killed) {
    Steps steps;
    Process restless([&] {
      zorlib_ifg* const mine = opened("brund");
      for (std::uint32_t round = 1;; ++round) {
        zorvik_ifg_config config = config_;
        std::swap(config.ifs[0].kern_if, config.ifs[round % 2].kern_if);
        config.ifs[0].mtu = config.ifs[1].mtu = round;
        EXPECT_EQ(zorlib_ifg_configure(mine, &config), 0);
        const zorvik_qpair_cfg pair{.index = 1, .size = round, .if_mask = 3, .cpu_mask = round};
        EXPECT_EQ(zorlib_ifg_set_qpair_cfg(mine, &pair), 0);
        steps.add();
      }
      return 0;
    });
    steps.await(1 + killed);
    restless.signal(SIGKILL);
    EXPECT_EQ(restless.wait(), killedBy(SIGKILL));
    zorlib_ifg* const ifg = opened("brund");
    zorlib_ifg_info info{};
    EXPECT_EQ(zorlib_ifg_query(ifg, &info), 0);
    ASSERT_EQ(info.num_ifs, 2u);
    const std::uint32_t round = info.ifs[0].mtu;
    EXPECT_EQ(info.ifs[1].mtu, round);
    EXPECT_EQ(info.ifs[0].kern_if, config_.ifs[round % 2].kern_if);
    EXPECT_EQ(info.ifs[1].kern_if, config_.ifs[1 - round % 2].kern_if);
    zorvik_qpair_cfg pair{.index = 1, .size = 0, .if_mask = 0, .cpu_mask = 0};
    EXPECT_EQ(zorlib_ifg_get_qpair_cfg(ifg, &pair), 0);
    EXPECT_EQ(pair.size, pair.cpu_mask);
    EXPECT_TRUE(pair.size == round || pair.size == round - 1) << pair.size << ", " << round;
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }
}

}  // namespace
}  // namespace tarnik::test
