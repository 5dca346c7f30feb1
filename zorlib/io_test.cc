// Frames through a queue: what is written is read, in its order; what the types owe their frames.
#include "zorlib/testing/io.h"

#include <set>
#include <utility>
#include <vector>

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(IoTest, ReadsWhatWasWrittenInItsOrder) {
  std::vector<zorvik_frm_desc*> written;
  for (int i = 0; i < 7; ++i) {
    written.push_back(allocFrame(ifg_));
    EXPECT_EQ(zorlib_q_write(writer_, written.back()), 0);
    EXPECT_EQ(entry(static_cast<std::uint32_t>(i)), zorlib::frameId(*written.back()));
  }
  EXPECT_EQ(memory_->enqueue, 7u);
  zorvik_frm_desc* const eighth = allocFrame(ifg_);
  EXPECT_EQ(zorlib_q_write(writer_, eighth), -1);
  EXPECT_EQ(errno, EAGAIN) << "one slot always stays empty";
  EXPECT_EQ(zorlib_frm_free(ifg_, eighth), 0);
  for (zorvik_frm_desc* const expected : written) {
    zorvik_frm_desc* frame = nullptr;
    EXPECT_EQ(zorlib_q_read(reader_, &frame), 0);
    EXPECT_EQ(frame, expected);
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
  EXPECT_EQ(memory_->dequeue, 7u);
  for (std::uint32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(entry(i), 0u);
  }
  refusedByReader(EAGAIN);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IoTest, RunsAroundTheRing) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  for (int round = 0; round < 100; ++round) {
    for (int i = 0; i < 1 + round % 7; ++i) {
      ASSERT_EQ(zorlib_q_write(writer_, frame), 0);
      ASSERT_EQ(zorlib_q_used(writer_), static_cast<std::uint32_t>(i) + 1);
    }
    for (int i = 0; i < 1 + round % 7; ++i) {
      zorvik_frm_desc* read = nullptr;
      ASSERT_EQ(zorlib_q_read(reader_, &read), 0);
      ASSERT_EQ(read, frame);
      read->qref_cnt = 0;
    }
    refusedByReader(EAGAIN);
  }
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, AsksTheDriverOnlyForTheFirstWakeUp) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  memory_->presq.flags = memory_->cresq.flags = 0;
  std::vector<std::uint32_t> woken;
  answer(ZORVIK_Q_WAKE, [&](int, void* argument) -> std::optional<int> {
    woken.push_back(static_cast<zorvik_q_wake*>(argument)->kresq_handle);
    return std::nullopt;
  });
  clearRequests();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
  }
  EXPECT_EQ(memory_->cresq.flags, 1u);
  EXPECT_THAT(woken, ElementsAre(memory_->cresq.kresq_handle));
  zorvik_frm_desc* read = nullptr;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
  }
  EXPECT_EQ(memory_->presq.flags, 1u);
  EXPECT_THAT(woken, ElementsAre(memory_->cresq.kresq_handle, memory_->presq.kresq_handle));
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_Q_WAKE, ZORVIK_Q_WAKE));
  frame->qref_cnt = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, AWakeUpIsAddedToWhatThePeersFlagsSay) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  zorvik_frm_desc* read = nullptr;
  for (const std::uint32_t flags : {4u, 0xfffffffeu}) {
    clearRequests();
    memory_->presq.flags = 0;
    memory_->cresq.flags = flags;
    EXPECT_EQ(zorlib_q_write(writer_, frame), 0) << "the other side's shutdown is not this one's";
    EXPECT_EQ(memory_->cresq.flags, flags | 1);
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 1);
    memory_->presq.flags = flags;
    memory_->cresq.flags = 0;
    EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
    EXPECT_EQ(memory_->presq.flags, flags | 1);
    EXPECT_EQ(count(ZORVIK_Q_WAKE), 2);
  }
  frame->qref_cnt = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, ACounterFromOutsideTheRingNamesASlotInside) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  for (const std::uint32_t wild : {8u + 3, 0x80000003u, 0xfffffffbu}) {
    memory_->dequeue = 3;
    memory_->enqueue = wild;
    EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
    ASSERT_EQ(entry(3), zorlib::frameId(*frame)) << wild;
    EXPECT_EQ(memory_->enqueue, 4u);
    for (std::uint32_t i = 8; i < 64; ++i) {
      EXPECT_EQ(entry(i), 0u) << i << ", behind the ring";
      entry(i) = 99;
    }
    memory_->dequeue = wild;
    zorvik_frm_desc* read = nullptr;
    ASSERT_EQ(zorlib_q_read(reader_, &read), 0);
    EXPECT_EQ(read, frame);
    EXPECT_EQ(entry(3), 0u) << wild;
    EXPECT_EQ(memory_->dequeue, 4u);
    for (std::uint32_t i = 8; i < 64; ++i) {
      EXPECT_EQ(entry(i), 99u) << i << ", behind the ring";
      entry(i) = 0;
    }
  }
  frame->qref_cnt = 0;
  EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
}

TEST_F(IoTest, AShutDownSideFailsEvenWithFramesAndTheOtherGoesOn) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
  EXPECT_EQ(zorlib_q_shutdown(reader_), 0);
  refusedByReader(ESHUTDOWN);
  EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
  zorlib_q* const again = openQueue(ifg_, ZORLIB_READ);
  zorvik_frm_desc* read = nullptr;
  EXPECT_EQ(zorlib_q_read_timeout(again, &read, 0), 0) << "opening the side ends its shutdown";
  EXPECT_EQ(zorlib_q_shutdown(writer_), 0);
  const int references = frame->qref_cnt;
  errno = 0;
  EXPECT_EQ(zorlib_q_write(writer_, frame), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_EQ(frame->qref_cnt, references);
  EXPECT_EQ(zorlib_q_read_timeout(again, &read, 0), 0);
  EXPECT_EQ(zorlib_q_close(again), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(IoTest, ACountOfReferencesIsWhatTheTypeAsksFor) {
  struct Case {
    std::uint32_t type;
    int queueRefsAdded;
    int refsAfterRead;
  };
  for (const Case& each :
       {Case{1, 0, 1}, Case{2, 0, 5}, Case{3, 0, 6}, Case{4, 1, 5}, Case{5, 1, 5}, Case{6, 0, 5}}) {
    reopen(each.type);
    zorvik_frm_desc* const frame = allocFrame(ifg_);
    frame->ref_cnt = 5;
    frame->qref_cnt = 2;
    frame->data = 0;
    const std::uint32_t offset = std::exchange(frame->data_off, 4096u);
    EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
    EXPECT_EQ(frame->qref_cnt, 2 + each.queueRefsAdded) << each.type;
    EXPECT_EQ(frame->ref_cnt, 5);
    zorvik_frm_desc* read = nullptr;
    EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
    EXPECT_EQ(read, frame);
    EXPECT_EQ(frame->ref_cnt, each.refsAfterRead) << each.type;
    EXPECT_EQ(frame->qref_cnt, 2 + each.queueRefsAdded);
    EXPECT_EQ(frame->data,
              each.type == 1 ? reinterpret_cast<std::uintptr_t>(reader_->payload + 4096) : 0u);
    frame->data_off = offset;
    // A write that fails leaves the count alone: without room, shut down, interrupted.
    frame->qref_cnt = 2;
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
    }
    frame->qref_cnt = 2;
    EXPECT_EQ(zorlib_q_write(writer_, frame), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(frame->qref_cnt, 2);
    zorlib_q_set_timeout(writer_, -1);
    memory_->presq.flags = 0;
    refuse(ZORVIK_Q_WAIT, EINTR);
    EXPECT_EQ(zorlib_q_write(writer_, frame), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(frame->qref_cnt, 2);
    answerNothing();
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
    }
    frame->qref_cnt = 0;
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
}

// ---- Batch allocation

TEST_F(IoTest, OneRequestServesManyAllocations) {
  std::set<zorvik_frm_desc*> seen;
  clearRequests();
  for (int i = 0; i < 62; ++i) {
    zorvik_frm_desc* const frame = allocFrame(ifg_, 2048);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(seen.insert(frame).second);
    EXPECT_GE(frame->buf_size, 2048u);
    EXPECT_EQ(frame->flags, ZORVIK_FRM_VALID);
    std::uint8_t* const data = zorlib_ifg_frm_data(ifg_, frame);
    EXPECT_EQ(data, reader_->payload + frame->data_off);
  }
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_FRM_ALLOC));
  for (zorvik_frm_desc* const frame : seen) {
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
}

TEST_F(IoTest, SizesAreKeptApart) {
  zorvik_frm_desc* frames[8] = {};
  zorvik_frm_desc* const small = allocFrame(ifg_, 100);
  EXPECT_EQ(small->buf_size, 2048u);
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 60000, frames, 3), 3);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(frames[i]->buf_size, 65536u);
    EXPECT_EQ(zorlib_frm_free(ifg_, frames[i]), 0);
  }
  errno = 0;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 65537, frames, 1), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(zorlib_frm_free(ifg_, small), 0);
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 100, frames, 0), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(IoTest, AnEmptyPoolGivesWhatIsLeftAndThenENOBUFS) {
  std::vector<zorvik_frm_desc*> taken;
  zorvik_frm_desc* batch[62];
  int got = 0;
  while ((got = zorlib_batch_alloc(ifg_, 60000, batch, 62)) > 0) {
    taken.insert(taken.end(), batch, batch + got);
  }
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(taken.size(), 8u);
  EXPECT_THAT(logLines(), IsEmpty()) << "daily life for a producer";
  for (zorvik_frm_desc* const frame : taken) {
    EXPECT_EQ(zorlib_frm_free(ifg_, frame), 0);
  }
}

TEST_F(IoTest, ADriverThatGivesNonsenseIsNotBelieved) {
  answer(ZORVIK_FRM_ALLOC, [](int, void* argument) {
    auto& alloc = *static_cast<zorvik_frm_alloc*>(argument);
    alloc.count = 1000;
    for (std::uint32_t& id : alloc.frame_ids) {
      id = 5;  // the same one again and again
    }
    alloc.frame_ids[0] = 0;
    alloc.frame_ids[1] = kFrames + 1;
    return 0;
  });
  zorvik_frm_desc* frames[3] = {};
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 64, frames, 1), 1);
  EXPECT_EQ(frames[0], reader_->frmDesc + 5);
  answer(ZORVIK_FRM_ALLOC, [](int, void* argument) {
    static_cast<zorvik_frm_alloc*>(argument)->count = 1;
    static_cast<zorvik_frm_alloc*>(argument)->frame_ids[0] = 0;
    return 0;
  });
  errno = 0;
  frames[0]->buf_size = 2048;
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 64, frames, 3), 1) << "the cached one, once";
  EXPECT_EQ(zorlib_batch_alloc(ifg_, 64, frames, 3), -1);
  EXPECT_EQ(errno, ENXIO);
  answer(ZORVIK_FRM_FREE, [](int, void*) { return 0; });
}

TEST_F(IoTest, AFramesBufferMustLieInThePayload) {
  zorvik_frm_desc frame{};
  frame.data_off = reader_->payloadSize - 100;
  frame.buf_size = 100;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), reader_->payload + frame.data_off);
  frame.buf_size = 101;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), nullptr);
  frame.data_off = frame.buf_size = 0xffffffff;
  EXPECT_EQ(zorlib_ifg_frm_data(ifg_, &frame), nullptr);
}

TEST_F(IoTest, AnUnmappedGroupAllocatesNothing) {
  zorlib_ifg* const other = openGroup();
  zorvik_frm_desc* frame = nullptr;
  errno = 0;
  EXPECT_EQ(zorlib_batch_alloc(other, 64, &frame, 1), -1);
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
}

}  // namespace
}  // namespace tarnik::test
