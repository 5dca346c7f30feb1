// Frames as they come: many of them, and read again by other programs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "base/testing/counted_memory.h"
#include "capture/pcap_writer.h"
#include "capture/testing/files.h"

namespace tarnik::test {
namespace {

constexpr char kWorking[] = "/var/support/tarnik/1f";
constexpr char kFinal[] = "/var/support/tarnik/a.pcap";
constexpr std::uint64_t kNoLimit = 1U << 30U;

class PcapFramesTest : public testing::Test {
 protected:
  PcapFramesTest() { emptyCaptureDir(); }
};

TEST_F(PcapFramesTest, AFrameTakesNoMemory) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  const auto data = frameData(3000);
  const FrameHeader frames[] = {frame(60, 60), frame(1500, 1500), frame(3000, 3000)};
  const std::uint64_t before = allocations();
  for (int i = 0; i < 1000; ++i) {
    for (const FrameHeader& one : frames) {
      ASSERT_TRUE(writer.Write(one, data.data()));
    }
  }
  EXPECT_EQ(allocations() - before, 0U);
}

// An Ethernet frame with an IPv4 UDP datagram of `payload` bytes from port 1000 + number.
std::vector<std::uint8_t> udpFrame(unsigned number, std::size_t payload) {
  std::vector<std::uint8_t> data = {0x02, 0, 0,  0, 0, 2, 0x02, 0, 0,  0,  0, 1, 0x08, 0,
                                    0x45, 0, 0,  0, 0, 0, 0,    0, 64, 17, 0, 0, 10,   0,
                                    0,    1, 10, 0, 0, 2, 0,    0, 0,  53, 0, 0, 0,    0};
  const auto put16 = [&data](std::size_t at, std::size_t value) {
    data[at] = static_cast<std::uint8_t>(value >> 8U);
    data[at + 1] = static_cast<std::uint8_t>(value);
  };
  put16(16, 28 + payload);
  put16(34, 1000 + number);
  put16(38, 8 + payload);
  data.resize(data.size() + payload, 0xff);
  return data;
}

bool isInstalled(const std::string& program) {
  return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* const pipe = ::popen((command + " 2>/tmp/errors").c_str(), "r");
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
    output += static_cast<char>(c);
  }
  EXPECT_EQ(::pclose(pipe), 0) << readFile("/tmp/errors");
  return output;
}

void writeThreeFrames() {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  const std::size_t payloads[] = {100, 2000, 500};  // the second above the header's snaplen
  for (unsigned i = 0; i < 3; ++i) {
    const auto data = udpFrame(i, payloads[i]);
    const auto size = static_cast<std::uint32_t>(data.size());
    const std::uint32_t captured = i == 2 ? 200 : size;  // the third was cut when captured
    ASSERT_TRUE(writer.Write(frame(size, captured, 1700000000 + i, 999997 + i), data.data()));
  }
  writer.Update(kFinal, 7, "uuid", 1);
  ASSERT_TRUE(writer.Close());
}

TEST_F(PcapFramesTest, TcpdumpReadsThem) {
  if (!isInstalled("tcpdump")) {
    GTEST_SKIP() << "tcpdump is not installed";
  }
  writeThreeFrames();
  EXPECT_EQ(outputOf("tcpdump -Z root -nn -tt -q -r " + std::string(kFinal)),
            "1700000000.999997 IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 100\n"
            "1700000001.999998 IP 10.0.0.1.1001 > 10.0.0.2.53: UDP, length 2000\n"
            "1700000002.999999 IP 10.0.0.1.1002 > 10.0.0.2.53: UDP, length 500\n");
  EXPECT_THAT(readFile("/tmp/errors"), testing::HasSubstr("link-type EN10MB (Ethernet)"));
  EXPECT_THAT(readFile("/tmp/errors"), testing::HasSubstr("snapshot length 1500"));
}

TEST_F(PcapFramesTest, TsharkReadsThem) {
  if (!isInstalled("tshark")) {
    GTEST_SKIP() << "tshark is not installed";
  }
  writeThreeFrames();
  EXPECT_EQ(outputOf("tshark -r " + std::string(kFinal) +
                     " -T fields -e frame.time_epoch -e frame.len -e frame.cap_len -e udp.srcport"),
            "1700000000.999997000\t142\t142\t1000\n"
            "1700000001.999998000\t2042\t2042\t1001\n"
            "1700000002.999999000\t542\t200\t1002\n");
}

}  // namespace
}  // namespace tarnik::test
