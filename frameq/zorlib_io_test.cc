// Frames through a queue: what is written is read, what types owe their frames, what is refused.
#include <cerrno>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "frameq/testing/driver.h"
#include "frameq/zorlib_internal.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IoTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = openGroup();
    open(ZORVIK_Q_APP, 8);
  }
  void TearDown() override {
    closeQueue();
    EXPECT_EQ(zorlib_ifg_close(ifg_), 0);
    DriverTest::TearDown();
  }

  void open(std::uint32_t type, std::uint32_t size) {
    createQueue(ifg_, type, size);
    reader_ = openQueue(ifg_, ZORLIB_READ);
    writer_ = openQueue(ifg_, ZORLIB_WRITE);
    zorlib_q_set_timeout(reader_, 0);
    zorlib_q_set_timeout(writer_, 0);
    memory_ = &reader_->memory();
    clearRequests();
  }
  void closeQueue() {
    EXPECT_EQ(zorlib_q_close(reader_), 0);
    EXPECT_EQ(zorlib_q_close(writer_), 0);
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), 0);
  }
  void reopen(std::uint32_t type) {
    closeQueue();
    open(type, 8);
  }

  std::uint64_t& entry(std::uint32_t i) { return zorvik_qmem_entries(memory_)[i]; }
  // Puts an entry on the ring as a producer does, whatever it names.
  void put(std::uint64_t value) {
    entry(memory_->enqueue) = value;
    memory_->enqueue = (memory_->enqueue + 1) & memory_->mask;
  }
  void refusedByReader(int expected) {
    zorvik_frm_desc* frame = reinterpret_cast<zorvik_frm_desc*>(1);
    errno = 0;
    EXPECT_EQ(zorlib_q_read(reader_, &frame), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(frame, nullptr);
  }

  zorlib_ifg* ifg_ = nullptr;
  zorlib_q* reader_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorvik_qmem* memory_ = nullptr;
};

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
    EXPECT_EQ(zorlib_q_write(writer_, frame), 0);
    EXPECT_EQ(frame->qref_cnt, 2 + each.queueRefsAdded) << each.type;
    EXPECT_EQ(frame->ref_cnt, 5);
    zorvik_frm_desc* read = nullptr;
    EXPECT_EQ(zorlib_q_read(reader_, &read), 0);
    EXPECT_EQ(read, frame);
    EXPECT_EQ(frame->ref_cnt, each.refsAfterRead) << each.type;
    EXPECT_EQ(frame->qref_cnt, 2 + each.queueRefsAdded);
    EXPECT_EQ(
        frame->data,
        each.type == 1 ? reinterpret_cast<std::uintptr_t>(reader_->payload + frame->data_off) : 0u);
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

TEST_F(IoTest, RefusesIdentifiersThatNameNoValidFrame) {
  zorvik_frm_desc* const frame = allocFrame(ifg_);
  const std::uint32_t id = zorlib::frameId(*frame);
  const std::uint32_t size = reader_->frmDescSize;
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
