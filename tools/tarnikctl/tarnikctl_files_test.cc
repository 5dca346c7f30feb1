// What tarnikctl tells about files: the statistics area and the captures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tools/tarnikctl/testing/tarnikctl.h"

namespace tarnik::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace fs = std::filesystem;

// An area as the platform lays it out, owned by this process.
class TarnikctlStats : public ::testing::Test {
 protected:
  struct Area {
    OrloStatsHeader header{};
    std::array<std::uint64_t, 6> counters = {10, 2000, 7, 5, 2, 1};
  };

  static void write(const Area& area, std::size_t size = sizeof(Area)) {
    fs::create_directories(ORLO_STATS_DIR);
    std::ofstream(ORLO_STATS_DIR "/tarnik", std::ios::binary)
        .write(reinterpret_cast<const char*>(&area), static_cast<std::streamsize>(size));
  }

  static Area good() {
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
};

TEST_F(TarnikctlStats, EveryForm) {
  write(good());
  EXPECT_EQ(tarnikctl("stats").output,
            "files_used_sum                    10\n"
            "disk_used_sum                   2000\n"
            "frames_read                        7\n"
            "frames_accepted                    5\n"
            "frames_refused                     2\n"
            "frames_invalid                     1\n");
  EXPECT_EQ(tarnikctl("stats --json").output,
            "{\"files_used_sum\":10,\"disk_used_sum\":2000,\"frames_read\":7,\"frames_accepted\":5,"
            "\"frames_refused\":2,\"frames_invalid\":1,\"pid\":" +
                std::to_string(::getpid()) + ",\"running\":true}\n");
  const std::string exposition = tarnikctl("stats --prometheus").output;
  EXPECT_THAT(exposition, HasSubstr("# TYPE tarnik_frames_refused_total counter\n"
                                    "tarnik_frames_refused_total 2\n"));
  EXPECT_THAT(exposition, HasSubstr("\ntarnik_up 1\n"));
}

TEST_F(TarnikctlStats, AnOwnerThatHasEnded) {
  Area area = good();
  area.header.ownerStart += 1;  // the process id was given to another since
  write(area);
  const Outcome run = tarnikctl("stats");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("which has ended"));
  EXPECT_THAT(tarnikctl("stats --json").output, HasSubstr("\"running\":false"));
  EXPECT_THAT(tarnikctl("stats --prometheus").output, HasSubstr("\ntarnik_up 0\n"));
  expectOneLine(tarnikctl("stats --watch"), 3, "has ended");
}

TEST_F(TarnikctlStats, WhatIsNoArea) {
  for (const std::size_t size : {std::size_t{0}, sizeof(OrloStatsHeader), sizeof(Area) - 1}) {
    write(good(), size);
    expectOneLine(tarnikctl("stats"), 1, "no statistics area");
  }
  Area area = good();
  area.header.magic ^= 1;
  write(area);
  expectOneLine(tarnikctl("stats"), 1, "no statistics area");
  area = good();
  area.header.size = 47;
  write(area);
  expectOneLine(tarnikctl("stats"), 1, "no statistics area");
}

TEST_F(TarnikctlStats, WatchingShowsRates) {
  Area area = good();
  write(area);
  // What a reader sees who ends it after some seconds.
  std::FILE* pipe = ::popen("timeout 10 " TARNIKCTL_PATH " stats --watch", "r");
  std::array<char, 256> line{};
  ASSERT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
  EXPECT_STREQ(line.data(), "read/s 0.0  accepted/s 0.0  refused/s 0.0  invalid/s 0.0\n");
  area.counters = {1010, 202000, 107, 105, 2, 1};
  std::fstream(ORLO_STATS_DIR "/tarnik", std::ios::in | std::ios::out | std::ios::binary)
      .write(reinterpret_cast<const char*>(&area), sizeof area);
  while (std::strstr(line.data(), "files") == nullptr) {
    ASSERT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
  }
  double read = 0;
  double accepted = 0;
  char rest[128] = "";
  EXPECT_EQ(std::sscanf(line.data(), "read/s %lf accepted/s %lf %127[^\n]", &read, &accepted, rest),
            3);
  // A second or more has passed between two readings.
  EXPECT_GT(read, 0);
  EXPECT_LE(read, 100);
  EXPECT_EQ(read, accepted);
  EXPECT_STREQ(rest, "refused/s 0.0  invalid/s 0.0  files 10.0  disk 2000.0 B");
  ::pclose(pipe);
}

TEST_F(TarnikctlStats, WatchingInAFormatShowsCounters) {
  write(good());
  const std::string json = tarnikctl("stats --json").output;
  std::FILE* pipe = ::popen("timeout 10 " TARNIKCTL_PATH " stats --watch --json", "r");
  std::array<char, 256> line{};
  for (int i = 0; i < 2; ++i) {
    ASSERT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
    EXPECT_EQ(line.data(), json);
  }
  ::pclose(pipe);
}

class TarnikctlList : public ::testing::Test {
 protected:
  TarnikctlList() { fs::create_directories(kDirectory); }
  ~TarnikctlList() override { fs::remove_all(kDirectory); }

  static constexpr char kDirectory[] = "/tmp/captures/";

  static void putWord(std::string& out, std::uint32_t word) {
    for (int shift = 0; shift < 32; shift += 8) {
      out += static_cast<char>(word >> shift);
    }
  }

  // A capture of `frames` frames of 60 bytes, half a second apart.
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
    std::ofstream(kDirectory + name, std::ios::binary) << text;
  }

  static std::string info(const std::string& policy, std::size_t size) {
    return "some.policy=text\ntime.start=1\ntime.end=2\ntime.format=utc\n" + policy +
           "file.size=" + std::to_string(size);
  }
};

TEST_F(TarnikctlList, WhatTheFilesTell) {
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
  write("5.ips.Z.0.pcap", "no capture");
  write("abc", "a capture in progress");

  const Outcome run = tarnikctl(std::string("list --json ") + kDirectory);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(
      run.output.substr(0, run.output.find("\n{\"file\":\"5")),
      "[\n{\"file\":\"1.ips.X.0.pcap\",\"trigger\":\"ips X (4294967294)\",\"flow\":\"udp "
      "198.18.0.1:10000 <-> 198.18.0.2:53\",\"flowId\":\"77\",\"start\":1700000000,\"frames\":4,"
      "\"bytes\":240,\"duration\":1.500,\"ended\":\"whole\"},\n"
      "{\"file\":\"2.naprule-5.0.pcap\",\"trigger\":\"nap 5 (u-u)\",\"flow\":\"udp "
      "198.18.0.1:10000 <-> 198.18.0.2:53\",\"flowId\":\"8\",\"start\":1700000000,\"frames\":3,"
      "\"bytes\":180,\"duration\":1.000,\"ended\":\"truncated dump file; tried to read 60 captured "
      "bytes, only got 59\"},\n"
      "{\"file\":\"3.unknown.0.pcap\",\"trigger\":\"unknown\",\"flow\":\"udp 198.18.0.1:10000 <-> "
      "198.18.0.2:53\",\"flowId\":\"9\",\"start\":1700000000,\"frames\":4,\"bytes\":240,"
      "\"duration\":1.500,\"ended\":\"size differs from info file\"},\n"
      "{\"file\":\"4.ips.Y.0.pcap\",\"trigger\":\"\",\"flow\":\"\",\"flowId\":\"\",\"start\":0,"
      "\"frames\":0,\"bytes\":0,\"duration\":0.000,\"ended\":\"no info file\"},");

  const std::string table = tarnikctl(std::string("list ") + kDirectory).output;
  EXPECT_THAT(table, StartsWith("FILE "));
  EXPECT_THAT(table, HasSubstr("2023-11-14 22:13:20  ips X (4294967294)"));
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 6);
}

TEST_F(TarnikctlList, NamesOfAnyKind) {
  write("a\n\x1b[31m\"\\\xff\xc3\xa9.pcap", pcap(1));
  EXPECT_THAT(tarnikctl(std::string("list --json ") + kDirectory).output,
              HasSubstr("{\"file\":\"a\\u000a\\u001b[31m\\\"\\\\\\u00ff\xc3\xa9.pcap\""));
  EXPECT_THAT(tarnikctl(std::string("list ") + kDirectory).output,
              HasSubstr("\na??[31m\"\\?\xc3\xa9.pcap "));
}

TEST_F(TarnikctlList, WhatIsNoFileIsPassedOver) {
  write("a.pcap", pcap(1));
  ASSERT_EQ(::mkfifo((kDirectory + std::string("a.info")).c_str(), 0644), 0);
  ASSERT_EQ(::mkfifo((kDirectory + std::string("b.pcap")).c_str(), 0644), 0);
  fs::create_directory(kDirectory + std::string("c.pcap"));
  fs::create_symlink("nowhere", kDirectory + std::string("d.pcap"));
  const std::string table = tarnikctl(std::string("list ") + kDirectory).output;
  EXPECT_THAT(table, HasSubstr("\na.pcap "));
  EXPECT_THAT(table, HasSubstr("  no info file\n"));
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2);
}

TEST_F(TarnikctlList, Directories) {
  EXPECT_EQ(tarnikctl(std::string("list ") + kDirectory).output,
            "FILE  TIME (UTC)  TRIGGER  FLOW  FRAMES  BYTES  SECONDS  ENDED\n");
  expectOneLine(tarnikctl("list /nonexistent"), 1, "cannot list /nonexistent: No such file");
  fs::create_directories("/var/support/tarnik");
  EXPECT_EQ(tarnikctl("list").status, 0);
}

}  // namespace
}  // namespace tarnik::test
