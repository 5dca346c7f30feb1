// The queue's hex dump, and the order of its operations.
#include <cstring>

#include "frameq/testing/tarnik_q.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(TarnikQTest, DumpsInLinesOfSixteen) {
  zorvik_frm_desc* const desc = frame();
  std::uint8_t* const data = zorlib_ifg_frm_data(capture_if::ifg, desc);
  for (std::uint8_t i = 0; i < 40; ++i) {
    data[i] = static_cast<std::uint8_t>(i * 7);
  }
  const auto dump = [&](std::uint32_t length) {
    desc->cap_len = length;
    clearLog();
    reader_->Dump(desc, "frame");
    return logLines();
  };
  EXPECT_THAT(dump(20), IsEmpty());
  setDebugLevel(1);
  const LogLine head20 = debug(payloadAt(desc, "Debug: Dump: frame (20 bytes) %p"));
  const LogLine full = debug("Debug: 0000: 00 07 0e 15 1c 23 2a 31   38 3f 46 4d 54 5b 62 69");
  EXPECT_THAT(dump(20), ElementsAre(head20, full, debug("Debug: 0010: 70 77 7e 85")));
  EXPECT_THAT(dump(16),
              ElementsAre(debug(payloadAt(desc, "Debug: Dump: frame (16 bytes) %p")), full));
  EXPECT_THAT(dump(1), ElementsAre(debug(payloadAt(desc, "Debug: Dump: frame (1 bytes) %p")),
                                   debug("Debug: 0000: 00")));
  EXPECT_THAT(dump(26), ElementsAre(debug(payloadAt(desc, "Debug: Dump: frame (26 bytes) %p")),
                                    full, debug("Debug: 0010: 70 77 7e 85 8c 93 9a a1   a8 af")));
  EXPECT_THAT(dump(0), ElementsAre(debug(payloadAt(desc, "Debug: Dump: frame (0 bytes) %p")),
                                   debug("Debug: ")));
  EXPECT_THAT(
      dump(0xffffffff),
      ElementsAre(debug(payloadAt(desc, "Debug: Dump: frame (-1 bytes) %p")), debug("Debug: ")));
  setDebugLevel(0);
  EXPECT_EQ(reader_->Free(desc), 0);
}

TEST_F(TarnikQTest, ADumpNeverReadsBeyondThePayload) {
  zorvik_frm_desc* const desc = frame();
  const std::uint32_t offset = desc->data_off;
  setDebugLevel(1);
  desc->data_off = kPayload - 18;
  desc->frame_size = 18;
  desc->cap_len = 0x7fffffff;
  clearLog();
  reader_->Dump(desc, "long");
  ASSERT_EQ(logLines().size(), 3u);
  EXPECT_THAT(logLines()[0].text, ::testing::StartsWith("Debug: Dump: long (2147483647 bytes) 0x"));
  EXPECT_EQ(logLines()[2], debug("Debug: 0010: 00 00"));
  desc->frame_size = 19;
  clearLog();
  reader_->Dump(desc, "outside");
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: Dump: outside (2147483647 bytes) (nil)"),
                                      debug("Debug: ")));
  setDebugLevel(0);
  desc->data_off = offset;
  EXPECT_EQ(reader_->Free(desc), 0);
}

// ---- The table of operations

template <class Member>
std::ptrdiff_t slotOf(Member member) {
  // How the platform's C++ represents a pointer to a virtual member: 1 + its offset.
  std::ptrdiff_t representation = 0;
  std::memcpy(&representation, &member, sizeof representation);
  return (representation - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST_F(TarnikQTest, TheOperationsStandInTheirOrder) {
  // 0 and 1 are the destructors.
  EXPECT_EQ(slotOf(&TarnikQ::Open), 2);
  EXPECT_EQ(slotOf(&TarnikQ::Close), 3);
  EXPECT_EQ(slotOf(&TarnikQ::Shutdown), 4);
  EXPECT_EQ(slotOf(&TarnikQ::getSize), 5);
  EXPECT_EQ(slotOf(&TarnikQ::getFd), 6);
  EXPECT_EQ(slotOf(&TarnikQ::SetTimeout), 7);
  EXPECT_EQ(slotOf(&TarnikQ::Read), 8);
  EXPECT_EQ(slotOf(&TarnikQ::ReadPkt), 9);
  EXPECT_EQ(slotOf(&TarnikQ::Write), 10);
  EXPECT_EQ(slotOf(&TarnikQ::WritePkt), 11);
  EXPECT_EQ(slotOf(&TarnikQ::Drain), 12);
  EXPECT_EQ(slotOf(&TarnikQ::Free), 13);
  EXPECT_EQ(slotOf(&TarnikQ::Dump), 14);
  EXPECT_EQ(sizeof(TarnikQ), 32u);
  std::int32_t mode = 0;
  std::memcpy(&mode, reinterpret_cast<const char*>(reader_) + 24, sizeof mode);
  EXPECT_EQ(mode, 0);
  auto q = fresh();
  std::memcpy(&mode, reinterpret_cast<const char*>(q.get()) + 24, sizeof mode);
  EXPECT_EQ(mode, -1);
}

class Overridden : public TarnikQ {
 public:
  int shutdowns = 0;
  int writes = 0;
  int frees = 0;
  void Shutdown() override {
    ++shutdowns;
    TarnikQ::Shutdown();
  }
  int Write(zorvik_frm_desc* desc) override {
    ++writes;
    return TarnikQ::Write(desc);
  }
  int Free(zorvik_frm_desc* desc) override {
    ++frees;
    return TarnikQ::Free(desc);
  }
};

TEST_F(TarnikQTest, AnOverrideChangesItsCallers) {
  Overridden out;
  ASSERT_EQ(out.Open(TarnikQ::kEgress), 0);
  EXPECT_EQ(out.WritePkt(frame(), 1, 0), 0);
  EXPECT_EQ(out.writes, 1);
  Overridden in;
  ASSERT_EQ(in.Open(TarnikQ::kIngress), 0);
  answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
  EXPECT_EQ(in.Drain(), 0);
  EXPECT_EQ(in.frees, 1);
  EXPECT_EQ(in.Close(), 0);
  EXPECT_EQ(in.shutdowns, 1);
  EXPECT_EQ(out.Close(), 0);
}

}  // namespace
}  // namespace tarnik::test
