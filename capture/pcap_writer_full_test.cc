// The PCAP writer on a full disk: it keeps every record that fits and reports the others as lost.
#include "capture/testing/writer.h"

namespace tarnik::test {
namespace {

using testing::IsEmpty;

// Writes a file of `count` records with each size limit: it keeps every record that fits.
class PcapWriterFullTest : public WriterTest {
 protected:
  static constexpr std::size_t kBuffer = 4096;

  void compareWithWhole(unsigned count, std::uint32_t frameSize, rlim_t from, rlim_t to,
                        rlim_t step) {
    fill(count, frameSize);
    const auto whole = parsePcap(readFile(kFinal));
    ASSERT_TRUE(whole);
    ASSERT_EQ(whole->size(), count);
    refusedWrites_ = 0;
    for (rlim_t size = from; size <= to; size += step) {
      emptyCaptureDir();
      {
        const LimitedSize limited(size);
        fill(count, frameSize);
      }
      ++files_;
      const auto kept = parsePcap(readFile(kFinal));
      ASSERT_TRUE(kept) << "no whole file with room for " << size;
      ASSERT_EQ(kept->size(), recordsThatFit(*whole, size)) << "with room for " << size;
      ASSERT_TRUE(std::equal(kept->begin(), kept->end(), whole->begin())) << size;
      ASSERT_EQ(accepted_ - lostRecords(), kept->size()) << "with room for " << size;
    }
  }

  int files_ = 0;
  int refusedWrites_ = 0;  // files that met their limit before Close

 private:
  std::size_t accepted_ = 0;  // records of the last file

  // Writes until the writer refuses a frame, or all frames, and closes.
  void fill(unsigned count, std::uint32_t frameSize) {
    writeFile("/var/support/tarnik/template.nap.uuid", "");
    const auto writer = opened(kNoLimit, kBuffer);
    writer->Update(kFinal, 7, "uuid", 12);
    accepted_ = 0;
    clearLog();
    for (unsigned i = 0; i < count; ++i) {
      if (!write(*writer, frameSize + i % 7, i)) {
        ++refusedWrites_;
        EXPECT_EQ(kPcapHeader.size() + writer->bytesWritten(), sizeOf(kWorking));
        break;
      }
      ++accepted_;
    }
    (void)writer->Close();
  }

  // The number of records that the log reports as lost.
  static std::size_t lostRecords() {
    std::size_t sum = 0;
    for (const LogLine& line : logLines()) {
      const std::size_t at = line.text.find("Lost ");
      sum += at == std::string::npos ? 0 : std::stoul(line.text.substr(at + 5));
    }
    return sum;
  }

  static std::size_t recordsThatFit(const std::vector<Record>& all, std::size_t size) {
    std::size_t end = kPcapHeader.size();
    std::size_t count = 0;
    while (count < all.size() && end + 16 + all[count].data.size() <= size) {
      end += 16 + all[count++].data.size();
    }
    return count;
  }
};

TEST_F(PcapWriterFullTest, KeepsWholeRecordsIfTheFlushAtCloseFails) {
  compareWithWhole(10, 40, 400, 560, 1);
  EXPECT_EQ(refusedWrites_, 0);
}

TEST_F(PcapWriterFullTest, KeepsWholeRecordsIfAFullBufferIsRefused) {
  compareWithWhole(150, 100, 3600, 12000, 83);
  EXPECT_EQ(refusedWrites_, files_);
}

TEST_F(PcapWriterFullTest, KeepsWholeRecordsLargerThanTheBuffer) {
  compareWithWhole(4, 5000, 24, 20000, 499);
  EXPECT_GT(refusedWrites_, 0);
}

TEST_F(PcapWriterFullTest, NoRoomForTheHeader) {
  const std::vector<LogLine> lines = {
      {LOG_ERR, "Error: Close: Lost 1 record(s) of [/var/support/tarnik/1f]"},
      {LOG_ERR, "Error: Close: Failed to close [/var/support/tarnik/1f]: File too large"}};
  for (const rlim_t room : {rlim_t{0}, rlim_t{10}}) {
    const LimitedSize limited(room);
    const auto named = started();
    EXPECT_FALSE(named->Close());
    expectLog(lines);
    EXPECT_THAT(entries(), IsEmpty());
  }
  const LimitedSize limited(0);
  const auto unnamed = opened();
  EXPECT_TRUE(write(*unnamed, 100));
  EXPECT_TRUE(unnamed->Close());
  EXPECT_THAT(logLines(), testing::SizeIs(3)) << "and that it has no name";
  EXPECT_THAT(entries(), IsEmpty());
}

}  // namespace
}  // namespace tarnik::test
