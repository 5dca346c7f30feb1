// The queue's operations.
#include "frameq/testing/tarnik_q.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(TarnikQTest, OpensInTwoModesOnly) {
  auto q = fresh();
  clearLog();
  EXPECT_EQ(q->Open(2), kQWrongMode);
  EXPECT_EQ(q->Open(-1), kQWrongMode);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: Open: mode not valid (2)"),
                                      error("Error: Open: mode not valid (-1)")));
  clearLog();
  zorlib_ifg* const group = capture_if::ifg.exchange(nullptr);
  EXPECT_EQ(q->Open(2), kQNoGroup) << "the group is looked at before the mode";
  capture_if::ifg = group;
  EXPECT_THAT(logLines(), ElementsAre(error("Error: Open: ifg handle not valid ((nil))")));
}

TEST_F(TarnikQTest, AFailedOpenLeavesTheObjectAsItWas) {
  auto q = fresh();
  refuse(ZORVIK_Q_STAT, EIO);
  clearLog();
  EXPECT_EQ(q->Open(TarnikQ::kIngress), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_q_stat: stat ioctl failed - Input/output error"),
                          error("Error: Open: zorlib_q_app_open failed, errno=5"),
                          info("Open: TarnikIfInit must be called")));
  EXPECT_EQ(q->getFd(), kQNotOpen);
}

TEST_F(TarnikQTest, TellsOfAnOpenAtDebugLevelFour) {
  for (const unsigned level : {3u, 4u}) {
    auto q = fresh();
    clearLog();
    setDebugLevel(level);
    EXPECT_EQ(q->Open(TarnikQ::kIngress), 0);
    setDebugLevel(0);
    const LogLine line =
        debug(text("Debug: Open: zorlib_q_app_open %p", static_cast<void*>(handleOf(q.get()))));
    const std::vector<LogLine> lines = logLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), level == 4 ? 1 : 0);
    EXPECT_EQ(q->Close(), 0);
  }
}

TEST_F(TarnikQTest, WithoutAQueueEveryOperationSaysSo) {
  auto q = fresh();
  zorvik_frm_desc* const desc = frame();
  zorvik_frm_desc* read = nullptr;
  clearLog();
  EXPECT_EQ(q->getSize(), kQNotOpen);
  EXPECT_EQ(q->getFd(), kQNotOpen);
  EXPECT_EQ(q->Read(&read), kQNotOpen);
  EXPECT_EQ(q->Write(desc), kQNotOpen);
  EXPECT_EQ(q->WritePkt(desc, 1, 7), kQNotOpen);
  EXPECT_EQ(q->Drain(), kQNotOpen);
  EXPECT_EQ(q->Free(desc), kQNotOpen);
  EXPECT_EQ(q->Close(), 0);
  q->Shutdown();
  q->SetTimeout(5);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: getSize: TarnikIf handle not initialized"),
                                      info("getFd: TarnikIf handle not initialized"),
                                      info("Read: TarnikIf handle not initialized"),
                                      info("Write: TarnikIf handle not initialized"),
                                      info("WritePkt: TarnikIf handle not initialized"),
                                      info("Drain: TarnikIf handle not initialized"),
                                      info("Free: TarnikIf handle not initialized")));
  EXPECT_EQ(desc->flags, 1) << "nothing was written into the frame";
  clearLog();
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 1;
  std::uint32_t flags = 1;
  EXPECT_EQ(q->ReadPkt(&read, &data, &tag, &flags), -1) << "the library finds out";
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_q_validate: Nil handle"),
                                      error("Error: ReadPkt: zorlib_q_read failed, errno=53")));
  EXPECT_EQ(tag, 0u);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(writer_->WritePkt(desc, 1, 0), 0);
  EXPECT_EQ(reader_->Read(&read), 0);
  EXPECT_EQ(reader_->Free(read), 0);
}

TEST_F(TarnikQTest, EachModeHasItsOperations) {
  zorvik_frm_desc* const desc = frame();
  zorvik_frm_desc* read = nullptr;
  clearLog();
  EXPECT_EQ(writer_->Read(&read), kQWrongMode);
  EXPECT_EQ(writer_->Free(desc), kQWrongMode);
  EXPECT_EQ(writer_->Drain(), kQWrongMode);
  EXPECT_EQ(reader_->Write(desc), kQWrongMode);
  EXPECT_EQ(reader_->WritePkt(desc, 1, 7), kQWrongMode);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: Read: Invalid mode"), error("Error: Free: Invalid mode"),
                          error("Error: Drain: Invalid mode"), error("Error: Write: Invalid mode"),
                          error("Error: WritePkt: Invalid mode")));
  EXPECT_EQ(desc->flags, 1);
  EXPECT_EQ(reader_->Free(desc), 0);
}

TEST_F(TarnikQTest, TellsSizeAndDescriptor) {
  EXPECT_EQ(reader_->getSize(), 64) << "51 rounded up by the driver";
  EXPECT_GE(reader_->getFd(), 0);
}

TEST_F(TarnikQTest, CarriesTagAndFlags) {
  struct Case {
    std::uint32_t written, read;
    std::uint16_t descriptor;
  };
  for (const Case& each : {Case{0, 0, 0x0001}, Case{1, 1, 0x4001}, Case{4, 4, 0x8001},
                           Case{5, 5, 0xc001}, Case{2, 0, 0x0001}, Case{0xfffffffa, 0, 0x0001}}) {
    zorvik_frm_desc* const desc = frame();
    EXPECT_EQ(writer_->WritePkt(desc, 0x0123456789abcdef, each.written), 0);
    EXPECT_EQ(desc->flags, each.descriptor);
    EXPECT_EQ(writer_->used(), 1u);
    zorvik_frm_desc* read = nullptr;
    std::uint8_t* data = nullptr;
    std::uint64_t tag = 0;
    std::uint32_t flags = 99;
    EXPECT_EQ(reader_->ReadPkt(&read, &data, &tag, &flags), 0);
    EXPECT_EQ(read, desc);
    EXPECT_EQ(tag, 0x0123456789abcdefu);
    EXPECT_EQ(flags, each.read);
    EXPECT_EQ(data, zorlib_ifg_frm_data(capture_if::ifg, desc));
    EXPECT_EQ(reader_->room(data), kPayload - desc->data_off);
    EXPECT_EQ(reader_->Free(read), 0);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TarnikQTest, AFrameWhoseDataLiesOutsideIsHandedOutToBeFreed) {
  zorvik_frm_desc* const desc = frame();
  const std::uint32_t offset = desc->data_off;
  desc->data_off = 0xfffffff0;
  EXPECT_EQ(writer_->WritePkt(desc, 3, 4), 0);
  zorvik_frm_desc* read = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  errno = ESHUTDOWN;
  EXPECT_EQ(reader_->ReadPkt(&read, &data, &tag, &flags), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(read, desc);
  EXPECT_EQ(data, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: ReadPkt: Failed to get trFrame")));
  desc->data_off = offset;
  EXPECT_EQ(reader_->Free(read), 0);
}

TEST_F(TarnikQTest, AFailedReadIsToldByItsErrno) {
  struct Case {
    int error, read, readPkt;
    bool logged;
  };
  reader_->SetTimeout(-1);
  zorvik_frm_desc* desc = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  for (const Case& each : {Case{EINTR, -1, -5, false}, Case{EIO, -1, -1, true},
                           Case{ESHUTDOWN, -1, -1, false}, Case{EAGAIN, -5, -5, false}}) {
    refuse(ZORVIK_Q_WAIT, each.error);
    clearLog();
    EXPECT_EQ(reader_->ReadPkt(&desc, &data, &tag, &flags), each.readPkt) << each.error;
    EXPECT_EQ(errno, each.error);
    const std::string number = std::to_string(each.error);
    if (each.logged) {
      EXPECT_THAT(logLines(),
                  ElementsAre(error("Error: ReadPkt: zorlib_q_read failed, errno=" + number)));
    } else {
      EXPECT_THAT(logLines(), IsEmpty());
    }
    clearLog();
    EXPECT_EQ(reader_->Read(&desc), each.read) << each.error;
    EXPECT_EQ(errno, each.error);
    if (each.error == EIO || each.error == EINTR) {
      EXPECT_THAT(logLines(),
                  ElementsAre(error("Error: Read: zorlib_q_read failed, errno=" + number)));
    } else {
      EXPECT_THAT(logLines(), IsEmpty());
    }
  }
}

TEST_F(TarnikQTest, AnEmptyQueueGivesNothingWithinTheTimeout) {
  zorvik_frm_desc* desc = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(reader_->ReadPkt(&desc, &data, &tag, &flags), kQTimeout);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(reader_->Read(&desc), kQTimeout);
}

TEST_F(TarnikQTest, AShutdownFromAnotherThreadEndsAWaitingRead) {
  reader_->SetTimeout(-1);
  std::thread other([this] {
    while (count(ZORVIK_Q_WAIT) == 0) {
      std::this_thread::yield();
    }
    reader_->Shutdown();
  });
  zorvik_frm_desc* desc = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(reader_->ReadPkt(&desc, &data, &tag, &flags), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  other.join();
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TarnikQTest, AFullQueueTakesNothingMore) {
  zorvik_frm_desc* const desc = frame();
  for (int i = 0; i < 63; ++i) {
    EXPECT_EQ(writer_->Write(desc), 0);
  }
  EXPECT_EQ(writer_->Write(desc), kQTimeout);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(writer_->Write(desc), kQTimeout);
  EXPECT_THAT(
      logLines(),
      ElementsAre(debug(text("Debug: Write: Failed to write %p", static_cast<void*>(desc)))));
  setDebugLevel(0);
  clearLog();
  writer_->Shutdown();
  EXPECT_EQ(writer_->Write(desc), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: Write: zorlib_q_read failed, errno=108")))
      << "the line names the read call";
  desc->qref_cnt = 1;
}

TEST_F(TarnikQTest, DrainsTheQueueAndFreesItsFrames) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(writer_->Write(frame()), 0);
  }
  answer(ZORVIK_Q_WAIT, [](int, void* argument) {
    EXPECT_EQ(static_cast<zorvik_q_wait*>(argument)->timeout_ms, 8000u)
        << "10 s less two looks: the writes have posted a wake-up";
    return 0;
  });
  setDebugLevel(1);
  clearLog();
  clearRequests();
  EXPECT_EQ(reader_->Drain(), 0);
  EXPECT_EQ(count(ZORVIK_FRM_FREE), 5);
  EXPECT_THAT(logLines(),
              ElementsAre(debug("Debug: Drain: Draining queue elements\n"),
                          debug("Debug: Drain: read timeout, assuming no more elements")));
  setDebugLevel(0);
  clearLog();
  reader_->Shutdown();
  EXPECT_EQ(reader_->Drain(), 0);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: Drain: read failed, errno=108")));
}

TEST_F(TarnikQTest, DrainsOnThoughAFrameIsRefused) {
  zorvik_frm_desc* const frames[] = {frame(), frame(), frame()};
  for (zorvik_frm_desc* const each : frames) {
    EXPECT_EQ(writer_->Write(each), 0);
  }
  answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
  refuse(ZORVIK_FRM_FREE, EIO);
  clearLog();
  EXPECT_EQ(reader_->Drain(), 0);
  const LogLine library =
      error("Error: zorlib_ifg_frm_free: free_frm ioctl failed - Input/output error");
  const LogLine own = error("Error: Free: zorlib_frm_free failed, errno=5");
  EXPECT_THAT(logLines(), ElementsAre(library, own, library, own, library, own));
  answerNothing();
  for (zorvik_frm_desc* const each : frames) {
    EXPECT_EQ(reader_->Free(each), 0);
  }
}

TEST_F(TarnikQTest, ARefusedFreeIsAnError) {
  refuse(ZORVIK_FRM_FREE, EIO);
  zorvik_frm_desc* const desc = frame();
  clearLog();
  EXPECT_EQ(reader_->Free(desc), -1);
  EXPECT_EQ(logLines().back(), error("Error: Free: zorlib_frm_free failed, errno=5"));
  answerNothing();
  EXPECT_EQ(reader_->Free(desc), 0);
}

TEST_F(TarnikQTest, AQueueThatTheLibraryRefusesIsAnError) {
  zorlib_q* const q = handleOf(reader_);
  q->magic = 0xbaadf00d;
  clearLog();
  EXPECT_EQ(reader_->getSize(), -1);
  EXPECT_EQ(reader_->getFd(), -1);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: getSize: zorlib_q_get_size failed"),
                                      error("Error: getFd: zorlib_q_get_fd failed, errno=53")));
  clearLog();
  EXPECT_EQ(reader_->Close(), -1);
  ASSERT_EQ(logLines().size(), 3u) << "the shutdown's, the closing's and";
  EXPECT_EQ(logLines()[2], error("Error: Close: zorlib_q_close failed, errno=53"));
  q->magic = 0xfaceb00b;
}

TEST_F(TarnikQTest, ReadPktLooksAtNoMode) {
  zorvik_frm_desc* const desc = frame();
  EXPECT_EQ(writer_->WritePkt(desc, 9, 4), 0);
  zorvik_frm_desc* read = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t tag = 0;
  std::uint32_t flags = 0;
  EXPECT_EQ(writer_->ReadPkt(&read, &data, &tag, &flags), 0);
  EXPECT_EQ(read, desc);
  EXPECT_EQ(tag, 9u);
  EXPECT_EQ(reader_->Free(read), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TarnikQTest, CloseShutsDownFirst) {
  TarnikQ* const q = TarnikIfCreate();
  ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
  zorlib_q* const look = openQueue(capture_if::ifg, ZORLIB_WRITE);
  EXPECT_EQ(look->memory().cresq.flags & 4, 0u);
  EXPECT_EQ(q->Close(), 0);
  EXPECT_EQ(look->memory().cresq.flags & 4, 4u);
  TarnikIfDestroy(q);
  EXPECT_EQ(zorlib_q_close(look), 0);
}

}  // namespace
}  // namespace tarnik::test
