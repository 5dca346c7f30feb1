// Frame identifiers, and how frames are freed.
#include <sys/mman.h>

#include <functional>
#include <optional>

#include "zorlib/testing/io.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(IoTest, RefusesIdentifiersThatNameNoValidFrame) {
  const std::uint32_t id = idOf(frame_);
  reader_->frmDesc[0].flags = 1;
  reader_->frmDesc[0].generation = 7;
  const std::uint64_t invalid[] = {
      0x07000000u,                         // index 0, although its descriptor looks valid
      0x100000000u,                        // index 0 in an entry that is not 0
      (id & 0xff000000u) | (kFrames + 1),  // the first record outside the mapping
      reader_->frmDescSize - 1,            // below the size in bytes, outside the mapping
      reader_->frmDescSize,
      0xffffff,
      id + 0x01000000u,  // another generation
  };
  for (const std::uint64_t each : invalid) {
    put(each);
    memory_->presq.flags = 0;
    clearRequests();
    expectReadFails(ENXIO);
    EXPECT_EQ(memory_->presq.flags, 1u) << "the slot is free again";
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 1);
  }
  put(id);
  frame_->flags = 0xfffe;
  expectReadFails(ENXIO);
  frame_->flags = 1;
  put(id | 0xabcdef0100000000u);
  EXPECT_EQ(read(), frame_) << "the high half of an entry is ignored";
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IoTest, ReadsTheLastDescriptorOfTheMapping) {
  zorvik_frm_desc& last = reader_->frmDesc[kFrames];
  last.flags = 1;
  last.generation = 9;
  put(9u << 24 | kFrames);
  EXPECT_EQ(read(), &last);
}

TEST_F(IoTest, TheDataOfAnIngressFrameStartsInThePayload) {
  reopen(ZORVIK_Q_INGRESS);
  const std::uint32_t offset = frame_->data_off;
  frame_->data_off = reader_->payloadSize;
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(read(), frame_) << "the end itself is allowed";
  frame_->data_off = reader_->payloadSize + 1;
  EXPECT_EQ(write(), 0);
  frame_->ref_cnt = 7;
  expectReadFails(ENXIO);
  EXPECT_EQ(frame_->ref_cnt, 7);
  EXPECT_EQ(logLines(), lines({text("Error: zorlib_q_read: Can't set tr_frame data pointer (fp %p "
                                    "ID %x)!",
                                    static_cast<void*>(frame_), idOf(frame_))}));
  frame_->data_off = offset;
}

TEST_F(IoTest, FreesToAnEgressQueueWithTheLastReference) {
  expectFailure([&] { return zorlib_q_free(nullptr, frame_); }, ENOSYS,
                {"Error: zorlib_q_free with nil handle not yet supported!"});
  reopen(ZORVIK_Q_EGRESS);
  frame_->ref_cnt = 3;
  EXPECT_EQ(zorlib_q_free(writer_, frame_), 0);
  EXPECT_EQ(zorlib_q_free(writer_, frame_), 0);
  EXPECT_EQ(frame_->ref_cnt, 1);
  expectReadFails(EAGAIN);
  EXPECT_EQ(zorlib_q_free(writer_, frame_), 0);
  EXPECT_EQ(frame_->ref_cnt, 0);
  EXPECT_EQ(read(), frame_);
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  frame_->ref_cnt = 1;
  expectFailure([&] { return zorlib_q_free(writer_, frame_); }, ESHUTDOWN);
}

TEST_F(IoTest, FreesToNoOtherTypeOfQueue) {
  for (const std::uint32_t type :
       {ZORVIK_Q_INGRESS, ZORVIK_Q_SHARED, ZORVIK_Q_FANOUT, ZORVIK_Q_APP, ZORVIK_Q_RAW}) {
    reopen(type);
    for (const std::uint8_t references : {std::uint8_t{1}, std::uint8_t{3}}) {
      frame_->ref_cnt = references;
      expectFailure([&] { return zorlib_q_free(writer_, frame_); }, ENXIO,
                    {"Error: zorlib_q_free must be done to an egress queue!"});
      EXPECT_EQ(frame_->ref_cnt, references) << type;
      EXPECT_EQ(frame_->qref_cnt, 0) << type;
      expectReadFails(EAGAIN);
    }
  }
}

TEST_F(IoTest, ReturnsAFrameByItsIdentifier) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  const std::uint32_t id = idOf(frame);
  std::uint32_t freed = 0;
  answer(ZORVIK_FRM_FREE, [&](int fd, void* argument) -> std::optional<int> {
    EXPECT_EQ(fd, ifg_->frmDescFd.get());
    freed = static_cast<zorvik_frm_free*>(argument)->frame_id;
    return std::nullopt;
  });
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  EXPECT_EQ(freed, id);
  refuse(ZORVIK_FRM_FREE, ENOENT);
  expectFailure([&] { return zorlib_frm_free(ifg_, frame); }, ENOENT,
                {"Error: zorlib_ifg_frm_free: free_frm ioctl failed - No such file or directory"});
}

// ---- Damaged descriptors

TEST_F(IoTest, TheIdentifierHasTheLow24BitsOfTheIndex) {
  const std::uint32_t index = frame_->index;
  const std::uint8_t generation = frame_->generation;
  frame_->index |= 0xab000000;
  frame_->generation = 0xff;
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(entry(0), 0xff000000u | index);
  EXPECT_EQ(read(), frame_);
  std::uint32_t freed = 0;
  answer(ZORVIK_FRM_FREE, [&](int, void* argument) {
    freed = static_cast<zorvik_frm_free*>(argument)->frame_id;
    return 0;
  });
  EXPECT_EQ(zorlib_frm_free(ifg_, frame_), 0);
  EXPECT_EQ(freed, 0xff000000u | index);
  answerNothing();
  frame_->index = index;
  frame_->generation = generation;
}

TEST_F(IoTest, AnIndexThatIsNotTheDescriptorsPositionIsRefused) {
  const std::uint32_t index = frame_->index;
  for (const std::uint32_t type : {ZORVIK_Q_APP, ZORVIK_Q_EGRESS}) {
    reopen(type);
    for (const std::uint32_t wrong : {0u, 0x05000000u, index - 1, index + 1, 0xffffffu}) {
      frame_->index = wrong;
      frame_->ref_cnt = 1;
      expectWriteFails(ENXIO);
      expectFailure([&] { return zorlib_frm_free(ifg_, frame_); }, ENXIO);
      if (type == ZORVIK_Q_EGRESS) {
        expectFailure([&] { return zorlib_q_free(writer_, frame_); }, ENXIO);
      }
      EXPECT_EQ(memory_->enqueue, 0u);
      EXPECT_THAT(requests(), IsEmpty());
    }
    frame_->index = index;
    // The first descriptor has the right position, but index 0 names no frame.
    expectFailure([&] { return zorlib_q_write(writer_, writer_->frmDesc); }, ENXIO);
  }
}

TEST_F(IoTest, AFrameOfAnotherMappingIsFreedByItsIndex) {
  zorlib_ifg* const other = openGroup();
  zorvik_frm_desc* descriptors = nullptr;
  std::uint32_t size = 0;
  std::uint8_t* payload = nullptr;
  ASSERT_EQ(zorlib_map_frm_data(other, &descriptors, &size, &payload, &size), 0);
  zorvik_frm_desc* const frame = allocFrame(other);
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
}

// An index uses all of its 24 bits, and a generation all of its 8.
TEST_F(IoTest, ReadsTheLargestIndexAndGeneration) {
  constexpr std::size_t kSize = std::size_t{128} << 24;
  void* const memory = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  zorvik_frm_desc* const before = reader_->frmDesc;
  const std::uint32_t sizeBefore = reader_->frmDescSize;
  reader_->frmDesc = static_cast<zorvik_frm_desc*>(memory);
  reader_->frmDescSize = kSize;
  for (const std::uint32_t index : {1u, 0x100u, 0x10000u, 0x800000u, 0xffffffu}) {
    zorvik_frm_desc& frame = reader_->frmDesc[index];
    for (const std::uint32_t generation : {0u, 1u, 0x80u, 0xffu}) {
      frame.flags = ZORVIK_FRM_VALID;
      frame.generation = static_cast<std::uint8_t>(generation);
      put(generation << 24 | index);
      EXPECT_EQ(read(), &frame);
      put((generation ^ 0x80) << 24 | index);
      expectReadFails(ENXIO);
    }
  }
  reader_->frmDesc = before;
  reader_->frmDescSize = sizeBefore;
  EXPECT_EQ(::munmap(memory, kSize), 0);
}

}  // namespace
}  // namespace tarnik::test
