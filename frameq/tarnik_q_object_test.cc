// The queue's object: what of it changes, and what does not.
#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include "frameq/testing/tarnik_q.h"

namespace tarnik::test {

namespace {
int timeoutError = 0;  // of zorlib_q_set_timeout; 0 lets it through
}  // namespace

}  // namespace tarnik::test

// The library's own never fails. The linker puts this in its place where the queue calls it.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_zorlib_q_set_timeout(zorlib_q* q, std::int32_t ms);
extern "C" int __wrap_zorlib_q_set_timeout(zorlib_q* q, std::int32_t ms) {
  if (tarnik::test::timeoutError == 0) {
    return __real_zorlib_q_set_timeout(q, ms);
  }
  errno = tarnik::test::timeoutError;
  return -1;
}
// NOLINTEND(bugprone-reserved-identifier)

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The object's fields, as they lie in its memory.
struct Fields {
  void* table;
  std::uint64_t unused;
  zorlib_q* q;
  std::int32_t mode;
};
Fields fieldsOf(const TarnikQ* object) {
  Fields fields;
  static_assert(sizeof fields == sizeof *object);
  std::memcpy(static_cast<void*>(&fields), static_cast<const void*>(object), sizeof fields);
  return fields;
}

std::uint64_t untouched() {
  std::array<std::uint8_t, 8> bytes;
  bytes.fill(kFresh);
  std::uint64_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof word);
  return word;
}

TEST_F(TarnikQTest, AnObjectIsMadeWithoutQueueAndMode) {
  const auto q = fresh();
  const Fields fields = fieldsOf(q.get());
  EXPECT_NE(fields.table, nullptr);
  if (kReplacesNew) {
    EXPECT_EQ(fields.unused, untouched());
  }
  EXPECT_EQ(fields.q, nullptr);
  EXPECT_EQ(fields.mode, -1);
}

TEST_F(TarnikQTest, AFailedOpenChangesNeitherQueueNorMode) {
  const auto q = fresh();
  for (const int mode : {TarnikQ::kIngress, TarnikQ::kEgress}) {
    refuse(ZORVIK_Q_STAT, EIO);
    EXPECT_EQ(q->Open(mode), -1);
    EXPECT_EQ(fieldsOf(q.get()).q, nullptr);
    EXPECT_EQ(fieldsOf(q.get()).mode, -1);
  }
  EXPECT_EQ(q->Open(2), kQWrongMode);
  EXPECT_EQ(fieldsOf(q.get()).mode, -1);
  zorlib_q* const open = fieldsOf(writer_).q;
  EXPECT_EQ(writer_->Open(TarnikQ::kIngress), -1);
  EXPECT_EQ(writer_->Open(2), kQWrongMode);
  EXPECT_EQ(fieldsOf(writer_).q, open);
  EXPECT_EQ(fieldsOf(writer_).mode, 1) << "of the open that succeeded";
  answerNothing();
  EXPECT_EQ(q->Open(TarnikQ::kEgress), 0);
  EXPECT_NE(fieldsOf(q.get()).q, nullptr);
  EXPECT_EQ(fieldsOf(q.get()).mode, 1);
  EXPECT_EQ(q->Close(), 0);
}

TEST_F(TarnikQTest, AClosedObjectKeepsItsHandle) {
  const auto q = fresh();
  ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
  zorlib_q* const handle = fieldsOf(q.get()).q;
  forgetObjects();
  EXPECT_EQ(q->Close(), 0);
  EXPECT_THAT(lastWords(), ElementsAre(0xbaadf00du)) << "the library has let it go";
  EXPECT_EQ(fieldsOf(q.get()).q, handle);
  EXPECT_EQ(fieldsOf(q.get()).mode, 0);
}

TEST_F(TarnikQTest, TheUnusedWordIsNeverTouched) {
  for (const int mode : {TarnikQ::kIngress, TarnikQ::kEgress}) {
    const auto q = fresh();
    zorvik_frm_desc* desc = nullptr;
    std::uint8_t* data = nullptr;
    std::uint64_t tag = 0;
    std::uint32_t flags = 0;
    ASSERT_EQ(q->Open(mode), 0);
    answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
    q->SetTimeout(0);
    EXPECT_EQ(q->getSize(), 64);
    EXPECT_GE(q->getFd(), 0);
    static_cast<void>(q->Read(&desc));
    static_cast<void>(q->ReadPkt(&desc, &data, &tag, &flags));
    static_cast<void>(q->Drain());
    zorvik_frm_desc* const sent = frame();
    static_cast<void>(q->WritePkt(sent, 1, 5));
    q->Dump(sent, "frame");
    EXPECT_EQ(reader_->Free(sent), 0);
    q->Shutdown();
    EXPECT_EQ(q->Close(), 0);
    EXPECT_EQ(fieldsOf(q.get()).unused, untouched()) << mode;
  }
}

TEST_F(TarnikQTest, DestroyingAnObjectDoesNotCloseItsQueue) {
  TarnikQ* const q = TarnikIfCreate();
  ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
  zorlib_q* const handle = fieldsOf(q).q;
  TarnikIfDestroy(q);
  EXPECT_EQ(handle->magic.get(), 0xfaceb00bu);
  EXPECT_EQ(handle->memory().cresq.flags & ZORVIK_RESQ_SHUTDOWN, 0u);
  EXPECT_EQ(zorlib_q_close(handle), 0);
}

class Counted : public TarnikQ {
 public:
  static inline int ended = 0;
  ~Counted() override { ++ended; }
};

TEST_F(TarnikQTest, DestroyingAnObjectEndsItByItsTable) {
  if (!kReplacesNew) {
    GTEST_SKIP() << "no objects are counted";
  }
  TarnikQ* const own = TarnikIfCreate();
  const int living = livingObjects();
  TarnikIfDestroy(own);
  EXPECT_EQ(livingObjects(), living - 1);
  TarnikIfDestroy(new (std::nothrow) Counted);
  EXPECT_EQ(Counted::ended, 1);
  EXPECT_EQ(livingObjects(), living - 1);
}

TEST_F(TarnikQTest, ATimeoutThatIsRefusedIsAnError) {
  clearLog();
  reader_->SetTimeout(7);
  EXPECT_EQ(fieldsOf(reader_).q->timeout, 7);
  reader_->SetTimeout(-7);
  EXPECT_EQ(fieldsOf(reader_).q->timeout, -1);
  EXPECT_THAT(logLines(), IsEmpty());
  timeoutError = EBADR;
  reader_->SetTimeout(7);
  timeoutError = 0;
  EXPECT_EQ(fieldsOf(reader_).q->timeout, -1);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: SetTimeout: zorlib_q_set_timeout failed, errno=53")));
}

}  // namespace
}  // namespace tarnik::test
