// The settings file, read with the platform's own parser.
#include "daemon/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>

#include <string>
#include <vector>

#include "base/testing/captured_log.h"
#include "base/testing/files.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class SettingsTest : public ::testing::Test {
 protected:
  SettingsTest() {
    OrloLogDebugLevel = 0;
    clearLog();
  }

  int loadText(const std::string& text) {
    writeFile(path_, text);
    return load(settings_, path_.c_str());
  }

  TarnikSettings settings_;
  const TempDir directory_;
  const std::string path_ = directory_ / "tarnik.conf";
};

LogLine error(const std::string& text) {
  return {LOG_ERR, "Error: loadTarnikCfg: Invalid value: " + text};
}

TEST_F(SettingsTest, Defaults) {
  EXPECT_FALSE(settings_.enabled);
  EXPECT_EQ(settings_.debuglevel, 0U);
  EXPECT_EQ(settings_.diskspace.bytes, 0x3333333);
  EXPECT_EQ(settings_.diskspace.percent, 4);
  EXPECT_EQ(settings_.file.maxno, 1000);
  EXPECT_EQ(settings_.file.maxsize, 0x100000);
  EXPECT_EQ(settings_.file.timeout, 120);
  EXPECT_EQ(settings_.brund.timeout, 300);
  EXPECT_EQ(settings_.brund.interval, 300);
  EXPECT_EQ(settings_.brund.qtimeout, 5000000);
  EXPECT_EQ(settings_.brund.qsize, 5000);
  EXPECT_EQ(settings_.event.interval, 0);
  EXPECT_EQ(settings_.event.threshold, 0);
}

TEST_F(SettingsTest, ThereIsOneRecordWithTheDefaults) {
  EXPECT_EQ(&getSettings(), &getSettings());
  EXPECT_EQ(getSettings().file.maxno, 1000);
}

// ---- the integer keys, each at its bounds and beyond

using Settings = TarnikSettings;
using Field = std::int64_t&;

struct IntegerKeyCase {
  const char* key;
  const char* shortName;  // what the message calls it
  std::int64_t minimum;
  std::int64_t maximum;
  Field (*field)(Settings&);
};

const IntegerKeyCase kIntegerKeys[] = {
    {"tarnik.diskspace.percent", "percent", 0, 20,
     [](Settings& s) -> Field { return s.diskspace.percent; }},
    {"tarnik.diskspace.bytes", "bytes", 0, INT64_MAX,
     [](Settings& s) -> Field { return s.diskspace.bytes; }},
    {"tarnik.file.maxsize", "maxsize", 1024, 10485760,
     [](Settings& s) -> Field { return s.file.maxsize; }},
    {"tarnik.file.timeout", "timeout", 1, 3000,
     [](Settings& s) -> Field { return s.file.timeout; }},
    {"tarnik.file.maxno", "maxno", 10, 20000, [](Settings& s) -> Field { return s.file.maxno; }},
    {"tarnik.event.threshold", "threshold", 0, 100000,
     [](Settings& s) -> Field { return s.event.threshold; }},
    {"tarnik.event.interval", "interval", 1, 604800,
     [](Settings& s) -> Field { return s.event.interval; }},
    {"tarnik.brund.timeout", "timeout", 1, 48000,
     [](Settings& s) -> Field { return s.brund.timeout; }},
    // Sets the idle time-out of captures.
    {"tarnik.brund.interval", "interval", 1, 3600,
     [](Settings& s) -> Field { return s.file.timeout; }},
    {"tarnik.brund.qsize", "qsize", 50, 100000, [](Settings& s) -> Field { return s.brund.qsize; }},
    {"tarnik.brund.qtimeout", "qtimeout", 1000000, 600000000,
     [](Settings& s) -> Field { return s.brund.qtimeout; }},
};

// All integer fields in one list, to see that a key changes its own field only.
std::vector<std::int64_t> fieldsOf(const TarnikSettings& s) {
  return {s.diskspace.bytes, s.diskspace.percent, s.file.maxno,     s.file.maxsize,
          s.file.timeout,    s.brund.timeout,     s.brund.interval, s.brund.qtimeout,
          s.brund.qsize,     s.event.interval,    s.event.threshold};
}

class IntegerKeyTest : public SettingsTest, public ::testing::WithParamInterface<IntegerKeyCase> {
 protected:
  void accepts(const std::string& text, std::int64_t value) {
    TarnikSettings expected = settings_;
    GetParam().field(expected) = value;
    clearLog();
    EXPECT_EQ(loadText(std::string(GetParam().key) + "=" + text + "\n"), 0) << text;
    EXPECT_EQ(fieldsOf(settings_), fieldsOf(expected)) << text;
    EXPECT_THAT(logLines(), IsEmpty());
  }
  void rejects(const std::string& text) {
    const TarnikSettings expected = settings_;
    clearLog();
    EXPECT_EQ(loadText(std::string(GetParam().key) + "=" + text + "\n"), 1) << text;
    EXPECT_EQ(fieldsOf(settings_), fieldsOf(expected)) << text;
    EXPECT_THAT(logLines(), ElementsAre(error(std::string(GetParam().shortName) + "=" + text)));
  }
};

TEST_P(IntegerKeyTest, AcceptsItsRangeAndNothingElse) {
  const auto [key, shortName, minimum, maximum, field] = GetParam();
  accepts(std::to_string(minimum), minimum);
  accepts(std::to_string(maximum), maximum);
  accepts(std::to_string(minimum + 1), minimum + 1);
  rejects(std::to_string(minimum - 1));
  rejects(maximum == INT64_MAX ? "9223372036854775808" : std::to_string(maximum + 1));
  rejects("x");
  rejects(std::to_string(minimum) + "x");
  rejects("1.5");
  rejects("");
}

TEST_P(IntegerKeyTest, IgnoresComponentsAfterTheThird) {
  EXPECT_EQ(loadText(std::string(GetParam().key) +
                     ".more.still=" + std::to_string(GetParam().maximum) + "\n"),
            0);
  EXPECT_EQ(GetParam().field(settings_), GetParam().maximum);
}

TEST_P(IntegerKeyTest, LogsARejectionAtAnyDebugLevel) {
  OrloLogDebugLevel = 1;
  EXPECT_EQ(loadText(std::string(GetParam().key) + "=x\n"), 1);
  std::vector<LogLine> expected = {error(std::string(GetParam().shortName) + "=x"),
                                   {LOG_DEBUG, "Debug: load: Failed to load base cfg"}};
  if (GetParam().key == std::string("tarnik.diskspace.bytes")) {
    expected.insert(expected.begin(),
                    {LOG_DEBUG, "Debug: loadTarnikCfg: tarnik.diskspace.bytes is readonly"});
  }
  EXPECT_THAT(logLines(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Keys, IntegerKeyTest, ::testing::ValuesIn(kIntegerKeys),
                         [](const auto& testCase) {
                           std::string name = std::string(testCase.param.key).substr(7);
                           name[name.find('.')] = '_';
                           return name;
                         });

TEST_F(SettingsTest, TheLaterOfTheCrossedKeysSetsTheIdleTimeout) {
  EXPECT_EQ(loadText("tarnik.file.timeout=10\ntarnik.brund.interval=60\n"), 0);
  EXPECT_EQ(settings_.file.timeout, 60);
  EXPECT_EQ(settings_.brund.interval, 300);
  EXPECT_EQ(loadText("tarnik.brund.interval=3600\ntarnik.file.timeout=10\n"), 0);
  EXPECT_EQ(settings_.file.timeout, 10);
  EXPECT_EQ(settings_.brund.interval, 300);
}

TEST_F(SettingsTest, TheReadonlyKeyIsStoredAllTheSame) {
  OrloLogDebugLevel = 1;
  EXPECT_EQ(loadText("tarnik.diskspace.bytes=1000\n"), 0);
  EXPECT_EQ(settings_.diskspace.bytes, 1000);
  EXPECT_THAT(
      logLines(),
      ElementsAre(LogLine{LOG_DEBUG, "Debug: loadTarnikCfg: tarnik.diskspace.bytes is readonly"}));
}

// ---- enabled and debuglevel

TEST_F(SettingsTest, Enabled) {
  for (const char* text : {"true", "yes", "on", "1", "ENABLED"}) {
    settings_.enabled = false;
    EXPECT_EQ(loadText(std::string("tarnik.enabled=") + text + "\n"), 0) << text;
    EXPECT_TRUE(settings_.enabled) << text;
  }
  EXPECT_EQ(loadText("tarnik.enabled.more=false\n"), 0);
  EXPECT_FALSE(settings_.enabled);
}

TEST_F(SettingsTest, DebugLevel) {
  const struct {
    const char* text;
    std::uint32_t value;
  } cases[] = {{"0", 0},    {"7", 7},   {"4294967295", 4294967295U},
               {"7x", 7},   {"7 8", 7}, {"0x10", 0},
               {"010", 10}, {"+3", 3}};
  for (const auto& [text, value] : cases) {
    settings_.debuglevel = 99;
    EXPECT_EQ(loadText(std::string("tarnik.debuglevel=") + text + "\n"), 0) << text;
    EXPECT_EQ(settings_.debuglevel, value) << text;
  }
  EXPECT_EQ(loadText("tarnik.debuglevel.more=4\n"), 0);
  EXPECT_EQ(settings_.debuglevel, 4U);
  EXPECT_EQ(OrloLogDebugLevel, 0U);  // the reload copies it, not the load
}

TEST_F(SettingsTest, LogsARejectedEnabledAlwaysAndADebugLevelAtLevelThree) {
  const struct {
    const char* key;
    const char* value;
  } cases[] = {{"enabled", "maybe"}, {"enabled", "2"},   {"enabled", ""},
               {"debuglevel", "x"},  {"debuglevel", ""}, {"debuglevel", "4294967296"}};
  for (const auto& [key, value] : cases) {
    settings_.enabled = true;
    settings_.debuglevel = 5;
    const std::string line = std::string("tarnik.") + key + "=" + value + "\n";
    OrloLogDebugLevel = 0;
    clearLog();
    std::vector<LogLine> expected;
    if (key == std::string("enabled")) {
      expected.push_back(error(std::string("enabled=") + value));
    }
    EXPECT_EQ(loadText(line), 1) << line;
    EXPECT_THAT(logLines(), ElementsAreArray(expected)) << line;
    EXPECT_TRUE(settings_.enabled);
    EXPECT_EQ(settings_.debuglevel, 5U);
    const LogLine stopped{LOG_DEBUG, "Debug: load: Failed to load base cfg"};
    expected.push_back(stopped);
    OrloLogDebugLevel = 2;
    clearLog();
    EXPECT_EQ(loadText(line), 1);
    EXPECT_THAT(logLines(), ElementsAreArray(expected)) << line;
    OrloLogDebugLevel = 3;
    clearLog();
    EXPECT_EQ(loadText(line), 1);
    expected.back() = {
        LOG_DEBUG, std::string("Debug: loadTarnikCfg: Invalid value for ") + key + ": " + value};
    expected.push_back(stopped);
    EXPECT_THAT(logLines(), ElementsAreArray(expected));
  }
}

TEST_F(SettingsTest, ParseUnsigned) {
  const struct {
    const char* text;
    std::uint32_t value;
  } accepted[] = {
      {" \t\n\v\f\r12 rest", 12},  {"0", 0},  {"1,000", 1},        {"3.9", 3},        {"4e2", 4},
      {"4294967295", 4294967295U}, {"-0", 0}, {"-1", 4294967295U}, {"-4294967295", 1}};
  for (const auto& [text, expected] : accepted) {
    std::uint32_t value = 9;
    EXPECT_TRUE(parseUnsigned(text, value)) << text;
    EXPECT_EQ(value, expected) << text;
  }
  for (const char* text : {"", " ", "rest 12", "4294967296", "99999999999999999999", "-4294967296",
                           "- 1", "+", "--1", "x7"}) {
    std::uint32_t value = 9;
    EXPECT_FALSE(parseUnsigned(text, value)) << text;
    EXPECT_EQ(value, 9U) << text;
  }
}

// ---- unknown keys

TEST_F(SettingsTest, UnknownKeysAreIgnored) {
  const std::vector<std::int64_t> before = fieldsOf(settings_);
  OrloLogDebugLevel = 1;
  EXPECT_EQ(loadText("other.file.maxno=5\ntarnik.file.unknown=5\ntarnik.unknown.maxno=5\n"
                     "tarnik=5\ntarnik.file=5\ntarnik.brund=x\ntarnik.=5\ntarnik..maxno=5\n"
                     ".tarnik.file.maxno=50\ntarnik.file..maxno=50\nTarnik.file.maxno=50\n"
                     "tarnik.File.maxno=50\ntarnik.file.Maxno=50\ntarnikd.file.maxno=50\n"
                     "tarnik.brund.maxno=50\ntarnik.file.qsize=50\ntarnik.unknown=5\n"
                     "tarnik.Enabled=maybe\n"),
            0);
  EXPECT_EQ(fieldsOf(settings_), before);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(SettingsTest, ComponentsAreComparedExactly) {
  using Components = std::vector<std::string_view>;
  EXPECT_EQ(loadTarnikCfg(settings_, Components{}, "5"), 0);
  EXPECT_EQ(loadTarnikCfg(settings_, Components{"tarnik"}, "5"), 0);
  EXPECT_EQ(loadTarnikCfg(settings_, Components{"tarnik", "file", "maxno", "", ""}, "50"), 0);
  EXPECT_EQ(settings_.file.maxno, 50);
  EXPECT_EQ(loadTarnikCfg(settings_, Components{"tarnik", "file", "maxno"}, "5"), 1);
}

// ---- dumping

TEST_F(SettingsTest, DumpHasElevenLines) {
  EXPECT_EQ(loadText("tarnik.enabled=true\ntarnik.debuglevel=11\ntarnik.diskspace.bytes=12\n"
                     "tarnik.diskspace.percent=13\ntarnik.file.maxno=14\n"
                     "tarnik.file.maxsize=1500\ntarnik.file.timeout=16\ntarnik.brund.timeout=17\n"
                     "tarnik.brund.qtimeout=1800000\ntarnik.brund.qsize=1900\n"
                     "tarnik.event.interval=20\ntarnik.event.threshold=21\n"),
            0);
  clearLog();
  dumpSettings(settings_);
  std::vector<LogLine> expected;
  for (const char* text :
       {"tarnik.enabled=1", "tarnik.debugLevel=11", "tarnik.diskspace.bytes=12",
        "tarnik.diskspace.percent=13", "tarnik.file.maxno=14", "tarnik.file.maxsize=1500",
        "tarnik.file.timeout=16", "tarnik.brund.timeout=17", "tarnik.brund.interval=17",
        "tarnik.brund.qtimeout=1800000", "tarnik.brund.qsize=1800000"}) {
    expected.push_back({LOG_INFO, text});
  }
  EXPECT_THAT(logLines(), ElementsAreArray(expected));
}

TEST_F(SettingsTest, DumpShowsUnsignedNumbers) {
  settings_.diskspace.bytes = -1;
  settings_.debuglevel = 4294967295U;
  dumpSettings(settings_);
  EXPECT_EQ(logLines().at(0).text, "tarnik.enabled=0");
  EXPECT_EQ(logLines().at(1).text, "tarnik.debugLevel=4294967295");
  EXPECT_EQ(logLines().at(2).text, "tarnik.diskspace.bytes=18446744073709551615");
}

}  // namespace
}  // namespace tarnik::test
