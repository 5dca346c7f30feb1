#include "policy/issue_map.h"

#include <sys/stat.h>

#include <filesystem>

#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using IssueMapTest = PolicyTest;

std::string nameOf(const IssueMap& map, std::uint32_t id) {
  std::string name;
  return map.LookupIssueName(id, name) ? name : "(none)";
}

TEST_F(IssueMapTest, IgnoresFurtherColumnsAndBlankLines) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(
      file("7,WORM\n\n65536,\"A, B\",high,\"x\ny\"\n4294967295,two words\n0,zero\n9,\n").c_str()));
  EXPECT_EQ(map.size(), 5u);
  EXPECT_EQ(nameOf(map, 7), "WORM");
  EXPECT_EQ(nameOf(map, 65536), "A, B");
  EXPECT_EQ(nameOf(map, 4294967295), "two words");
  EXPECT_EQ(nameOf(map, 0), "zero");
  EXPECT_EQ(nameOf(map, 9), "");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IssueMapTest, LookupOfAnUnknownIdLeavesTheNameAlone) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("7,seven\n").c_str()));
  setDebugLevel(9);
  clearLog();
  std::string name = "before";
  EXPECT_FALSE(map.LookupIssueName(6, name));
  EXPECT_FALSE(map.LookupIssueName(8, name));
  EXPECT_EQ(name, "before");
  EXPECT_TRUE(map.LookupIssueName(7, name));
  EXPECT_EQ(name, "seven");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IssueMapTest, LaterRecordOfAnIdWinsAndIdsAreCountedOnce) {
  const std::pair<const char*, const char*> cases[] = {{"", "0"}, {"7,a\n7,b\n", "1"}};
  setDebugLevel(1);
  for (const auto& [content, count] : cases) {
    IssueMap map;
    clearLog();
    const std::string csv = file(content);
    EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
    EXPECT_EQ(nameOf(map, 7), *content == '7' ? "b" : "(none)");
    EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: PopulateIssueMap: " + csv),
                                        debugLine("Debug: PopulateIssueMap: Read " +
                                                  std::string(count) + " issues")));
  }
}

TEST_F(IssueMapTest, BadRecordEndsTheReadingAndIsCountedInRecords) {
  for (const std::string bad : {"x,c", "3", "-3,c", "4294967296,c", "3 4,c", "0x3,c", "3\"\",c"}) {
    IssueMap map;
    clearLog();
    setDebugLevel(1);
    const std::string csv = file("1,a\n2,\"b\nb\"\n" + bad + "\n4,d\n");
    EXPECT_FALSE(map.PopulateIssueMap(csv.c_str())) << bad;
    EXPECT_EQ(map.size(), 2u) << bad;
    EXPECT_EQ(nameOf(map, 2), "b\nb");
    EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: PopulateIssueMap: " + csv),
                                        errorLine("Error: PopulateIssueMap: Could not read [" +
                                                  csv + "], line: 3")));
  }
  IssueMap map;
  clearLog();
  const std::string header = file("id,name\n7,a\n");
  EXPECT_FALSE(map.PopulateIssueMap(header.c_str()));
  EXPECT_EQ(map.size(), 0u);
  EXPECT_THAT(logLines().back(),
              errorLine("Error: PopulateIssueMap: Could not read [" + header + "], line: 1"));
}

TEST_F(IssueMapTest, OnlyRegularFilesAreOpenedAndAFailureLeavesTheMap) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("7,a\n").c_str()));
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const std::pair<std::string, const char*> cases[] = {
      {path("missing"), "No such file or directory"},
      {path("fifo"), "Invalid argument"},
      {"/tmp", "Is a directory"}};
  for (const auto& [name, reason] : cases) {
    clearLog();
    EXPECT_FALSE(map.PopulateIssueMap(name.c_str()));
    EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: PopulateIssueMap: Failed to open [" +
                                                  name + "]: " + reason)));
  }
  EXPECT_EQ(nameOf(map, 7), "a");
}

TEST_F(IssueMapTest, PopulateAddsAndReloadReplaces) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("1,a\n2,b\n").c_str()));
  EXPECT_TRUE(map.PopulateIssueMap(file("2,c\n3,d\n").c_str()));
  EXPECT_EQ(map.size(), 3u);
  EXPECT_EQ(nameOf(map, 1), "a");
  EXPECT_EQ(nameOf(map, 2), "c");
  EXPECT_TRUE(map.Reload(file("4,e\n")));
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(nameOf(map, 4), "e");
}

TEST_F(IssueMapTest, LogsItsFileAndWhatTheMapThenHolds) {
  IssueMap map;
  const std::string csv = file("1,a\n2,b\n");
  EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  writeFile(csv, "2,c\n3,d\n3,e\n");
  const LogLine opening = debugLine("Debug: PopulateIssueMap: " + csv);
  EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
  EXPECT_THAT(logLines(),
              ElementsAre(opening, debugLine("Debug: PopulateIssueMap: Read 3 issues")));
  clearLog();
  EXPECT_TRUE(map.Reload(csv));
  EXPECT_THAT(logLines(),
              ElementsAre(opening, debugLine("Debug: PopulateIssueMap: Read 2 issues")));
  clearLog();
  std::filesystem::remove(csv);
  EXPECT_FALSE(map.Reload(csv));
  EXPECT_THAT(logLines(),
              ElementsAre(opening, errorLine("Error: PopulateIssueMap: Failed to open [" + csv +
                                             "]: No such file or directory")));
}

TEST_F(IssueMapTest, FailedReloadKeepsOnlyWhatItReadBefore) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("1,a\n2,b\n").c_str()));
  EXPECT_FALSE(map.Reload(file("3,c\nx\n4,d\n")));
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(nameOf(map, 3), "c");
  EXPECT_FALSE(map.Reload(path("missing")));
  EXPECT_EQ(map.size(), 0u);
}

}  // namespace
}  // namespace tarnik::test
