#include "policy/info_template.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "base/paths.h"
#include "policy/output_file.h"
#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr char kDirectory[] = "/var/support/tarnik";

class InfoTemplateTest : public PolicyTest {
 protected:
  InfoTemplateTest() { clean(); }
  ~InfoTemplateTest() override { clean(); }

  static void clean() {
    for (const auto& entry : std::filesystem::directory_iterator(kDirectory)) {
      std::filesystem::remove_all(entry);
    }
    std::filesystem::remove("/etc/ips.conf");
    std::filesystem::remove("/etc/acl.conf");
  }
  static bool noTemplates() { return std::filesystem::is_empty(kDirectory); }
};

TEST_F(InfoTemplateTest, OneLineForEachRuleReplacesTheFile) {
  const std::string info = path("template");
  writeFile(info, "old content that is longer than the new one");
  const Rule rules[] = {{"b", "2"}, {"a", "x = %s # \"y\""}, {"b", ""}};
  const Rule* const first[] = {&rules[0], &rules[1]};
  const Rule* const second[] = {&rules[2], &rules[0]};
  const RuleSpan spans[] = {first, {}, second};
  EXPECT_TRUE(writeInfoTemplate(info.c_str(), spans));
  EXPECT_THAT(readFile(info), Optional(std::string("b=2\na=x = %s # \"y\"\nb=\nb=2\n")));
  EXPECT_TRUE(writeInfoTemplate(info.c_str(), {}));
  EXPECT_THAT(readFile(info), Optional(std::string()));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(InfoTemplateTest, NewFilesHaveTheModeThatTheMaskLeavesAndStayOutOfTheShell) {
  for (const mode_t mask : {0u, 022u}) {
    const std::string name = path(std::to_string(mask));
    const mode_t before = umask(mask);
    for (const WriteMode mode : {WriteMode::kReplace, WriteMode::kAppend}) {
      const Stream stream =
          openForWriting((name + (mode == WriteMode::kAppend ? "a" : "w")).c_str(), mode);
      ASSERT_TRUE(stream);
      struct stat status {};
      EXPECT_EQ(fstat(fileno(stream.get()), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0666 & ~mask);
      EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFD), FD_CLOEXEC);
    }
    umask(before);
  }
}

TEST_F(InfoTemplateTest, UnwritableTemplateIsAnError) {
  const std::string info = path("missing/template");
  EXPECT_FALSE(writeInfoTemplate(info.c_str(), {}));
  EXPECT_FALSE(writeInfoTemplate("/tmp", {}));
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: writeInfoTemplate: Failed to open: " + info + ", errno=2"),
                  errorLine("Error: writeInfoTemplate: Failed to open: /tmp, errno=21")));
}

TEST_F(InfoTemplateTest, PipeThatNobodyReadsIsNoTemplate) {
  const std::string pipe = path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(writeInfoTemplate(pipe.c_str(), {}));
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: writeInfoTemplate: Failed to open: " + pipe + ", errno=6")));
}

// The second list of rules fills the stream's buffer several times.
TEST_F(InfoTemplateTest, FullDiskCutsTheTemplateShortAndIsTold) {
  const std::string info = path("template");
  const Rule rule = {"key", "value"};
  const Rule* const one[] = {&rule};
  for (const std::size_t lines : {1u, 10000u}) {
    const std::vector<RuleSpan> rules(lines, one);
    clearLog();
    {
      const FullDisk full(7);
      EXPECT_TRUE(writeInfoTemplate(info.c_str(), rules));
    }
    EXPECT_THAT(readFile(info), Optional(std::string("key=val")));
    EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: writeInfoTemplate: Failed to write: " +
                                                  info + ", errno=27")));
  }
}

TEST_F(InfoTemplateTest, IpsRulesOfAllReferencesGoToOneTemplate) {
  writeFile("/etc/ips.conf",
            "ips.rule.cap2.name = two\n"
            "ips.responses.object.cap1 = \"tarnik: all\"\n"
            "ips.rule.cap1.and.cap2 = both\n"
            "ips.rule.other = none\n"
            "ips.filter.responses._cap2 = tarnik:\n"
            "ips.responses.object.cap1 = tarnik:\n");
  EXPECT_TRUE(createIpsInfoTemplate());
  const std::string one =
      "ips.responses.object.cap1=tarnik: all\nips.rule.cap1.and.cap2=both\n"
      "ips.responses.object.cap1=tarnik:\n";
  const std::string two =
      "ips.rule.cap2.name=two\nips.rule.cap1.and.cap2=both\nips.filter.responses._cap2=tarnik:\n";
  EXPECT_THAT(readFile("/var/support/tarnik/template.ips"), Optional(one + two + one));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(InfoTemplateTest, EachNapReferenceHasATemplateOfItsOwn) {
  writeFile("/etc/acl.conf",
            "acl.rule.priority._6f9a = 5\n"
            "acl.rule.responses._6f9a = tarnik:\n"
            "acl.rule.priority._77 = 6\n"
            "acl.rule.responses._77 = tarnik:\n"
            "acl.rule.responses._88 = block\n");
  EXPECT_TRUE(createNapInfoTemplates());
  EXPECT_THAT(
      readFile("/var/support/tarnik/template.nap.6f9a"),
      Optional(std::string("acl.rule.priority._6f9a=5\nacl.rule.responses._6f9a=tarnik:\n")));
  EXPECT_THAT(readFile("/var/support/tarnik/template.nap.77"),
              Optional(std::string("acl.rule.priority._77=6\nacl.rule.responses._77=tarnik:\n")));
  EXPECT_EQ(readFile("/var/support/tarnik/template.nap.88"), std::nullopt);
  EXPECT_EQ(readFile("/var/support/tarnik/template.ips"), std::nullopt);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(InfoTemplateTest, WithoutReferencesNothingIsWritten) {
  writeFile("/etc/ips.conf", "ips.responses.object.cap1 = block\n");
  writeFile("/etc/acl.conf", "");
  EXPECT_TRUE(createIpsInfoTemplate());
  EXPECT_TRUE(createNapInfoTemplates());
  EXPECT_TRUE(noTemplates());
  EXPECT_EQ(platform.parsersMade, 2);
}

TEST_F(InfoTemplateTest, MissingPolicyFails) {
  EXPECT_FALSE(createIpsInfoTemplate());
  EXPECT_FALSE(createNapInfoTemplates());
  EXPECT_TRUE(noTemplates());
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: Failed to open: /etc/ips.conf"),
                                      errorLine("Error: Failed to open: /etc/acl.conf")));
}

TEST_F(InfoTemplateTest, MalformedPolicyFailsBeforeAnyRuleIsCollected) {
  writeFile("/etc/ips.conf", "ips.responses.object.cap1 = tarnik:\nalone\n");
  writeFile("/etc/acl.conf", "acl.rule.responses.a = tarnik:\n\nalone\n");
  EXPECT_FALSE(createIpsInfoTemplate());
  EXPECT_FALSE(createNapInfoTemplates());
  EXPECT_TRUE(noTemplates());
  EXPECT_THAT(
      logLines(),
      ElementsAre(errorLine("Error: getTarnikReferences: Malformed tuning param (line=2)"),
                  errorLine("Error: getTarnikReferences: Malformed tuning param (line=3)")));
}

TEST_F(InfoTemplateTest, PolicyThatTurnsBadBetweenTheReadsFails) {
  const std::string good = "ips.responses.object.cap1 = tarnik:\n";
  writeFile("/etc/ips.conf", good);
  platform.onParser = [&] {
    if (platform.parsersMade == 1) {
      writeFile("/etc/ips.conf", good + "alone\n");
    }
  };
  EXPECT_FALSE(createIpsInfoTemplate());
  EXPECT_TRUE(noTemplates());
  EXPECT_THAT(logLines(),
              ElementsAre(errorLine("Error: getTarnikRules: Malformed tuning param (line=2)")));
}

TEST_F(InfoTemplateTest, PolicyThatGoesBetweenTheReadsFails) {
  writeFile("/etc/acl.conf", "acl.rule.responses.a = tarnik:\n");
  platform.onParser = [] { std::filesystem::remove("/etc/acl.conf"); };
  EXPECT_FALSE(createNapInfoTemplates());
  EXPECT_TRUE(noTemplates());
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: Failed to open: /etc/acl.conf")));
}

TEST_F(InfoTemplateTest, NapReferenceThatRepeatsHasItsRulesOnce) {
  const std::string rule = "acl.rule.responses.a = tarnik:\n";
  writeFile("/etc/acl.conf", rule + rule);
  EXPECT_TRUE(createNapInfoTemplates());
  EXPECT_THAT(
      readFile("/var/support/tarnik/template.nap.a"),
      Optional(std::string("acl.rule.responses.a=tarnik:\nacl.rule.responses.a=tarnik:\n")));
}

// A file's references depend on its keys, not on its name.
TEST_F(InfoTemplateTest, EitherFileMayHoldResponsesOfTheOther) {
  writeFile("/etc/ips.conf", "acl.rule.responses.a = tarnik:\n");
  writeFile("/etc/acl.conf", "ips.responses.object.b = tarnik:\n");
  EXPECT_TRUE(createIpsInfoTemplate());
  EXPECT_TRUE(createNapInfoTemplates());
  EXPECT_THAT(readFile("/var/support/tarnik/template.ips"),
              Optional(std::string("acl.rule.responses.a=tarnik:\n")));
  EXPECT_THAT(readFile("/var/support/tarnik/template.nap.b"),
              Optional(std::string("ips.responses.object.b=tarnik:\n")));
}

TEST_F(InfoTemplateTest, UnwritableDirectoryFails) {
  writeFile("/etc/ips.conf", "ips.responses.object.cap1 = tarnik:\n");
  writeFile("/etc/acl.conf",
            "acl.rule.responses.a1 = tarnik:\nacl.rule.responses.b1 = tarnik:\n"
            "acl.rule.responses.c1 = tarnik:\n");
  std::filesystem::create_directory(kIpsTemplatePath);
  std::filesystem::create_directory(kNapTemplatePrefix + std::string("b1"));
  EXPECT_FALSE(createIpsInfoTemplate());
  EXPECT_FALSE(createNapInfoTemplates());
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: writeInfoTemplate: Failed to open: "
                                                "/var/support/tarnik/template.ips, errno=21"),
                                      errorLine("Error: writeInfoTemplate: Failed to open: "
                                                "/var/support/tarnik/template.nap.b1, errno=21")));
  EXPECT_THAT(readFile("/var/support/tarnik/template.nap.a1"),
              Optional(std::string("acl.rule.responses.a1=tarnik:\n")));
  EXPECT_EQ(readFile("/var/support/tarnik/template.nap.c1"), std::nullopt);
}

TEST_F(InfoTemplateTest, AReferenceNamesNoFileOutsideTheDirectory) {
  writeFile("/etc/acl.conf", "acl.rule.responses./../../../../tmp/escaped = tarnik:\n");
  EXPECT_FALSE(createNapInfoTemplates());
  EXPECT_EQ(readFile("/tmp/escaped"), std::nullopt);
}

TEST_F(InfoTemplateTest, GeneratorsLogEachReference) {
  writeFile("/etc/acl.conf", "acl.rule.responses.a = tarnik:\nacl.rule.responses.b = tarnik:\n");
  setDebugLevel(4);
  EXPECT_TRUE(createNapInfoTemplates());
  EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: getTarnikReferences: /etc/acl.conf"),
                                      debugLine("Debug: getTarnikReferences: Add a"),
                                      debugLine("Debug: getTarnikReferences: Add b"),
                                      debugLine("Debug: getTarnikRules: /etc/acl.conf"),
                                      debugLine("Debug: getTarnikRules: /etc/acl.conf")));
  EXPECT_EQ(platform.parsersMade, 2);
}

}  // namespace
}  // namespace tarnik::test
