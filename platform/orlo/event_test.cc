// Platform events: the syslog line and the journal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/testing/captured_log.h"
#include "platform/orlo/testing/child.h"

namespace orlo::test {
namespace {

namespace fs = std::filesystem;
using tarnik::test::clearLog;
using tarnik::test::LogLine;
using tarnik::test::logLines;
using ::testing::ElementsAre;

class Event : public RunDirTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(RunDirTest::SetUp());
    clearLog();
    ASSERT_EQ(OrloLogInit("tarnikd", 0), 0);
  }
};

std::vector<std::string> journal() {
  std::ifstream file(ORLO_EVENT_JOURNAL, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

// A journal line without its time, which has a fixed length.
std::string withoutTime(const std::string& line) {
  constexpr std::size_t kLength =
      std::string_view(R"({"time":"2024-05-01T12:00:00.000123Z",)").size();
  return line.size() < kLength ? line : line.substr(kLength);
}

// The "args" of the journal's only line, as JSON.
std::string journalArguments() {
  const std::vector<std::string> lines = journal();
  const std::string head = R"("ident":"tarnikd","pid":)" + std::to_string(getpid()) +
                           R"(,"event":"E","category":"C","args":)";
  if (lines.size() != 1 || !withoutTime(lines[0]).starts_with(head) || !lines[0].ends_with("}")) {
    return "another journal";
  }
  const std::string rest = withoutTime(lines[0]).substr(head.size());
  return rest.substr(0, rest.size() - 1);
}

TEST_F(Event, GoesToSyslogAsANotice) {
  OrloLogEvent("VRKPC0001I", "VRK_events", "%s of %d", "three", 4);
  OrloLogEventNoArg("VRKUA0006E", "VRK_events");
  OrloLogEvent("VRKUA0007E", "VRK_events", "%s", "");
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_NOTICE, "Event: VRK_events: VRKPC0001I: three of 4"},
                          LogLine{LOG_NOTICE, "Event: VRK_events: VRKUA0006E"},
                          LogLine{LOG_NOTICE, "Event: VRK_events: VRKUA0007E"}));
}

TEST_F(Event, WritesOneJournalLinePerEvent) {
  const std::time_t before = std::time(nullptr);
  OrloLogEvent("VRKPC0001I", "VRK_events", "%s of %d", "three", 4);
  OrloLogEventNoArg("VRKUA0006E", "VRK_events");
  const std::vector<std::string> lines = journal();
  ASSERT_EQ(lines.size(), 2u);
  const std::string who = R"("ident":"tarnikd","pid":)" + std::to_string(getpid());
  EXPECT_EQ(withoutTime(lines[0]),
            who + R"(,"event":"VRKPC0001I","category":"VRK_events","args":"three of 4"})");
  EXPECT_EQ(withoutTime(lines[1]),
            who + R"(,"event":"VRKUA0006E","category":"VRK_events","args":""})");
  std::tm utc{};
  const char* const rest = strptime(lines[0].c_str(), R"({"time":"%Y-%m-%dT%H:%M:%S)", &utc);
  ASSERT_NE(rest, nullptr) << lines[0];
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), std::time(nullptr));
  EXPECT_THAT(std::string(rest, 10), testing::MatchesRegex("\\.[0-9]+Z\","));
}

struct ArgumentCase {
  const char* text;
  const char* json;
};

TEST_F(Event, IsEscapedInTheJournal) {
  constexpr ArgumentCase kCases[] = {
      {"plain", R"("plain")"},
      {R"(say "x" \ y)", R"("say \"x\" \\ y")"},
      {"line\nfeed\r\ttab", R"("line\u000afeed\u000d\u0009tab")"},
      {"\x01\x1F\x7F", R"("\u0001\u001f\u007f")"},
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80",
       "\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\""},
      {"\xC3", R"("\ufffd")"},                                // cut short
      {"\xC3(", R"("\ufffd(")"},                              // no continuation
      {"\xE9t\xE9", R"("\ufffdt\ufffd")"},                    // another encoding
      {"\x80", R"("\ufffd")"},                                // a continuation alone
      {"\xC0\xAF", R"("\ufffd\ufffd")"},                      // overlong
      {"\xE0\x9F\xBF", R"("\ufffd\ufffd\ufffd")"},            // overlong
      {"\xED\xA0\x80", R"("\ufffd\ufffd\ufffd")"},            // a surrogate
      {"\xF0\x8F\xBF\xBF", R"("\ufffd\ufffd\ufffd\ufffd")"},  // overlong
      {"\xF4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},  // above U+10FFFF
      {"\xF5\x80\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},  // above U+10FFFF
      {"\xF4\x8F\xBF\xBF\xED\x9F\xBF",
       "\"\xF4\x8F\xBF\xBF\xED\x9F\xBF\""},  // the largest valid ones
  };
  for (const ArgumentCase& c : kCases) {
    fs::remove(ORLO_EVENT_JOURNAL);
    OrloLogEvent("E", "C", "%s", c.text);
    EXPECT_EQ(journalArguments(), c.json);
  }
}

TEST_F(Event, TruncatesLongArguments) {
  OrloLogEvent("E", "C", "%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(journalArguments(), "\"" + std::string(4095, 'x') + "\"");
}

TEST_F(Event, NeverFails) {
  errno = ELOOP;
  OrloLogEvent("E", "C", "%d", 1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(journalArguments(), R"("1")");
  OrloLogEventNoArg(nullptr, nullptr);
  EXPECT_EQ(journal().size(), 2u);

  fs::remove_all(ORLO_RUN_DIR);  // created again
  OrloLogEventNoArg("E", "C");
  EXPECT_EQ(journalArguments(), R"("")");

  const auto obstructedBy = [](const auto& put) {
    fs::remove_all(ORLO_EVENT_JOURNAL);
    put();
    clearLog();
    errno = ELOOP;
    OrloLogEventNoArg("E", "C");
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(logLines().size(), 1u);
  };
  obstructedBy([] { fs::create_directory(ORLO_EVENT_JOURNAL); });
  obstructedBy([] { EXPECT_EQ(mkfifo(ORLO_EVENT_JOURNAL, 0600), 0); });
  obstructedBy([] { fs::create_symlink("/tmp/elsewhere", ORLO_EVENT_JOURNAL); });
  EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
}

TEST_F(Event, SupportsRotationOfTheJournal) {
  const mode_t mask = umask(0);
  OrloLogEventNoArg("first", "C");
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(ORLO_EVENT_JOURNAL, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  fs::rename(ORLO_EVENT_JOURNAL, ORLO_EVENT_JOURNAL ".1");
  OrloLogEventNoArg("second", "C");
  EXPECT_THAT(journal(), ElementsAre(testing::HasSubstr(R"("event":"second")")));
}

TEST_F(Event, IsWrittenAtomicallyByManyThreadsAndProcesses) {
  constexpr int kWriters = 4;
  constexpr int kEvents = 200;
  const auto raiseAll = [] {
    std::vector<std::thread> threads;
    for (int writer = 0; writer < kWriters; ++writer) {
      threads.emplace_back([writer] {
        for (int i = 0; i < kEvents; ++i) {
          OrloLogEvent("E", "C", "%d %d %s", writer, i, std::string(500, 'x').c_str());
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  };
  Process other = startChild(raiseAll);
  raiseAll();
  EXPECT_EQ(other.wait(), kSucceeded);
  std::multiset<std::string> expected;
  for (const pid_t pid : {getpid(), other.pid()}) {
    for (int i = 0; i < kWriters * kEvents; ++i) {
      expected.insert(R"("ident":"tarnikd","pid":)" + std::to_string(pid) +
                      R"(,"event":"E","category":"C","args":")" + std::to_string(i / kEvents) +
                      " " + std::to_string(i % kEvents) + " " + std::string(500, 'x') + "\"}");
    }
  }
  std::multiset<std::string> found;
  for (const std::string& line : journal()) {
    found.insert(withoutTime(line));
  }
  EXPECT_TRUE(found == expected) << found.size() << " lines";
}

TEST_F(Event, HasTheNameGivenToOrloLogInit) {
  EXPECT_EQ(OrloLogInit("", 0), -1);
  EXPECT_EQ(OrloLogInit(nullptr, 0), -1);
  OrloLogEventNoArg("E", "C");
  EXPECT_EQ(journalArguments(), R"("")");
}

TEST_F(Event, LeavesTheDebugLevelToTheDaemon) {
  EXPECT_EQ(OrloLogDebugLevel, 0u);
}

}  // namespace
}  // namespace orlo::test
