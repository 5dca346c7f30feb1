// Tuning files: one setting a line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>

#include <string>
#include <vector>

#include "platform/orlo/testing/text.h"

namespace orlo::test {

namespace {

using ::testing::ElementsAre;

struct TuningRelease {
  void operator()(OrloTuning* tuning) const { OrloTuningRelease(tuning); }
};
using Tuning = std::unique_ptr<OrloTuning, TuningRelease>;

// The results of a file: "1 [key] [value]", "2 malformed".
std::vector<std::string> settings(std::FILE* stream) {
  const Tuning tuning(OrloTuningAlloc(stream));
  std::vector<std::string> result;
  const char* key = nullptr;
  const char* value = nullptr;
  for (;;) {
    const int code = OrloTuningParseLine(tuning.get(), &key, &value);
    const std::string line = std::to_string(OrloTuningCurrLine(tuning.get()));
    if (code == ORLO_TUNING_END) {
      return result;
    }
    if (code == ORLO_TUNING_SETTING) {
      result.push_back(line + " [" + key + "] [" + value + "]");
    } else {
      EXPECT_EQ(code, ORLO_TUNING_MALFORMED);
      result.push_back(line + " malformed");
    }
  }
}

std::vector<std::string> settings(std::string_view content) {
  return settings(fileWith(content).get());
}

// The result of one line: "[key] [value]" or "malformed".
std::string setting(std::string_view line) {
  const std::vector<std::string> all = settings(line);
  return all.size() == 1 ? all[0].substr(2) : std::to_string(all.size()) + " results";
}

struct LineCase {
  std::string_view line;
  std::string_view result;
};

TEST(Tuning, ReadsOneSettingPerLine) {
  constexpr LineCase kLines[] = {
      {"key = value", "[key] [value]"},
      {"key=value", "[key] [value]"},
      {"key value", "[key] [value]"},
      {"key\tvalue", "[key] [value]"},
      {"  key  =  value  ", "[key] [value]"},
      {"key =value", "[key] [value]"},
      {"key= value", "[key] [value]"},
      {"key several words here", "[key] [several words here]"},
      {"key = several  words", "[key] [several  words]"},
      {"tarnik.file.maxno=1000", "[tarnik.file.maxno] [1000]"},
      {"key =", "[key] []"},
      {"key=", "[key] []"},
      {"key = = x", "[key] [= x]"},
      {"key == x", "[key] [= x]"},
      {"key = a=b", "[key] [a=b]"},
      {"key a = b", "[key] [a = b]"},
      {"k\xC3\xA9y = v\xFFl", "[k\xC3\xA9y] [v\xFFl]"},
      {"\v\fkey\v=\fvalue\v", "[key] [value]"},
  };
  for (const LineCase& c : kLines) {
    EXPECT_EQ(setting(c.line), c.result) << c.line;
    EXPECT_EQ(setting(std::string(c.line) + "\n"), c.result) << c.line;
    EXPECT_EQ(setting(std::string(c.line) + "\r\n"), c.result) << c.line;
  }
}

TEST(Tuning, SkipsComments) {
  constexpr LineCase kLines[] = {
      {"key = value # comment", "[key] [value]"},
      {"key = value\t#comment", "[key] [value]"},
      {"key = a#b", "[key] [a#b]"},
      {"key = a#b #c", "[key] [a#b]"},
      {"key = # comment", "[key] []"},
      {"key =#x", "[key] [#x]"},
      {"key value # = x", "[key] [value]"},
      {"key = \"a # b\" # comment", "[key] [a # b]"},
      {"key # comment", "malformed"},
  };
  for (const LineCase& c : kLines) {
    EXPECT_EQ(setting(c.line), c.result) << c.line;
  }
}

TEST(Tuning, ReadsQuotedValues) {
  constexpr LineCase kLines[] = {
      {R"(key = "value")", "[key] [value]"},
      {R"(key "value")", "[key] [value]"},
      {R"(key="  white space  ")", "[key] [  white space  ]"},
      {R"(key = "")", "[key] []"},
      {R"(key = "say \"hello\"")", R"([key] [say "hello"])"},
      {R"(key = "back\\slash")", R"([key] [back\slash])"},
      {R"(key = "ends in \\")", R"([key] [ends in \])"},
      {R"(key = "other \n \t stay")", R"([key] [other \n \t stay])"},
      {R"(key = "value"   )", "[key] [value]"},
      {R"(key = value "in" the middle)", R"([key] [value "in" the middle])"},
      {R"(key = back\slash)", R"([key] [back\slash])"},
      {R"(key = "unclosed)", "malformed"},
      {R"(key = "unclosed\")", "malformed"},
      {R"(key = ")", "malformed"},
      {R"(key = "text" behind)", "malformed"},
      {R"(key = "text"behind)", "malformed"},
      {R"(key = "text"#behind)", "malformed"},
      {R"(key = "a" "b")", "malformed"},
      {R"(key = "a" = "b")", "malformed"},
  };
  for (const LineCase& c : kLines) {
    EXPECT_EQ(setting(c.line), c.result) << c.line;
  }
}

TEST(Tuning, ReportsMalformedLines) {
  for (const std::string_view line :
       {"alone", "alone   ", "= value", "=", "  = value", "k#y = value", "k\"y\" = value",
        "\"key\" = value", "key# = value", "key\"value\"", "\"", "\x01\x02\xFF"}) {
    EXPECT_EQ(setting(line), "malformed") << line;
  }
  EXPECT_EQ(setting(std::string_view("key = a\0b", 9)), "malformed");
  EXPECT_EQ(setting(std::string_view("# a\0b", 5)), "malformed");
  EXPECT_EQ(setting(std::string_view("\0", 1)), "malformed");
}

TEST(Tuning, LimitsAKeyTo1023Bytes) {
  const std::string longest(1023, 'k');
  EXPECT_EQ(setting(longest + " = v"), "[" + longest + "] [v]");
  EXPECT_EQ(setting(longest + "k = v"), "malformed");
}

TEST(Tuning, CountsEveryLineAndContinuesAfterAMalformedOne) {
  EXPECT_THAT(settings("# comment\n\na = 1\n   \nbad\r\n\r\n  # more\nb = 2\n=\nc 3"),
              ElementsAre("3 [a] [1]", "5 malformed", "8 [b] [2]", "9 malformed", "10 [c] [3]"));
}

TEST(Tuning, SkipsAByteOrderMarkAtTheBeginningOnly) {
  EXPECT_THAT(settings("\xEF\xBB\xBF"
                       "a = 1\n\xEF\xBB\xBF"
                       "b = 2\n"),
              ElementsAre("1 [a] [1]",
                          "2 [\xEF\xBB\xBF"
                          "b] [2]"));
  EXPECT_THAT(settings("\xEF\xBB\xBF"), ElementsAre());
  EXPECT_THAT(settings("\xEF\xBB\xBF# comment\n"), ElementsAre());
}

TEST(Tuning, EndsWithTheFile) {
  EXPECT_THAT(settings(""), ElementsAre());
  EXPECT_THAT(settings("\n\n \n"), ElementsAre());
  EXPECT_THAT(settings("a = 1\n"), ElementsAre("1 [a] [1]"));
  EXPECT_THAT(settings("a = 1\r"), ElementsAre("1 [a] [1]"));
}

TEST(Tuning, StaysAtTheEndAndLeavesTheResultsThere) {
  const Stream stream = fileWith("a = 1\n");
  const Tuning tuning(OrloTuningAlloc(stream.get()));
  EXPECT_EQ(OrloTuningCurrLine(tuning.get()), 0);
  const char* key = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(OrloTuningParseLine(tuning.get(), &key, &value), 0);
  const char* const before = key;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(OrloTuningParseLine(tuning.get(), &key, &value), -1);
    EXPECT_EQ(OrloTuningCurrLine(tuning.get()), 1);
  }
  EXPECT_EQ(key, before);
}

TEST(Tuning, ReadsFromTheStreamsPositionAndLeavesItOpen) {
  const Stream stream = fileWith("skipped\na = 1\n");
  char skipped[16];
  ASSERT_NE(std::fgets(skipped, sizeof skipped, stream.get()), nullptr);
  EXPECT_THAT(settings(stream.get()), ElementsAre("1 [a] [1]"));
  EXPECT_EQ(std::fseek(stream.get(), 0, SEEK_SET), 0);
  EXPECT_THAT(settings(stream.get()), ElementsAre("1 malformed", "2 [a] [1]"));
}

TEST(Tuning, EndsWhereTheStreamFails) {
  const Stream directory = directoryStream();
  ASSERT_TRUE(directory);
  EXPECT_THAT(settings(directory.get()), ElementsAre());
}

TEST(Tuning, ToleratesNullArguments) {
  const char* key = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(OrloTuningAlloc(nullptr), nullptr);
  EXPECT_EQ(OrloTuningParseLine(nullptr, &key, &value), -1);
  EXPECT_EQ(OrloTuningCurrLine(nullptr), 0);
  OrloTuningRelease(nullptr);
}

TEST(Tuning, LimitsALineTo16MiB) {
  constexpr std::size_t kLimit = std::size_t{16} << 20;
  const std::string longest = "a = " + std::string(kLimit - 4, 'v');
  EXPECT_THAT(settings(longest + "\nb = 2"),
              ElementsAre("1 [a] [" + longest.substr(4) + "]", "2 [b] [2]"));
  EXPECT_THAT(settings(longest + "v\nb = 2"), ElementsAre("1 malformed", "2 [b] [2]"));
  EXPECT_THAT(settings("#" + longest + "\nb = 2"), ElementsAre("1 malformed", "2 [b] [2]"));
}

TEST(Tuning, SkipsAVeryLongLineInBoundedMemory) {
  // A hole reads as NUL bytes, the text before it as text: neither may be kept.
  const Stream stream(std::tmpfile());
  ASSERT_TRUE(stream);
  const std::string block(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 128; ++i) {
    ASSERT_EQ(std::fwrite(block.data(), 1, block.size(), stream.get()), block.size());
  }
  ASSERT_EQ(std::fseek(stream.get(), 1 << 28, SEEK_SET), 0);
  ASSERT_GE(std::fputs("\nb = 2\n", stream.get()), 0);
  std::rewind(stream.get());
  const PeakMemory memory;
  EXPECT_THAT(settings(stream.get()), ElementsAre("1 malformed", "2 [b] [2]"));
  EXPECT_LT(memory.growth(), 160 * 1024);
}

TEST(Tuning, ReadsManyLines) {
  std::string content;
  for (int i = 0; i < 100'000; ++i) {
    content += "acl.rule.priority.rule" + std::to_string(i) + " = " + std::to_string(i) + "\n";
  }
  const std::vector<std::string> all = settings(content);
  ASSERT_EQ(all.size(), 100'000u);
  EXPECT_EQ(all.back(), "100000 [acl.rule.priority.rule99999] [99999]");
}

}  // namespace
}  // namespace orlo::test
