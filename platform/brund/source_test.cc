#include "platform/brund/source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "packet/testing/frames.h"
#include "platform/brund/testing/data.h"
#include "platform/brund/text_file.h"

namespace tarnik::brund {
namespace {

using namespace test;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Content {
  std::vector<Bytes> frames;
  std::vector<Frame> heads;  // without their data
  std::string reason;        // of a failure
  bool opened = false;
};

Content readFile(const std::string& path) {
  Content content;
  FileSource source;
  content.opened = source.open(path, content.reason);
  Frame frame;
  while (content.opened && source.next(frame, content.reason) == Next::kFrame) {
    content.frames.emplace_back(frame.data.begin(), frame.data.end());
    content.heads.push_back(frame);
    content.heads.back().data = {};
  }
  return content;
}

class FileSourceTest : public ::testing::Test {
 protected:
  std::string write(const std::string& text) {
    const std::string path = dir_.path() + "/file";
    std::string error;
    EXPECT_TRUE(writeTextFile(path, text, error)) << error;
    return path;
  }
  TempDir dir_;
};

TEST_F(FileSourceTest, GivesFramesAsTheyAre) {
  const Content content = readFile(write(captureFile({Bytes(60, 1), Bytes(), Bytes(1514, 2)})));
  EXPECT_EQ(content.reason, "");
  ASSERT_EQ(content.frames.size(), 3u);
  EXPECT_EQ(content.frames[0], Bytes(60, 1));
  EXPECT_EQ(content.frames[1], Bytes());
  EXPECT_EQ(content.frames[2], Bytes(1514, 2));
  EXPECT_EQ(content.heads[2].wire_len, 1514u);
  EXPECT_EQ(content.heads[2].ts_sec, 1700000002u);
  EXPECT_EQ(content.heads[2].ts_usec, 123456u);
}

// What libpcap would cut to the header's announcement and give as if it had been captured so.
TEST_F(FileSourceTest, FramesAboveTheAnnouncedLengthAreWhole) {
  const Bytes frame(65589, 7);
  const Content content = readFile(write(captureFile({Bytes(97, 3), frame}, 1, 96)));
  ASSERT_EQ(content.frames.size(), 2u);
  EXPECT_EQ(content.frames[0], Bytes(97, 3));
  EXPECT_EQ(content.frames[1], frame);
}

TEST_F(FileSourceTest, LateTimestampsKeepTheir32Bits) {
  std::string file = captureFile({Bytes(60, 1)});
  file.replace(24, 4, "\xff\xff\xff\xff");
  const Content content = readFile(write(file));
  ASSERT_EQ(content.heads.size(), 1u);
  EXPECT_EQ(content.heads[0].ts_sec, 0xffffffffu);
}

TEST_F(FileSourceTest, RecordCutShort) {
  std::string file = captureFile({Bytes(60, 1), Bytes(60, 2)});
  file.resize(file.size() - 10);
  const Content content = readFile(write(file));
  EXPECT_EQ(content.frames.size(), 1u);
  EXPECT_EQ(content.reason, "truncated dump file; tried to read 60 captured bytes, only got 50");
}

TEST_F(FileSourceTest, WhatIsNoCaptureIsRefused) {
  EXPECT_EQ(readFile(dir_.path() + "/none").reason, "No such file or directory");
  EXPECT_EQ(readFile(dir_.path()).reason, "Is a directory");
  EXPECT_EQ(readFile(write("")).reason, "empty file");
  EXPECT_EQ(readFile(write("a text that is longer than a header")).reason, "unknown file format");
  EXPECT_THAT(readFile(write(captureFile({}).substr(0, 20))).reason,
              StartsWith("truncated dump file"));
  EXPECT_EQ(readFile(write(captureFile({Bytes(60, 1)}, 101))).reason,
            "link type RAW is not Ethernet");
}

// Opening a pipe must not wait for somebody to write into it.
TEST_F(FileSourceTest, PipeIsRefusedAtOnce) {
  const std::string path = dir_.path() + "/pipe";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(readFile(path).reason, "not a regular file");
}

struct Odd {
  const char* file;
  std::size_t frames;
  std::size_t largest;
  const char* reason;
};

class OddCapture : public ::testing::TestWithParam<Odd> {};

TEST_P(OddCapture, IsReadAsFarAsItGoes) {
  if (dataDir().empty()) {
    GTEST_SKIP() << kNoCaptures;
  }
  const std::string path = dataDir() + "/odd/" + GetParam().file;
  if (access(path.c_str(), R_OK) != 0) {
    GTEST_SKIP() << path << " is not there";
  }
  const Content content = readFile(path);
  EXPECT_EQ(content.frames.size(), GetParam().frames);
  std::size_t largest = 0;
  for (const Bytes& frame : content.frames) {
    largest = std::max(largest, frame.size());
  }
  EXPECT_EQ(largest, GetParam().largest);
  if (GetParam().reason[0] == '\0') {
    EXPECT_EQ(content.reason, "");
  } else {
    EXPECT_THAT(content.reason, HasSubstr(GetParam().reason));
  }
}

const Odd kOdd[] = {
    {"nanosecond-magic.pcap", 9, 671, ""},
    {"big-endian.pcap", 23, 222, ""},
    {"truncated-last-record.pcap", 6718, 692, "tried to read 42 captured bytes, only got 8"},
    {"snaplen-96.pcap", 7000, 94, ""},
    {"gro-frames-smb2.pcap", 792, 5858, ""},
    {"frames-above-snaplen.pcap", 245, 65589, ""},
    {"pcapng-many-interfaces.pcapng", 0, 0, "an interface has a type 0 different from"},
    {"zero-length-frames.pcap", 38, 255, ""},
    {"header-only.pcap", 0, 0, ""},
};
INSTANTIATE_TEST_SUITE_P(Table, OddCapture, ::testing::ValuesIn(kOdd), [](const auto& test) {
  std::string name;
  for (const char c : std::string(test.param.file)) {
    name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  }
  return name;
});

TEST(LiveSourceTest, UnknownInterfaceIsRefused) {
  LiveSource source;
  std::string reason;
  EXPECT_FALSE(source.open("nosuchif0", reason));
  EXPECT_NE(reason, "");
  EXPECT_EQ(reason.find('\n'), std::string::npos);
}

}  // namespace
}  // namespace tarnik::brund
