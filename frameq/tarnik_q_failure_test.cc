// How writing and freeing fail, and what becomes of the frame.
#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include "frameq/testing/tarnik_q.h"
#include "zorlib/testing/two_threads.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

TEST_F(TarnikQTest, AFailedWriteIsToldByItsErrno) {
  zorvik_frm_desc* const desc = frame();
  for (int i = 0; i < 63; ++i) {
    ASSERT_EQ(writer_->Write(desc), 0);
  }
  writer_->SetTimeout(-1);
  const LogLine failed = debug(text("Debug: Write: Failed to write %p", static_cast<void*>(desc)));
  for (const auto& [number, result] :
       {std::pair{EAGAIN, -5}, {EINTR, -1}, {ESHUTDOWN, -1}, {EIO, -1}}) {
    std::vector<LogLine> expected;
    if (number != EAGAIN) {
      expected.push_back(error(text("Error: Write: zorlib_q_read failed, errno=%d", number)));
    }
    refuse(ZORVIK_Q_WAIT, number);
    clearLog();
    EXPECT_EQ(writer_->Write(desc), result) << number;
    EXPECT_EQ(errno, number);
    EXPECT_THAT(logLines(), ElementsAreArray(expected));
    expected.insert(expected.begin(), failed);
    setDebugLevel(1);
    clearLog();
    EXPECT_EQ(writer_->WritePkt(desc, 1, 0), result) << number;
    EXPECT_EQ(errno, number);
    EXPECT_THAT(logLines(), ElementsAreArray(expected));
    setDebugLevel(0);
  }
  desc->qref_cnt = 1;
}

TEST_F(TarnikQTest, AFrameGoesBackThroughTheModulesGroup) {
  zorvik_frm_desc* const desc = frame();
  zorlib_ifg* const group = capture_if::ifg.exchange(nullptr);
  clearLog();
  clearRequests();
  errno = 0;
  EXPECT_EQ(reader_->Free(desc), -1) << "though the queue has one yet";
  EXPECT_EQ(errno, EBADR);
  EXPECT_THAT(logLines(), ElementsAreArray({error("Error: zorlib_ifg_validate: Nil handle"),
                                            error("Error: Free: zorlib_frm_free failed, "
                                                  "errno=53")}));
  EXPECT_THAT(requests(), IsEmpty());
  capture_if::ifg = group;
  EXPECT_EQ(reader_->Free(desc), 0);
}

TEST_F(TarnikQTest, TagAndFlagsAreToldOfAFrameWithoutData) {
  zorvik_frm_desc* const desc = frame();
  const std::uint32_t offset = desc->data_off;
  desc->data_off = kPayload + 1;
  ASSERT_EQ(writer_->WritePkt(desc, 0x0123456789abcdef, 5), 0);
  zorvik_frm_desc* read = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(reader_->ReadPkt(&read, &data, &tag, &flags), -1);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(tag, 0x0123456789abcdefu);
  EXPECT_EQ(flags, 5u);
  desc->data_off = offset;
  EXPECT_EQ(reader_->Free(read), 0);
}

TEST_F(TarnikQTest, FlagsOfAnotherHolderAreNotLost) {
  zorvik_frm_desc* const desc = frame();
  while (writer_->Write(desc) == 0) {
  }
  constexpr std::uint16_t kOthers = 0x0100;
  const std::atomic_ref<std::uint16_t> flags(desc->flags);
  int lost = 0;
  int written = 0;
  inTwoThreads([&] { written += writer_->WritePkt(desc, 1, 5) == 0 ? 1 : 0; },
               [&] {
                 flags.fetch_or(kOthers);
                 lost += (flags.fetch_and(static_cast<std::uint16_t>(~kOthers)) & kOthers) == 0;
                 lost += (flags.load() & kOthers) != 0;
               });
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(written, 0);
  EXPECT_EQ(desc->flags, 0xc001);
  desc->qref_cnt = 1;
}

}  // namespace
}  // namespace tarnik::test
