// The daemon's own readers must find what was written.
#include "platform/brund/policy_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/testing/captured_log.h"
#include "base/testing/files.h"
#include "policy/capture_rules.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"
#include "policy/testing/rules.h"

namespace tarnik::brund {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
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
    const auto set = RuleSet::parse("rules", kRules);
    ASSERT_TRUE(set) << set.error();
    const auto written = writePolicy(set->rules(), policy_, policy_ + "/issues.csv");
    ASSERT_TRUE(written) << written.error();
  }
  void TearDown() override { EXPECT_THAT(test::logLinesAboveDebug(), IsEmpty()); }

  test::TempDir dir_;
  const std::string policy_ = dir_ / "policy";
  const std::string ips_ = policy_ + "/ips.conf";
  const std::string acl_ = policy_ + "/acl.conf";
};

TEST_F(PolicyFiles, IssuesHaveTheirNames) {
  IssueMap issues;
  ASSERT_TRUE(issues.PopulateIssueMap((policy_ + "/issues.csv").c_str()));
  EXPECT_EQ(issues.size(), 3u);
  for (const auto& [id, expected] :
       {std::pair{70000u, "HTTP"}, {70001u, "_x,y"}, {4294967295u, "HTTP"}}) {
    std::string name;
    static_cast<void>(issues.LookupIssueName(id, name));
    EXPECT_EQ(name, expected);
  }
}

TEST_F(PolicyFiles, PrioritiesHaveTheirUuids) {
  NapMap rules;
  ASSERT_TRUE(rules.PopulateNapMap(acl_.c_str()));
  for (const auto& [priority, expected] :
       {std::pair{10u, "aaaa-1"}, {20u, "_b.2"}, {21u, "_b.2"}, {70000u, "none"}}) {
    std::string uuid = "none";
    static_cast<void>(rules.LookupNapUuid(priority, uuid));
    EXPECT_EQ(uuid, expected);
  }
}

TEST_F(PolicyFiles, EachTriggerAsksForCaptureOnce) {
  References ips;
  References nap;
  ASSERT_TRUE(getTarnikReferences(ips_.c_str(), ips));
  ASSERT_TRUE(getTarnikReferences(acl_.c_str(), nap));
  EXPECT_THAT(ips, UnorderedElementsAre("HTTP", "_x,y"));
  EXPECT_THAT(nap, UnorderedElementsAre("aaaa-1", "_b.2"));
}

TEST_F(PolicyFiles, RulesHaveTheirFilters) {
  const Rules http = test::rulesOf(ips_, "HTTP");
  EXPECT_THAT(http, SizeIs(3));
  EXPECT_THAT(http, Contains(Pair("ips.responses.object.HTTP", "log,tarnik:capture")));
  EXPECT_THAT(http, Contains(Pair("ips.issue.filter.HTTP",
                                  "((tcp port 80) or (tcp port 8080)) or (ip proto \\icmp)")));
  const Rules reset = test::rulesOf(acl_, "_b.2");
  EXPECT_THAT(reset, ElementsAre(Pair("acl.rule.priority.__b.2", "20"),
                                 Pair("acl.rule.priority.__b.2", "21"),
                                 Pair("acl.rule.action.__b.2", "allow"),
                                 Pair("acl.rule.filter.__b.2", "(tcp[13] & 4 != 0) or (arp)"),
                                 Pair("acl.rule.responses.__b.2", "log,tarnik:capture")));
}

TEST_F(PolicyFiles, RulesOfOneKindAreNotInTheOtherFile) {
  const auto set = RuleSet::parse("rules", "nap 1 a icmp\n");
  EXPECT_EQ(issueList(set->rules()), "");
  EXPECT_THAT(ipsPolicy(set->rules()), Not(HasSubstr("tarnik:")));
  EXPECT_THAT(napPolicy(set->rules()), HasSubstr("tarnik:"));
}

TEST_F(PolicyFiles, ErrorsNameTheFile) {
  const std::string deep = policy_ + "/none/deep";
  EXPECT_EQ(writePolicy({}, deep, policy_ + "/i").error(), deep + ": No such file or directory");
  EXPECT_EQ(writePolicy({}, policy_, deep).error(), deep + ": No such file or directory");
}

}  // namespace
}  // namespace tarnik::brund
