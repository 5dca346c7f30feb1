#include "policy/capture_rules.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "policy/testing/fixture.h"

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

TEST_F(CaptureRulesTest, NoReferencesIsSuccessAndSaidAtLevelFour) {
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

TEST_F(CaptureRulesTest, NoReferencesIsNotSaidOfAListThatHoldsSome) {
  const std::string policy = file("");
  setDebugLevel(4);
  References references = {"before"};
  EXPECT_TRUE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: " + policy)));
}

TEST_F(CaptureRulesTest, ReferencesBeforeAMalformedLineStay) {
  const std::string policy = file(
      "ips.responses.object.cap1 = tarnik:\n# comment\nalone\n"
      "ips.responses.object.cap2 = tarnik:\n");
  References references;
  EXPECT_FALSE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(references, ElementsAre("cap1"));
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: getTarnikReferences: Malformed tuning param (line=3)")));
}

TEST_F(CaptureRulesTest, AMalformedFileIsNotSaidToHoldNoReferences) {
  const std::string policy = file("alone\n");
  setDebugLevel(4);
  References references;
  EXPECT_FALSE(getTarnikReferences(policy.c_str(), references));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: " + policy),
                                      errorLine("Error: getTarnikReferences: Malformed tuning "
                                                "param (line=1)")));
}

TEST_F(CaptureRulesTest, MissingFileIsToldWithoutAnOperation) {
  const std::string missing = path("missing");
  References references = {"before"};
  EXPECT_FALSE(getTarnikReferences(missing.c_str(), references));
  EXPECT_THAT(references, ElementsAre("before"));
  Rules rules = {{"before", "1"}};
  EXPECT_FALSE(getTarnikRules(missing.c_str(), "cap1", rules));
  EXPECT_THAT(rules, ElementsAre(Pair("before", "1")));
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: Failed to open: " + missing),
                                      errorLine("Error: Failed to open: " + missing)));
}

TEST_F(CaptureRulesTest, OnlyRegularFilesAreOpened) {
  const std::string fifo = path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  References references;
  Rules rules;
  EXPECT_FALSE(getTarnikReferences(fifo.c_str(), references));
  EXPECT_FALSE(getTarnikRules(fifo.c_str(), "", rules));
  EXPECT_FALSE(getTarnikReferences("/tmp", references));
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: Failed to open: " + fifo),
                                      errorLine("Error: Failed to open: " + fifo),
                                      errorLine("Error: Failed to open: /tmp")));
}

TEST_F(CaptureRulesTest, WithoutAParserTheProcessEnds) {
  const std::string policy = file("ips.responses.object.cap1 = tarnik:\n");
  platform.parserToFail = 1;
  References references;
  EXPECT_EXIT((void)getTarnikReferences(policy.c_str(), references), ExitedWithCode(1),
              "^<2>Fatal error: getTarnikReferences: Failed to allocate memory\n$");
  Rules rules;
  EXPECT_EXIT((void)getTarnikRules(policy.c_str(), "cap1", rules), ExitedWithCode(1),
              "^<2>Fatal error: getTarnikRules: Failed to allocate memory\n$");
}

TEST_F(CaptureRulesTest, RulesAreTheSettingsWhoseKeyMentionsTheReference) {
  const std::string policy = file(
      "ips.responses.object.cap1 = \"tarnik: all\"\n"
      "ips.responses.object.cap10 = block\n"
      "cap1 = \n"
      "ips.filter.cap2 = cap1\n"
      "ips.filter.Cap1 = 3\n"
      "xcap1x = 4\n"
      "cap1 = 5\n");
  Rules rules = {{"before", "1"}};
  EXPECT_TRUE(getTarnikRules(policy.c_str(), "cap1", rules));
  EXPECT_THAT(rules,
              ElementsAre(Pair("before", "1"), Pair("ips.responses.object.cap1", "tarnik: all"),
                          Pair("ips.responses.object.cap10", "block"), Pair("cap1", ""),
                          Pair("xcap1x", "4"), Pair("cap1", "5")));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureRulesTest, EmptyReferenceIsMentionedByEveryKey) {
  const std::string policy = file("a = 1\nb = 2\n");
  Rules rules;
  EXPECT_TRUE(getTarnikRules(policy.c_str(), "", rules));
  EXPECT_THAT(rules, ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST_F(CaptureRulesTest, RulesLogTheirPathAtLevelFour) {
  const std::string policy = file("a = 1\n");
  Rules rules;
  setDebugLevel(3);
  EXPECT_TRUE(getTarnikRules(policy.c_str(), "a", rules));
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(4);
  EXPECT_TRUE(getTarnikRules(policy.c_str(), "a", rules));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikRules: " + policy)));
}

TEST_F(CaptureRulesTest, RulesBeforeAMalformedLineStay) {
  const std::string policy = file("cap1 = 1\ncap1 = \"2\ncap1 = 3\n");
  Rules rules;
  EXPECT_FALSE(getTarnikRules(policy.c_str(), "cap1", rules));
  EXPECT_THAT(rules, ElementsAre(Pair("cap1", "1")));
  EXPECT_THAT(logLines(),
              ElementsAre(errorLine("Error: getTarnikRules: Malformed tuning param (line=2)")));
}

// ---- Many references from one read ----------------------------------------------------------

Rules flat(const std::vector<RuleSpan>& spans) {
  Rules rules;
  for (const RuleSpan span : spans) {
    std::ranges::transform(span, std::back_inserter(rules), [](const Rule* rule) { return *rule; });
  }
  return rules;
}

TEST_F(CaptureRulesTest, OneReadServesEveryReference) {
  const std::string policy = file("cap1.a = 1\ncap2.cap1 = 2\nother = 3\ncap1cap1 = 4\n");
  const References references = {"cap2", "cap1", "missing", "cap1"};
  RulesByReference byReference(policy.c_str(), references);
  EXPECT_EQ(platform.parsersMade, 0);
  std::vector<RuleSpan> rules;
  for (const std::string& reference : references) {
    EXPECT_TRUE(byReference.get(reference, rules));
  }
  EXPECT_EQ(platform.parsersMade, 1);
  EXPECT_THAT(flat(rules),
              ElementsAre(Pair("cap2.cap1", "2"), Pair("cap1.a", "1"), Pair("cap2.cap1", "2"),
                          Pair("cap1cap1", "4"), Pair("cap1.a", "1"), Pair("cap2.cap1", "2"),
                          Pair("cap1cap1", "4")));
}

TEST_F(CaptureRulesTest, OneReadLogsLikeOneForEachReference) {
  const std::string policy = file("a = 1\n");
  const References references = {"a", "b"};
  RulesByReference byReference(policy.c_str(), references);
  std::vector<RuleSpan> rules;
  setDebugLevel(3);
  EXPECT_TRUE(byReference.get("a", rules));
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(4);
  EXPECT_TRUE(byReference.get("a", rules));
  EXPECT_TRUE(byReference.get("b", rules));
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikRules: " + policy),
                                      debugLine("Debug: getTarnikRules: " + policy)));
}

TEST_F(CaptureRulesTest, OneReadFailsLikeTheFirstOfMany) {
  const References references = {"cap1", "cap2"};
  const std::string policy = file("cap1 = 1\ncap2 = 2\nalone\ncap1 = 3\n");
  RulesByReference malformed(policy.c_str(), references);
  std::vector<RuleSpan> rules;
  EXPECT_FALSE(malformed.get("cap1", rules));
  EXPECT_THAT(flat(rules), ElementsAre(Pair("cap1", "1")));
  const std::string missing = path("missing");
  RulesByReference nowhere(missing.c_str(), references);
  EXPECT_FALSE(nowhere.get("cap1", rules));
  EXPECT_THAT(flat(rules), ElementsAre(Pair("cap1", "1")));
  EXPECT_THAT(logLines(),
              ElementsAre(errorLine("Error: getTarnikRules: Malformed tuning param (line=3)"),
                          errorLine("Error: Failed to open: " + missing)));
  platform.parserToFail = platform.parsersMade + 1;
  RulesByReference noParser(policy.c_str(), references);
  EXPECT_EXIT((void)noParser.get("cap1", rules), ExitedWithCode(1),
              "<2>Fatal error: getTarnikRules: Failed to allocate memory\n$");
}

// References and keys from a small alphabet overlap in every way: one within, before, behind or
// equal to another. The shortest reference of a round has 0 to 11 bytes.
TEST_F(CaptureRulesTest, OneReadFindsWhatManyReadsFind) {
  std::mt19937 random(4);
  const auto word = [&random](std::size_t shortest, std::size_t longest) {
    std::string text(shortest + random() % (longest - shortest + 1), 'a');
    std::ranges::generate(text, [&random] { return "ab_\xc3"[random() % 4]; });
    return text;
  };
  std::size_t mentions = 0;
  for (std::size_t round = 0; round < 240; ++round) {
    const std::size_t shortest = round % 12;
    std::string content;
    References references;
    for (unsigned line = 0; line < 40; ++line) {
      const std::string key = word(1, 16);
      content += key + " = " + std::to_string(line) + "\n";
      if (random() % 3 == 0 && key.size() > shortest) {
        references.push_back(key.substr(random() % (key.size() - shortest), shortest + line % 3));
      } else if (random() % 3 == 0) {
        references.push_back(word(shortest, shortest + 4));
      }
    }
    const std::string policy = file(content);
    RulesByReference byReference(policy.c_str(), references);
    for (const std::string& reference : references) {
      Rules expected;
      std::vector<RuleSpan> spans;
      ASSERT_TRUE(getTarnikRules(policy.c_str(), reference, expected));
      ASSERT_TRUE(byReference.get(reference, spans));
      ASSERT_EQ(flat(spans), expected) << reference << " in\n" << content;
      mentions += expected.size();
    }
  }
  EXPECT_GT(mentions, 2000u);
}

}  // namespace
}  // namespace tarnik::test
