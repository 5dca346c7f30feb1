// Frame identifiers, and how frames are freed.
#include <functional>
#include <optional>

#include "zorlib/testing/io.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(IoTest, RefusesIdentifiersThatNameNoValidFrame) {
  const std::uint32_t id = zorlib::frameId(*frame_);
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
                                    static_cast<void*>(frame_), zorlib::frameId(*frame_))}));
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
  const std::uint32_t id = std::uint32_t{frame->generation} << 24 | frame->index;
  EXPECT_EQ(zorlib::frameId(*frame), id);
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

}  // namespace
}  // namespace tarnik::test
