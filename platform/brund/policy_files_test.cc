// What is written must be found by the daemon: the files are read back with its own readers.
#include "platform/brund/policy_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "base/testing/captured_log.h"
#include "platform/brund/testing/data.h"
#include "policy/capture_rules.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"
#include "policy/testing/rules.h"

namespace tarnik::brund {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

const char kRules[] =
    "ips 70000 HTTP tcp port 80\n"
    "ips 70000 HTTP tcp port 8080\n"
    "ips 70001 _x,y ether host 02:00:00:00:00:01\n"
    "ips 4294967295 HTTP ip proto \\icmp\n"
    "nap 10 aaaa-1 icmp\n"
    "nap 20 _b.2 tcp[13] & 4 != 0\n"
    "nap 21 _b.2 arp\n";

class PolicyFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    const RuleSet set = RuleSet::parse("rules", kRules);
    ASSERT_THAT(set.problems(), IsEmpty());
    std::string error;
    ASSERT_TRUE(writePolicy(set.rules(), path(""), path("/issues.csv"), error)) << error;
  }
  std::string path(const std::string& name) const { return dir_.path() + "/policy" + name; }

  test::TempDir dir_;
};

TEST_F(PolicyFiles, IssueNamesAreFound) {
  IssueMap issues;
  ASSERT_TRUE(issues.PopulateIssueMap(path("/issues.csv").c_str()));
  EXPECT_EQ(issues.size(), 3u);
  const auto name = [&](std::uint32_t id) {
    std::string text = "none";
    static_cast<void>(issues.LookupIssueName(id, text));
    return text;
  };
  EXPECT_EQ(name(70000), "HTTP");
  EXPECT_EQ(name(70001), "_x,y");
  EXPECT_EQ(name(4294967295), "HTTP");
  EXPECT_THAT(test::logLinesAboveDebug(), IsEmpty());
}

TEST_F(PolicyFiles, RuleUuidsAreFound) {
  NapMap rules;
  ASSERT_TRUE(rules.PopulateNapMap(path("/acl.conf").c_str()));
  const auto uuid = [&](std::uint32_t priority) {
    std::string text = "none";
    static_cast<void>(rules.LookupNapUuid(priority, text));
    return text;
  };
  EXPECT_EQ(uuid(10), "aaaa-1");
  EXPECT_EQ(uuid(20), "_b.2");
  EXPECT_EQ(uuid(21), "_b.2");
  EXPECT_EQ(uuid(70000), "none");
  EXPECT_THAT(test::logLinesAboveDebug(), IsEmpty());
}

TEST_F(PolicyFiles, EachTriggerIsAReferenceOnce) {
  References ips;
  References nap;
  ASSERT_TRUE(getTarnikReferences(path("/ips.conf").c_str(), ips));
  ASSERT_TRUE(getTarnikReferences(path("/acl.conf").c_str(), nap));
  EXPECT_THAT(ips, UnorderedElementsAre("HTTP", "_x,y"));
  EXPECT_THAT(nap, UnorderedElementsAre("aaaa-1", "_b.2"));
}

TEST_F(PolicyFiles, RulesTellTheirFilters) {
  const Rules http = test::rulesOf(path("/ips.conf"), "HTTP");
  EXPECT_THAT(http, Contains(Pair("ips.responses.object.HTTP", "log,tarnik:capture")));
  EXPECT_THAT(http, Contains(Pair("ips.issue.filter.HTTP",
                                  "((tcp port 80) or (tcp port 8080)) or (ip proto \\icmp)")));
  EXPECT_EQ(http.size(), 3u);
  const Rules reset = test::rulesOf(path("/acl.conf"), "_b.2");
  EXPECT_THAT(reset, ElementsAre(Pair("acl.rule.priority.__b.2", "20"),
                                 Pair("acl.rule.priority.__b.2", "21"),
                                 Pair("acl.rule.action.__b.2", "allow"),
                                 Pair("acl.rule.filter.__b.2", "(tcp[13] & 4 != 0) or (arp)"),
                                 Pair("acl.rule.responses.__b.2", "log,tarnik:capture")));
}

TEST_F(PolicyFiles, RulesOfOneKindLeaveTheOtherFileEmpty) {
  const RuleSet set = RuleSet::parse("rules", "nap 1 a icmp\n");
  EXPECT_EQ(issueList(set.rules()), "");
  EXPECT_EQ(ipsPolicy(set.rules()).find("tarnik:"), std::string::npos);
  EXPECT_NE(napPolicy(set.rules()).find("tarnik:"), std::string::npos);
}

TEST_F(PolicyFiles, FailureNamesTheFile) {
  std::string error;
  EXPECT_FALSE(writePolicy({}, path("/none/deep"), path("/issues.csv"), error));
  EXPECT_EQ(error, path("/none/deep") + ": No such file or directory");
  EXPECT_FALSE(writePolicy({}, path(""), path("/none/issues.csv"), error));
  EXPECT_EQ(error, path("/none/issues.csv") + ": No such file or directory");
}

}  // namespace
}  // namespace tarnik::brund
