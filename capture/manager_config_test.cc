// Init and Reload of the capture manager.
#include <tuple>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ConfigTest : public test::ManagerTest {
 protected:
  // Whether the issue or the NAP rule has a name.
  bool known(std::int32_t triggerId) {
    PcapWriter writer(std::string(kCaptureDir) + "probe", 1000);
    return manager.UpdateWriter(writer, triggerId, 0);
  }
};

TEST_F(ConfigTest, ThereIsOneInstance) {
  EXPECT_EQ(&CaptureManager::instance(), &CaptureManager::instance());
}

TEST_F(ConfigTest, InitAddsToTheMapsAndReloadReplacesThem) {
  EXPECT_TRUE(known(70000) && known(5));
  test::writeFile(kNapPolicyPath, "acl.rule.priority.uuid-six = 6\n");
  test::writeFile(test::kIssuesPath, "80000,new\n");
  ASSERT_EQ(init({}), 0);
  EXPECT_TRUE(known(70000) && known(5) && known(80000) && known(6));
  ASSERT_EQ(reload({}), 0);
  EXPECT_TRUE(known(80000) && known(6));
  EXPECT_THAT(test::logTextsAboveDebug(), IsEmpty());
  EXPECT_FALSE(known(5));
  EXPECT_FALSE(known(70000));
}

class EitherOperation
    : public ConfigTest,
      public testing::WithParamInterface<std::tuple<const char*, decltype(&CaptureManager::Init)>> {
};

TEST_P(EitherOperation, LogsItsArgumentsFromDebugLevelTwo) {
  const auto [name, operation] = GetParam();
  const auto call = [&, method = operation] {
    (manager.*method)(test::kIssuesPath, -1, 2, 3, 4, 5, 4294967295);
    const Texts texts = steps();  // the maps log their own lines after it
    return texts.empty() ? "" : texts.front();
  };
  const std::string expected = "Debug: " + std::string(name) +
                               ": path=/etc/issues.csv, maxTimeout=-1, diskSpace=2 fileCount=3, "
                               "eventInterval=5, eventThreshold=4294967295";
  useDebugLevel(1);
  EXPECT_NE(call(), expected);
  useDebugLevel(2);
  EXPECT_EQ(call(), expected);
}

// Each message names the other map.
TEST_P(EitherOperation, FailsWithoutItsFiles) {
  const auto [name, operation] = GetParam();
  std::filesystem::remove(test::kIssuesPath);
  EXPECT_EQ(configure(operation, manager, {}), 8);
  EXPECT_EQ(test::logTexts().back(),
            "Error: " + std::string(name) + ": Loading of NAP lookup failed ");
  EXPECT_TRUE(known(5)) << "the NAP map was loaded first";

  std::filesystem::remove(kNapPolicyPath);
  test::clearLog();
  EXPECT_EQ(configure(operation, manager, {}), 7);
  EXPECT_THAT(test::logTexts(),
              ElementsAre("Error: PopulateNapMap: Could not open config file: /etc/acl.conf",
                          "Error: " + std::string(name) + ": Loading of IPS lookup failed"))
      << "the issue list is not read any more";
}

TEST_P(EitherOperation, KeepsTheLimitsWhenItFails) {
  const auto [name, operation] = GetParam();
  ASSERT_EQ(init({.maxTimeout = 10, .maxFileSize = 1000}), 0);
  for (const char* path : {test::kIssuesPath, kNapPolicyPath}) {
    std::filesystem::remove(path);
    EXPECT_NE(configure(operation, manager, {.maxTimeout = 0, .maxFileSize = 10}), 0);
  }
  EXPECT_EQ(consume(1, 984), 0);
  EXPECT_EQ(consume(2, 985), 11);
  wait(10);
  manager.ExpireWriters();
  EXPECT_THAT(entries(), ElementsAre("1"));
}

INSTANTIATE_TEST_SUITE_P(, EitherOperation,
                         testing::Values(std::tuple("Init", &CaptureManager::Init),
                                         std::tuple("Reload", &CaptureManager::Reload)));

TEST_F(ConfigTest, ReloadMayComeBeforeInit) {
  CaptureManager fresh;
  ASSERT_EQ(configure(&CaptureManager::Reload, fresh, {.maxFileSize = 1000}), 0);
  const std::vector<std::uint8_t> data = test::frameData(985);
  EXPECT_EQ(fresh.ConsumeFrame(1, test::frame(0, 984), data.data(), 0), 0);
  EXPECT_EQ(fresh.ConsumeFrame(2, test::frame(0, 985), data.data(), 0), 11);
}

// Also the ones that fail.
TEST_F(ConfigTest, OnlyASuccessfulInitResetsTheMeasurement) {
  test::writeFile(std::string(kCaptureDir) + "a.pcap", "1234");
  manager.UpdateUsageCounters();
  const std::uint64_t diskUsed = manager.diskUsed();
  EXPECT_GE(diskUsed, 4u);
  const auto expectKept = [&] {
    EXPECT_EQ(manager.diskUsed(), diskUsed);
    EXPECT_EQ(manager.filesUsed(), 1u);
  };
  expectKept();
  ASSERT_EQ(reload({}), 0);
  expectKept();
  std::filesystem::rename(test::kIssuesPath, "/etc/elsewhere");
  EXPECT_NE(init({}), 0);
  expectKept();
  std::filesystem::rename("/etc/elsewhere", test::kIssuesPath);
  ASSERT_EQ(init({}), 0);
  EXPECT_EQ(manager.diskUsed(), 0u);
  EXPECT_EQ(manager.filesUsed(), 0u);
}

TEST_F(ConfigTest, OpenWritersKeepTheirSizeLimit) {
  ASSERT_EQ(init({.maxFileSize = 1000}), 0);
  ASSERT_EQ(consume(1, 84), 0);
  ASSERT_EQ(reload({.maxFileSize = 200}), 0);
  EXPECT_EQ(consume(1, 884), 0);
  EXPECT_EQ(consume(2, 185), 11);
  test::clearEvents();
  EXPECT_EQ(consume(1, 1), 11);
  EXPECT_THAT(test::events(),
              ElementsAre(test::Event{"VRKPC0003I", "VRK_events", "MaxFileSize=200 "}));
}

TEST_F(ConfigTest, ReloadChangesTheIdleTimeoutOfOpenWriters) {
  ASSERT_EQ(consume(1), 0);
  wait(20);
  for (const std::int64_t timeout : {20, 19}) {
    ASSERT_EQ(reload({.maxTimeout = timeout}), 0);
    manager.ExpireWriters();
    EXPECT_THAT(entries(), testing::SizeIs(timeout == 20 ? 1 : 0));
  }
}

TEST_F(ConfigTest, TheDestructorClosesTheCaptures) {
  {
    CaptureManager shortLived;
    ASSERT_EQ(configure(&CaptureManager::Init, shortLived, {}), 0);
    announce(1, 70000);
    const std::vector<std::uint8_t> data = test::frameData(100);
    ASSERT_EQ(shortLived.ConsumeFrame(1, test::frame(104, 100), data.data(), 0), 0);
    EXPECT_THAT(captures(), IsEmpty());
  }
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
}

}  // namespace
}  // namespace tarnik
