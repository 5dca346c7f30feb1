// The PCAP writer on a device that takes a part of what is written and refuses the rest, torn at
// every place: what is kept is whole, and holds every record that fits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/pcap_writer.h"
#include "capture/testing/files.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;

constexpr char kWorking[] = "/var/support/tarnik/1f";
constexpr char kFinal[] = "/var/support/tarnik/a.pcap";
constexpr std::uint64_t kNoLimit = 1U << 30U;

class PcapWriterTornTest : public testing::Test {
 protected:
  PcapWriterTornTest() {
    emptyCaptureDir();
    clearLog();
  }
  void fill(unsigned count, std::uint32_t frameSize);
  void compareWithWhole(unsigned count, std::uint32_t frameSize, rlim_t from, rlim_t to,
                        rlim_t step);

  int torn_ = 0;           // files that met their limit
  int refusedWrites_ = 0;  // those of them where a Write met it, and not the flush at close
};

// Limits the size of the files that this process writes.
class LimitedSize {
 public:
  explicit LimitedSize(rlim_t bytes) {
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  LimitedSize(const LimitedSize&) = delete;
  LimitedSize& operator=(const LimitedSize&) = delete;
  ~LimitedSize() { ::setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

// Writes until the writer refuses, or `count` frames, and closes.
void PcapWriterTornTest::fill(unsigned count, std::uint32_t frameSize) {
  writeFile("/var/support/tarnik/template.nap.uuid", "");
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  writer.Update(kFinal, 7, "uuid", 12);
  for (unsigned i = 0; i < count; ++i) {
    const auto data = frameData(frameSize + i % 7, i);
    if (!writer.Write(frame(2000, frameSize + i % 7, i, 0), data.data())) {
      ++refusedWrites_;
      EXPECT_EQ(kPcapHeader.size() + writer.bytesWritten(), readFile(kWorking).size());
      break;
    }
  }
  (void)writer.Close();
}

// What fits of a file whose whole content is `all`, down to the last whole record.
std::size_t recordsThatFit(const std::vector<Record>& all, std::size_t size) {
  std::size_t end = kPcapHeader.size();
  std::size_t count = 0;
  while (count < all.size() && end + 16 + all[count].data.size() <= size) {
    end += 16 + all[count++].data.size();
  }
  return count;
}

void PcapWriterTornTest::compareWithWhole(unsigned count, std::uint32_t frameSize, rlim_t from,
                                          rlim_t to, rlim_t step) {
  emptyCaptureDir();
  fill(count, frameSize);
  const auto whole = parsePcap(readFile(kFinal));
  ASSERT_TRUE(whole);
  ASSERT_EQ(whole->size(), count);
  for (rlim_t size = from; size <= to; size += step) {
    emptyCaptureDir();
    {
      const LimitedSize limited(size);
      fill(count, frameSize);
      ++torn_;
    }
    const auto kept = parsePcap(readFile(kFinal));
    ASSERT_TRUE(kept) << "torn with room for " << size;
    const std::size_t fit = recordsThatFit(*whole, size);
    ASSERT_EQ(kept->size(), fit) << "with room for " << size;
    ASSERT_TRUE(std::equal(kept->begin(), kept->end(), whole->begin())) << size;
  }
}

TEST_F(PcapWriterTornTest, AFlushThatFailsPartWayLeavesWholeRecords) {
  compareWithWhole(10, 40, 400, 560, 1);
  EXPECT_EQ(refusedWrites_, 0) << "all at close";
}

TEST_F(PcapWriterTornTest, AWriteThatFailsPartWayLeavesWholeRecords) {
  compareWithWhole(2500, 100, 60000, 190000, 1009);
  EXPECT_EQ(refusedWrites_, torn_) << "with more than one buffer";
}

TEST_F(PcapWriterTornTest, LargeRecordsThatFailPartWay) {
  compareWithWhole(4, 70000, 24, 290000, 7919);
  EXPECT_GT(refusedWrites_, 0) << "past the buffer";
}

TEST_F(PcapWriterTornTest, NoRoomForTheHeader) {
  const LimitedSize limited(10);
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  writer.Update(kFinal, 7, "uuid", 12);
  const auto data = frameData(100);
  EXPECT_TRUE(writer.Write(frame(100, 100), data.data()));
  EXPECT_FALSE(writer.Close());  // nothing that could be read
  EXPECT_THAT(
      logLines(),
      ElementsAre(LogLine{
          LOG_ERR, "Error: Close: Failed to close [/var/support/tarnik/1f]: File too large"}));
  EXPECT_THAT(entries(), ElementsAre("1f"));
}

}  // namespace
}  // namespace tarnik::test
