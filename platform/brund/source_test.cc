#include "platform/brund/source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/testing/files.h"
#include "packet/testing/frames.h"
#include "platform/brund/testing/data.h"

namespace tarnik::brund {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

struct Content {
  std::vector<Bytes> frames;
  std::vector<Frame> headers;  // without their data
  std::string error;
};

Content readCapture(const std::string& path) {
  Content content;
  auto source = FileSource::open(path);
  if (!source) {
    content.error = source.error();
    return content;
  }
  Frame frame;
  Result<bool> next = false;
  while ((next = source->next(frame)) && *next) {
    content.frames.emplace_back(frame.data.begin(), frame.data.end());
    content.headers.push_back(frame);
    content.headers.back().data = {};
  }
  content.error = next ? "" : next.error();
  return content;
}

class FileSourceTest : public ::testing::Test {
 protected:
  [[nodiscard]] Content read(const std::string& file) const {
    writeFile(dir_ / "file", file);
    return readCapture(dir_ / "file");
  }
  TempDir dir_;
};

TEST_F(FileSourceTest, ReturnsFramesUnchanged) {
  const Content content = read(captureFile({Bytes(60, 1), Bytes(), Bytes(1514, 2)}));
  EXPECT_EQ(content.error, "");
  ASSERT_THAT(content.frames, ElementsAre(Bytes(60, 1), Bytes(), Bytes(1514, 2)));
  EXPECT_EQ(content.headers[2].wireLength, 1514u);
  EXPECT_EQ(content.headers[2].seconds, 1700000002u);
  EXPECT_EQ(content.headers[2].microseconds, 123456u);
}

// libpcap alone would truncate them and report the maximum as their captured length.
TEST_F(FileSourceTest, FramesAboveTheMaximumOfTheHeaderAreWhole) {
  EXPECT_THAT(read(captureFile({Bytes(97, 3), Bytes(65589, 7)}, 1, 96)).frames,
              ElementsAre(Bytes(97, 3), Bytes(65589, 7)));
}

TEST_F(FileSourceTest, LateTimestampsKeepTheir32Bits) {
  std::string file = captureFile({Bytes(60, 1)});
  file.replace(24, 4, "\xff\xff\xff\xff");
  const Content content = read(file);
  ASSERT_THAT(content.headers, SizeIs(1));
  EXPECT_EQ(content.headers[0].seconds, 0xffffffffu);
}

TEST_F(FileSourceTest, FramesBeforeATruncatedRecordAreRead) {
  std::string file = captureFile({Bytes(60, 1), Bytes(60, 2)});
  file.resize(file.size() - 10);
  const Content content = read(file);
  EXPECT_THAT(content.frames, SizeIs(1));
  EXPECT_EQ(content.error, "truncated dump file; tried to read 60 captured bytes, only got 50");
}

TEST_F(FileSourceTest, OtherFilesAreRefused) {
  EXPECT_EQ(readCapture(dir_ / "none").error, "No such file or directory");
  EXPECT_EQ(readCapture(dir_.path()).error, "Is a directory");
  EXPECT_EQ(read("").error, "empty file");
  EXPECT_EQ(read("a text that is longer than a header").error, "unknown file format");
  EXPECT_THAT(read(captureFile({}).substr(0, 20)).error, StartsWith("truncated dump file"));
  EXPECT_EQ(read(captureFile({Bytes(60, 1)}, 101)).error, "link type RAW is not Ethernet");
  // Opening a pipe must not wait for its writer.
  ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(readCapture(dir_ / "pipe").error, "not a regular file");
}

struct Odd {
  const char* file;
  std::size_t frames;
  std::size_t largest;
  const char* error;
};

class OddCapture : public ::testing::TestWithParam<Odd> {};

TEST_P(OddCapture, IsReadUpToItsFault) {
  const std::string path = recordedCapture(std::string("odd/") + GetParam().file);
  if (path.empty()) {
    GTEST_SKIP() << kNoCaptures;
  }
  const Content content = readCapture(path);
  EXPECT_THAT(content.frames, SizeIs(GetParam().frames));
  std::size_t largest = 0;
  for (const Bytes& frame : content.frames) {
    largest = std::max(largest, frame.size());
  }
  EXPECT_EQ(largest, GetParam().largest);
  EXPECT_THAT(content.error, HasSubstr(GetParam().error));
  EXPECT_EQ(content.error.empty(), GetParam().error[0] == '\0');
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
INSTANTIATE_TEST_SUITE_P(Table, OddCapture, ::testing::ValuesIn(kOdd),
                         [](const auto& test) { return asTestName(test.param.file); });

TEST(LiveSourceTest, UnknownInterfaceIsRefusedInOneLine) {
  const auto source = LiveSource::open("nosuchif0");
  ASSERT_FALSE(source);
  EXPECT_NE(source.error(), "");
  EXPECT_THAT(source.error(), Not(HasSubstr("\n")));
}

}  // namespace
}  // namespace tarnik::brund
