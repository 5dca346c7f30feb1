#include "platform/brund/rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packet/testing/frames.h"

namespace tarnik::brund {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

struct Bad {
  const char* what;
  std::string line;
  const char* reason;
};

class RefusedRule : public ::testing::TestWithParam<Bad> {};

TEST_P(RefusedRule, WithFileLineAndReason) {
  const RuleSet set =
      RuleSet::parse("r", "# a comment\nips 70000 OK tcp\n" + GetParam().line + "\n");
  ASSERT_THAT(set.problems(), SizeIs(1));
  EXPECT_THAT(set.problems()[0], StartsWith("r:3: "));
  EXPECT_THAT(set.problems()[0], HasSubstr(GetParam().reason));
  EXPECT_THAT(set.rules(), SizeIs(1));
}

const Bad kBad[] = {
    {"Keyword", "idp 70000 X tcp", "'idp' is neither 'ips' nor 'nap'"},
    {"IpsZero", "ips 0 X tcp", "would be read as a rule priority or as unknown"},
    {"IpsPriority", "ips 1 X tcp", "would be read as a rule priority or as unknown"},
    {"IpsUnknown", "ips 65535 X tcp", "would be read as a rule priority or as unknown"},
    {"IpsTooLarge", "ips 4294967296 X tcp", "ips identifier 4294967296 is above 4294967295"},
    {"IpsFarTooLarge", "ips 99999999999999999999999 X tcp", "is above 4294967295"},
    {"IpsNegative", "ips -1 X tcp", "'-1' is not a decimal number"},
    {"IpsHex", "ips 0x20000 X tcp", "'0x20000' is not a decimal number"},
    {"IpsWord", "ips X 70001 tcp", "'X' is not a decimal number"},
    {"NapZero", "nap 0 u tcp", "nap priority 0 is outside 1 to 65534"},
    {"NapUnknown", "nap 65535 u tcp", "nap priority 65535 is outside 1 to 65534"},
    {"NapIssue", "nap 65536 u tcp", "nap priority 65536 is outside 1 to 65534"},
    {"NapWord", "nap 1a u tcp", "'1a' is not a decimal number"},
    {"Slash", "ips 70001 a/b tcp", "holds '/'"},
    {"Dot", "ips 70001 . tcp", "'.' is no file name"},
    {"DotDot", "ips 70001 .. tcp", "'..' is no file name"},
    {"Control", "ips 70001 a\x01z tcp", "control character"},
    {"Delete", "ips 70001 a\x7fz tcp", "control character"},
    {"TooLong", "ips 70001 " + std::string(181, 'n') + " tcp", "longer than 180 characters"},
    {"Shell", "ips 70001 a;b tcp", "holds ';'"},
    {"Substitution", "ips 70001 $(x) tcp", "holds '$'"},
    {"Equals", "ips 70001 a=b tcp", "holds '='"},
    {"CaptureSuffix", "ips 70001 a.pcap tcp", "holds '.pcap'"},
    {"UuidBraces", "nap 1 {a} tcp", "holds '{'"},
    {"UuidSlash", "nap 1 a/b tcp", "holds '/'"},
    {"UuidComma", "nap 1 a,b tcp", "holds ','"},
    {"UuidTooLong", "nap 1 " + std::string(181, 'n') + " tcp", "longer than 180 characters"},
    {"NoFilter", "ips 70001 X", "expected: ips ID NAME FILTER..."},
    {"NoName", "nap 1", "expected: nap PRIORITY UUID FILTER..."},
    {"OnlyACommentAsFilter", "ips 70001 X # tcp", "expected: ips ID NAME FILTER..."},
    {"Filter", "ips 70001 X tcp prot 80", "filter 'tcp prot 80' does not compile: "},
    {"OtherName", "ips 70000 OTHER udp", "ips 70000 already has the name 'OK'"},
    {"NulByte", std::string("ips 70001 X tcp\0 or udp", 23), "NUL byte"},
};
INSTANTIATE_TEST_SUITE_P(Table, RefusedRule, ::testing::ValuesIn(kBad),
                         [](const auto& test) { return std::string(test.param.what); });

TEST(Rules, BoundsAreAllowed) {
  const RuleSet set = RuleSet::parse("r",
                                     "ips 65536 A tcp\nips 4294967295 B tcp\n"
                                     "nap 1 c tcp\nnap 65534 d tcp\nips 70000 " +
                                         std::string(180, 'n') + " tcp");
  EXPECT_THAT(set.problems(), IsEmpty());
  ASSERT_THAT(set.rules(), SizeIs(5));
  EXPECT_EQ(set.rules()[1].trigger, 4294967295u);
  EXPECT_EQ(set.rules()[3].kind, RuleKind::kNap);
  EXPECT_EQ(set.rules()[3].trigger, 65534u);
  EXPECT_EQ(set.rules()[3].name, "d");
}

TEST(Rules, WhiteSpaceAndComments) {
  const RuleSet set = RuleSet::parse("r",
                                     "\n  \t\n# whole line\n"
                                     "\t ips\t70000   Web_1.x  tcp port 80  \t# web\r\n"
                                     "ips 70000 Web_1.x udp port 80\r\n");
  EXPECT_THAT(set.problems(), IsEmpty());
  ASSERT_THAT(set.rules(), SizeIs(2));
  EXPECT_EQ(set.rules()[0].name, "Web_1.x");
  EXPECT_EQ(set.rules()[0].expression, "tcp port 80");
  EXPECT_EQ(set.rules()[1].expression, "udp port 80");
}

TEST(Rules, EveryRefusalIsReported) {
  const RuleSet set = RuleSet::parse("dir/r", "x\nips 70000 A tcp\nnap 0 b tcp\n");
  EXPECT_THAT(set.problems(), ElementsAre(StartsWith("dir/r:1: "), StartsWith("dir/r:3: ")));
}

TEST(Rules, PriorityAndIdentifierDoNotMeet) {
  EXPECT_THAT(RuleSet::parse("r", "nap 7 a tcp\nnap 7 a udp\nnap 8 a tcp\n").problems(), IsEmpty());
  EXPECT_THAT(RuleSet::parse("r", "nap 7 a tcp\nnap 7 b tcp\n").problems(),
              ElementsAre("r:2: nap 7 already has the UUID 'a'"));
}

TEST(Rules, FirstMatchWins) {
  using namespace test;
  const RuleSet set = RuleSet::parse("r",
                                     "ips 70000 WEB (tcp port 80) or (vlan and tcp port 80)\n"
                                     "nap 5 any ip\n");
  ASSERT_THAT(set.problems(), IsEmpty());
  const auto name = [&](const Bytes& bytes) {
    const Rule* rule = set.match(frameOf(bytes));
    return rule == nullptr ? std::string("none") : rule->name;
  };
  EXPECT_EQ(name(ethernet(0x0800, ipv4({}, tcp(1, 80)))), "WEB");
  EXPECT_EQ(name(ethernet(0x8100, vlan(1, 0x0800, ipv4({}, tcp(1, 80))))), "WEB");
  EXPECT_EQ(name(ethernet(0x0800, ipv4({}, tcp(1, 81)))), "any");
  EXPECT_EQ(name(ethernet(0x0806, be(1, 28))), "none");
  EXPECT_EQ(name({}), "none");
}

TEST(Rules, MissingFile) {
  const RuleSet set = RuleSet::load("/no/such/rules");
  EXPECT_THAT(set.problems(), ElementsAre("/no/such/rules: No such file or directory"));
}

TEST(Rules, DirectoryIsNoRulesFile) {
  EXPECT_THAT(RuleSet::load("/").problems(), ElementsAre("/: Is a directory"));
}

TEST(Rules, DemoRulesAreGood) {
  const RuleSet set = RuleSet::load(PROJECT_DIR "/platform/brund/demo.rules");
  EXPECT_THAT(set.problems(), IsEmpty());
  EXPECT_GT(set.rules().size(), 10u);
}

}  // namespace
}  // namespace tarnik::brund
