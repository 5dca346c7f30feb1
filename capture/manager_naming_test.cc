// UpdateWriter: the final name of a capture and the contents of its info file.
#include <dlfcn.h>

#include <limits>

#include "capture/testing/manager.h"

namespace {
bool noCalendar = false;
}

// The program calls this instead of the function of the system library.
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

using testing::ElementsAre;
using testing::IsEmpty;

class NamingTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    wait(1);  // the second after Init
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
  // Opens an unknown capture and returns its name.
  std::string capture(std::uint64_t captureId) {
    announce(captureId, 65535);
    EXPECT_EQ(consume(captureId), 0);
    return writerOf(captureId)->finalPath().substr(20);
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
  EXPECT_THAT(test::logTexts(), IsEmpty());
}

TEST_F(NamingTest, TheInfoGetsTheFlow) {
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
  wait(2);
  EXPECT_EQ(name(0), "20240305-070811.unknown.0.pcap");
  EXPECT_EQ(name(0), "20240305-070811.unknown.1.pcap");
  wait(1);
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap") << "any other second starts from 0";
}

TEST_F(NamingTest, InTheSecondOfInitNumbersBeginWithOne) {
  ASSERT_EQ(init({}), 0);
  EXPECT_EQ(name(0), "20240305-070810.unknown.1.pcap");
  ASSERT_EQ(reload({}), 0);
  EXPECT_EQ(name(0), "20240305-070810.unknown.2.pcap") << "a reload keeps the number";
  std::filesystem::remove(test::kIssuesPath);
  ASSERT_NE(init({}), 0);
  EXPECT_EQ(name(0), "20240305-070810.unknown.3.pcap") << "a failed Init too";
}

TEST_F(NamingTest, EveryFailureUsesANumber) {
  EXPECT_EQ(name(80000), "none");
  EXPECT_EQ(name(6), "none");
  noCalendar = true;
  EXPECT_EQ(name(0), "none");
  noCalendar = false;
  EXPECT_EQ(name(0), "20240305-070810.unknown.3.pcap");
}

// Files of an earlier run, or of a time before the clock was set back.
TEST_F(NamingTest, NamesOfExistingFilesAreSkipped) {
  const std::string begin = std::string(kCaptureDir) + "20240305-070810.";
  test::writeFile(begin + "unknown.0.pcap", "");
  test::writeFile(begin + "ips.web.1.pcap", "");
  std::filesystem::create_symlink("/nowhere", begin + "ips.web.2.pcap");
  std::filesystem::create_directory(begin + "unknown.5.pcap");
  EXPECT_EQ(name(0), "20240305-070810.unknown.1.pcap");
  EXPECT_EQ(name(70000), "20240305-070810.ips.web.3.pcap");
  EXPECT_EQ(name(0), "20240305-070810.unknown.4.pcap");
  EXPECT_EQ(name(0), "20240305-070810.unknown.6.pcap");
}

TEST_F(NamingTest, NamesOfOpenCapturesAreSkippedAfterTheClockWasSetBack) {
  EXPECT_EQ(capture(1), "20240305-070810.unknown.0.pcap");
  EXPECT_EQ(capture(2), "20240305-070810.unknown.1.pcap");
  wait(0);  // Init's second, before the first name
  EXPECT_EQ(capture(3), "20240305-070809.unknown.0.pcap");
  wait(1);
  EXPECT_EQ(capture(4), "20240305-070810.unknown.2.pcap");
  EXPECT_EQ(capture(5), "20240305-070810.unknown.3.pcap");
  wait(2);
  EXPECT_EQ(capture(6), "20240305-070811.unknown.0.pcap");
  wait(1);
  EXPECT_EQ(capture(7), "20240305-070810.unknown.4.pcap");
  manager.CloseWriters();
  EXPECT_EQ(captures().size(), 7u);
}

TEST_F(NamingTest, InitsSecondMayRepeatToo) {
  wait(0);
  EXPECT_EQ(capture(1), "20240305-070809.unknown.1.pcap");
  wait(-1);
  EXPECT_EQ(capture(2), "20240305-070808.unknown.0.pcap");
  wait(0);
  EXPECT_EQ(capture(3), "20240305-070809.unknown.0.pcap");
  EXPECT_EQ(capture(4), "20240305-070809.unknown.2.pcap");
}

// The truncated name has room for one digit of the number.
TEST_F(NamingTest, TruncatedNamesAreNotSharedWhileTheyDiffer) {
  test::writeFile(test::kIssuesPath, "70000," + std::string(212, 'n') + "\n");
  ASSERT_EQ(reload({}), 0);
  std::vector<std::string> paths;
  for (std::uint64_t captureId = 0; captureId < 10; ++captureId) {
    announce(captureId, 70000);
    ASSERT_EQ(consume(captureId), 0);
    paths.push_back(writerOf(captureId)->finalPath());
    EXPECT_EQ(paths.back().substr(252), "." + std::to_string(captureId));
  }
  announce(10, 70000);
  ASSERT_EQ(consume(10), 0) << "no free name, which must not take forever";
  EXPECT_THAT(paths, testing::Contains(writerOf(10)->finalPath()));
}

TEST_F(NamingTest, ACaptureWithoutAFreeNameKeepsItsWorkingName) {
  test::writeFile(test::kIssuesPath, "70000," + std::string(300, 'n') + "\n");
  ASSERT_EQ(reload({}), 0);
  for (const std::uint64_t captureId : {1U, 2U}) {
    announce(captureId, 70000);
    ASSERT_EQ(consume(captureId, 100, static_cast<unsigned>(captureId)), 0);
  }
  ASSERT_EQ(consumeLast(1), 0);
  const std::string path = writerOf(2)->finalPath();
  EXPECT_EQ(records(path.substr(20)).at(0), record(100, 1));
  ASSERT_EQ(consumeLast(2), 0);
  EXPECT_THAT(test::logTexts(),
              testing::Contains("Error: Finalize: Failed to finalize [" + path + "]: File exists"));
  EXPECT_EQ(records(path.substr(20)).at(0), record(100, 1));
  EXPECT_EQ(records("2").at(0), record(100, 2));
}

TEST_F(NamingTest, ATimeWithoutACalendarDate) {
  test::setTime(std::numeric_limits<std::time_t>::max());
  EXPECT_EQ(name(0), "none");
  EXPECT_THAT(test::logTexts(), ElementsAre("Error: UpdateWriter: Failed to get timestamp: " +
                                            std::to_string(EOVERFLOW)));
}

TEST_F(NamingTest, LongNamesAreCut) {
  test::writeFile(test::kIssuesPath, "70000," + std::string(300, 'n') + "\n");
  ASSERT_EQ(reload({}), 0);
  EXPECT_EQ(name(70000), ("20240305-070810.ips." + std::string(300, 'n')).substr(0, 254 - 20));
  EXPECT_EQ(policyName, std::string(300, 'n')) << "the info file gets the whole name";
}

TEST_F(NamingTest, TheTimeIsUtcInEveryTimeZone) {
  ::setenv("TZ", "UTC-9", 1);
  ::tzset();
  EXPECT_EQ(name(0), "20240305-070810.unknown.0.pcap");
  ::unsetenv("TZ");
  ::tzset();
}

struct NamingSteps {
  std::int32_t triggerId;
  std::vector<test::Step> steps;
};

class NamingStepsTest : public NamingTest, public testing::WithParamInterface<NamingSteps> {};

TEST_P(NamingStepsTest, AreLoggedFromTheirLevels) {
  std::vector<test::Step> steps = GetParam().steps;
  steps.insert(steps.begin(),
               {4, "Debug: UpdateWriter: triggerId=" + std::to_string(GetParam().triggerId)});
  expectSteps([] {}, [&] { name(GetParam().triggerId); }, steps);
}

INSTANTIATE_TEST_SUITE_P(
    , NamingStepsTest,
    testing::Values(
        NamingSteps{
            -1,
            {{4, "Debug: LookupIssueName: issueId=0xffffffff"},
             {1, "Debug: LookupIssueName: -1=last "},
             {1, "Debug: UpdateWriter: /var/support/tarnik/20240305-070810.ips.last.0.pcap"}}},
        NamingSteps{-2,
                    {{4, "Debug: LookupIssueName: issueId=0xfffffffe"},
                     {1, "Debug: LookupIssueName: No UUID for issueId -2"},
                     {0, "Error: UpdateWriter: Failed issue name lookup: 0xfffffffe"}}},
        NamingSteps{65534,
                    {{4, "Debug: LookupNapUuid: rulePriority=0xfffe"},
                     {1, "Debug: LookupNapUuid: 65534=uuid-top "},
                     {1,
                      "Debug: UpdateWriter: "
                      "/var/support/tarnik/20240305-070810.naprule-65534.0.pcap"}}},
        NamingSteps{6,
                    {{4, "Debug: LookupNapUuid: rulePriority=0x6"},
                     {1, "Debug: LookupNapUuid: No UUID for NAP rule 6"},
                     {0, "Error: UpdateWriter: Failed nap name lookup: 0x6"}}},
        NamingSteps{
            65535,
            {{1, "Debug: UpdateWriter: /var/support/tarnik/20240305-070810.unknown.0.pcap"}}}));

}  // namespace
}  // namespace tarnik
