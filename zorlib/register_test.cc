// The registry of rules, and how a pair is matched against them. This is a separate
// program with a fixed order of tests, because rules remain until the process ends.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "zorlib/param.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;

const char kTooMany[] = "Error: zorlib_register_params: Too many param specs!";
const std::string kRule = "Debug: zorlib_set_param: Rule ";

std::string spec(int place, unsigned id, unsigned comps, const char* words, int type) {
  return text("Debug: zorlib_set_param: Spec [%d] id %u comp %u / %s type %d", place, id, comps,
              words, type);
}

// The lines that setting the pair logs at debug level 1. The addresses of a rule's words are
// replaced by "num" and "word".
std::vector<std::string> linesOf(const char* name, const char* value, int expected) {
  clearLog();
  setDebugLevel(1);
  EXPECT_EQ(zorlib_set_param(name, value), expected);
  setDebugLevel(0);
  std::vector<std::string> result;
  for (const LogLine& line : logLines()) {
    std::string shown = line.text;
    for (std::size_t at = 0; (at = shown.find(" 0x", at)) != std::string::npos;) {
      const std::size_t end = shown.find(' ', at + 1);
      const std::string address = shown.substr(at + 1, end - at - 1);
      shown.replace(at + 1, address.size(), address == "0x1" ? "num" : "word");
      ++at;
    }
    result.push_back(shown);
  }
  return result;
}

TEST(Register, TriesTheLibrarysRulesInOrder) {
  const std::string wrongCount = " did not match due to num_comps (2) vs param words (3)";
  EXPECT_THAT(
      linesOf("zorvik.g.x.fd_count", "1", -1),
      ElementsAre(
          spec(0, 1000, 2, "(nil) word (nil) (nil)", 1), kRule + "1000" + wrongCount,
          spec(1, 1003, 3, "(nil) num word (nil)", 3), kRule + "1003 Matched component 0 (g) - any",
          kRule + "1003 Failed numeric match (1) in param zorvik.g.x.fd_count",
          spec(2, 1004, 3, "(nil) num word (nil)", 3), kRule + "1004 Matched component 0 (g) - any",
          kRule + "1004 Failed numeric match (1) in param zorvik.g.x.fd_count",
          spec(3, 1001, 3, "(nil) (nil) word (nil)", 1),
          kRule + "1001 Matched component 0 (g) - any",
          kRule + "1001 Matched component 1 (x) - any", kRule + "1001 No match to word 'fd_count'",
          spec(4, 1002, 2, "(nil) word (nil) (nil)", 1), kRule + "1002" + wrongCount,
          "Warning: zorlib_set_param: Unrecognized param zorvik.g.x.fd_count/1"));
}

TEST(Register, LogsMatchingWordsAndValuesThatDoNotMatch) {
  EXPECT_THAT(linesOf("zorvik.g.7.cpu_mask", "zz", -1),
              IsSupersetOf({kRule + "1003 Matched component 1 (7) - num",
                            kRule + "1003 Matched component 2 (cpu_mask) - exact",
                            kRule + "1003 Bitmask value mismatch (zz)"}));
  EXPECT_THAT(linesOf("zorvik.g.Q_SIZE", "zz", -1),
              IsSupersetOf({kRule + "1000 Matched component 1 (Q_SIZE) - exact",
                            kRule + "1000 Numeric value mismatch (zz)"}));
}

TEST(Register, LaterRulesAreAddedWithAnError) {
  static const zorlib_param_spec rules[] = {
      {1, 1, {"text", nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {2, 1, {"any", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
      {3, 1, {"wrong", nullptr, nullptr, nullptr}, 99},
      {4, 1, {"wrong", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
      {5, 4, {nullptr, nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY},
  };
  clearLog();
  EXPECT_EQ(zorlib_register_params(5, rules), 0);
  EXPECT_EQ(logLines(), lines({kTooMany})) << "10 rules, but 5 in this call";
  EXPECT_THAT(linesOf("zorvik.text", "  some words ", 0),
              IsSupersetOf({kRule + "1 String value accepted (some words)"}));
  EXPECT_THAT(linesOf("zorvik.any", "x", 0), IsSupersetOf({kRule + "2 Any value accepted (x)"}));
  EXPECT_THAT(linesOf("zorvik.a.b.c.d", "x", 0),
              IsSupersetOf({kRule + "5 Any value accepted (x)"}));
  EXPECT_EQ(zorlib_set_param("zorvik.text", "  "), -1);
  EXPECT_EQ(zorlib_set_param("zorvik.any", ""), -1);
}

TEST(Register, AnUnknownTypeEndsTheSearch) {
  clearLog();
  EXPECT_EQ(zorlib_set_param("zorvik.wrong", "x"), -1);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_set_param: Unknown param value type 99 in spec list",
                               "Warning: zorlib_set_param: Unrecognized param zorvik.wrong/x"}));
}

// An application's rule may have the id of one of the library's, but another form.
TEST(Register, LookUpsReportEntriesThatTheyCannotUse) {
  static const zorlib_param_spec rules[] = {
      {zorlib::kParamIfgQSize, 2, {nullptr, "q_size", nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamQueueQSize, 3, {nullptr, nullptr, "q_size", nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamQueueQSize, 1, {"odd", nullptr, nullptr, nullptr}, ZORLIB_VALUE_NUMBER},
      {zorlib::kParamCpuMask, 1, {"odd", nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamFdCount, 2, {nullptr, "fd_count", nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamCpuMask, 3, {nullptr, nullptr, "cpu_mask", nullptr}, ZORLIB_VALUE_STRING},
      {zorlib::kParamIfMask, 3, {nullptr, nullptr, "if_mask", nullptr}, ZORLIB_VALUE_STRING},
  };
  EXPECT_EQ(zorlib_register_params(7, rules), 0);
  zorlib_ifg ifg;
  std::strcpy(ifg.name.data(), "odd");
  ifg.numIfs = 1;
  for (const auto& [name, value] :
       {std::pair("zorvik.odd", "1000"), std::pair("zorvik.odd", "ff"),
        std::pair("zorvik.odd.q_size", " many frames "), std::pair("zorvik.odd.q.q_size", "x1000"),
        std::pair("zorvik.odd.fd_count", "many"), std::pair("zorvik.odd.1.cpu_mask", "some"),
        std::pair("zorvik.odd.1.if_mask", "some")}) {
    ASSERT_EQ(zorlib_set_param(name, value), 0);
  }
  clearLog();
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, nullptr), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_qsize(&ifg, "q"), 0u);
  const std::string start = "Warning: zorlib_ifg_lookup_qsize: Unexpected parse failure? on ";
  EXPECT_EQ(logLines(), lines({start + "'many frames'", start + "'x1000'"}));
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 0), 0u) << "the entry has no number of a queue pair";
  clearLog();
  errno = 0;
  EXPECT_EQ(zorlib::lookupFdCount(ifg), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_cpu_mask(&ifg, 1), 0u);
  EXPECT_EQ(zorlib_ifg_lookup_if_mask(&ifg, 1), 0u);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(logLines(),
            lines({"Warning: zorlib_ifg_create_frm_data: odd fd_count out of bounds "
                   "(1000<=N<=1000000 [per IF])",
                   "Warning: zorlib_ifg_lookup_cpu_mask: Unexpected parse failure? on 'some'",
                   "Warning: zorlib_ifg_lookup_if_mask: odd if_mask 0 for 1 interfaces"}));
}

TEST(Register, TheFirstRuleThatAcceptsAPairWins) {
  static const zorlib_param_spec rules[] = {
      {100, 2, {nullptr, nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
      {101, 3, {nullptr, nullptr, nullptr, nullptr}, ZORLIB_VALUE_STRING},
  };
  EXPECT_EQ(zorlib_register_params(2, rules), 0);
  for (const auto& [name, rule] :
       {std::pair("zorvik.w.q_size", 1000u), std::pair("zorvik.w.fd_count", 1002u),
        std::pair("zorvik.w.1.cpu_mask", 1003u), std::pair("zorvik.w.1.if_mask", 1004u),
        std::pair("zorvik.w.q.q_size", 1001u), std::pair("zorvik.w.other", 100u),
        std::pair("zorvik.w.1.other", 101u)}) {
    EXPECT_EQ(zorlib_set_param(name, "1"), 0);
    EXPECT_EQ(zorlib::param(zorlib::paramCount() - 1).id, rule) << name;
  }
}

TEST(Register, HoldsThirtyTwoRules) {
  std::vector<zorlib_param_spec> rules(
      14, {6, 1, {"late", nullptr, nullptr, nullptr}, ZORLIB_VALUE_ANY});
  rules.back().comp[0] = "last";
  clearLog();
  EXPECT_EQ(zorlib_register_params(14, rules.data()), 0);
  EXPECT_EQ(logLines(), lines({kTooMany}));
  EXPECT_EQ(zorlib_set_param("zorvik.late", "x"), 0);
  EXPECT_EQ(zorlib_set_param("zorvik.last", "x"), -1) << "there is no room for it";
  clearLog();
  EXPECT_EQ(zorlib_register_params(1, rules.data()), 0);
  EXPECT_EQ(logLines(), lines({kTooMany}));
}

}  // namespace
}  // namespace tarnik::test
