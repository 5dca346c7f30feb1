// Unusual policy files: the readers' results and their use of memory.
#include <malloc.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>

#include "base/testing/process.h"
#include "policy/capture_rules.h"
#include "policy/info_template.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"
#include "policy/testing/fixture.h"
#include "policy/testing/rules.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kMiB = 1024 * 1024;

// A sanitizer also takes memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsMeasured = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryIsMeasured = false;
#else
constexpr bool kMemoryIsMeasured = true;
#endif
#else
constexpr bool kMemoryIsMeasured = true;
#endif

// Runs `work` in a child process and expects it to succeed, with at most `mostMiB` more memory than
// this process had.
void expectWithin(long mostMiB, const std::function<bool()>& work) {
  malloc_trim(0);
  Process child([&] {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_TRUE(work());
    getrusage(RUSAGE_SELF, &after);
    if (kMemoryIsMeasured) {
      EXPECT_LE((after.ru_maxrss - before.ru_maxrss) / 1024, mostMiB) << "MiB";
    }
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
}

constexpr int kMany = 300000;

// A file of many lines, each `prefix`, its number and `suffix`.
std::string numbered(const std::string& prefix, const std::string& suffix) {
  std::string content;
  for (int line = 0; line < kMany; ++line) {
    content += prefix + std::to_string(line) + suffix + "\n";
  }
  return content;
}

using BadInputTest = PolicyTest;

const std::string kGood = "acl.rule.priority.u1 = 5\nacl.rule.responses.u1 = tarnik:\n";

TEST_F(BadInputTest, ALineOfTenMebibytesTakesAFewTimesItsSize) {
  const std::string policy =
      file("acl.rule.responses.u1 = " + std::string(10 * kMiB, 'x') + "tarnik:\n");
  expectWithin(64, [&policy] {
    References references;
    return getTarnikReferences(policy.c_str(), references) && rulesOf(policy, "u1").size() == 1;
  });
}

// The error cuts the value 255 to 25. No part of that line may take effect.
TEST_F(BadInputTest, AReadErrorIsAFailure) {
  const std::string policy = file("acl.rule.priority.u1 = 255\nacl.rule.responses.u1 = tarnik:\n");
  for (const std::size_t offset :
       {std::size_t{0}, std::string("acl.rule.priority.u1 = 25").size()}) {
    platform.readErrorAt = offset;
    clearLog();
    NapMap map;
    References references;
    EXPECT_FALSE(map.PopulateNapMap(policy.c_str()));
    EXPECT_EQ(map.size(), 0u);
    EXPECT_FALSE(getTarnikReferences(policy.c_str(), references));
    EXPECT_THAT(rulesOf(policy, "u1", Reading::kFails), IsEmpty());
    const std::string reason = ": Failed to read: " + policy + ", errno=5";
    EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: PopulateNapMap" + reason),
                                        errorLine("Error: getTarnikReferences" + reason),
                                        errorLine("Error: getTarnikRules" + reason)));
  }
}

TEST_F(BadInputTest, TheNullDeviceIsAnEmptyFile) {
  NapMap rules;
  IssueMap issues;
  References references;
  EXPECT_TRUE(rules.PopulateNapMap("/dev/null"));
  EXPECT_TRUE(issues.PopulateIssueMap("/dev/null"));
  EXPECT_TRUE(getTarnikReferences("/dev/null", references));
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_FALSE(rules.PopulateNapMap("/dev/zero"));
  EXPECT_FALSE(issues.PopulateIssueMap("/dev/zero"));
}

// Each of 1,000 equal lines asks for capture of all 1,000: a million lines of template.
TEST_F(BadInputTest, DuplicateReferencesTakeNoMemory) {
  std::string content;
  for (int line = 0; line < 1000; ++line) {
    content += "ips.responses.object.cap1 = tarnik:\n";
  }
  writeFile("/etc/ips.conf", content);
  expectWithin(4, [] { return createIpsInfoTemplate(); });
  const std::string line = "ips.responses.object.cap1=tarnik:\n";
  EXPECT_EQ(std::filesystem::file_size("/var/support/tarnik/template.ips"), 1000000 * line.size());
  std::filesystem::remove("/var/support/tarnik/template.ips");
  std::filesystem::remove("/etc/ips.conf");
}

TEST_F(BadInputTest, SettingsThatAskForNothingTakeNoMemory) {
  const std::string policy = file(numbered("ips.rule.name.", " = value") + kGood);
  expectWithin(8, [&policy] {
    NapMap map;
    References references;
    return map.PopulateNapMap(policy.c_str()) && map.size() == 1 &&
           getTarnikReferences(policy.c_str(), references) && references.size() == 1 &&
           rulesOf(policy, "u1").size() == 2;
  });
}

TEST_F(BadInputTest, ManyRules) {
  const std::string policy = file(numbered("acl.rule.responses.u", " = tarnik:"));
  expectWithin(75, [&policy] {
    References references;
    return getTarnikReferences(policy.c_str(), references) && references.size() == kMany &&
           references.back() == "u" + std::to_string(kMany - 1);
  });
}

// ---- issues.csv -----------------------------------------------------------------------------

using BadCsvTest = PolicyTest;

// The error follows a record, or cuts the name "bcd" to "bc".
TEST_F(BadCsvTest, AReadErrorIsAFailure) {
  const std::string csv = file("7,a\n8,bcd\n");
  for (const std::size_t offset : {4u, 8u}) {
    platform.readErrorAt = offset;
    IssueMap map;
    EXPECT_FALSE(map.PopulateIssueMap(csv.c_str())) << offset;
    std::string name;
    EXPECT_FALSE(map.LookupIssueName(8, name));
    EXPECT_THAT(logLines().back(),
                errorLine("Error: PopulateIssueMap: Could not read [" + csv + "], line: 2"));
  }
}

TEST_F(BadCsvTest, ManyIssues) {
  const std::string csv = file(numbered("1", ",ISSUE"));
  expectWithin(75, [&csv] {
    IssueMap map;
    return map.PopulateIssueMap(csv.c_str()) && map.size() == kMany;
  });
}

TEST_F(BadCsvTest, ManyRecordsOfOneIssueAreOne) {
  const std::string csv = file(numbered("65536,ISSUE-", ""));
  expectWithin(8, [&csv] {
    IssueMap map;
    std::string name;
    return map.PopulateIssueMap(csv.c_str()) && map.size() == 1 &&
           map.LookupIssueName(65536, name) && name == "ISSUE-" + std::to_string(kMany - 1);
  });
}

}  // namespace
}  // namespace tarnik::test
