// The layout of TarnikQ, its virtual table, and how operations change the object.
#include <array>
#include <new>

#include "frameq/testing/tarnik_q.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;

// The value of a word that nothing has written since its allocation.
std::uint64_t unwritten() {
  std::array<std::uint8_t, 8> bytes;
  bytes.fill(kFresh);
  std::uint64_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof word);
  return word;
}

TEST_F(TarnikQTest, ANewObjectHasNeitherQueueNorMode) {
  const Object q = fresh();
  const Fields fields = fieldsOf(q.get());
  EXPECT_NE(fields.table, nullptr);
  if (kReplacesNew) {
    EXPECT_EQ(fields.unused, unwritten());
  }
  EXPECT_EQ(fields.q, nullptr);
  EXPECT_EQ(fields.mode, -1);
  EXPECT_EQ(sizeof(TarnikQ), 32u);
}

TEST_F(TarnikQTest, AFailedOpenChangesNeitherQueueNorMode) {
  const Object q = fresh();
  const Fields before[] = {fieldsOf(q.get()), fieldsOf(writer_)};
  refuse(ZORVIK_Q_STAT, EIO);
  for (const int mode : {0, 1, 2}) {
    const int result = mode == 2 ? kQWrongMode : kQFailed;
    EXPECT_EQ(q->Open(mode), result);
    EXPECT_EQ(fieldsOf(q.get()).q, nullptr);
    EXPECT_EQ(fieldsOf(q.get()).mode, before[0].mode);
    EXPECT_EQ(writer_->Open(mode), result);
    EXPECT_EQ(fieldsOf(writer_).q, before[1].q);
    EXPECT_EQ(fieldsOf(writer_).mode, before[1].mode);
  }
  answerNothing();
  EXPECT_EQ(q->Open(TarnikQ::kEgress), kQOk);
  EXPECT_NE(fieldsOf(q.get()).q, nullptr);
  EXPECT_EQ(fieldsOf(q.get()).mode, 1);
  EXPECT_EQ(q->Close(), kQOk);
}

TEST_F(TarnikQTest, AClosedObjectKeepsItsHandle) {
  const Object q = opened(TarnikQ::kIngress);
  zorlib_q* const handle = handleOf(q.get());
  forgetObjects();
  EXPECT_EQ(q->Close(), kQOk);
  EXPECT_THAT(lastWords(), ElementsAre(0xbaadf00du)) << "the library has freed it";
  EXPECT_EQ(handleOf(q.get()), handle);
  EXPECT_EQ(fieldsOf(q.get()).mode, 0);
}

TEST_F(TarnikQTest, NoOperationTouchesTheUnusedWord) {
  for (const int mode : {TarnikQ::kIngress, TarnikQ::kEgress}) {
    const Object q = opened(mode);
    const std::uint64_t before = fieldsOf(q.get()).unused;
    zorvik_frm_desc* desc = nullptr;
    answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
    q->SetTimeout(0);
    EXPECT_EQ(q->getSize(), 64);
    EXPECT_GE(q->getFd(), 0);
    static_cast<void>(q->Read(&desc));
    static_cast<void>(readPkt(q.get()));
    static_cast<void>(q->Drain());
    zorvik_frm_desc* const sent = frame();
    static_cast<void>(q->WritePkt(sent, 1, 5));
    q->Dump(sent, "frame");
    EXPECT_EQ(reader_->Free(sent), kQOk);
    q->Shutdown();
    EXPECT_EQ(q->Close(), kQOk);
    EXPECT_EQ(fieldsOf(q.get()).unused, before) << mode;
  }
}

TEST_F(TarnikQTest, SetTimeoutChangesTheHandle) {
  reader_->SetTimeout(7);
  EXPECT_EQ(handleOf(reader_)->timeout, 7);
  reader_->SetTimeout(-7);
  EXPECT_EQ(handleOf(reader_)->timeout, -1);
  expectLog({});
}

TEST_F(TarnikQTest, DestroyingAnObjectDoesNotCloseItsQueue) {
  TarnikQ* const q = opened(TarnikQ::kIngress).release();
  zorlib_q* const handle = handleOf(q);
  TarnikIfDestroy(q);
  EXPECT_EQ(handle->magic.get(), 0xfaceb00bu);
  EXPECT_EQ(handle->memory().cresq.flags & ZORVIK_RESQ_SHUTDOWN, 0u);
  EXPECT_EQ(zorlib_q_close(handle), 0);
}

// ---- The virtual table

template <class Member>
std::ptrdiff_t slotOf(Member member) {
  // The platform represents a pointer to a virtual member as 1 + its offset in the table.
  std::ptrdiff_t representation = 0;
  std::memcpy(&representation, &member, sizeof representation);
  return (representation - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST_F(TarnikQTest, TheTableHasTheOperationsInOrder) {
  const std::ptrdiff_t slots[] = {
      slotOf(&TarnikQ::Open),     slotOf(&TarnikQ::Close),   slotOf(&TarnikQ::Shutdown),
      slotOf(&TarnikQ::getSize),  slotOf(&TarnikQ::getFd),   slotOf(&TarnikQ::SetTimeout),
      slotOf(&TarnikQ::Read),     slotOf(&TarnikQ::ReadPkt), slotOf(&TarnikQ::Write),
      slotOf(&TarnikQ::WritePkt), slotOf(&TarnikQ::Drain),   slotOf(&TarnikQ::Free),
      slotOf(&TarnikQ::Dump),
  };
  // 0 and 1 are the destructors.
  EXPECT_THAT(slots, ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14));
}

class Overridden : public TarnikQ {
 public:
  int shutdowns = 0;
  int writes = 0;
  int frees = 0;
  static inline int ended = 0;

  ~Overridden() override { ++ended; }
  void Shutdown() override {
    ++shutdowns;
    TarnikQ::Shutdown();
  }
  int Write(zorvik_frm_desc* desc) override {
    ++writes;
    EXPECT_EQ(desc->flags, 0xc001) << "written before the frame is queued";
    EXPECT_EQ(desc->tag, 77u);
    return TarnikQ::Write(desc);
  }
  int Free(zorvik_frm_desc* desc) override {
    ++frees;
    return TarnikQ::Free(desc);
  }
};

TEST_F(TarnikQTest, OperationsCallEachOtherThroughTheTable) {
  Overridden out;
  ASSERT_EQ(out.Open(TarnikQ::kEgress), kQOk);
  EXPECT_EQ(out.WritePkt(frame(), 77, 5), kQOk);
  EXPECT_EQ(out.writes, 1);
  Overridden in;
  ASSERT_EQ(in.Open(TarnikQ::kIngress), kQOk);
  answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
  EXPECT_EQ(in.Drain(), kQOk);
  EXPECT_EQ(in.frees, 1);
  EXPECT_EQ(in.Close(), kQOk);
  EXPECT_EQ(in.shutdowns, 1);
  EXPECT_EQ(out.Close(), kQOk);
}

TEST_F(TarnikQTest, DestroyCallsTheDestructorThroughTheTable) {
  if (kReplacesNew) {
    TarnikQ* const own = TarnikIfCreate();
    const int living = livingObjects();
    TarnikIfDestroy(own);
    EXPECT_EQ(livingObjects(), living - 1);
  }
  Overridden::ended = 0;
  TarnikIfDestroy(new (std::nothrow) Overridden);
  EXPECT_EQ(Overridden::ended, 1);
}

}  // namespace
}  // namespace tarnik::test
