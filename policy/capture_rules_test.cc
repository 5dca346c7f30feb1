#include "policy/capture_rules.h"

#include <sys/stat.h>

#include "policy/testing/fixture.h"
#include "policy/testing/rules.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::Pair;

using CaptureRulesTest = PolicyTest;

References referencesOf(const std::string& path) {
  References references;
  EXPECT_TRUE(getTarnikReferences(path.c_str(), references));
  return references;
}

TEST_F(CaptureRulesTest, ReferencesAreTheResponsesWhoseValueAsksForCapture) {
  const std::string policy = file(
      "ips.responses.object.cap1 = tarnik:all\n"
      "ips.filter.responses._cap2 = \"block, tarnik:\"\n"
      "acl.rule.responses.__cap3 = xtarnik:x\n"
      "ips.responses.object.quiet = block\n"
      "ips.responses.object.upper = TARNIK:\n"
      "ips.responses.object.nocolon = tarnik\n"
      "ips.responses.other.cap4 = tarnik:\n"
      "x.ips.responses.object.cap5 = tarnik:\n"
      "ips.responses.objects.cap6 = tarnik:\n"
      "ips.responses.object. = tarnik:\n"
      "ips.responses.object._ = tarnik:\n"
      "ips.responses.object.cap1 = tarnik:again\n"
      "ips.responses.object.tarnik: = block\n"
      "acl.rule.responses.ips.responses.object.cap7 = tarnik:\n");
  EXPECT_THAT(referencesOf(policy),
              ElementsAre("cap1", "cap2", "_cap3", "", "", "cap1", "ips.responses.object.cap7"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureRulesTest, ReferencesAreAppended) {
  References references = {"before"};
  const std::string policy = file("ips.responses.object.cap1 = tarnik:\n");
  EXPECT_TRUE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(references, ElementsAre("before", "cap1"));
}

TEST_F(CaptureRulesTest, ReferencesAreLoggedAsTheyAreFound) {
  const std::string policy =
      file("ips.responses.object._cap1 = tarnik:\nacl.rule.responses.cap2 = tarnik:\n");
  setDebugLevel(1);
  EXPECT_THAT(referencesOf(policy), ElementsAre("cap1", "cap2"));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: Add cap1"),
                                      debugLine("Debug: getTarnikReferences: Add cap2")));
  clearLog();
  setDebugLevel(4);
  EXPECT_THAT(referencesOf(policy), ElementsAre("cap1", "cap2"));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: " + policy),
                                      debugLine("Debug: getTarnikReferences: Add cap1"),
                                      debugLine("Debug: getTarnikReferences: Add cap2")));
}

TEST_F(CaptureRulesTest, NoReferencesIsSuccessAndLoggedAtLevelFour) {
  for (const std::string content : {"", "# nothing\n", "ips.responses.object.a = block\n"}) {
    const std::string policy = file(content);
    clearLog();
    setDebugLevel(3);
    EXPECT_THAT(referencesOf(policy), IsEmpty());
    EXPECT_THAT(logLines(), IsEmpty());
    setDebugLevel(4);
    EXPECT_THAT(referencesOf(policy), IsEmpty());
    EXPECT_THAT(logLines(),
                ElementsAre(debugLine("Debug: getTarnikReferences: " + policy),
                            debugLine("Debug: getTarnikReferences: No references found")));
  }
}

TEST_F(CaptureRulesTest, NoReferencesIsNotLoggedForAListThatHasSome) {
  const std::string policy = file("");
  setDebugLevel(4);
  References references = {"before"};
  EXPECT_TRUE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: " + policy)));
}

TEST_F(CaptureRulesTest, AMalformedLineEndsTheReading) {
  const std::string policy = file(
      "ips.responses.object.cap1 = tarnik:\n# comment\nalone\n"
      "ips.responses.object.cap2 = tarnik:\n");
  References references;
  EXPECT_FALSE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(references, ElementsAre("cap1"));
  setDebugLevel(4);
  writeFile(policy, "alone\n");
  references.clear();
  EXPECT_FALSE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: getTarnikReferences: Malformed tuning param (line=3)"),
                  debugLine("Debug: getTarnikReferences: " + policy),
                  errorLine("Error: getTarnikReferences: Malformed tuning param (line=1)")));
}

TEST_F(CaptureRulesTest, OnlyRegularFilesAreOpened) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  for (const std::string& name : {path("missing"), path("fifo"), std::string("/tmp")}) {
    clearLog();
    References references = {"before"};
    EXPECT_FALSE(getTarnikReferences(name.c_str(), references));
    EXPECT_THAT(references, ElementsAre("before"));
    EXPECT_THAT(rulesOf(name, "", Reading::kFails), IsEmpty());
    const LogLine withoutOperation = errorLine("Error: Failed to open: " + name);
    EXPECT_THAT(logLines(), ElementsAre(withoutOperation, withoutOperation));
  }
}

TEST_F(CaptureRulesTest, WithoutAParserTheProcessEnds) {
  const std::string policy = file("ips.responses.object.cap1 = tarnik:\n");
  platform.parserToFail = 1;
  References references;
  EXPECT_EXIT((void)getTarnikReferences(policy.c_str(), references), ExitedWithCode(1),
              "^<2>Fatal error: getTarnikReferences: Failed to allocate memory\n$");
  EXPECT_EXIT((void)rulesOf(policy, "cap1"), ExitedWithCode(1),
              "^<2>Fatal error: getTarnikRules: Failed to allocate memory\n$");
}

TEST_F(CaptureRulesTest, RulesAreTheSettingsWhoseKeyContainsTheReference) {
  const std::string policy = file(
      "ips.responses.object.cap1 = \"tarnik: all\"\n"
      "ips.responses.object.cap10 = block\n"
      "cap1 = \n"
      "ips.filter.cap2 = cap1\n"
      "ips.filter.Cap1 = 3\n"
      "xcap1x = 4\n"
      "cap1 = 5\n");
  EXPECT_THAT(rulesOf(policy, "cap1"),
              ElementsAre(Pair("ips.responses.object.cap1", "tarnik: all"),
                          Pair("ips.responses.object.cap10", "block"), Pair("cap1", ""),
                          Pair("xcap1x", "4"), Pair("cap1", "5")));
  EXPECT_EQ(rulesOf(policy, "").size(), 7u) << "every key contains the empty reference";
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureRulesTest, OneReadServesEveryReference) {
  const std::string policy = file("cap1.a = 1\ncap2.cap1 = 2\nother = 3\ncap1cap1 = 4\n");
  const References references = {"cap2", "cap1", "missing", "cap1"};
  CaptureRules captureRules(policy.c_str(), references);
  EXPECT_EQ(platform.parsersMade, 0);
  std::vector<RuleSpan> rules;
  for (const std::string& reference : references) {
    EXPECT_TRUE(captureRules.getTarnikRules(reference, rules));
  }
  EXPECT_EQ(platform.parsersMade, 1);
  EXPECT_THAT(copied(rules),
              ElementsAre(Pair("cap2.cap1", "2"), Pair("cap1.a", "1"), Pair("cap2.cap1", "2"),
                          Pair("cap1cap1", "4"), Pair("cap1.a", "1"), Pair("cap2.cap1", "2"),
                          Pair("cap1cap1", "4")));
}

TEST_F(CaptureRulesTest, OneReadLogsLikeOneForEachReference) {
  const std::string policy = file("a = 1\n");
  const References references = {"a", "b"};
  CaptureRules captureRules(policy.c_str(), references);
  std::vector<RuleSpan> rules;
  setDebugLevel(3);
  EXPECT_TRUE(captureRules.getTarnikRules("a", rules));
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(4);
  EXPECT_TRUE(captureRules.getTarnikRules("a", rules));
  EXPECT_TRUE(captureRules.getTarnikRules("b", rules));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikRules: " + policy),
                                      debugLine("Debug: getTarnikRules: " + policy)));
}

TEST_F(CaptureRulesTest, RulesBeforeAMalformedLineStay) {
  const std::string policy = file("cap1 = 1\ncap2 = 2\nalone\ncap1 = 3\n");
  EXPECT_THAT(rulesOf(policy, "cap1", Reading::kFails), ElementsAre(Pair("cap1", "1")));
  EXPECT_THAT(logLines(),
              ElementsAre(errorLine("Error: getTarnikRules: Malformed tuning param (line=3)")));
}

}  // namespace
}  // namespace tarnik::test
