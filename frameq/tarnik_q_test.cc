#include "frameq/tarnik_q.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "frameq/testing/tarnik_q.h"
#include "zorlib/testing/two_threads.h"

namespace tarnik::test {
namespace {

// ---- Open

TEST_F(TarnikQTest, OpensInTwoModes) {
  const Object q = fresh();
  EXPECT_EQ(q->Open(2), kQWrongMode);
  EXPECT_EQ(q->Open(-1), kQWrongMode);
  expectLog({"Error: Open: mode not valid (2)", "Error: Open: mode not valid (-1)"});
  zorlib_ifg* const group = capture_if::ifg.exchange(nullptr);
  EXPECT_EQ(q->Open(2), kQNoGroup) << "the group is checked before the mode";
  capture_if::ifg = group;
  expectLog({"Error: Open: ifg handle not valid ((nil))"});
}

TEST_F(TarnikQTest, LogsAFailedOpen) {
  const Object q = fresh();
  refuse(ZORVIK_Q_STAT, EIO);
  EXPECT_EQ(q->Open(TarnikQ::kIngress), kQFailed);
  EXPECT_EQ(errno, EIO);
  expectLog({"Error: zorlib_q_stat: stat ioctl failed - Input/output error",
             "Error: Open: zorlib_q_app_open failed, errno=5",
             "Open: TarnikIfInit must be called"});
}

TEST_F(TarnikQTest, LogsAnOpenAtDebugLevelFour) {
  for (const unsigned level : {3u, 4u}) {
    const Object q = fresh();
    setDebugLevel(level);
    EXPECT_EQ(q->Open(TarnikQ::kIngress), kQOk);
    setDebugLevel(0);
    const LogLine line =
        debug(text("Debug: Open: zorlib_q_app_open %p", static_cast<void*>(handleOf(q.get()))));
    const std::vector<LogLine> logged = logLines();
    EXPECT_EQ(std::count(logged.begin(), logged.end(), line), level == 4 ? 1 : 0);
    EXPECT_EQ(q->Close(), kQOk);
  }
}

// ---- Objects that are not open, or open in the other mode

TEST_F(TarnikQTest, OperationsNeedAnOpenQueueInTheirMode) {
  const Object none = fresh();
  zorvik_frm_desc* const desc = frame();
  zorvik_frm_desc* read = nullptr;
  struct Case {
    std::string name;
    TarnikQ* wrongMode;  // null: the operation has no mode
    std::function<int(TarnikQ*)> call;
  };
  const Case cases[] = {
      {"getSize", nullptr, [](TarnikQ* q) { return q->getSize(); }},
      {"getFd", nullptr, [](TarnikQ* q) { return q->getFd(); }},
      {"Read", writer_, [&](TarnikQ* q) { return q->Read(&read); }},
      {"Drain", writer_, [](TarnikQ* q) { return q->Drain(); }},
      {"Free", writer_, [&](TarnikQ* q) { return q->Free(desc); }},
      {"Write", reader_, [&](TarnikQ* q) { return q->Write(desc); }},
      {"WritePkt", reader_, [&](TarnikQ* q) { return q->WritePkt(desc, 1, 7); }},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(each.call(none.get()), kQNotOpen);
    const std::string level = each.name == "getSize" ? "Error: " : "";
    expectLog({level + each.name + ": TarnikIf handle not initialized"});
    if (each.wrongMode != nullptr) {
      EXPECT_EQ(each.call(each.wrongMode), kQWrongMode);
      expectLog({"Error: " + each.name + ": Invalid mode"});
    }
  }
  EXPECT_EQ(none->Close(), kQOk);
  none->Shutdown();
  none->SetTimeout(5);
  expectLog({});
  EXPECT_EQ(desc->flags, ZORVIK_FRM_VALID) << "nothing was written into the frame";
  EXPECT_EQ(desc->tag, 0u);
  EXPECT_EQ(reader_->Free(desc), kQOk) << "nothing was freed";
}

TEST_F(TarnikQTest, ReadPktChecksNeitherQueueNorMode) {
  const Packet none = readPkt(fresh().get());
  EXPECT_EQ(none.result, kQFailed);
  EXPECT_EQ(none.tag, 0u);
  EXPECT_EQ(none.flags, 0u);
  EXPECT_EQ(none.frame, nullptr);
  expectLog(
      {"Error: zorlib_q_validate: Nil handle", "Error: ReadPkt: zorlib_q_read failed, errno=53"});
  zorvik_frm_desc* const desc = frame();
  EXPECT_EQ(writer_->WritePkt(desc, 9, 4), kQOk);
  const Packet packet = readPkt(writer_);
  EXPECT_EQ(packet.result, kQOk);
  EXPECT_EQ(packet.frame, desc);
  EXPECT_EQ(packet.tag, 9u);
  EXPECT_EQ(reader_->Free(desc), kQOk);
  expectLog({});
}

TEST_F(TarnikQTest, ReturnsSizeAndDescriptor) {
  EXPECT_EQ(reader_->getSize(), 64) << "51, rounded up by the driver";
  EXPECT_EQ(reader_->getFd(), zorlib_q_get_fd(handleOf(reader_)));
}

TEST_F(TarnikQTest, LogsWhatTheLibraryRefuses) {
  zorlib_q* const q = handleOf(reader_);
  q->magic = 0xbaadf00d;
  EXPECT_EQ(reader_->getSize(), kQFailed);
  EXPECT_EQ(reader_->getFd(), kQFailed);
  expectLog({"Error: getSize: zorlib_q_get_size failed",
             "Error: getFd: zorlib_q_get_fd failed, errno=53"});
  EXPECT_EQ(reader_->Close(), kQFailed);
  const std::string library = "Error: zorlib_q_validate: Unknown magic baadf00d";
  expectLog({library, library, "Error: Close: zorlib_q_close failed, errno=53"});
  q->magic = 0xfaceb00b;
}

// ---- Packets

TEST_F(TarnikQTest, CarriesTagAndFlags) {
  struct Case {
    std::uint32_t written, read;
    std::uint16_t descriptor;
  };
  for (const Case& each : {Case{0, 0, 0x0001}, Case{1, 1, 0x4001}, Case{4, 4, 0x8001},
                           Case{5, 5, 0xc001}, Case{2, 0, 0x0001}, Case{0xfffffffa, 0, 0x0001}}) {
    zorvik_frm_desc* const desc = frame();
    EXPECT_EQ(writer_->WritePkt(desc, 0x0123456789abcdef, each.written), kQOk);
    EXPECT_EQ(desc->flags, each.descriptor);
    EXPECT_EQ(writer_->used(), 1u);
    const Packet packet = readPkt(reader_);
    EXPECT_EQ(packet.result, kQOk);
    EXPECT_EQ(packet.frame, desc);
    EXPECT_EQ(packet.tag, 0x0123456789abcdefu);
    EXPECT_EQ(packet.flags, each.read);
    EXPECT_EQ(packet.data, zorlib_ifg_frm_data(capture_if::ifg, desc));
    EXPECT_EQ(reader_->room(packet.data), kPayload - desc->data_off);
    EXPECT_EQ(reader_->Free(desc), kQOk);
  }
  expectLog({});
}

TEST_F(TarnikQTest, ReturnsAFrameWithoutDataSoThatItCanBeFreed) {
  zorvik_frm_desc* const desc = frame();
  const std::uint32_t offset = desc->data_off;
  for (const std::uint32_t outside : {kPayload + 1, 0xfffffff0u}) {
    desc->data_off = outside;
    EXPECT_EQ(writer_->WritePkt(desc, 0x0123456789abcdef, 5), kQOk);
    errno = ESHUTDOWN;  // must not end the caller's loop
    const Packet packet = readPkt(reader_);
    EXPECT_EQ(packet.result, kQFailed);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(packet.frame, desc);
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.tag, 0x0123456789abcdefu);
    EXPECT_EQ(packet.flags, 5u);
    expectLog({"Error: ReadPkt: Failed to get trFrame"});
  }
  desc->data_off = offset;
  EXPECT_EQ(reader_->Free(desc), kQOk);
}

TEST_F(TarnikQTest, DoesNotLoseFlagsThatAnotherHolderSets) {
  zorvik_frm_desc* const desc = frame();
  while (writer_->Write(desc) == kQOk) {
  }
  constexpr std::uint16_t kOther = 0x0100;
  const std::atomic_ref<std::uint16_t> flags(desc->flags);
  int lost = 0;
  int written = 0;
  inTwoThreads([&] { written += writer_->WritePkt(desc, 1, 5) == kQOk ? 1 : 0; },
               [&] {
                 flags.fetch_or(kOther);
                 lost += (flags.fetch_and(static_cast<std::uint16_t>(~kOther)) & kOther) == 0;
                 lost += (flags.load() & kOther) != 0;
               });
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(written, 0);
  EXPECT_EQ(desc->flags, 0xc001);
  desc->qref_cnt = 1;
}

// ---- Failed reads and writes

TEST_F(TarnikQTest, TheErrnoOfAFailedReadGivesItsResult) {
  struct Case {
    int error, read, readPkt;
  };
  reader_->SetTimeout(-1);
  for (const Case& each :
       {Case{EINTR, kQFailed, kQTimeout}, Case{EIO, kQFailed, kQFailed},
        Case{ESHUTDOWN, kQFailed, kQFailed}, Case{EAGAIN, kQTimeout, kQTimeout}}) {
    refuse(ZORVIK_Q_WAIT, each.error);
    const std::string line = ": zorlib_q_read failed, errno=" + std::to_string(each.error);
    const bool silent = each.error == ESHUTDOWN || each.error == EAGAIN;
    EXPECT_EQ(readPkt(reader_).result, each.readPkt);
    EXPECT_EQ(errno, each.error);
    expectLog(silent || each.error == EINTR ? std::vector<std::string>{}
                                            : std::vector{"Error: ReadPkt" + line});
    zorvik_frm_desc* desc = nullptr;
    EXPECT_EQ(reader_->Read(&desc), each.read);
    EXPECT_EQ(errno, each.error);
    expectLog(silent ? std::vector<std::string>{} : std::vector{"Error: Read" + line});
  }
}

// The daemon repeats a failed read at once.
TEST_F(TarnikQTest, RepeatedFailedReadsDoNotSpin) {
  reader_->SetTimeout(-1);
  refuse(ZORVIK_Q_WAIT, EINVAL);  // as for a wait record that the driver does not know
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(350);
  int reads = 0;
  while (std::chrono::steady_clock::now() < end) {
    EXPECT_EQ(readPkt(reader_).result, kQFailed);
    EXPECT_EQ(errno, EINVAL);
    ++reads;
  }
  EXPECT_LE(reads, 4);
}

TEST_F(TarnikQTest, AnEmptyQueueGivesATimeout) {
  zorvik_frm_desc* desc = frame();
  EXPECT_EQ(readPkt(reader_).result, kQTimeout);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(reader_->Read(&desc), kQTimeout);
  EXPECT_EQ(desc, nullptr);
}

TEST_F(TarnikQTest, TheErrnoOfAFailedWriteGivesItsResult) {
  zorvik_frm_desc* const desc = frame();
  for (int i = 0; i < 63; ++i) {
    ASSERT_EQ(writer_->Write(desc), kQOk);
  }
  EXPECT_EQ(writer_->Write(desc), kQTimeout) << "full, without waiting";
  EXPECT_EQ(errno, EAGAIN);
  writer_->SetTimeout(-1);
  const std::string failed = text("Debug: Write: Failed to write %p", static_cast<void*>(desc));
  for (const int number : {EAGAIN, EINTR, ESHUTDOWN, EIO}) {
    const int result = number == EAGAIN ? kQTimeout : kQFailed;
    std::vector<std::string> expected;
    if (number != EAGAIN) {  // the line names the read call
      expected.push_back(text("Error: Write: zorlib_q_read failed, errno=%d", number));
    }
    refuse(ZORVIK_Q_WAIT, number);
    clearLog();
    EXPECT_EQ(writer_->Write(desc), result) << number;
    EXPECT_EQ(errno, number);
    expectLog(expected);
    expected.insert(expected.begin(), failed);
    setDebugLevel(1);
    EXPECT_EQ(writer_->WritePkt(desc, 1, 0), result) << number;
    EXPECT_EQ(errno, number);
    expectLog(expected);
    setDebugLevel(0);
  }
  desc->qref_cnt = 1;
}

TEST_F(TarnikQTest, AShutdownByAnotherThreadEndsAWaitingRead) {
  reader_->SetTimeout(-1);
  std::thread other([this] {
    while (count(ZORVIK_Q_WAIT) == 0) {
      std::this_thread::yield();
    }
    reader_->Shutdown();
  });
  EXPECT_EQ(readPkt(reader_).result, kQFailed);
  EXPECT_EQ(errno, ESHUTDOWN);
  other.join();
  expectLog({});
}

// ---- Drain and Free

TEST_F(TarnikQTest, DrainFreesEveryFrame) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(writer_->Write(frame()), kQOk);
  }
  answer(ZORVIK_Q_WAIT, [](int, void* argument) {
    EXPECT_EQ(static_cast<zorvik_q_wait*>(argument)->timeout_ms, 8000u)
        << "10 s less two looks: the first finds the wake-up of the writes";
    return 0;
  });
  setDebugLevel(1);
  clearLog();
  clearRequests();
  EXPECT_EQ(reader_->Drain(), kQOk);
  EXPECT_EQ(count(ZORVIK_FRM_FREE), 5);
  expectLog({"Debug: Drain: Draining queue elements\n",
             "Debug: Drain: read timeout, assuming no more elements"});
  setDebugLevel(0);
  reader_->Shutdown();
  EXPECT_EQ(reader_->Drain(), kQOk);
  expectLog({"Error: Drain: read failed, errno=108"});
}

TEST_F(TarnikQTest, DrainGoesOnAfterAFailedFree) {
  zorvik_frm_desc* const frames[] = {frame(), frame(), frame()};
  for (zorvik_frm_desc* const each : frames) {
    EXPECT_EQ(writer_->Write(each), kQOk);
  }
  answer(ZORVIK_Q_WAIT, [](int, void*) { return 0; });
  refuse(ZORVIK_FRM_FREE, EIO);
  const std::string library =
      "Error: zorlib_ifg_frm_free: free_frm ioctl failed - Input/output error";
  const std::string own = "Error: Free: zorlib_frm_free failed, errno=5";
  EXPECT_EQ(reader_->Drain(), kQOk);
  expectLog({library, own, library, own, library, own});
  EXPECT_EQ(reader_->Free(frames[0]), kQFailed);
  EXPECT_EQ(errno, EIO);
  expectLog({library, own});
  answerNothing();
  for (zorvik_frm_desc* const each : frames) {
    EXPECT_EQ(reader_->Free(each), kQOk);
  }
}

TEST_F(TarnikQTest, FreesThroughTheGroupOfTheProcess) {
  zorvik_frm_desc* const desc = frame();
  zorlib_ifg* const group = capture_if::ifg.exchange(nullptr);
  clearRequests();
  EXPECT_EQ(reader_->Free(desc), kQFailed) << "although the queue has a group";
  EXPECT_EQ(errno, EBADR);
  expectLog(
      {"Error: zorlib_ifg_validate: Nil handle", "Error: Free: zorlib_frm_free failed, errno=53"});
  EXPECT_TRUE(requests().empty());
  capture_if::ifg = group;
  EXPECT_EQ(reader_->Free(desc), kQOk);
}

// ---- Dump

TEST_F(TarnikQTest, DumpsLinesOfSixteenBytes) {
  zorvik_frm_desc* const desc = frame();
  std::uint8_t* const data = zorlib_ifg_frm_data(capture_if::ifg, desc);
  for (std::uint8_t i = 0; i < 40; ++i) {
    data[i] = static_cast<std::uint8_t>(i * 7);
  }
  desc->cap_len = 20;
  reader_->Dump(desc, "frame");
  expectLog({});
  setDebugLevel(1);
  const std::string full = "Debug: 0000: 00 07 0e 15 1c 23 2a 31   38 3f 46 4d 54 5b 62 69";
  struct Case {
    std::uint32_t length;
    std::vector<std::string> lines;
  };
  const Case cases[] = {{20, {full, "Debug: 0010: 70 77 7e 85"}},
                        {16, {full}},
                        {1, {"Debug: 0000: 00"}},
                        {26, {full, "Debug: 0010: 70 77 7e 85 8c 93 9a a1   a8 af"}},
                        {0, {"Debug: "}},
                        {0xffffffff, {"Debug: "}}};
  for (const Case& each : cases) {
    std::vector<std::string> lines = each.lines;
    lines.insert(lines.begin(), text("Debug: Dump: frame (%d bytes) %p",
                                     static_cast<int>(each.length), static_cast<void*>(data)));
    desc->cap_len = each.length;
    reader_->Dump(desc, "frame");
    expectLog(lines);
  }
  EXPECT_EQ(reader_->Free(desc), kQOk);
}

TEST_F(TarnikQTest, ADumpEndsWithThePayloadMemory) {
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
  clearLog();
  desc->frame_size = 19;
  reader_->Dump(desc, "outside");
  expectLog({"Debug: Dump: outside (2147483647 bytes) (nil)", "Debug: "});
  desc->data_off = offset;
  EXPECT_EQ(reader_->Free(desc), kQOk);
}

}  // namespace
}  // namespace tarnik::test
