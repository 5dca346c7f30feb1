#include "policy/capture_info.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "policy/testing/fixture.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr char kDirectory[] = "/var/support/tarnik";

// Captures of 12 bytes in the sensor's directory that last one hour.
class CaptureInfoTest : public PolicyTest {
 protected:
  CaptureInfoTest() {
    clean();
    platform.now = 1709625689;
  }
  ~CaptureInfoTest() override { clean(); }

  static void clean() {
    for (const auto& entry : std::filesystem::directory_iterator(kDirectory)) {
      std::filesystem::remove_all(entry);
    }
  }
  static std::string inDirectory(const std::string& name) {
    return std::string(kDirectory) + "/" + name;
  }
  static CaptureInfo capture(std::uint32_t id, const std::string& policy, std::int64_t flow,
                             const std::string& name = "capture.pcap") {
    CaptureInfo info;
    info.startTime = 1709622089;
    info.set(inDirectory(name), id, policy, flow);
    writeFile(info.capturePath, "twelve bytes");
    return info;
  }
  // What fini makes of a capture.
  static std::string infoOf(CaptureInfo info) {
    EXPECT_TRUE(fini(info));
    return readFile(info.infoPath).value_or("(no file)");
  }
};

constexpr char kTimes[] = "time.start=1709622089\ntime.end=1709625689\ntime.format=utc\n";

TEST_F(CaptureInfoTest, BeginsEmpty) {
  const CaptureInfo info;
  EXPECT_EQ(info.infoPath, "");
  EXPECT_EQ(info.capturePath, "");
  EXPECT_EQ(info.startTime, 0);
  EXPECT_EQ(info.endTime, 0);
  EXPECT_EQ(info.timeFormat, "utc");
  EXPECT_EQ(info.policyId, 0u);
  EXPECT_EQ(info.policyName, "");
}

TEST_F(CaptureInfoTest, InfoPathIsTheCapturesUpToItsFirstPcap) {
  const std::pair<const char*, const char*> cases[] = {
      {"/x/a.pcap", "/x/a.info"},
      {"/x/a.pcap.pcap", "/x/a.info"},
      {"/x/a", "/x/a.info"},
      {"/x/a.PCAP", "/x/a.PCAP.info"},
      {"/x/a.pcapng", "/x/a.info"},
      {"/x/apcap", "/x/apcap.info"},
      {"/x.pcap/a.pcap", "/x.info"},
      {"", ".info"},
      {"/x/ips.a.pcapper.0.pcap", "/x/ips.a.info"}};
  for (const auto& [capturePath, infoPath] : cases) {
    CaptureInfo info;
    info.startTime = 5;
    info.set(capturePath, 4294967295, "name", -3);
    EXPECT_EQ(info.infoPath, infoPath);
    EXPECT_EQ(info.capturePath, capturePath);
    EXPECT_EQ(info.policyId, 4294967295);
    EXPECT_EQ(info.policyName, "name");
    EXPECT_EQ(info.flowId, -3);
    EXPECT_EQ(info.startTime, 5);
  }
}

TEST_F(CaptureInfoTest, IpsCaptureByteByByte) {
  writeFile(inDirectory("template.ips"), "ips.rule.a=tarnik: all\nlast line without an end");
  CaptureInfo info = capture(65536, "WORM two", 77);
  EXPECT_TRUE(fini(info));
  EXPECT_EQ(info.endTime, 1709625689);
  EXPECT_THAT(readFile(inDirectory("capture.info")),
              Optional("ips.rule.a=tarnik: all\nlast line without an end" + std::string(kTimes) +
                       "ips.issue.id=65536\nips.issue.name=WORM two\nips.flow.id=77\n"
                       "file.size=12"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureInfoTest, NapCaptureByteByByte) {
  writeFile(inDirectory("template.ips"), "wrong=1\n");
  writeFile(inDirectory("template.nap.6f9a"), "acl.rule=1\n");
  EXPECT_EQ(infoOf(capture(5, "6f9a", 77)),
            "acl.rule=1\n" + std::string(kTimes) +
                "nap.priority=5\nnap.uuid=6f9a\nnap.flow.id=77\nfile.size=12");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureInfoTest, IdsAtTheClassBoundariesAndTheSignChange) {
  writeFile(inDirectory("template.ips"), "ips=1\n");
  writeFile(inDirectory("template.nap.name"), "nap=1\n");
  const std::pair<std::uint32_t, const char*> naps[] = {
      {0, "0"}, {1, "1"}, {65534, "65534"}, {65535, "65535"}};
  for (const auto& [id, text] : naps) {
    EXPECT_EQ(infoOf(capture(id, "name", 1)), "nap=1\n" + std::string(kTimes) +
                                                  "nap.priority=" + text +
                                                  "\nnap.uuid=name\nnap.flow.id=1\nfile.size=12");
  }
  const std::pair<std::uint32_t, const char*> issues[] = {{65536, "65536"},
                                                          {2147483647, "2147483647"},
                                                          {2147483648, "-2147483648"},
                                                          {4294967295, "-1"}};
  for (const auto& [id, text] : issues) {
    EXPECT_EQ(infoOf(capture(id, "name", 1)),
              "ips=1\n" + std::string(kTimes) + "ips.issue.id=" + text +
                  "\nips.issue.name=name\nips.flow.id=1\nfile.size=12");
  }
}

TEST_F(CaptureInfoTest, FlowIdsAreSigned) {
  const std::pair<std::uint64_t, const char*> flows[] = {
      {0, "0"},
      {0x7fffffffffffffff, "9223372036854775807"},
      {0x8000000000000000, "-9223372036854775808"},
      {0xffffffffffffffff, "-1"}};
  for (const auto& [flow, text] : flows) {
    std::filesystem::remove(inDirectory("capture.info"));
    EXPECT_EQ(infoOf(capture(70000, "name", static_cast<std::int64_t>(flow))),
              std::string(kTimes) + "ips.issue.id=70000\nips.issue.name=name\nips.flow.id=" + text +
                  "\nfile.size=12");
    std::filesystem::remove(inDirectory("capture.info"));
    EXPECT_EQ(infoOf(capture(7, "name", static_cast<std::int64_t>(flow))),
              std::string(kTimes) + "nap.priority=7\nnap.uuid=name\nnap.flow.id=" + text +
                  "\nfile.size=12");
  }
}

TEST_F(CaptureInfoTest, TimesAreUnsigned) {
  CaptureInfo info = capture(7, "name", 1);
  info.startTime = -1;
  info.timeFormat = "other";
  platform.now = 0;
  EXPECT_EQ(infoOf(info),
            "time.start=18446744073709551615\ntime.end=0\ntime.format=other\n"
            "nap.priority=7\nnap.uuid=name\nnap.flow.id=1\nfile.size=12");
}

TEST_F(CaptureInfoTest, MissingTemplateLeavesItsLinesOut) {
  EXPECT_EQ(infoOf(capture(65535, "6f9a", 1)),
            std::string(kTimes) + "nap.priority=65535\nnap.uuid=6f9a\nnap.flow.id=1\nfile.size=12");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CaptureInfoTest, WithoutATemplateAnExistingInfoFileGrows) {
  writeFile(inDirectory("capture.info"), "before\n");
  EXPECT_EQ(infoOf(capture(5, "6f9a", 1)),
            "before\n" + std::string(kTimes) +
                "nap.priority=5\nnap.uuid=6f9a\nnap.flow.id=1\nfile.size=12");
}

TEST_F(CaptureInfoTest, WithoutAShellThePolicyIsUnknown) {
  writeFile(inDirectory("template.ips"), "ips=1\n");
  platform.noShell = true;
  EXPECT_EQ(infoOf(capture(65536, "name", 1)),
            "policy=unknown\n" + std::string(kTimes) +
                "ips.issue.id=65536\nips.issue.name=name\nips.flow.id=1\nfile.size=12");
}

TEST_F(CaptureInfoTest, UnwritableInfoFileFails) {
  CaptureInfo info = capture(65536, "name", 1);
  info.infoPath = inDirectory("missing/capture.info");
  EXPECT_FALSE(fini(info));
  EXPECT_EQ(info.endTime, 1709625689);
  info.infoPath = kDirectory;
  EXPECT_FALSE(fini(info));
  EXPECT_THAT(logLines(),
              ElementsAre(errorLine("Error: fini: Failed to open: "
                                    "/var/support/tarnik/missing/capture.info, errno=2"),
                          errorLine("Error: fini: Failed to open: /var/support/tarnik, errno=21")));
}

TEST_F(CaptureInfoTest, PipeInPlaceOfTheInfoFileFails) {
  writeFile(inDirectory("template.ips"), "ips=1\n");
  CaptureInfo info = capture(65536, "name", 1);
  ASSERT_EQ(mkfifo(info.infoPath.c_str(), 0600), 0);
  EXPECT_FALSE(fini(info));
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: fini: Failed to open: "
                                                "/var/support/tarnik/capture.info, errno=6")));
}

TEST_F(CaptureInfoTest, FullDiskCutsTheInfoFileShortAndIsTold) {
  const CaptureInfo info = capture(5, "6f9a", 1);
  {
    const FullDisk full(25);
    EXPECT_EQ(infoOf(info), "time.start=1709622089\ntim");
  }
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: fini: Failed to write: "
                                                "/var/support/tarnik/capture.info, errno=27")));
}

TEST_F(CaptureInfoTest, EndTimeAndDebugLineComeBeforeTheCopyAndTheSizeBehindIt) {
  CaptureInfo info = capture(5, "6f9a", 1);
  setDebugLevel(4);
  platform.onCommand = [&info] {
    EXPECT_EQ(logLines().size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(info.infoPath));
    EXPECT_EQ(info.endTime, 1709625689);
    platform.now = 1709629999;
    std::filesystem::resize_file(info.capturePath, 5);
  };
  EXPECT_TRUE(fini(info));
  EXPECT_EQ(platform.commands.size(), 1u);
  EXPECT_THAT(
      readFile(info.infoPath),
      Optional(std::string(kTimes) + "nap.priority=5\nnap.uuid=6f9a\nnap.flow.id=1\nfile.size=5"));
}

// A capture that no rule or issue started is described like one of a rule without a name.
TEST_F(CaptureInfoTest, NamelessCapture) {
  writeFile(inDirectory("template.nap."), "nap=1\n");
  for (const std::uint32_t id : {0u, 65535u}) {
    EXPECT_EQ(infoOf(capture(id, "", 1)), "nap=1\n" + std::string(kTimes) +
                                              "nap.priority=" + std::to_string(id) +
                                              "\nnap.uuid=\nnap.flow.id=1\nfile.size=12");
  }
  EXPECT_EQ(platform.commands[0],
            "cp /var/support/tarnik/template.nap. /var/support/tarnik/capture.info");
}

TEST_F(CaptureInfoTest, GoneCaptureHasNoSize) {
  const CaptureInfo info = capture(5, "6f9a", 1);
  std::filesystem::remove(info.capturePath);
  EXPECT_EQ(infoOf(info), std::string(kTimes) +
                              "nap.priority=5\nnap.uuid=6f9a\nnap.flow.id=1\nfile.size=unknown");
  EXPECT_THAT(logLines(), ElementsAre(errorLine("Error: fini: Failed to determine file size "
                                                "[/var/support/tarnik/capture.pcap]: errno=2\n")));
}

TEST_F(CaptureInfoTest, SizeOfALargeCapture) {
  const CaptureInfo info = capture(5, "6f9a", 1);
  ASSERT_EQ(truncate(info.capturePath.c_str(), 5000000000), 0);
  EXPECT_THAT(infoOf(info), testing::EndsWith("\nfile.size=5000000000"));
}

TEST_F(CaptureInfoTest, DebugLines) {
  const LogLine executing = debugLine(
      "Debug: fini: Executing [cp /var/support/tarnik/template.nap.6f9a "
      "/var/support/tarnik/capture.info]");
  writeFile(inDirectory("template.nap.6f9a"), "");
  setDebugLevel(1);
  infoOf(capture(5, "6f9a", 1));
  EXPECT_THAT(logLines(), ElementsAre(executing));
  clearLog();
  setDebugLevel(3);
  infoOf(capture(5, "6f9a", 1));
  EXPECT_THAT(logLines(), ElementsAre(executing));
  clearLog();
  setDebugLevel(4);
  infoOf(capture(5, "6f9a", 1));
  EXPECT_THAT(logLines(), ElementsAre(executing, debugLine("Debug: fini: File size=12\n")));
  clearLog();
  infoOf(capture(65536, "6f9a", 1));
  EXPECT_THAT(logLines().front(), debugLine("Debug: fini: Executing [cp "
                                            "/var/support/tarnik/template.ips "
                                            "/var/support/tarnik/capture.info]"));
}

}  // namespace
}  // namespace tarnik::test
