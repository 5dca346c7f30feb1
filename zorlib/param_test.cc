// Tuning parameters. The list and the registry are the process's: each test uses group names of
// its own, and those that fill them up stand last.
#include "zorlib/param.h"

#include <cerrno>
#include <string>

#include "base/log.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zorlib::param;
using zorlib::paramCount;

LogLine warning(std::string text) {
  return {LOG_WARNING, std::move(text)};
}

class ParamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setDebugLevel(0);
    clearLog();
  }
  void TearDown() override {
    setDebugLevel(0);
    answerNothing();
  }

  // Sets a pair that is accepted, by the rule `id`.
  static void accepted(const char* name, const char* value, std::uint32_t id) {
    clearLog();
    const std::size_t before = paramCount();
    EXPECT_EQ(zorlib_set_param(name, value), 0) << name;
    ASSERT_EQ(paramCount(), before + 1);
    EXPECT_EQ(param(before).id, id);
    EXPECT_THAT(logLines(), IsEmpty());
  }
  static void refused(const char* name, const char* value, const LogLine& line) {
    clearLog();
    const std::size_t before = paramCount();
    EXPECT_EQ(zorlib_set_param(name, value), -1);
    EXPECT_EQ(paramCount(), before);
    EXPECT_THAT(logLines(), ElementsAre(line));
  }
  // A group of that name, as the look-ups see it.
  static zorlib_ifg& group(const char* name, std::uint32_t interfaces) {
    static zorlib_ifg ifg;
    ifg.name = {};
    std::snprintf(ifg.name.data(), ifg.name.size(), "%s", name);
    ifg.numIfs = interfaces;
    return ifg;
  }
};

TEST_F(ParamTest, EachFormHasItsRule) {
  accepted("ZORVIK.g1.Q_Size", "5000", 1000);
  accepted("zorvik.g1.TarnikQ.q_size", "0x100", 1001);
  accepted("zorvik.g1.fd_count", "-3", 1002);
  accepted("zorvik.g1.2.cpu_mask", "0xff", 1003);
  accepted("zorvik.g1.2.cpu_mask", "ff", 1003);
  accepted("zorvik.g1.-1.if_mask", "DeadBeef", 1004);
  accepted("zorvik.g1.3.q_size", "20", 1001);
}

TEST_F(ParamTest, WhiteSpaceAroundNameAndValueIsCut) {
  const std::size_t place = paramCount();
  accepted(" \t\nzorvik.g2.q.q_size \r\n", "\t 77 \n", 1001);
  EXPECT_EQ(param(place).numComps, 3u);
  EXPECT_STREQ(param(place).words[0].get(), "g2");
  EXPECT_STREQ(param(place).words[1].get(), "q");
  EXPECT_STREQ(param(place).words[2].get(), "q_size");
  EXPECT_EQ(param(place).words[3], nullptr);
  EXPECT_STREQ(param(place).value.get(), "77");
}

TEST_F(ParamTest, NameAndValueMustBeThere) {
  const char* const given = "x";
  const void* const address = given;
  refused(nullptr, given,
          error(text("Error: zorlib_set_param: Nil name or value ((nil) %p)", address)));
  refused(given, nullptr,
          error(text("Error: zorlib_set_param: Nil name or value (%p (nil))", address)));
}

TEST_F(ParamTest, RefusesNamesOfAWrongShape) {
  refused("zorvi.g.q_size", "1",
          error("Error: zorlib_set_param: Not a zorvik parameter "
                "(zorvi.g.q_size)"));
  refused("zorvik", "1", error("Error: zorlib_set_param: Not a zorvik parameter (zorvik)"));
  refused("zorvik.", "1", error("Error: zorlib_set_param: No name components (zorvik.)"));
  refused("zorvik.g..q_size", "1",
          error("Error: zorlib_set_param: null name component (zorvik.g..q_size)"));
  refused("zorvik.g.q_size.", "1",
          error("Error: zorlib_set_param: null name component (zorvik.g.q_size.)"));
  refused("zorvik.g h.q_size", "1",
          error("Error: zorlib_set_param: embedded space in name component (zorvik.g h.q_size)"));
  refused("zorvik.g\th.q_size", "1",
          error("Error: zorlib_set_param: embedded space in name component (zorvik.g\th.q_size)"));
  refused("zorvik.a.b.c.d.e", "1",
          error("Error: zorlib_set_param: Too many parameter components (zorvik.a.b.c.d.e)"));
}

TEST_F(ParamTest, RefusesWhatNoRuleAccepts) {
  refused("zorvik.g.q_size", "12abc",
          warning("Warning: zorlib_set_param: Unrecognized param "
                  "zorvik.g.q_size/12abc"));
  refused("zorvik.g.2.cpu_mask", "xyz",
          warning("Warning: zorlib_set_param: Unrecognized param "
                  "zorvik.g.2.cpu_mask/xyz"));
  for (const char* const value : {"ffz", "ff 1", "0xffz", "ff,1", "0x1 0"}) {
    for (const char* const name : {"zorvik.g.2.cpu_mask", "zorvik.g.2.if_mask"}) {
      refused(name, value,
              warning(text("Warning: zorlib_set_param: Unrecognized param %s/%s", name, value)));
    }
  }
  refused("zorvik.g.2x.cpu_mask", "1",
          warning("Warning: zorlib_set_param: Unrecognized param "
                  "zorvik.g.2x.cpu_mask/1"));
  refused("zorvik.g.speed", "1",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik.g.speed/1"));
  refused("zorvik.a.b.c.q_size", "1",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik.a.b.c.q_size/1"));
  refused("zorvik.g.q_size", "",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik.g.q_size/"));
}

TEST_F(ParamTest, TheRestOfANameIsReadUpTo127Characters) {
  const std::string group(120, 'g');
  const std::size_t place = paramCount();
  accepted(("zorvik." + group + ".q_size").c_str(), "1", 1000);
  EXPECT_EQ(param(place).words[0].get(), group);
  refused(("zorvik." + group + "g.q_size").c_str(), "1",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik." + group + "g.q_size/1"));
}

TEST_F(ParamTest, FindsTheSizeOfAQueue) {
  accepted("zorvik.g4.TarnikQ.q_size", "9", 1001);
  accepted("zorvik.g4.tarnikq.q_size", "100", 1001);
  accepted("zorvik.g4.low.q_size", "10", 1001);
  accepted("zorvik.g4.high.q_size", "16000000", 1001);
  accepted("zorvik.g4.over.q_size", "16000001", 1001);
  accepted("zorvik.g4.minus.q_size", "-1", 1001);
  zorlib_ifg& ifg = group("G4", 1);
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "LOW"), 10u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "high"), 16000000u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "nobody"), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&group("g5", 1), "low"), 0u);
  EXPECT_THAT(logLines(), IsEmpty());
  const LogLine outOfBounds =
      warning("Warning: zorlib_ifg_lookup_qsize: G4 q_size out of bounds (10<=N<=16000000)");
  group("G4", 1);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "tarnikQ"), 0u) << "the first entry counts";
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "over"), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "minus"), 0u);
  EXPECT_THAT(logLines(), ElementsAre(outOfBounds, outOfBounds, outOfBounds));
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "low"), 10u);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: zorlib_ifg_lookup_qsize: G4 Found appq low "
                                            "size param (10)")));
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
    accepted((std::string("zorvik.") + each.name + ".q_size").c_str(), each.value, 1000);
    zorlib_ifg& ifg = group(each.name, each.interfaces);
    clearLog();
    setDebugLevel(1);
    EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), each.found) << each.name;
    setDebugLevel(0);
    const std::string name = each.name;
    if (each.found == 0) {
      EXPECT_THAT(logLines(), ElementsAre(warning("Warning: zorlib_ifg_lookup_qsize: " + name +
                                                  " q_size out of bounds (500<=N<=50000 [per "
                                                  "IF])")));
    } else {
      EXPECT_THAT(logLines(), ElementsAre(debug("Debug: zorlib_ifg_lookup_qsize: " + name +
                                                " Found q_size param (" + each.value + ")")));
    }
  }
}

TEST_F(ParamTest, AGroupThatWasOpenedIsAskedForItsInterfaces) {
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
  accepted("zorvik.m.0x3.if_mask", "5", 1004);
  zorlib_ifg& ifg = group("m", 3);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 2), 0xffu);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 3), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&ifg, 3), 5u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("n", 2), 3), 0u);
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&group("m", 2), 3), 0u);
  EXPECT_THAT(logLines(), ElementsAre(warning("Warning: zorlib_ifg_lookup_if_mask: m if_mask 5 for "
                                              "2 interfaces")));
}

TEST_F(ParamTest, LookUpsRefuseBadHandles) {
  EXPECT_EQ(zorlib_ifg_lookup_qsize(nullptr, "q"), 0u);
  EXPECT_EQ(errno, EBADR);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_validate: Nil handle")));
}

TEST_F(ParamTest, APairThatCannotBeKeptIsRefused) {
  for (int fails = 0; fails < 4; ++fails) {  // each of three words and the value
    systemCalls.allocationsLeft = fails;
    refused("zorvik.g6.q.q_size", "100",
            error("Error: zorlib_set_param: strdup failed - Cannot allocate memory"));
  }
  systemCalls.allocationsLeft = -1;
}

TEST_F(ParamTest, OnlyWhatARuleAcceptsIsCopied) {
  systemCalls.allocationsLeft = 0;
  refused("zorvik.g6.q.q_size", " \t12 abc \n",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik.g6.q.q_size/12 abc"));
  refused("zorvik.g6.speed", "100",
          warning("Warning: zorlib_set_param: Unrecognized param zorvik.g6.speed/100"));
  EXPECT_EQ(systemCalls.allocationsLeft, 0);
  systemCalls.allocationsLeft = -1;
}

TEST_F(ParamTest, AValueIsKeptWhole) {
  const std::string value = "100" + std::string(300, ' ');
  const std::size_t place = paramCount();
  accepted("zorvik.g7.q.q_size", value.c_str(), 1001);
  EXPECT_STREQ(param(place).value.get(), "100");
  const std::string zeros = std::string(500, '0') + "17";
  accepted("zorvik.g7.r.q_size", zeros.c_str(), 1001);
  EXPECT_EQ(param(place + 1).value.get(), zeros);
}

TEST_F(ParamTest, TheListHolds128) {
  while (paramCount() < 128) {
    ASSERT_EQ(zorlib_set_param("zorvik.fill.q.q_size", "100"), 0);
  }
  const LogLine full = error("Error: zorlib_set_param: Too many parameters, list full (128)");
  refused("zorvik.fill.q.q_size", "100", full);
  // That is looked at before the name is, but a name must be there.
  refused("zorvi.fill.q.q_size", "100", full);
  refused("", "", full);
  refused(nullptr, nullptr, error("Error: zorlib_set_param: Nil name or value ((nil) (nil))"));
}

}  // namespace
}  // namespace tarnik::test
