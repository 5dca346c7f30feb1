#include "platform/brund/rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packet/testing/frames.h"

namespace tarnik::brund {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

TEST(Rules, RefusedLinesAreNamedWithTheirReason) {
  const std::string tooLong(181, 'n');
  const struct {
    std::string line;
    const char* reason;
  } cases[] = {
      {"idp 70000 X tcp", "'idp' is neither 'ips' nor 'nap'"},
      {"ips 0 X tcp", "ips identifier 0 is outside 65536 to 4294967295"},
      {"ips 65535 X tcp", "ips identifier 65535 is outside 65536 to 4294967295"},
      {"ips 4294967296 X tcp", "ips identifier 4294967296 is outside"},
      {"ips 18446744073709621616 X tcp", "ips identifier 18446744073709621616 is outside"},
      {"ips -1 X tcp", "ips identifier '-1' is not a decimal number"},
      {"ips 0x20000 X tcp", "'0x20000' is not a decimal number"},
      {"ips X 70001 tcp", "'X' is not a decimal number"},
      {"nap 0 u tcp", "nap priority 0 is outside 1 to 65534"},
      {"nap 65535 u tcp", "nap priority 65535 is outside 1 to 65534"},
      {"nap 1a u tcp", "nap priority '1a' is not a decimal number"},
      {"ips 70001 a/b tcp", "contains '/'"},
      {"ips 70001 . tcp", "'.' cannot be a file name"},
      {"ips 70001 .. tcp", "'..' cannot be a file name"},
      {"ips 70001 a\x01z tcp", "control character"},
      {"ips 70001 a\x7fz tcp", "control character"},
      {"ips 70001 " + tooLong + " tcp", "name is longer than 180 characters"},
      {"ips 70001 a;b tcp", "contains ';'"},
      {"ips 70001 $(x) tcp", "contains '$'"},
      {"ips 70001 a=b tcp", "contains '='"},
      {"ips 70001 a.pcap tcp", "contains '.pcap'"},
      {"nap 1 {a} tcp", "contains '{'"},
      {"nap 1 a/b tcp", "contains '/'"},
      {"nap 1 a,b tcp", "contains ','"},
      {"nap 1 " + tooLong + " tcp", "UUID is longer than 180 characters"},
      {"ips 70001 X", "expected: ips ID NAME FILTER..."},
      {"nap 1", "expected: nap PRIORITY UUID FILTER..."},
      {"ips 70001 X # tcp", "expected: ips ID NAME FILTER..."},
      {"ips 70001 X tcp prot 80", "filter 'tcp prot 80' does not compile: "},
      {"ips 70000 OTHER udp", "ips 70000 already has the name 'OK'"},
      {"nap 7 other udp", "nap 7 already has the UUID 'a'"},
      {std::string("ips 70001 X tcp\0 or udp", 23), "NUL byte"},
  };
  for (const auto& entry : cases) {
    const auto set =
        RuleSet::parse("r", "nap 7 a tcp\nips 70000 OK tcp\n" + entry.line + "\nnap 8 a udp\n");
    ASSERT_FALSE(set) << entry.line;
    EXPECT_THAT(set.error(), StartsWith("r:3: "));
    EXPECT_THAT(set.error(), HasSubstr(entry.reason));
  }
}

TEST(Rules, EveryRefusedLineIsReported) {
  EXPECT_THAT(RuleSet::parse("dir/r", "x\nips 70000 A tcp\nnap 0 b tcp\n").error(),
              MatchesRegex("dir/r:1: [^\n]+\ndir/r:3: [^\n]+"));
}

TEST(Rules, BoundsAreAllowed) {
  const auto set = RuleSet::parse("r",
                                  "ips 65536 A tcp\nips 4294967295 B tcp\n"
                                  "nap 1 c tcp\nnap 65534 d tcp\nips 70000 " +
                                      std::string(180, 'n') + " tcp");
  ASSERT_TRUE(set) << set.error();
  const std::vector<Rule>& rules = set->rules();
  ASSERT_THAT(rules, SizeIs(5));
  EXPECT_EQ(rules[1].trigger.id, 4294967295u);
  EXPECT_EQ(rules[3].trigger.kind, RuleKind::kNap);
  EXPECT_EQ(rules[3].trigger.id, 65534u);
  EXPECT_EQ(rules[3].trigger.name, "d");
}

TEST(Rules, WhiteSpaceAndCommentsAreSkipped) {
  const auto set = RuleSet::parse("r",
                                  "\n  \t\n# whole line\n"
                                  "\t ips\t70000   Web_1.x  tcp port 80  \t# web\r\n"
                                  "ips 70000 Web_1.x udp port 80\r\n");
  ASSERT_TRUE(set) << set.error();
  const std::vector<Rule>& rules = set->rules();
  ASSERT_THAT(rules, SizeIs(2));
  EXPECT_EQ(rules[0].trigger.name, "Web_1.x");
  EXPECT_EQ(rules[0].expression, "tcp port 80");
  EXPECT_EQ(rules[1].expression, "udp port 80");
}

TEST(Rules, FirstMatchWins) {
  using namespace test;
  const auto set = RuleSet::parse("r",
                                  "ips 70000 WEB (tcp port 80) or (vlan and tcp port 80)\n"
                                  "nap 5 any ip\n");
  ASSERT_TRUE(set) << set.error();
  const struct {
    Bytes frame;
    const char* name;
  } cases[] = {
      {ethernet(0x0800, ipv4({}, tcp(1, 80))), "WEB"},
      {ethernet(0x8100, vlan(1, 0x0800, ipv4({}, tcp(1, 80)))), "WEB"},
      {ethernet(0x0800, ipv4({}, tcp(1, 81))), "any"},
      {ethernet(0x0806, be(1, 28)), "none"},
      {{}, "none"},
  };
  for (const auto& entry : cases) {
    const Rule* rule = set->match(frameOf(entry.frame));
    EXPECT_EQ(rule == nullptr ? "none" : rule->trigger.name, entry.name);
  }
}

TEST(Rules, UnreadableFilesAreNamed) {
  EXPECT_EQ(RuleSet::load("/no/such/rules").error(), "/no/such/rules: No such file or directory");
  EXPECT_EQ(RuleSet::load("/").error(), "/: Is a directory");
}

TEST(Rules, DemoRulesAreGood) {
  const auto set = RuleSet::load(DEMO_RULES);
  ASSERT_TRUE(set) << set.error();
  EXPECT_THAT(set->rules(), SizeIs(::testing::Gt(10u)));
}

}  // namespace
}  // namespace tarnik::brund
