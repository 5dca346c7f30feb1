// Policy files of every shape: what the readers make of them, within bounded memory.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "policy/capture_info.h"
#include "policy/capture_rules.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"
#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::size_t kMiB = 1024 * 1024;

// A sanitizer's bookkeeping hides how much memory the code itself takes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryTells = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryTells = false;
#else
constexpr bool kMemoryTells = true;
#endif
#else
constexpr bool kMemoryTells = true;
#endif

// Runs `work` in a process of its own and expects it to succeed, with at most `mostMiB` more
// memory at any time than this process had.
void expectWithin(long mostMiB, const std::function<bool()>& work) {
  malloc_trim(0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    struct rusage before {};
    struct rusage after {};
    getrusage(RUSAGE_SELF, &before);
    const bool done = work();
    getrusage(RUSAGE_SELF, &after);
    const long took = (after.ru_maxrss - before.ru_maxrss) / 1024;
    if (!done || (kMemoryTells && took > mostMiB)) {
      std::fprintf(stderr, "%s, %ld MiB\n", done ? "done" : "failed", took);
      _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
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
                            getTarnikReferences(policy.c_str(), found.references),
                            getTarnikRules(policy.c_str(), reference, found.rules)};
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
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
    Rules rules;
    return getTarnikReferences(policy.c_str(), references) &&
           getTarnikRules(policy.c_str(), "u1", rules) && rules.size() == 1;
  });
}

TEST_F(BadInputTest, DuplicateKeysAreKept) {
  const Found found = read(kGood + kGood, "u1");
  EXPECT_TRUE(found.whole);
  EXPECT_EQ(found.uuids, 1u);
  EXPECT_THAT(found.references, ElementsAre("u1", "u1"));
  EXPECT_EQ(found.rules.size(), 4u);
}

// Each of 2,000 equal lines asks for capture of all 2,000: four million lines of template.
TEST_F(BadInputTest, DuplicateReferencesMultiplyInTheTemplateAlone) {
  std::string content;
  for (int line = 0; line < 2000; ++line) {
    content += "ips.responses.object.cap1 = tarnik:\n";
  }
  writeFile("/etc/ips.conf", content);
  expectWithin(4, [] { return createIpsInfoTemplate(); });
  const std::string line = "ips.responses.object.cap1=tarnik:\n";
  EXPECT_EQ(std::filesystem::file_size("/var/support/tarnik/template.ips"), 4000000 * line.size());
  std::filesystem::remove("/var/support/tarnik/template.ips");
  std::filesystem::remove("/etc/ips.conf");
}

TEST_F(BadInputTest, AMillionSettingsThatAskForNothingTakeNoMemory) {
  std::string content;
  for (int line = 0; line < 1000000; ++line) {
    content += "ips.rule.name." + std::to_string(line) + " = value\n";
  }
  content += kGood;
  const std::string policy = file(content);
  content = std::string();
  expectWithin(8, [&policy] {
    NapMap map;
    References references;
    if (!map.PopulateNapMap(policy.c_str()) || map.size() != 1 ||
        !getTarnikReferences(policy.c_str(), references) || references.size() != 1) {
      return false;
    }
    RulesByReference byReference(policy.c_str(), references);
    std::vector<RuleSpan> rules;
    return byReference.get("u1", rules) && rules[0].size() == 2;
  });
}

TEST_F(BadInputTest, AMillionReferencesFromOneRead) {
  std::string content;
  for (int line = 1000000; line < 2000000; ++line) {
    content += "ips.responses.object.r" + std::to_string(line) + " = tarnik:\n";
  }
  const std::string policy = file(content);
  content = std::string();
  expectWithin(500, [&policy] {
    References references;
    if (!getTarnikReferences(policy.c_str(), references) || references.size() != 1000000) {
      return false;
    }
    RulesByReference byReference(policy.c_str(), references);
    for (const std::string& reference : references) {
      std::vector<RuleSpan> rules;
      if (!byReference.get(reference, rules) || rules[0].size() != 1 ||
          rules[0][0]->first != "ips.responses.object." + reference) {
        return false;
      }
    }
    return true;
  });
}

TEST_F(BadInputTest, AMillionRules) {
  std::string content;
  for (int line = 0; line < 1000000; ++line) {
    content += "acl.rule.priority.u" + std::to_string(line) + " = " + std::to_string(line) + "\n";
  }
  const std::string policy = file(content);
  content = std::string();
  expectWithin(250, [&policy] {
    NapMap map;
    std::string uuid;
    return map.PopulateNapMap(policy.c_str()) && map.size() == 1000000 &&
           map.LookupNapUuid(999999, uuid) && uuid == "u999999";
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

TEST_F(BadCsvTest, AMillionIssues) {
  std::string content;
  for (int line = 0; line < 1000000; ++line) {
    content += std::to_string(line + 65536) + ",ISSUE-" + std::to_string(line) + "\n";
  }
  const std::string csv = file(content);
  content = std::string();
  expectWithin(250, [&csv] {
    IssueMap map;
    std::string name;
    return map.PopulateIssueMap(csv.c_str()) && map.size() == 1000000 &&
           map.LookupIssueName(1065535, name) && name == "ISSUE-999999";
  });
}

TEST_F(BadCsvTest, AMillionRecordsOfOneIssueAreOne) {
  std::string content;
  for (int line = 0; line < 1000000; ++line) {
    content += "65536,ISSUE-" + std::to_string(line) + "\n";
  }
  const std::string csv = file(content);
  content = std::string();
  expectWithin(8, [&csv] {
    IssueMap map;
    std::string name;
    return map.PopulateIssueMap(csv.c_str()) && map.size() == 1 &&
           map.LookupIssueName(65536, name) && name == "ISSUE-999999";
  });
}

}  // namespace
}  // namespace tarnik::test
