// The commands that read files: the statistics area and the captures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "base/testing/files.h"
#include "tools/tarnikctl/testing/tarnikctl.h"

namespace tarnik::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace fs = std::filesystem;
using nlohmann::json;

// A statistics area as the platform writes it.
struct Area {
  OrloStatsHeader header{};
  std::array<std::uint64_t, 6> counters = {10, 2000, 7, 5, 2, 1};
};

// An area whose owner is this process.
Area validArea() {
  Area area;
  area.header.magic = ORLO_STATS_MAGIC;
  area.header.headerSize = sizeof area.header;
  area.header.size = sizeof area.counters;
  area.header.ownerPid = ::getpid();
  std::ifstream stat("/proc/self/stat");
  std::string field;
  for (int number = 1; number <= 22; ++number) {
    stat >> field;
  }
  area.header.ownerStart = std::stoull(field);
  return area;
}

// Writes the first `size` bytes of the area. A reader at the same time sees the old or the new
// area.
void write(const Area& area, std::size_t size = sizeof(Area)) {
  fs::create_directories(ORLO_STATS_DIR);
  writeFile(ORLO_STATS_DIR "/new", {reinterpret_cast<const char*>(&area), size});
  fs::rename(ORLO_STATS_DIR "/new", ORLO_STATS_DIR "/tarnik");
}

TEST(TarnikctlStats, PrintsTextJsonAndPrometheus) {
  write(validArea());
  EXPECT_EQ(outputOf("stats"),
            "files_used_sum                    10\n"
            "disk_used_sum                   2000\n"
            "frames_read                        7\n"
            "frames_accepted                    5\n"
            "frames_refused                     2\n"
            "frames_invalid                     1\n");
  EXPECT_EQ(outputOf("stats --json"),
            "{\"files_used_sum\":10,\"disk_used_sum\":2000,\"frames_read\":7,\"frames_accepted\":5,"
            "\"frames_refused\":2,\"frames_invalid\":1,\"pid\":" +
                std::to_string(::getpid()) + ",\"running\":true}\n");
  const std::string exposition = outputOf("stats --prometheus");
  EXPECT_THAT(exposition, HasSubstr("# TYPE tarnik_frames_refused_total counter\n"
                                    "tarnik_frames_refused_total 2\n"));
  EXPECT_THAT(exposition, HasSubstr("\ntarnik_up 1\n"));
}

TEST(TarnikctlStats, SaysThatTheDaemonHasEnded) {
  Area area = validArea();
  area.header.ownerStart += 1;  // another process has the process id now
  write(area);
  const Finished run = tarnikctl("stats");
  EXPECT_EQ(run.ending, kSucceeded);
  EXPECT_THAT(run.output, HasSubstr("frames_read "));
  EXPECT_THAT(run.errors, HasSubstr("has ended; these are its last numbers"));
  EXPECT_THAT(outputOf("stats --json"), HasSubstr("\"running\":false"));
  EXPECT_THAT(outputOf("stats --prometheus"), HasSubstr("\ntarnik_up 0\n"));
  expectError("stats --watch", 3, "has ended");
}

TEST(TarnikctlStats, RefusesAFileThatIsNotAStatisticsArea) {
  for (const std::size_t size : {std::size_t{0}, sizeof(OrloStatsHeader), sizeof(Area) - 1}) {
    write(validArea(), size);
    expectError("stats", 1, "is not a statistics area");
  }
  Area area = validArea();
  area.header.magic ^= 1;
  write(area);
  expectError("stats", 1, "is not a statistics area");
  area = validArea();
  area.header.size = 47;
  write(area);
  expectError("stats", 1, "is not a statistics area");
}

TEST(TarnikctlStats, WatchPrintsRates) {
  Area area = validArea();
  write(area);
  Process watching(tarnikctlCommand("stats --watch"));
  const std::string idle = "read/s 0.0  accepted/s 0.0  refused/s 0.0  invalid/s 0.0\n";
  ASSERT_TRUE(eventually([&] { return watching.output() == idle; }));
  area.counters = {1010, 202000, 107, 105, 2, 1};
  write(area);
  std::string line;
  ASSERT_TRUE(eventually([&] {
    const std::string output = watching.output();
    const std::size_t busy = output.find("  files");
    if (busy == std::string::npos || output.find('\n', busy) == std::string::npos) {
      return false;
    }
    const std::size_t begin = output.rfind('\n', busy) + 1;
    line = output.substr(begin, output.find('\n', busy) - begin);
    return true;
  }));
  double read = 0;
  double accepted = 0;
  char rest[128] = "";
  ASSERT_EQ(
      std::sscanf(line.c_str(), "read/s %lf accepted/s %lf %127[^\n]", &read, &accepted, rest), 3);
  // 100 frames in a second or more between the two readings.
  EXPECT_GT(read, 0);
  EXPECT_LE(read, 100);
  EXPECT_EQ(read, accepted);
  EXPECT_STREQ(rest, "refused/s 0.0  invalid/s 0.0  files 10.0  disk 2000.0 B");
}

TEST(TarnikctlStats, WatchPrintsCountersWhenAFormatIsGiven) {
  write(validArea());
  const std::string once = outputOf("stats --json");
  Process watching(tarnikctlCommand("stats --watch --json"));
  EXPECT_TRUE(eventually([&] { return watching.output() == once + once; }));
}

class TarnikctlList : public ::testing::Test {
 protected:
  TarnikctlList() { fs::create_directories(kDirectory); }
  ~TarnikctlList() override { fs::remove_all(kDirectory); }

  static constexpr char kDirectory[] = "/tmp/captures/";

  static std::string table() { return outputOf(std::string("list ") + kDirectory); }
  static json listed() { return json::parse(outputOf(std::string("list --json ") + kDirectory)); }

  static void putWord(std::string& out, std::uint32_t word) {
    for (int shift = 0; shift < 32; shift += 8) {
      out += static_cast<char>(word >> shift);
    }
  }

  // A capture of `frames` frames of 60 bytes, one every half second.
  static std::string pcap(unsigned frames) {
    std::string out("\xd4\xc3\xb2\xa1\x02\x00\x04\x00", 8);
    for (const std::uint32_t word : {0u, 0u, 1500u, 1u}) {
      putWord(out, word);
    }
    for (unsigned i = 0; i < frames; ++i) {
      for (const std::uint32_t word : {1700000000 + i / 2, i % 2 * 500000, 60u, 60u}) {
        putWord(out, word);
      }
      std::string frame("\x02\0\0\0\0\1\x02\0\0\0\0\2\x08\0\x45\0\0\x2e\0\0\0\0\x40\x11\0\0", 26);
      frame += std::string("\xc6\x12\0\1\xc6\x12\0\2\x27\x10\0\x35\0\x1a\0\0", 16);
      frame.resize(60);
      out += frame;
    }
    return out;
  }

  static void write(const std::string& name, const std::string& text) {
    writeFile(kDirectory + name, text);
  }

  static std::string info(const std::string& policy, std::size_t size) {
    return "some.policy=text\ntime.start=1\ntime.end=2\ntime.format=utc\n" + policy +
           "file.size=" + std::to_string(size);
  }
};

TEST_F(TarnikctlList, DescribesEachCapture) {
  const std::string whole = pcap(4);
  write("1.ips.X.0.pcap", whole);
  write("1.ips.X.0.info",
        info("ips.issue.id=-2\nips.issue.name=X\nips.flow.id=77\n", whole.size()));
  write("2.naprule-5.0.pcap", whole.substr(0, whole.size() - 1));
  write("2.naprule-5.0.info",
        info("nap.priority=5\nnap.uuid=u-u\nnap.flow.id=8\n", whole.size() - 1));
  write("3.unknown.0.pcap", whole);
  write("3.unknown.0.info", info("nap.priority=0\nnap.uuid=\nnap.flow.id=9\n", 1));
  write("4.ips.Y.0.pcap", pcap(0));
  write("5.ips.Z.0.pcap", "not a capture");
  write("abc", "a capture in progress");

  const std::string flow = "udp 198.18.0.1:10000 <-> 198.18.0.2:53";
  json list = listed();
  ASSERT_EQ(list.size(), 5U);
  EXPECT_NE(list[4]["ended"], "whole");
  EXPECT_EQ(list[4]["file"], "5.ips.Z.0.pcap");
  list.erase(4);
  const json whole1 = {{"file", "1.ips.X.0.pcap"},
                       {"trigger", "ips X (4294967294)"},
                       {"flow", flow},
                       {"flowId", "77"},
                       {"start", 1700000000},
                       {"frames", 4},
                       {"bytes", 240},
                       {"duration", 1.5},
                       {"ended", "whole"}};
  json truncated = whole1;
  truncated.update(
      {{"file", "2.naprule-5.0.pcap"},
       {"trigger", "nap 5 (u-u)"},
       {"flowId", "8"},
       {"frames", 3},
       {"bytes", 180},
       {"duration", 1.0},
       {"ended", "truncated dump file; tried to read 60 captured bytes, only got 59"}});
  json unknown = whole1;
  unknown.update({{"file", "3.unknown.0.pcap"},
                  {"trigger", "unknown"},
                  {"flowId", "9"},
                  {"ended", "size differs from info file"}});
  const json empty = {{"file", "4.ips.Y.0.pcap"},
                      {"trigger", ""},
                      {"flow", ""},
                      {"flowId", ""},
                      {"start", 0},
                      {"frames", 0},
                      {"bytes", 0},
                      {"duration", 0.0},
                      {"ended", "no info file"}};
  EXPECT_EQ(list, json({whole1, truncated, unknown, empty}));

  const std::string text = table();
  EXPECT_THAT(text, StartsWith("FILE "));
  EXPECT_THAT(text, HasSubstr("2023-11-14 22:13:20  ips X (4294967294)"));
  EXPECT_THAT(text, HasSubstr("  1.500  whole\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
}

TEST_F(TarnikctlList, PrintsFileNamesWithAnyBytes) {
  write("a\n\x1b[31m\"\\\xff\xc3\xa9.pcap", pcap(1));
  EXPECT_EQ(listed()[0]["file"], "a\n\x1b[31m\"\\\xef\xbf\xbd\xc3\xa9.pcap");
  EXPECT_THAT(table(), HasSubstr("\na??[31m\"\\?\xc3\xa9.pcap "));
}

TEST_F(TarnikctlList, SkipsWhatIsNotAFile) {
  write("a.pcap", pcap(1));
  ASSERT_EQ(::mkfifo((kDirectory + std::string("a.info")).c_str(), 0644), 0);
  ASSERT_EQ(::mkfifo((kDirectory + std::string("b.pcap")).c_str(), 0644), 0);
  fs::create_directory(kDirectory + std::string("c.pcap"));
  fs::create_symlink("nowhere", kDirectory + std::string("d.pcap"));
  const std::string text = table();
  EXPECT_THAT(text, HasSubstr("\na.pcap "));
  EXPECT_THAT(text, HasSubstr("  no info file\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(TarnikctlList, ListsTheCaptureDirectoryByDefault) {
  const std::string none = "FILE  TIME (UTC)  TRIGGER  FLOW  FRAMES  BYTES  SECONDS  ENDED\n";
  EXPECT_EQ(table(), none);
  fs::create_directories("/var/support/tarnik");
  EXPECT_EQ(outputOf("list"), none);
  expectError("list /nonexistent", 1, "cannot list /nonexistent: No such file");
}

}  // namespace
}  // namespace tarnik::test
