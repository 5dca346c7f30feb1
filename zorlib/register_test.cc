// The registry of rules, and how a pair is matched against them. In a program of its own: what is
// registered stays for the life of the process.
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "zorlib/param.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const LogLine kTooMany = error("Error: zorlib_register_params: Too many param specs!");

std::string spec(int place, unsigned id, unsigned comps, const char* words, int type) {
  return text("Debug: zorlib_set_param: Spec [%d] id %u comp %u / ", place, id, comps) + words +
         text(" type %d", type);
}

// The addresses of a rule's own words are the library's; their place in the line is what counts.
std::vector<std::string> linesWithoutAddresses() {
  std::vector<std::string> lines;
  for (const LogLine& line : logLines()) {
    std::string shown = line.text;
    for (std::size_t at = 0; (at = shown.find(" 0x", at)) != std::string::npos;) {
      const std::size_t end = shown.find(' ', at + 1);
      const std::string address = shown.substr(at + 1, end - at - 1);
      shown.replace(at + 1, address.size(), address == "0x1" ? "num" : "word");
      ++at;
    }
    lines.push_back(shown);
  }
  return lines;
}

// The tests stand in their order: each registers more.
TEST(Register, TheLibrarysOwnRulesAreThereAndTriedInTheirOrder) {
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_set_param("zorvik.g.x.fd_count", "1"), -1);
  setDebugLevel(0);
  const std::string wrongCount = " did not match due to num_comps (2) vs param words (3)";
  const std::string rule = "Debug: zorlib_set_param: Rule ";
  EXPECT_THAT(
      linesWithoutAddresses(),
      ElementsAre(
          spec(0, 1000, 2, "(nil) word (nil) (nil)", 1), rule + "1000" + wrongCount,
          spec(1, 1003, 3, "(nil) num word (nil)", 3), rule + "1003 Matched component 0 (g) - any",
          rule + "1003 Failed numeric match (1) in param zorvik.g.x.fd_count",
          spec(2, 1004, 3, "(nil) num word (nil)", 3), rule + "1004 Matched component 0 (g) - any",
          rule + "1004 Failed numeric match (1) in param zorvik.g.x.fd_count",
          spec(3, 1001, 3, "(nil) (nil) word (nil)", 1),
          rule + "1001 Matched component 0 (g) - any", rule + "1001 Matched component 1 (x) - any",
          rule + "1001 No match to word 'fd_count'", spec(4, 1002, 2, "(nil) word (nil) (nil)", 1),
          rule + "1002" + wrongCount,
          "Warning: zorlib_set_param: Unrecognized param zorvik.g.x.fd_count/1"));
}

TEST(Register, AMatchTellsItsWordsAndAMismatchItsValue) {
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_set_param("zorvik.g.7.cpu_mask", "zz"), -1);
  EXPECT_EQ(zorlib_set_param("zorvik.g.Q_SIZE", "zz"), -1);
  setDebugLevel(0);
  const std::vector<std::string> lines = linesWithoutAddresses();
  const std::string rule = "Debug: zorlib_set_param: Rule ";
  EXPECT_THAT(lines, ::testing::IsSupersetOf({rule + "1003 Matched component 1 (7) - num",
                                              rule + "1003 Matched component 2 (cpu_mask) - exact",
                                              rule + "1003 Bitmask value mismatch (zz)",
                                              rule + "1000 Matched component 1 (Q_SIZE) - exact",
                                              rule + "1000 Numeric value mismatch (zz)"}));
}

TEST(Register, FurtherRulesAreKeptButComplainedOf) {
  static const zorlib_param_spec rules[] = {
      {1, 1, {"text", nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {2, 1, {"any", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
      {3, 1, {"wrong", nullptr, nullptr, nullptr}, 99},
      {4, 1, {"wrong", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
      {5, 4, {nullptr, nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
  };
  clearLog();
  EXPECT_EQ(zorlib_register_params(5, rules), 0);
  EXPECT_THAT(logLines(), ElementsAre(kTooMany)) << "10 in all, not the 5 of this call";
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_set_param("zorvik.text", "  some words "), 0);
  EXPECT_EQ(zorlib_set_param("zorvik.any", "x"), 0);
  EXPECT_EQ(zorlib_set_param("zorvik.a.b.c.d", "x"), 0);
  setDebugLevel(0);
  const std::string rule = "Debug: zorlib_set_param: Rule ";
  EXPECT_THAT(linesWithoutAddresses(),
              ::testing::IsSupersetOf({rule + "1 String value accepted (some words)",
                                       rule + "2 Any value accepted (x)",
                                       rule + "5 Any value accepted (x)"}));
  EXPECT_EQ(zorlib_set_param("zorvik.text", "  "), -1);
  EXPECT_EQ(zorlib_set_param("zorvik.any", ""), -1);
}

TEST(Register, AnUnknownTypeEndsTheSearch) {
  clearLog();
  EXPECT_EQ(zorlib_set_param("zorvik.wrong", "x"), -1);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          error("Error: zorlib_set_param: Unknown param value type 99 in spec list"),
          LogLine{LOG_WARNING, "Warning: zorlib_set_param: Unrecognized param zorvik.wrong/x"}));
}

// A rule of the application's may carry the number of one of the library's.
TEST(Register, ALookUpBelievesNoValueOfAnothersRule) {
  static const zorlib_param_spec rules[] = {
      {zorlib::kParamIfgQSize, 2, {nullptr, "q_size", nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamQueueQSize, 3, {nullptr, nullptr, "q_size", nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamQueueQSize, 1, {"odd", nullptr, nullptr, nullptr}, ZORLIB_VALUE_NUMBER},
      {zorlib::kParamCpuMask, 1, {"odd", nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
  };
  EXPECT_EQ(zorlib_register_params(4, rules), 0);
  zorlib_ifg ifg;
  std::strcpy(ifg.name.data(), "odd");
  ifg.numIfs = 1;
  ASSERT_EQ(zorlib_set_param("zorvik.odd", "1000"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.odd", "ff"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.odd.q_size", " many frames "), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.odd.q.q_size", "x1000"), 0);
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "q"), 0u);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_WARNING,
                                              "Warning: zorlib_ifg_lookup_qsize: Unexpected parse "
                                              "failure? on 'many frames'"},
                                      LogLine{LOG_WARNING,
                                              "Warning: zorlib_ifg_lookup_qsize: Unexpected parse "
                                              "failure? on 'x1000'"}));
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 0), 0u) << "it has no place for a number";
}

TEST(Register, HoldsThirtyTwoRules) {
  std::vector<zorlib_param_spec> rules(
      19, {6, 1, {"late", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY});
  rules.back().comp[0] = "last";
  clearLog();
  EXPECT_EQ(zorlib_register_params(19, rules.data()), 0);
  EXPECT_THAT(logLines(), ElementsAre(kTooMany));
  EXPECT_EQ(zorlib_set_param("zorvik.late", "x"), 0);
  EXPECT_EQ(zorlib_set_param("zorvik.last", "x"), -1) << "it had no room";
  clearLog();
  EXPECT_EQ(zorlib_register_params(1, rules.data()), 0);
  EXPECT_THAT(logLines(), ElementsAre(kTooMany));
}

}  // namespace
}  // namespace tarnik::test
