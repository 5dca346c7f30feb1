// UpdateWriter: the final name of a capture and what goes into its info file.
#include <dlfcn.h>

#include <limits>

#include "capture/testing/manager.h"

namespace {
bool noCalendar = false;
}

// In the place of the system library's.
extern "C" std::tm* gmtime_r(const std::time_t* time, std::tm* parts) noexcept {
  static auto* const real = reinterpret_cast<decltype(&gmtime_r)>(::dlsym(RTLD_NEXT, "gmtime_r"));
  if (noCalendar) {
    errno = ENOTRECOVERABLE;
    return nullptr;
  }
  return real(time, parts);
}

namespace tarnik {
namespace {

using test::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;

class NamingTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(init({}), 0);
    test::setTime(test::kNow + 1);  // the second after Init's
  }
  // The name that the trigger gives a capture, without the directory.
  std::string name(std::int32_t triggerId) {
    PcapWriter writer(std::string(kCaptureDir) + "1", 1000);
    if (!manager.UpdateWriter(writer, triggerId, 7)) {
      EXPECT_FALSE(writer.named());
      return "none";
    }
    EXPECT_TRUE(writer.named());
    EXPECT_EQ(writer.finalPath().substr(0, 20), "/var/support/tarnik/");
    EXPECT_EQ(writer.info().capturePath, writer.finalPath());
    EXPECT_EQ(writer.info().policyId, static_cast<std::uint32_t>(triggerId));
    policyName = writer.info().policyName;
    return writer.finalPath().substr(20);
  }

  std::string policyName;  // of the last name()
};

TEST_F(NamingTest, EveryClassOfTrigger) {
  test::writeFile(kNapPolicyPath, "acl.rule.priority.low = 1\nacl.rule.priority.top = 65534\n");
  test::writeFile(test::kIssuesPath,
                  "65536,above\n2147483647,most\n2147483648,least\n4294967295,minus one\n0,no\n"
                  "65535,no\n1,no\n");
  ASSERT_EQ(reload({}), 0);
  const struct {
    std::int64_t triggerId;
    const char* name;
    const char* policyName;
  } cases[] = {
      {0, "20240305-070810.unknown.0.pcap", ""},
      {1, "20240305-070810.naprule-1.1.pcap", "low"},
      {65534, "20240305-070810.naprule-65534.2.pcap", "top"},
      {65535, "20240305-070810.unknown.3.pcap", ""},
      {65536, "20240305-070810.ips.above.4.pcap", "above"},
      {2147483647, "20240305-070810.ips.most.5.pcap", "most"},
      {-2147483648, "20240305-070810.ips.least.6.pcap", "least"},
      {-1, "20240305-070810.ips.minus one.7.pcap", "minus one"},
  };
  for (const auto& trigger : cases) {
    EXPECT_EQ(name(static_cast<std::int32_t>(trigger.triggerId)), trigger.name);
    EXPECT_EQ(policyName, trigger.policyName);
  }
  EXPECT_THAT(test::logLines(), IsEmpty());
}

TEST_F(NamingTest, TheFlowGoesToTheInfo) {
  PcapWriter writer(std::string(kCaptureDir) + "1", 1000);
  ASSERT_TRUE(manager.UpdateWriter(writer, 0, 0x1234567890));
  EXPECT_EQ(writer.info().flowId, 0x1234567890);
  ASSERT_TRUE(manager.UpdateWriter(writer, 0, std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(writer.info().flowId, -1);
}

TEST_F(NamingTest, NumbersCountWithinASecond) {
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap");
  EXPECT_EQ(name(5), "20240305-070810.naprule-5.1.pcap");
  EXPECT_EQ(name(70000), "20240305-070810.ips.web.2.pcap");
  test::setTime(test::kNow + 2);
  EXPECT_EQ(name(0), "20240305-070811.unknown.0.pcap");
  EXPECT_EQ(name(0), "20240305-070811.unknown.1.pcap");
  test::setTime(test::kNow + 1);
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap") << "any other second begins anew";
}

TEST_F(NamingTest, InTheSecondOfInitNumbersBeginWithOne) {
  ASSERT_EQ(init({}), 0);
  EXPECT_EQ(name(0), "20240305-070810.unknown.1.pcap");
  EXPECT_EQ(name(0), "20240305-070810.unknown.2.pcap");
  EXPECT_EQ(name(0), "20240305-070810.unknown.3.pcap");
  ASSERT_EQ(reload({}), 0);
  EXPECT_EQ(name(0), "20240305-070810.unknown.4.pcap") << "a reload changes nothing";
}

TEST_F(NamingTest, FailuresUseUpANumber) {
  EXPECT_EQ(name(80000), "none");
  EXPECT_EQ(name(6), "none");
  EXPECT_EQ(name(0), "20240305-070810.unknown.2.pcap");
}

TEST_F(NamingTest, AnUnknownIssue) {
  EXPECT_EQ(name(-2), "none");
  const LogLine error{LOG_ERR, "Error: UpdateWriter: Failed issue name lookup: 0xfffffffe"};
  EXPECT_THAT(test::logLines(), ElementsAre(error));
  useDebugLevel(1);
  EXPECT_EQ(name(-2), "none");
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_DEBUG, "Debug: LookupIssueName: No UUID for issueId -2"}, error));
}

TEST_F(NamingTest, AnUnknownRule) {
  EXPECT_EQ(name(6), "none");
  const LogLine error{LOG_ERR, "Error: UpdateWriter: Failed nap name lookup: 0x6"};
  EXPECT_THAT(test::logLines(), ElementsAre(error));
  useDebugLevel(1);
  EXPECT_EQ(name(6), "none");
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_DEBUG, "Debug: LookupNapUuid: No UUID for NAP rule 6"}, error));
}

TEST_F(NamingTest, TheStepsOfAnIssue) {
  useDebugLevel(1);
  name(-1);
  EXPECT_THAT(steps(), ElementsAre("Debug: LookupIssueName: -1=last ",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070810.ips.last.0.pcap"));
  useDebugLevel(3);
  name(-1);
  EXPECT_EQ(steps().size(), 2u);
  useDebugLevel(4);
  name(-1);
  EXPECT_THAT(steps(), ElementsAre("Debug: UpdateWriter: triggerId=-1",
                                   "Debug: LookupIssueName: issueId=0xffffffff",
                                   "Debug: LookupIssueName: -1=last ",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070810.ips.last.2.pcap"));
}

TEST_F(NamingTest, TheStepsOfARule) {
  useDebugLevel(1);
  name(65534);
  EXPECT_THAT(steps(), ElementsAre("Debug: LookupNapUuid: 65534=uuid-top ",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070810.naprule-65534.0.pcap"));
  useDebugLevel(4);
  name(65534);
  EXPECT_THAT(steps(), ElementsAre("Debug: UpdateWriter: triggerId=65534",
                                   "Debug: LookupNapUuid: rulePriority=0xfffe",
                                   "Debug: LookupNapUuid: 65534=uuid-top ",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070810.naprule-65534.1.pcap"));
}

TEST_F(NamingTest, TheStepsOfAnUnknownTrigger) {
  useDebugLevel(4);
  name(65535);
  EXPECT_THAT(steps(), ElementsAre("Debug: UpdateWriter: triggerId=65535",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070810.unknown.0.pcap"));
}

TEST_F(NamingTest, ATimeWithoutACalendarDate) {
  test::setTime(std::numeric_limits<std::time_t>::max());
  EXPECT_EQ(name(0), "none");
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR, "Error: UpdateWriter: Failed to get timestamp: " +
                                               std::to_string(EOVERFLOW)}));
}

TEST_F(NamingTest, AFailureUsesUpANumber) {
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap");
  noCalendar = true;
  EXPECT_EQ(name(0), "none");
  noCalendar = false;
  EXPECT_EQ(name(70001234), "none") << "no such issue";
  EXPECT_EQ(name(0), "20240305-070810.unknown.3.pcap");
}

TEST_F(NamingTest, LongNamesAreCut) {
  test::writeFile(test::kIssuesPath, "70000," + std::string(300, 'n') + "\n");
  ASSERT_EQ(reload({}), 0);
  EXPECT_EQ(name(70000), ("20240305-070810.ips." + std::string(300, 'n')).substr(0, 254 - 20));
  EXPECT_EQ(policyName, std::string(300, 'n')) << "the info has it whole";
}

TEST_F(NamingTest, TheTimeIsUtcWhateverTheZone) {
  ::setenv("TZ", "UTC-9", 1);
  ::tzset();
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap");
  ::unsetenv("TZ");
  ::tzset();
}

}  // namespace
}  // namespace tarnik
