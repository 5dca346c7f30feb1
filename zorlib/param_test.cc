// Tuning parameters. The list belongs to the process: each test uses other group names, and the
// test that fills the list is the last.
#include "zorlib/param.h"

#include <cerrno>
#include <string>

#include "base/log.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::IsEmpty;
using zorlib::param;
using zorlib::paramCount;

class ParamTest : public ::testing::Test {
 protected:
  void SetUp() override { clearLog(); }
  void TearDown() override {
    setDebugLevel(0);
    systemCalls.allocationsLeft = -1;
    answerNothing();
  }

  // Sets a pair that rule `id` accepts, and returns its entry.
  static const zorlib::Param& accepted(const std::string& name, const std::string& value,
                                       std::uint32_t id) {
    clearLog();
    const std::size_t before = paramCount();
    EXPECT_EQ(zorlib_set_param(name.c_str(), value.c_str()), 0) << name;
    EXPECT_EQ(paramCount(), before + 1);
    EXPECT_EQ(param(before).id, id) << name;
    EXPECT_THAT(logLines(), IsEmpty());
    return param(before);
  }
  static void refused(const char* name, const char* value, const std::string& line) {
    clearLog();
    const std::size_t before = paramCount();
    EXPECT_EQ(zorlib_set_param(name, value), -1);
    EXPECT_EQ(paramCount(), before);
    EXPECT_EQ(logLines(), lines({line}));
  }
  static void unrecognized(const std::string& name, const std::string& value) {
    refused(name.c_str(), value.c_str(),
            "Warning: zorlib_set_param: Unrecognized param " + name + "/" + value);
  }
  // A group of that name, for look-ups.
  static zorlib_ifg& group(const char* name, std::uint32_t interfaces) {
    static zorlib_ifg ifg;
    ifg.name = {};
    std::snprintf(ifg.name.data(), ifg.name.size(), "%s", name);
    ifg.numIfs = interfaces;
    return ifg;
  }
};

// ---- Setting

TEST_F(ParamTest, EachFormHasItsRule) {
  accepted("ZORVIK.g1.Q_Size", "5000", 1000);
  accepted("zorvik.g1.TarnikQ.q_size", "0x100", 1001);
  accepted("zorvik.g1.fd_count", "-3", 1002);
  accepted("zorvik.g1.2.cpu_mask", "0xff", 1003);
  accepted("zorvik.g1.2.cpu_mask", "ff", 1003);
  accepted("zorvik.g1.-1.if_mask", "DeadBeef", 1004);
  accepted("zorvik.g1.3.q_size", "20", 1001);
}

TEST_F(ParamTest, CutsAllWhiteSpaceAroundNameAndValue) {
  for (const std::string space : {" ", "\t", "\n", "\v", "\f", "\r", " \t\n\v\f\r"}) {
    const zorlib::Param& entry =
        accepted(space + "zorvik.g2.q.q_size" + space, space + "77" + space, 1001);
    EXPECT_EQ(entry.numComps, 3u);
    EXPECT_STREQ(entry.words[0].get(), "g2");
    EXPECT_STREQ(entry.words[1].get(), "q");
    EXPECT_STREQ(entry.words[2].get(), "q_size");
    EXPECT_EQ(entry.words[3], nullptr);
    EXPECT_STREQ(entry.value.get(), "77");
  }
}

TEST_F(ParamTest, NeedsNameAndValue) {
  const char* const given = "x";
  const void* const address = given;
  refused(nullptr, given, text("Error: zorlib_set_param: Nil name or value ((nil) %p)", address));
  refused(given, nullptr, text("Error: zorlib_set_param: Nil name or value (%p (nil))", address));
}

TEST_F(ParamTest, RefusesMalformedNames) {
  for (const auto& [name, message] : {
           std::pair("zorvi.g.q_size", "Not a zorvik parameter"),
           std::pair("zorvik", "Not a zorvik parameter"),
           std::pair("zorvik.", "No name components"),
           std::pair("zorvik.g..q_size", "null name component"),
           std::pair("zorvik.g.q_size.", "null name component"),
           std::pair("zorvik.g h.q_size", "embedded space in name component"),
           std::pair("zorvik.g\th.q_size", "embedded space in name component"),
           std::pair("zorvik.a.b.c.d.e", "Too many parameter components"),
       }) {
    refused(name, "1", text("Error: zorlib_set_param: %s (%s)", message, name));
  }
}

TEST_F(ParamTest, RefusesWhatNoRuleAccepts) {
  unrecognized("zorvik.g.q_size", "12abc");
  for (const char* const value : {"xyz", "ffz", "ff 1", "0xffz", "ff,1", "0x1 0"}) {
    unrecognized("zorvik.g.2.cpu_mask", value);
    unrecognized("zorvik.g.2.if_mask", value);
  }
  unrecognized("zorvik.g.2x.cpu_mask", "1");
  unrecognized("zorvik.g.speed", "1");
  unrecognized("zorvik.a.b.c.q_size", "1");
  unrecognized("zorvik.g.q_size", "");
}

TEST_F(ParamTest, ReadsANameUpTo127Characters) {
  const std::string group(120, 'g');
  EXPECT_EQ(accepted("zorvik." + group + ".q_size", "1", 1000).words[0].get(), group);
  unrecognized("zorvik." + group + "g.q_size", "1");
}

TEST_F(ParamTest, KeepsAValueOfAnyLength) {
  const std::string spaces(300, ' ');
  EXPECT_STREQ(accepted("zorvik.g7.q.q_size", "100" + spaces, 1001).value.get(), "100");
  const std::string zeros = std::string(500, '0') + "17";
  EXPECT_EQ(accepted("zorvik.g7.r.q_size", zeros, 1001).value.get(), zeros);
}

TEST_F(ParamTest, RefusesAPairThatItCannotCopy) {
  for (int fails = 0; fails < 4; ++fails) {  // each of three words, and the value
    systemCalls.allocationsLeft = fails;
    refused("zorvik.g6.q.q_size", "100",
            "Error: zorlib_set_param: strdup failed - Cannot allocate memory");
  }
}

TEST_F(ParamTest, CopiesOnlyWhatARuleAccepts) {
  systemCalls.allocationsLeft = 0;
  refused("zorvik.g6.q.q_size", " \t12 abc \n",
          "Warning: zorlib_set_param: Unrecognized param zorvik.g6.q.q_size/12 abc");
  unrecognized("zorvik.g6.speed", "100");
  EXPECT_EQ(systemCalls.allocationsLeft, 0);
}

// ---- Look-ups

TEST_F(ParamTest, FindsTheSizeOfAQueue) {
  for (const auto& [queue, value] :
       {std::pair("TarnikQ", "9"), std::pair("tarnikq", "100"), std::pair("low", "10"),
        std::pair("high", "16000000"), std::pair("over", "16000001"), std::pair("minus", "-1")}) {
    accepted(text("zorvik.g4.%s.q_size", queue), value, 1001);
  }
  zorlib_ifg& ifg = group("G4", 1);
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "LOW"), 10u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "high"), 16000000u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "nobody"), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&group("g5", 1), "low"), 0u);
  EXPECT_THAT(logLines(), IsEmpty());
  group("G4", 1);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "tarnikQ"), 0u) << "the first entry counts";
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "over"), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "minus"), 0u);
  const char kLine[] =
      "Warning: zorlib_ifg_lookup_qsize: G4 q_size out of bounds (10<=N<=16000000)";
  EXPECT_EQ(logLines(), lines({kLine, kLine, kLine}));
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "low"), 10u);
  EXPECT_EQ(logLines(),
            lines({"Debug: zorlib_ifg_lookup_qsize: G4 Found appq low size param (10)"}));
}

TEST_F(ParamTest, FindsTheSizeOfAGroupsQueuesByItsInterfaces) {
  struct Case {
    const char* name;
    const char* value;
    std::uint32_t interfaces;
    unsigned long found;
  };
  for (const Case& each :
       {Case{"h1", "499", 1, 0}, Case{"h2", "500", 1, 500}, Case{"h3", "50000", 1, 50000},
        Case{"h4", "50001", 1, 0}, Case{"h5", "999", 2, 0}, Case{"h6", "1000", 2, 1000},
        Case{"h7", "100000", 2, 100000}, Case{"h8", "100001", 2, 0}}) {
    accepted(text("zorvik.%s.q_size", each.name), each.value, 1000);
    zorlib_ifg& ifg = group(each.name, each.interfaces);
    clearLog();
    setDebugLevel(1);
    EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), each.found) << each.name;
    setDebugLevel(0);
    EXPECT_EQ(logLines(),
              lines({each.found == 0 ? text("Warning: zorlib_ifg_lookup_qsize: %s q_size out of "
                                            "bounds (500<=N<=50000 [per IF])",
                                            each.name)
                                     : text("Debug: zorlib_ifg_lookup_qsize: %s Found q_size "
                                            "param (%s)",
                                            each.name, each.value)}));
  }
}

TEST_F(ParamTest, AsksTheDriverForTheNumberOfInterfaces) {
  accepted("zorvik.h9.q_size", "2000", 1000);
  answer(ZORVIK_IFG_QUERY, [](int, void* argument) {
    static_cast<zorvik_ifg_query*>(argument)->count = 4;
    return 1;
  });
  zorlib_ifg& ifg = group("h9", 0);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), 2000u);
  EXPECT_EQ(ifg.numIfs, 4u);
}

TEST_F(ParamTest, FindsTheMasksOfAQueuePair) {
  accepted("zorvik.m.2.cpu_mask", "0xff", 1003);
  accepted("zorvik.m.4.cpu_mask", "8000000000000001", 1003);
  accepted("zorvik.m.5.cpu_mask", "ffffffffffffffff", 1003);
  accepted("zorvik.m.0x3.if_mask", "5", 1004);
  accepted("zorvik.m.6.if_mask", "ffffffff", 1004);
  accepted("zorvik.m.7.if_mask", "8000000000000001", 1004);
  accepted("zorvik.m.8.if_mask", "1ffffffffffffffff", 1004);  // 65 bits
  accepted("zorvik.m.8.cpu_mask", "1ffffffffffffffff", 1003);
  zorlib_ifg& ifg = group("m", 3);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 2), 0xffu);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 3), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 4), 0x8000000000000001u);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 5), 0xffffffffffffffffu);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&ifg, 3), 5u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("n", 2), 3), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("m", 32), 6), 0xffffffffu);
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("m", 2), 3), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("m", 32), 7), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("m", 32), 8), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 8), 0u);
  EXPECT_EQ(
      logLines(),
      lines({"Warning: zorlib_ifg_lookup_if_mask: m if_mask 5 for 2 interfaces",
             "Warning: zorlib_ifg_lookup_if_mask: m if_mask 8000000000000001 for 32 interfaces",
             "Warning: zorlib_ifg_lookup_if_mask: m if_mask ffffffffffffffff for 32 interfaces",
             "Warning: zorlib_ifg_lookup_cpu_mask: Unexpected parse failure? on "
             "'1ffffffffffffffff'"}));
}

// Also when a later entry has a usable value and the first has not.
TEST_F(ParamTest, TheFirstOfSeveralEntriesCounts) {
  for (const char* value : {"1000", "2000"}) {
    accepted("zorvik.e.q_size", value, 1000);
    accepted("zorvik.e.fd_count", value, 1002);
    accepted("zorvik.e.1.cpu_mask", value, 1003);
    accepted("zorvik.e.1.if_mask", value, 1004);
  }
  accepted("zorvik.e2.q_size", "1", 1000);
  accepted("zorvik.e2.q_size", "1000", 1000);
  zorlib_ifg& ifg = group("e", 16);
  ifg.numIfs = 2;
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), 1000u);
  EXPECT_EQ(zorlib::lookupFdCount(ifg), 1000u);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 1), 0x1000u);
  ifg.numIfs = 16;
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&ifg, 1), 0x1000u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&group("e2", 2), nullptr), 0u);
}

TEST_F(ParamTest, TheListHolds128) {
  while (paramCount() < 128) {
    ASSERT_EQ(zorlib_set_param("zorvik.fill.q.q_size", "100"), 0);
  }
  const char kFull[] = "Error: zorlib_set_param: Too many parameters, list full (128)";
  refused("zorvik.fill.q.q_size", "100", kFull);
  // The check comes before the checks of the name, but after that of the pointers.
  refused("zorvi.fill.q.q_size", "100", kFull);
  refused("", "", kFull);
  refused(nullptr, nullptr, "Error: zorlib_set_param: Nil name or value ((nil) (nil))");
}

}  // namespace
}  // namespace tarnik::test
