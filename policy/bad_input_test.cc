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
using testing::Pair;

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

class BadInputTest : public PolicyTest {
 protected:
  // The three readers of tuning files on one content: what they return, and what they found.
  struct Found {
    bool whole = true;
    std::size_t uuids = 0;
    References references;
    Rules rules;
  };
  [[nodiscard]] Found read(const std::string& content, const std::string& reference) const {
    const std::string policy = file(content);
    Found found;
    NapMap map;
    const bool results[] = {map.PopulateNapMap(policy.c_str()),
                            getTarnikReferences(policy.c_str(), found.references)};
    EXPECT_EQ(results[0], results[1]);
    found.rules = rulesOf(policy, reference, results[0] ? Reading::kSucceeds : Reading::kFails);
    found.whole = results[0];
    found.uuids = map.size();
    return found;
  }
  static std::vector<LogLine> malformedAt(int line) {
    const std::string number = std::to_string(line);
    return {errorLine("Error: PopulateNapMap: Malformed tuning parameter at line " + number),
            errorLine("Error: getTarnikReferences: Malformed tuning param (line=" + number + ")"),
            errorLine("Error: getTarnikRules: Malformed tuning param (line=" + number + ")")};
  }
};

const std::string kGood = "acl.rule.priority.u1 = 5\nacl.rule.responses.u1 = tarnik:\n";

TEST_F(BadInputTest, LineEndsEncodingsAndAMissingLastLineEnd) {
  const std::string contents[] = {
      kGood,
      kGood.substr(0, kGood.size() - 1),
      "acl.rule.priority.u1 = 5\r\nacl.rule.responses.u1 = tarnik:\r\n",
      "acl.rule.priority.u1 = 5\r\nacl.rule.responses.u1 = tarnik:\r",
      "\xef\xbb\xbf" + kGood,
      "\n\n  \t\n# tarnik:\n" + kGood + "\n#",
  };
  for (const std::string& content : contents) {
    const Found found = read(content, "u1");
    EXPECT_TRUE(found.whole);
    EXPECT_EQ(found.uuids, 1u);
    EXPECT_THAT(found.references, ElementsAre("u1"));
    EXPECT_THAT(found.rules, ElementsAre(Pair("acl.rule.priority.u1", "5"),
                                         Pair("acl.rule.responses.u1", "tarnik:")));
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BadInputTest, OtherAlphabets) {
  const std::string name = "gr\xc3\xbc\xc3\x9f\xff";
  const Found found = read("acl.rule.priority._" + name + " = 5\nacl.rule.responses._" + name +
                               " = \"\xe2\x82\xac tarnik:\xfe\"\n",
                           name);
  EXPECT_TRUE(found.whole);
  EXPECT_THAT(found.references, ElementsAre(name));
  EXPECT_THAT(found.rules,
              ElementsAre(Pair("acl.rule.priority._" + name, "5"),
                          Pair("acl.rule.responses._" + name, "\xe2\x82\xac tarnik:\xfe")));
}

TEST_F(BadInputTest, NulByteIsMalformed) {
  using std::string_literals::operator""s;
  for (const std::string& line : {"a = 1\0 2\n"s, "a\0b = 1\n"s, "\0\n"s, "\0"s}) {
    clearLog();
    const Found found = read(kGood + line + kGood, "u1");
    EXPECT_FALSE(found.whole);
    EXPECT_EQ(found.uuids, 1u);
    EXPECT_THAT(found.references, ElementsAre("u1"));
    EXPECT_EQ(found.rules.size(), 2u);
    EXPECT_EQ(logLines(), malformedAt(3));
  }
}

TEST_F(BadInputTest, TenMebibytesOfOneLine) {
  const std::string filler(10 * kMiB, 'x');
  const Found comment = read("# " + filler + "\n" + kGood, "u1");
  EXPECT_TRUE(comment.whole);
  EXPECT_THAT(comment.references, ElementsAre("u1"));
  const Found value = read("acl.rule.responses.u1 = " + filler + "tarnik:\n", "u1");
  EXPECT_TRUE(value.whole);
  EXPECT_THAT(value.references, ElementsAre("u1"));
  EXPECT_THAT(value.rules, ElementsAre(Pair("acl.rule.responses.u1", filler + "tarnik:")));
  clearLog();
  const Found key = read(kGood + filler + " = 1\n" + kGood, "u1");
  EXPECT_FALSE(key.whole);
  EXPECT_EQ(key.rules.size(), 2u);
  EXPECT_EQ(logLines(), malformedAt(3));
}

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

TEST_F(BadInputTest, DuplicateKeysAreKept) {
  const Found found = read(kGood + kGood, "u1");
  EXPECT_TRUE(found.whole);
  EXPECT_EQ(found.uuids, 1u);
  EXPECT_THAT(found.references, ElementsAre("u1", "u1"));
  EXPECT_EQ(found.rules.size(), 4u);
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

using BadCsvTest = BadInputTest;

TEST_F(BadCsvTest, LineEndsEncodingsAndAMissingLastLineEnd) {
  for (const std::string content : {"7,a\n8,b\n", "7,a\n8,b", "7,a\r\n8,b\r\n", "7,a\r\n8,b",
                                    "\xef\xbb\xbf"
                                    "7,a\n8,b\n",
                                    "\"7\",\"a\"\n\"8\",\"b\""}) {
    IssueMap map;
    std::string name;
    EXPECT_TRUE(map.PopulateIssueMap(file(content).c_str())) << content;
    EXPECT_EQ(map.size(), 2u);
    EXPECT_TRUE(map.LookupIssueName(8, name));
    EXPECT_EQ(name, "b");
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BadCsvTest, NulByteAndUnclosedQuoteAreBadRecords) {
  using std::string_literals::operator""s;
  for (const std::string& record : {"8,b\0b\n"s, "8\0,b\n"s, "\0\n"s, "8,\"b\n9,c\n"s}) {
    IssueMap map;
    clearLog();
    const std::string csv = file("7,a\n" + record);
    EXPECT_FALSE(map.PopulateIssueMap(csv.c_str()));
    EXPECT_EQ(map.size(), 1u);
    EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: PopulateIssueMap: Could not read [" +
                                                  csv + "], line: 2")));
  }
}

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

TEST_F(BadCsvTest, TenMebibytesOfOneRecord) {
  const std::string filler(10 * kMiB, 'x');
  IssueMap map;
  std::string name;
  EXPECT_TRUE(map.PopulateIssueMap(file("7," + filler + "\n8,b," + filler + "\n").c_str()));
  EXPECT_TRUE(map.LookupIssueName(7, name));
  EXPECT_EQ(name, filler);
  EXPECT_TRUE(map.LookupIssueName(8, name));
  EXPECT_EQ(name, "b");
  EXPECT_FALSE(map.PopulateIssueMap(file(filler + ",b\n").c_str()));
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
