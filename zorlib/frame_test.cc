// The frames that a queue's identifiers name, which of them are refused, and giving them back.
#include <optional>

#include "zorlib/testing/io.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(IoTest, RefusesIdentifiersThatNameNoValidFrame) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  const std::uint32_t id = zorlib::frameId(*frame);
  const std::uint32_t size = reader_->frmDescSize;
  reader_->frmDesc[0].flags = 1;  // though it looks like a frame
  reader_->frmDesc[0].generation = 7;
  put(0x07000000u);                         // index 0
  put((id & 0xff000000u) | (kFrames + 1));  // the first record behind the mapping
  put(size - 1);                            // inside the loose bound, outside the mapping
  put(size);
  put(0xffffff);
  put(id + 0x01000000u);  // another generation
  for (int i = 0; i < 6; ++i) {
    memory_->presq.flags = 0;
    clearRequests();
    refusedByReader(ENXIO);
    EXPECT_EQ(memory_->presq.flags, 1u) << "the slot is free all the same";
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 1);
  }
  put(id);
  frame->flags = 0xfffe;
  refusedByReader(ENXIO);
  frame->flags = 1;
  put(id | 0xabcdef0100000000u);  // the high half says nothing
  zorvik_frm_desc* read = nullptr;
  EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
  EXPECT_EQ(read, frame);
  put(0x100000000u);  // an entry that is not 0, with index 0
  refusedByReader(ENXIO);
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, ReadsTheLastDescriptorOfTheMapping) {
  zorvik_frm_desc& last = reader_->frmDesc[kFrames];
  last.flags = 1;
  last.generation = 9;
  put(9u << 24 | kFrames);
  zorvik_frm_desc* read = nullptr;
  EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
  EXPECT_EQ(read, &last);
}

TEST_F(IoTest, AnIngressFramesDataMustStartInThePayload) {
  reopen(ZORVIK_Q_INGRESS);
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  const std::uint32_t offset = frame->data_off;
  frame->data_off = reader_->payloadSize;
  EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
  zorvik_frm_desc* read = nullptr;
  EXPECT_EQ(zorlib_q_read(reader_, &read), 0) << "its very end is no harm";
  frame->data_off = reader_->payloadSize + 1;
  EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
  frame->ref_cnt = 7;
  refusedByReader(ENXIO);
  EXPECT_EQ(frame->ref_cnt, 7);
  char expected[120];
  std::snprintf(expected, sizeof expected,
                "Error: zorlib_q_read: Can't set tr_frame data pointer (fp %p ID %x)!",
                static_cast<void*>(frame), zorlib::frameId(*frame));
  EXPECT_THAT(logLines(), ElementsAre(error(expected)));
  frame->data_off = offset;
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, FreesToAnEgressQueueWithTheLastReference) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  errno = 0;
  EXPECT_EQ(zorlib_q_free(nullptr, frame), -1);
  EXPECT_EQ(errno, ENOSYS);
  EXPECT_EQ(zorlib_q_free(writer_, frame), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_q_free with nil handle not yet supported!"),
                          error("Error: zorlib_q_free must be done to an egress queue!")));
  reopen(ZORVIK_Q_EGRESS);
  frame->ref_cnt = 3;
  EXPECT_EQ(zorlib_q_free(writer_, frame), 0);
  EXPECT_EQ(zorlib_q_free(writer_, frame), 0);
  EXPECT_EQ(frame->ref_cnt, 1);
  refusedByReader(EAGAIN);
  EXPECT_EQ(zorlib_q_free(writer_, frame), 0);
  EXPECT_EQ(frame->ref_cnt, 0);
  zorvik_frm_desc* read = nullptr;
  EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
  EXPECT_EQ(read, frame);
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  frame->ref_cnt = 1;
  EXPECT_EQ(zorlib_q_free(writer_, frame), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, AFrameIsFreedToNoOtherQueueAndKeepsItsReferences) {
  for (const std::uint32_t type :
       {ZORVIK_Q_INGRESS, ZORVIK_Q_SHARED, ZORVIK_Q_FANOUT, ZORVIK_Q_APP, ZORVIK_Q_RAW}) {
    reopen(type);
    zorvik_frm_desc* const frame = allocFrame(ifg_);
    for (const std::uint8_t references : {std::uint8_t{1}, std::uint8_t{3}}) {
      frame->ref_cnt = references;
      clearLog();
      errno = 0;
      EXPECT_EQ(zorlib_q_free(writer_, frame), -1) << type;
      EXPECT_EQ(errno, ENXIO);
      EXPECT_EQ(frame->ref_cnt, references) << type;
      EXPECT_EQ(frame->qref_cnt, 0) << type;
      EXPECT_THAT(logLines(),
                  ElementsAre(error("Error: zorlib_q_free must be done to an egress queue!")));
      refusedByReader(EAGAIN);
    }
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
}

TEST_F(IoTest, AFrameIsReturnedByItsIdentifier) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  const std::uint32_t id = zorlib::frameId(*frame);
  EXPECT_EQ(id, static_cast<std::uint32_t>(frame->generation) << 24 | frame->index);
  std::uint32_t freed = 0;
  answer(ZORVIK_FRM_FREE, [&](int fd, void* argument) -> std::optional<int> {
    EXPECT_EQ(fd, ifg_->frmDescFd.get());
    freed = static_cast<zorvik_frm_free*>(argument)->frame_id;
    return std::nullopt;
  });
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  EXPECT_EQ(freed, id);
  refuse(ZORVIK_FRM_FREE, ENOENT);
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_frm_free: free_frm ioctl failed - "
                                            "No such file or directory")));
}

}  // namespace
}  // namespace tarnik::test
