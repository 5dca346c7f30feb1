// Init and Reload of the capture manager.
#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::LogLine;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class ConfigTest : public test::ManagerTest {
 protected:
  // Whether the issue, or NAP rule, has a name.
  bool known(std::int32_t triggerId) {
    PcapWriter writer(std::string(kCaptureDir) + "probe", 1000);
    return manager.UpdateWriter(writer, triggerId, 0);
  }
};

TEST_F(ConfigTest, ThereIsOneInstance) {
  EXPECT_EQ(&CaptureManager::instance(), &CaptureManager::instance());
}

TEST_F(ConfigTest, InitAndReloadLoadBothMaps) {
  ASSERT_EQ(init({}), 0);
  EXPECT_TRUE(known(70000));
  EXPECT_TRUE(known(5));
  ASSERT_EQ(reload({}), 0);
  EXPECT_TRUE(known(70000));
  EXPECT_TRUE(known(5));
  EXPECT_THAT(test::logLinesAboveDebug(), IsEmpty());
}

TEST_F(ConfigTest, TheArgumentsAreToldAtDebugLevelTwo) {
  const auto call = [this](auto operation) {
    test::clearLog();
    return (manager.*operation)(test::kIssuesPath, -1, 2, 3, 4, 5, 4294967295);
  };
  setDebugLevel(1);
  ASSERT_EQ(call(&CaptureManager::Init), 0);
  ASSERT_THAT(test::logLines(), Not(IsEmpty()));
  EXPECT_NE(test::logLines()[0].text.substr(0, 12), "Debug: Init:");
  setDebugLevel(2);
  ASSERT_EQ(call(&CaptureManager::Init), 0);
  EXPECT_EQ(test::logLines().at(0),
            (LogLine{LOG_DEBUG,
                     "Debug: Init: path=/etc/issues.csv, maxTimeout=-1, diskSpace=2 fileCount=3, "
                     "eventInterval=5, eventThreshold=4294967295"}));
  ASSERT_EQ(call(&CaptureManager::Reload), 0);
  EXPECT_EQ(test::logLines().at(0),
            (LogLine{LOG_DEBUG,
                     "Debug: Reload: path=/etc/issues.csv, maxTimeout=-1, diskSpace=2 fileCount=3, "
                     "eventInterval=5, eventThreshold=4294967295"}));
}

// The two messages have changed places.
TEST_F(ConfigTest, AMissingNapPolicyIsReportedAsTheIpsLookup) {
  std::filesystem::remove(kNapPolicyPath);
  EXPECT_EQ(init({}), 7);
  EXPECT_THAT(test::logLines(),
              Contains(LogLine{LOG_ERR, "Error: Init: Loading of IPS lookup failed"}));
  test::clearLog();
  EXPECT_EQ(reload({}), 7);
  EXPECT_THAT(test::logLines(),
              Contains(LogLine{LOG_ERR, "Error: Reload: Loading of IPS lookup failed"}));
}

TEST_F(ConfigTest, AMissingIssueListIsReportedAsTheNapLookup) {
  std::filesystem::remove(test::kIssuesPath);
  EXPECT_EQ(init({}), 8);
  EXPECT_THAT(test::logLines(),
              Contains(LogLine{LOG_ERR, "Error: Init: Loading of NAP lookup failed "}));
  test::clearLog();
  EXPECT_EQ(reload({}), 8);
  EXPECT_THAT(test::logLines(),
              Contains(LogLine{LOG_ERR, "Error: Reload: Loading of NAP lookup failed "}));
  EXPECT_TRUE(known(5)) << "the NAP map was loaded before";
}

TEST_F(ConfigTest, WithoutTheNapMapTheIssueListIsNotRead) {
  ASSERT_EQ(init({}), 0);
  std::filesystem::remove(kNapPolicyPath);
  std::filesystem::remove(test::kIssuesPath);
  test::clearLog();
  EXPECT_EQ(reload({}), 7);
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR,
                                  "Error: PopulateNapMap: Could not open config file: "
                                  "/etc/acl.conf"},
                          LogLine{LOG_ERR, "Error: Reload: Loading of IPS lookup failed"}));
  EXPECT_TRUE(known(70000));
  EXPECT_FALSE(known(5)) << "the NAP map was emptied";
}

TEST_F(ConfigTest, AFailureKeepsTheLimits) {
  ASSERT_EQ(init({.maxFileSize = 1000}), 0);
  for (const char* path : {test::kIssuesPath, kNapPolicyPath}) {
    std::filesystem::remove(path);
    EXPECT_NE(reload({.maxFileSize = 10}), 0);
    EXPECT_NE(init({.maxFileSize = 10}), 0);
  }
  EXPECT_EQ(consume(1, 984), 0);
  EXPECT_EQ(consume(2, 985), 11);
}

TEST_F(ConfigTest, ReloadBeginsWithEmptyMapsAndInitAdds) {
  ASSERT_EQ(init({}), 0);
  test::writeFile(kNapPolicyPath, "acl.rule.priority.uuid-six = 6\n");
  test::writeFile(test::kIssuesPath, "80000,new\n");
  ASSERT_EQ(init({}), 0);
  EXPECT_TRUE(known(5) && known(6) && known(70000) && known(80000));
  ASSERT_EQ(reload({}), 0);
  EXPECT_TRUE(known(6) && known(80000));
  EXPECT_FALSE(known(5));
  EXPECT_FALSE(known(70000));
}

TEST_F(ConfigTest, ReloadMayComeFirst) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  EXPECT_EQ(consume(1, 984), 0);
  EXPECT_EQ(consume(2, 985), 11);
}

TEST_F(ConfigTest, InitForgetsTheMeasurementAndReloadKeepsIt) {
  ASSERT_EQ(init({}), 0);
  test::writeFile(std::string(kCaptureDir) + "a.pcap", "1234");
  manager.UpdateUsageCounters();
  const std::uint64_t diskUsed = manager.diskUsed();
  EXPECT_GE(diskUsed, 4u);
  EXPECT_EQ(manager.filesUsed(), 1u);
  ASSERT_EQ(reload({}), 0);
  EXPECT_EQ(manager.diskUsed(), diskUsed);
  EXPECT_EQ(manager.filesUsed(), 1u);
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
  forget();
  EXPECT_EQ(consume(1, 1), 11);
  EXPECT_THAT(test::events(),
              ElementsAre(test::Event{"VRKPC0003I", "VRK_events", "MaxFileSize=200 "}));
}

TEST_F(ConfigTest, TheIdleTimeoutIsThatOfTheLastReload) {
  ASSERT_EQ(init({.maxTimeout = 10}), 0);
  ASSERT_EQ(consume(1), 0);
  ASSERT_EQ(reload({.maxTimeout = 20}), 0);
  test::setTime(test::kNow + 20);
  manager.ExpireWriters();
  EXPECT_THAT(entries(), ElementsAre("1"));
  ASSERT_EQ(reload({.maxTimeout = 19}), 0);
  manager.ExpireWriters();
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ConfigTest, TheEndOfTheManagerClosesItsCaptures) {
  {
    CaptureManager shortLived;
    ASSERT_EQ(shortLived.Init(test::kIssuesPath, 120, 1'000'000'000, 1000, 1'000'000, 1, 1), 0);
    announce(1, 70000);
    const std::vector<std::uint8_t> data = test::frameData(100);
    ASSERT_EQ(shortLived.ConsumeFrame(1, test::frame(104, 100), data.data(), 0), 0);
    EXPECT_THAT(captures(), IsEmpty());
  }
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
}

}  // namespace
}  // namespace tarnik
