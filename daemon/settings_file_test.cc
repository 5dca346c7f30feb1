// Reading the settings file: which files are opened, where reading stops, and the calls to the
// platform's parser.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/owned.h"
#include "base/testing/files.h"
#include "daemon/settings.h"
#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

class SettingsFileTest : public DaemonTest {
 protected:
  int loadText(const std::string& text) {
    writeFile(path_, text);
    return load(getSettings(), path_.c_str());
  }
  void cannotBeOpened(int error) {
    const std::string failed =
        "<3>Error: load: Failed to open: " + path_ + ", errno=" + std::to_string(error);
    OrloLogDebugLevel = 0;
    sdk().clear();
    EXPECT_EQ(load(getSettings(), path_.c_str()), 1);
    EXPECT_EQ(sdk().entries(), Record{failed});
    OrloLogDebugLevel = 1;
    sdk().clear();
    EXPECT_EQ(load(getSettings(), path_.c_str()), 1);
    EXPECT_EQ(sdk().entries(), (Record{failed, "<7>Debug: load: Failed to open config: " + path_}));
  }

  const TempDir directory_;
  const std::string path_ = directory_ / "tarnik.conf";
};

TEST_F(SettingsFileTest, OnlyARegularFileIsOpened) {
  cannotBeOpened(ENOENT);
  ASSERT_EQ(::mkdir(path_.c_str(), 0755), 0);
  cannotBeOpened(EISDIR);
  std::remove(path_.c_str());
  ASSERT_EQ(::mkfifo(path_.c_str(), 0644), 0);
  cannotBeOpened(EINVAL);
  std::remove(path_.c_str());
  ASSERT_EQ(::symlink("/dev/zero", path_.c_str()), 0);
  cannotBeOpened(EINVAL);
  std::remove(path_.c_str());
  ASSERT_EQ(::symlink("/dev/null", path_.c_str()), 0);
  EXPECT_EQ(load(getSettings(), path_.c_str()), 0) << "an empty file";
}

TEST_F(SettingsFileTest, Unreadable) {
  constexpr uid_t kNobody = 65534;
  writeFile(path_, "tarnik.file.maxno=20\n");
  ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
  const uid_t self = ::geteuid();
  if (self == 0 && ::seteuid(kNobody) != 0) {
    GTEST_SKIP() << "root cannot become another user here";
  }
  cannotBeOpened(EACCES);
  ASSERT_EQ(::seteuid(self), 0);
}

TEST_F(SettingsFileTest, ReadsToTheEndAndReleasesTheParser) {
  EXPECT_EQ(loadText("tarnik.file.maxno=20\nother.key=1\n"), 0);
  EXPECT_THAT(sdk().entries(),
              ElementsAre("OrloTuningAlloc(stream)", "OrloTuningParseLine()",
                          "OrloParseInt(\"20\", 10, 20000)", "OrloTuningParseLine()",
                          "OrloTuningParseLine()", "OrloTuningRelease()"));
}

TEST_F(SettingsFileTest, LinesWithoutASettingAreSkippedWhateverTheirCode) {
  EXPECT_EQ(loadText("?1\n?-2\n?255\ntarnik.file.maxno=20\n?2147483647\n"), 0);
  EXPECT_EQ(getSettings().file.maxno, 20);
}

TEST_F(SettingsFileTest, MinusOneIsTheEnd) {
  EXPECT_EQ(loadText("tarnik.file.maxno=20\n?-1\ntarnik.file.maxno=30\n"), 0);
  EXPECT_EQ(getSettings().file.maxno, 20);
}

TEST_F(SettingsFileTest, StopsAtARejectedLineAndKeepsTheEarlierOnes) {
  EXPECT_EQ(loadText("tarnik.file.maxno=20\ntarnik.file.maxsize=1023\ntarnik.brund.qsize=60\n"), 1);
  EXPECT_EQ(getSettings().file.maxno, 20);
  EXPECT_EQ(getSettings().file.maxsize, 1048576);
  EXPECT_EQ(getSettings().brund.qsize, 5000);
  EXPECT_THAT(
      sdk().entries(),
      ElementsAre("OrloTuningAlloc(stream)", "OrloTuningParseLine()",
                  "OrloParseInt(\"20\", 10, 20000)", "OrloTuningParseLine()",
                  "OrloParseInt(\"1023\", 1024, 10485760)",
                  "<3>Error: loadTarnikCfg: Invalid value: maxsize=1023", "OrloTuningRelease()"));
}

TEST_F(SettingsFileTest, TheDebugLineOfARejectionComesBeforeTheRelease) {
  OrloLogDebugLevel = 1;
  EXPECT_EQ(loadText("tarnik.enabled=maybe\n"), 1);
  EXPECT_THAT(
      sdk().entries(),
      ElementsAre("OrloTuningAlloc(stream)", "OrloTuningParseLine()", "OrloParseBool(\"maybe\")",
                  "<3>Error: loadTarnikCfg: Invalid value: enabled=maybe",
                  "<7>Debug: load: Failed to load base cfg", "OrloTuningRelease()"));
}

TEST_F(SettingsFileTest, WithoutAParserTheLoadFails) {
  sdk().failWhere("OrloTuningAlloc");
  EXPECT_EQ(loadText("tarnik.file.maxno=20\n"), 1);
  EXPECT_THAT(sdk().entries(), ElementsAre("OrloTuningAlloc(stream)"));
  sdk().clear();
  OrloLogDebugLevel = 1;
  EXPECT_EQ(load(getSettings(), path_.c_str()), 1);
  EXPECT_THAT(sdk().entries(), ElementsAre("OrloTuningAlloc(stream)",
                                           "<7>Debug: load: Failed to allocate orlo tuning"));
  EXPECT_EQ(getSettings().file.maxno, 1000);
}

// /proc/self/mem is a regular file whose first byte cannot be read.
TEST_F(SettingsFileTest, AReadErrorIsAFailure) {
  EXPECT_EQ(load(getSettings(), "/proc/self/mem"), 1);
  EXPECT_EQ(sdk().entries().back(), "<3>Error: load: Failed to read: /proc/self/mem, errno=5");
}

TEST_F(SettingsFileTest, NoDescriptorStaysOpen) {
  const OwnedFd before(::dup(0));
  EXPECT_EQ(loadText("tarnik.file.maxno=20\n"), 0);
  EXPECT_EQ(loadText("tarnik.file.maxno=9\n"), 1);
  sdk().failWhere("OrloTuningAlloc");
  EXPECT_EQ(loadText(""), 1);
  const OwnedFd after(::dup(0));
  EXPECT_EQ(after.get(), before.get() + 1);
}

}  // namespace
}  // namespace tarnik::test
