#include "policy/issue_map.h"

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

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

TEST_F(IssueMapTest, ReadsIdAndNameAndIgnoresFurtherColumns) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(
      file("7,WORM\n65536,\"A, B\",high,\"x\ny\"\n4294967295,two words\n0,zero\n9,\n").c_str()));
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
  std::string name = "before";
  EXPECT_FALSE(map.LookupIssueName(6, name));
  EXPECT_FALSE(map.LookupIssueName(8, name));
  EXPECT_EQ(name, "before");
  EXPECT_TRUE(map.LookupIssueName(7, name));
  EXPECT_EQ(name, "seven");
}

TEST_F(IssueMapTest, LookupLogsNothing) {
  IssueMap map;
  setDebugLevel(9);
  std::string name;
  EXPECT_FALSE(map.LookupIssueName(6, name));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IssueMapTest, EmptyFileIsNoIssues) {
  IssueMap map;
  setDebugLevel(1);
  const std::string csv = file("");
  EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
  EXPECT_EQ(map.size(), 0u);
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: PopulateIssueMap: " + csv),
                                      debugLine("Debug: PopulateIssueMap: Read 0 issues")));
}

TEST_F(IssueMapTest, LaterRecordOfAnIdWinsAndIdsAreCountedOnce) {
  IssueMap map;
  setDebugLevel(1);
  const std::string csv = file("7,a\n7,b\n");
  EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
  EXPECT_EQ(nameOf(map, 7), "b");
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: PopulateIssueMap: " + csv),
                                      debugLine("Debug: PopulateIssueMap: Read 1 issues")));
}

TEST_F(IssueMapTest, ColumnHeaderFailsAtLineOne) {
  IssueMap map;
  const std::string csv = file("id,name\n7,a\n");
  EXPECT_FALSE(map.PopulateIssueMap(csv.c_str()));
  EXPECT_EQ(map.size(), 0u);
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: PopulateIssueMap: Could not read [" + csv +
                                                "], line: 1")));
}

TEST_F(IssueMapTest, BadRecordEndsTheReadingAndIsCountedInRecords) {
  for (const std::string bad :
       {"x,c", "3", "", "-3,c", "4294967296,c", "3 4,c", "0x3,c", "3\"\",c"}) {
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
}

TEST_F(IssueMapTest, MissingFileIsAnErrorAndLeavesTheMap) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("7,a\n").c_str()));
  const std::string missing = path("missing");
  EXPECT_FALSE(map.PopulateIssueMap(missing.c_str()));
  EXPECT_EQ(nameOf(map, 7), "a");
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: PopulateIssueMap: Failed to open [" +
                                                missing + "]: No such file or directory")));
}

TEST_F(IssueMapTest, OnlyRegularFilesAreOpened) {
  IssueMap map;
  const std::string fifo = path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(map.PopulateIssueMap(fifo.c_str()));
  EXPECT_FALSE(map.PopulateIssueMap("/tmp"));
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          errorLine("Error: PopulateIssueMap: Failed to open [" + fifo + "]: Invalid argument"),
          errorLine("Error: PopulateIssueMap: Failed to open [/tmp]: Is a directory")));
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

TEST_F(IssueMapTest, LookupWaitsForNoReload) {
  IssueMap map;
  EXPECT_TRUE(map.PopulateIssueMap(file("1,old\n").c_str()));
  int lookups = 0;
  platform.onRecord = [&] {
    auto name = std::async(std::launch::async, [&map] { return nameOf(map, 1); });
    ASSERT_EQ(name.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(name.get(), "old");
    ++lookups;
  };
  EXPECT_TRUE(map.Reload(file("1,new\n2,two\n")));
  EXPECT_EQ(lookups, 3);  // before each record and the end
  EXPECT_EQ(nameOf(map, 1), "new");
}

TEST_F(IssueMapTest, LookupDuringReloadsMeetsAWholeMap) {
  IssueMap map;
  std::string records;
  for (int id = 0; id < 500; ++id) {
    records += std::to_string(id) + ",name" + std::to_string(id) + "\n";
  }
  const std::string csv = file(records);
  EXPECT_TRUE(map.PopulateIssueMap(csv.c_str()));
  std::atomic<bool> stop = false;
  std::atomic<int> looked = 0;
  std::thread reader([&] {
    for (std::uint32_t id = 0; !stop; id = (id + 1) % 500) {
      EXPECT_EQ(nameOf(map, id), "name" + std::to_string(id));
      ++looked;
    }
  });
  for (int round = 0; round < 50 || looked < 1000; ++round) {
    EXPECT_TRUE(map.Reload(csv));
  }
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace tarnik::test
