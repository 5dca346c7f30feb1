#include "policy/template_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/owned.h"
#include "policy/capture_info.h"
#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

// Names that would make the shell create a file named "ran", or change the meaning of the command.
const std::string kHostileNames[] = {"x; echo >ran",
                                     "x$(echo >ran)",
                                     "x`echo >ran`",
                                     "x || echo >ran ||",
                                     "x | echo >ran",
                                     "x > ran",
                                     "x\necho >ran\n",
                                     "x' ; echo >ran '",
                                     "x\" ; echo >ran \"",
                                     "x -t ran",
                                     "$HOME",
                                     "~",
                                     "*",
                                     "?[a-z]{1,2}",
                                     "#x",
                                     "x\\",
                                     "!!",
                                     "x\ty",
                                     "gr\xc3\xbc\xc3\x9f",
                                     "x^y(z)<w>"};

class TemplateCopyTest : public PolicyTest {
 protected:
  TemplateCopyTest() {
    EXPECT_EQ(chdir(path("").c_str()), 0);  // where "ran" would appear
  }
  ~TemplateCopyTest() override { EXPECT_EQ(chdir("/"), 0); }
};

TEST_F(TemplateCopyTest, PlainPathsGoToTheShellAsTheyAre) {
  const std::string from = path("template.nap.ABCxyz-019_@%+=,:.");
  const std::string to = path("20240305-070809.ips.X_Y.1.info");
  writeFile(from, "a=1\n");
  EXPECT_EQ(copyTemplate(from, to), 0);
  EXPECT_THAT(platform.commands, ElementsAre("cp " + from + " " + to));
  EXPECT_THAT(readFile(to), Optional(std::string("a=1\n")));
}

TEST_F(TemplateCopyTest, TheShellsResultIsReturned) {
  EXPECT_GT(copyTemplate(path("missing"), path("info")), 0);
  platform.noShell = true;
  EXPECT_EQ(copyTemplate(path("missing"), path("info")), -1);
}

TEST_F(TemplateCopyTest, EveryOtherCharacterKeepsAPathFromTheShell) {
  const std::string plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:@%+=,-";
  for (int code = 1; code < 256; ++code) {
    const char character = static_cast<char>(code);
    const std::string odd = path(std::string("x") + character);
    platform.commands.clear();
    (void)copyTemplate(path("missing"), odd);
    (void)copyTemplate(odd, path("info"));
    const std::size_t expected = plain.find(character) != std::string::npos ? 2 : 0;
    EXPECT_EQ(platform.commands.size(), expected) << code;
  }
}

TEST_F(TemplateCopyTest, HostileNamesRunNothingAndAreCopied) {
  for (const std::string& name : kHostileNames) {
    writeFile(path(name), "a=1\n");
    setDebugLevel(1);
    clearLog();
    EXPECT_EQ(copyTemplate(path(name), path(name + ".info")), 0);
    EXPECT_THAT(readFile(path(name + ".info")), Optional(std::string("a=1\n"))) << name;
    EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: fini: Executing [cp " + path(name) + " " +
                                                  path(name + ".info") + "]")));
  }
  EXPECT_THAT(platform.commands, IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("ran"));
}

// The same names given to a shell, to show that the test above can fail.
TEST_F(TemplateCopyTest, HostileNamesWouldRun) {
  int ran = 0;
  for (const std::string& name : kHostileNames) {
    (void)std::system(("cp " + path(name) + " y").c_str());
    ran += std::filesystem::remove("ran") ? 1 : 0;
  }
  EXPECT_EQ(ran, 7);
}

TEST_F(TemplateCopyTest, HostileCaptureStillGetsItsTemplateLines) {
  const std::string directory = "/var/support/tarnik/";
  for (const std::string& name : kHostileNames) {
    CaptureInfo ips;
    ips.set(directory + "20240305-070809.ips." + name + ".1.pcap", 65536, name, 1);
    CaptureInfo nap;
    nap.set(directory + "20240305-070809.naprule-5.1.pcap", 5, name, 1);
    writeFile(directory + "template.ips", "ips=1\n");
    writeFile(directory + "template.nap." + name, "nap=1\n");
    for (CaptureInfo* info : {&ips, &nap}) {
      EXPECT_TRUE(fini(*info));
      EXPECT_THAT(readFile(info->infoPath).value_or(""),
                  testing::StartsWith(info == &ips ? "ips=1\ntime.start=" : "nap=1\ntime.start="))
          << name;
      std::filesystem::remove(info->infoPath);
    }
    std::filesystem::remove(directory + "template.nap." + name);
  }
  std::filesystem::remove(directory + "template.ips");
  EXPECT_THAT(platform.commands, IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("ran"));
}

// ---- The copy made here has the effect of cp ------------------------------------------------

// Prepares source and target once for cp ("plain") and once for our copy ("o d d"), and expects the
// same file with the same mode both times.
class LikeCp : public TemplateCopyTest {
 protected:
  template <typename Prepare>
  void expectSame(Prepare prepare) {
    std::optional<std::string> contents[2];
    mode_t modes[2] = {0, 0};
    int which = 0;
    for (const std::string name : {"plain", "o d d"}) {
      const std::string from = path(name);
      const std::string to = path(name + ".info");
      prepare(from, to);
      (void)copyTemplate(from, to);
      struct stat status {};
      if (lstat(to.c_str(), &status) == 0) {
        modes[which] = status.st_mode;
      }
      contents[which] = std::filesystem::is_directory(to) ? std::nullopt : readFile(to);
      ++which;
    }
    EXPECT_EQ(platform.commands.size(), 1u);
    EXPECT_EQ(contents[0], contents[1]);
    EXPECT_EQ(modes[0], modes[1]);
  }
};

TEST_F(LikeCp, NewFileHasContentAndMode) {
  for (const mode_t mode : {0666u, 0600u, 0444u, 0755u}) {
    for (const mode_t mask : {0u, 022u, 077u}) {
      platform.commands.clear();
      const mode_t before = umask(mask);
      expectSame([mode](const std::string& from, const std::string& to) {
        std::filesystem::remove(from);
        std::filesystem::remove(to);
        writeFile(from, "a=1\n");
        ASSERT_EQ(chmod(from.c_str(), mode), 0);
      });
      umask(before);
    }
  }
}

TEST_F(LikeCp, LargeFileWithManyByteValues) {
  std::string content;
  for (int i = 0; i < 300000; ++i) {
    content += static_cast<char>(i % 251);
  }
  expectSame([&content](const std::string& from, const std::string&) { writeFile(from, content); });
  EXPECT_EQ(readFile(path("o d d.info")), content);
}

TEST_F(LikeCp, ExistingFileIsReplacedAndKeepsItsMode) {
  expectSame([](const std::string& from, const std::string& to) {
    writeFile(from, "new\n");
    writeFile(to, "old and longer\n");
    ASSERT_EQ(chmod(to.c_str(), 0640), 0);
  });
  EXPECT_THAT(readFile(path("o d d.info")), Optional(std::string("new\n")));
}

TEST_F(LikeCp, EmptyTemplateMakesAnEmptyFile) {
  expectSame([](const std::string& from, const std::string& to) {
    writeFile(from, "");
    writeFile(to, "old\n");
  });
  EXPECT_THAT(readFile(path("o d d.info")), Optional(std::string()));
}

TEST_F(LikeCp, MissingTemplateLeavesTheTarget) {
  expectSame([](const std::string&, const std::string& to) { writeFile(to, "old\n"); });
  EXPECT_THAT(readFile(path("o d d.info")), Optional(std::string("old\n")));
}

TEST_F(LikeCp, DirectoryIsNoTemplate) {
  expectSame(
      [](const std::string& from, const std::string&) { std::filesystem::create_directory(from); });
  EXPECT_EQ(readFile(path("o d d.info")), std::nullopt);
}

TEST_F(LikeCp, LinkIsWrittenThrough) {
  expectSame([](const std::string& from, const std::string& to) {
    writeFile(from, "new\n");
    writeFile(to + ".real", "old\n");
    std::filesystem::create_symlink(to + ".real", to);
  });
  EXPECT_THAT(readFile(path("o d d.info.real")), Optional(std::string("new\n")));
}

TEST_F(LikeCp, DanglingLinkIsLeft) {
  expectSame([](const std::string& from, const std::string& to) {
    writeFile(from, "new\n");
    std::filesystem::create_symlink(to + ".real", to);
  });
  EXPECT_EQ(readFile(path("o d d.info.real")), std::nullopt);
}

TEST_F(LikeCp, FileIsNotCopiedOntoItself) {
  expectSame([](const std::string& from, const std::string& to) {
    writeFile(from, "kept\n");
    std::filesystem::create_symlink(from, to);
  });
  EXPECT_THAT(readFile(path("o d d")), Optional(std::string("kept\n")));
}

TEST_F(LikeCp, MissingDirectoryIsNoTarget) {
  writeFile(path("o d d"), "a=1\n");
  EXPECT_EQ(copyTemplate(path("o d d"), path("missing/info")), 0);
  EXPECT_FALSE(std::filesystem::exists(path("missing")));
}

TEST_F(TemplateCopyTest, PipeIsNoTemplateAndNothingWaits) {
  for (const char* name : {"pipe", "a pipe"}) {
    ASSERT_EQ(mkfifo(path(name).c_str(), 0600), 0);
    EXPECT_EQ(copyTemplate(path(name), path("info")), 0);
    EXPECT_FALSE(std::filesystem::exists(path("info")));
  }
  EXPECT_THAT(platform.commands, IsEmpty());
}

TEST_F(TemplateCopyTest, PipeWithoutAReaderIsNoTargetAndNothingWaits) {
  writeFile(path("template"), "a=1\n");
  setDebugLevel(1);
  for (const char* name : {"pipe", "a pipe"}) {
    clearLog();
    ASSERT_EQ(mkfifo(path(name).c_str(), 0600), 0);
    EXPECT_EQ(copyTemplate(path("template"), path(name)), 0);
    EXPECT_THAT(logLines(), ElementsAre(debugLine("Debug: fini: Executing [cp " + path("template") +
                                                  " " + path(name) + "]")));
  }
  EXPECT_THAT(platform.commands, IsEmpty());
}

TEST_F(TemplateCopyTest, ReaderOfAPipeGetsTheTemplate) {
  writeFile(path("template"), "a=1\n");
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  const OwnedFd reader(open(path("pipe").c_str(), O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(copyTemplate(path("template"), path("pipe")), 0);
  char content[8] = {};
  EXPECT_EQ(read(reader.get(), content, sizeof content), 4);
  EXPECT_STREQ(content, "a=1\n");
}

}  // namespace
}  // namespace tarnik::test
