#include "policy/nap_map.h"

#include <sys/stat.h>

#include <cstdio>

#include "base/paths.h"
#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;

class NapMapTest : public PolicyTest {
 protected:
  ~NapMapTest() override { std::remove(kNapPolicyPath); }
};

std::string uuidOf(const NapMap& map, std::uint32_t priority) {
  std::string uuid;
  return map.LookupNapUuid(priority, uuid) ? uuid : "(none)";
}

TEST_F(NapMapTest, StoresTheKeyAfterThePrefixUnderTheValue) {
  NapMap map;
  setDebugLevel(9);
  EXPECT_TRUE(map.PopulateNapMap(file("acl.rule.priority.6f9a = 5\n"
                                      "acl.rule.priority._abc = 6\n"
                                      "acl.rule.priority.__abc = 7\n"
                                      "acl.rule.priority.a_b_ = 8\n"
                                      "acl.rule.priority._ = 9\n"
                                      "acl.rule.priority. = 10\n")
                                     .c_str()));
  EXPECT_EQ(map.size(), 6u);
  EXPECT_EQ(uuidOf(map, 5), "6f9a");
  EXPECT_EQ(uuidOf(map, 6), "abc");
  EXPECT_EQ(uuidOf(map, 7), "_abc");
  EXPECT_EQ(uuidOf(map, 8), "a_b_");
  EXPECT_EQ(uuidOf(map, 9), "");
  EXPECT_EQ(uuidOf(map, 10), "");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(NapMapTest, ThePriorityIsTheValueConvertedWithoutChecks) {
  const std::pair<const char*, std::uint32_t> cases[] = {{"x", 0},
                                                         {"\"\"", 0},
                                                         {"-1", 4294967295},
                                                         {"12abc", 12},
                                                         {"0x10", 0},
                                                         {"010", 10},
                                                         {"+3", 3},
                                                         {"\"  4\"", 4},
                                                         {"4294967295", 4294967295},
                                                         {"4294967296", 0},
                                                         {"65535", 65535},
                                                         {"-4294967295", 1},
                                                         {"99999999999999999999", 4294967295},
                                                         {"-99999999999999999999", 0}};
  for (const auto& [value, priority] : cases) {
    NapMap map;
    EXPECT_TRUE(
        map.PopulateNapMap(file(std::string("acl.rule.priority.abc = ") + value + "\n").c_str()));
    EXPECT_EQ(uuidOf(map, priority), "abc") << value;
    EXPECT_EQ(map.size(), 1u) << value;
  }
}

TEST_F(NapMapTest, OtherKeysAreIgnored) {
  NapMap map;
  EXPECT_TRUE(map.PopulateNapMap(file("# comment\n\nacl.rule.responses.a = 1\n"
                                      "xacl.rule.priority.b = 2\nACL.rule.priority.c = 3\n"
                                      "acl.rule.priority = 4\nacl.rule.priorityd = 5\n")
                                     .c_str()));
  EXPECT_EQ(map.size(), 0u);
  std::string uuid = "before";
  EXPECT_FALSE(map.LookupNapUuid(1, uuid));
  EXPECT_FALSE(map.LookupNapUuid(0, uuid));
  EXPECT_FALSE(map.LookupNapUuid(65535, uuid));
  EXPECT_EQ(uuid, "before");
}

TEST_F(NapMapTest, LaterRuleOfAPriorityWinsSilently) {
  NapMap map;
  setDebugLevel(9);
  EXPECT_TRUE(
      map.PopulateNapMap(file("acl.rule.priority.a = 5\nacl.rule.priority.b = 5\n").c_str()));
  EXPECT_EQ(uuidOf(map, 5), "b");
  EXPECT_EQ(map.size(), 1u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(NapMapTest, MalformedLineEndsTheReading) {
  NapMap map;
  EXPECT_FALSE(map.PopulateNapMap(
      file("acl.rule.priority.a = 1\n# comment\n\nalone\nacl.rule.priority.b = 2\n").c_str()));
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(uuidOf(map, 1), "a");
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: PopulateNapMap: Malformed tuning parameter at line 4")));
}

TEST_F(NapMapTest, OnlyRegularFilesAreOpenedAndAFailureLeavesTheMap) {
  NapMap map;
  EXPECT_TRUE(map.PopulateNapMap(file("acl.rule.priority.a = 1\n").c_str()));
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  for (const std::string& name : {path("missing"), path("fifo"), std::string("/tmp")}) {
    clearLog();
    EXPECT_FALSE(map.PopulateNapMap(name.c_str()));
    EXPECT_THAT(
        logLines(),
        ElementsAre(errorLine("Error: PopulateNapMap: Could not open config file: " + name)));
  }
  EXPECT_EQ(uuidOf(map, 1), "a");
}

TEST_F(NapMapTest, LoadAddsFromTheSensorsPolicyAndReloadReplaces) {
  NapMap map;
  writeFile("/etc/acl.conf", "acl.rule.priority.a = 1\n");
  EXPECT_TRUE(map.Load());
  writeFile("/etc/acl.conf", "acl.rule.priority.b = 2\n");
  EXPECT_TRUE(map.Load());
  EXPECT_EQ(map.size(), 2u);
  EXPECT_TRUE(map.Reload());
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(uuidOf(map, 2), "b");
}

TEST_F(NapMapTest, FailedReloadKeepsOnlyWhatItReadBefore) {
  NapMap map;
  EXPECT_TRUE(map.PopulateNapMap(file("acl.rule.priority.old = 1\n").c_str()));
  writeFile("/etc/acl.conf", "acl.rule.priority.a = 2\nalone\nacl.rule.priority.b = 3\n");
  EXPECT_FALSE(map.Reload());
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(uuidOf(map, 2), "a");
  std::remove("/etc/acl.conf");
  clearLog();
  EXPECT_FALSE(map.Reload());
  EXPECT_EQ(map.size(), 0u);
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: PopulateNapMap: Could not open config file: /etc/acl.conf")));
}

TEST_F(NapMapTest, WithoutAParserTheProcessEnds) {
  NapMap map;
  const std::string policy = file("acl.rule.priority.a = 1\n");
  platform.parserToFail = 1;
  EXPECT_EXIT((void)map.PopulateNapMap(policy.c_str()), ExitedWithCode(1),
              "^<2>Fatal error: PopulateNapMap: tuning allocation failed\n$");
}

TEST_F(NapMapTest, DumpWritesTheMapInTheOrderOfPriorities) {
  NapMap map;
  map.Dump();
  EXPECT_THAT(logLines(), ElementsAre(infoLine("Dump: NAP map")));
  EXPECT_TRUE(map.PopulateNapMap(file("acl.rule.priority.c = -1\nacl.rule.priority.b = 65535\n"
                                      "acl.rule.priority.a = 10\nacl.rule.priority.z = 0\n")
                                     .c_str()));
  clearLog();
  map.Dump();
  EXPECT_THAT(logLines(),
              ElementsAre(infoLine("Dump: NAP map"), infoLine("0x0: z"), infoLine("0xa: a"),
                          infoLine("0xffff: b"), infoLine("0xffffffff: c")));
}

}  // namespace
}  // namespace tarnik::test
