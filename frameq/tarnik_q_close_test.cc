// A queue that another thread closes while its own thread is at work with it.
#include <cerrno>
#include <chrono>
#include <thread>

#include "frameq/testing/tarnik_q.h"
#include "zorlib/ring.h"

namespace tarnik::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TarnikQCloseTest : public TarnikQTest {
 protected:
  int readPkt(TarnikQ* q) {
    data_ = nullptr;
    return q->ReadPkt(&desc_, &data_, &tag_, &flags_);
  }
  // Waits until `happened`, not for ever.
  template <typename Happened>
  static bool becomes(Happened happened) {
    for (int i = 0; i < 10000; ++i) {
      if (happened()) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  zorvik_frm_desc* desc_ = nullptr;
  std::uint8_t* data_ = nullptr;
  std::uint64_t tag_ = 0;
  std::uint32_t flags_ = 0;
};

// The driver wakes the waiter late: the handle is still the library's until it has come back.
TEST_F(TarnikQCloseTest, AReaderThatWaitsKeepsItsHandle) {
  const auto q = fresh();
  ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
  q->SetTimeout(-1);
  zorvik_resq& side = handleOf(q.get())->side();
  std::thread closer;
  forgetObjects();
  answer(ZORVIK_Q_WAIT, [&](int, void*) {
    closer = std::thread([&] { EXPECT_EQ(q->Close(), 0); });
    EXPECT_TRUE(becomes([&] { return (ring::load(side.flags) & ZORVIK_RESQ_SHUTDOWN) != 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_THAT(lastWords(), IsEmpty()) << "closed under its reader";
    return 0;
  });
  EXPECT_EQ(readPkt(q.get()), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  closer.join();
  EXPECT_THAT(lastWords(), ElementsAre(0xbaadf00du));
  EXPECT_THAT(logLines(), IsEmpty());
}

// Whoever opens the queue anew clears the shutdown, perhaps before the reader has seen it.
TEST_F(TarnikQCloseTest, AShutdownThatIsTakenBackIsRaisedAgain) {
  const auto q = fresh();
  ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
  q->SetTimeout(-1);
  zorvik_resq& side = handleOf(q.get())->side();
  std::thread closer;
  int waits = 0;
  answer(ZORVIK_Q_WAIT, [&](int, void*) {
    if (++waits == 1) {
      closer = std::thread([&] { EXPECT_EQ(q->Close(), 0); });
    }
    EXPECT_TRUE(becomes([&] { return (ring::load(side.flags) & ZORVIK_RESQ_SHUTDOWN) != 0; }));
    if (waits < 3) {
      ring::clearShutdown(side);
    }
    return 0;
  });
  EXPECT_EQ(readPkt(q.get()), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  closer.join();
  EXPECT_GE(waits, 1);
}

TEST_F(TarnikQCloseTest, AfterwardsNothingReachesTheLibrary) {
  zorvik_frm_desc* const sent = frame();
  for (const int mode : {TarnikQ::kIngress, TarnikQ::kEgress}) {
    const auto q = fresh();
    ASSERT_EQ(q->Open(mode), 0);
    ASSERT_EQ(q->Close(), 0);
    // Memory that the library uses again: a handle with every sign of life.
    const auto impostor = fresh();
    ASSERT_EQ(impostor->Open(mode), 0);
    ASSERT_EQ(writer_->WritePkt(sent, 1, 0), 0);
    clearLog();
    desc_ = sent;
    errno = 0;
    EXPECT_EQ(readPkt(q.get()), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    EXPECT_EQ(desc_, nullptr) << "nothing that would have to be freed";
    EXPECT_EQ(q->room(zorlib_ifg_frm_data(capture_if::ifg, sent)), 0u);
    EXPECT_EQ(q->used(), 0u);
    EXPECT_THAT(logLines(), IsEmpty());
    if (mode == TarnikQ::kIngress) {
      errno = 0;
      desc_ = sent;
      EXPECT_EQ(q->Read(&desc_), -1);
      EXPECT_EQ(errno, ESHUTDOWN);
      EXPECT_EQ(desc_, nullptr);
      EXPECT_EQ(q->Drain(), 0);
      EXPECT_EQ(errno, ESHUTDOWN);
      EXPECT_THAT(logLines(), ElementsAre(error("Error: Drain: read failed, errno=108")));
    } else {
      EXPECT_EQ(q->Write(sent), -1);
      EXPECT_THAT(logLines(), ElementsAre(error("Error: Write: zorlib_q_read failed, errno=108")));
    }
    clearLog();
    EXPECT_EQ(q->getSize(), -1);
    EXPECT_EQ(q->getFd(), -1);
    q->SetTimeout(7);
    q->Shutdown();
    EXPECT_EQ(q->Close(), 0);
    EXPECT_THAT(logLines(),
                ElementsAre(error("Error: getSize: zorlib_q_get_size failed"),
                            error("Error: getFd: zorlib_q_get_fd failed, errno=108"),
                            error("Error: SetTimeout: zorlib_q_set_timeout failed, errno=108")));
    EXPECT_EQ(reader_->Read(&desc_), 0) << "the one frame is still there";
    EXPECT_EQ(impostor->Close(), 0);
    ring::clearShutdown(handleOf(reader_)->side());
    ring::clearShutdown(handleOf(writer_)->side());
  }
  EXPECT_EQ(reader_->Free(sent), 0);
}

TEST_F(TarnikQCloseTest, OneOfTwoThatCloseDoesIt) {
  for (int round = 0; round < 50; ++round) {
    const auto q = fresh();
    ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
    forgetObjects();
    std::thread other([&] { EXPECT_EQ(q->Close(), 0); });
    EXPECT_EQ(q->Close(), 0);
    other.join();
    ASSERT_THAT(lastWords(), ElementsAre(0xbaadf00du));
  }
}

// Frames flow until the queue is closed under the reader, at any moment.
TEST_F(TarnikQCloseTest, ClosedWhileFramesFlow) {
  zorvik_frm_desc* const sent = frame();
  for (int round = 0; round < 20; ++round) {
    const auto q = fresh();
    ASSERT_EQ(q->Open(TarnikQ::kIngress), 0);
    q->SetTimeout(-1);
    const std::uint8_t* const payload = handleOf(q.get())->payload;
    std::thread closer([&] {
      for (int i = 0; i < 200; ++i) {
        static_cast<void>(writer_->Write(sent));
      }
      EXPECT_EQ(q->Close(), 0);
    });
    while (readPkt(q.get()) == 0) {
      EXPECT_THAT(q->room(data_), AnyOf(kPayload - (data_ - payload), 0u));
    }
    EXPECT_EQ(errno, ESHUTDOWN);
    closer.join();
    ring::clearShutdown(handleOf(reader_)->side());
    while (reader_->Read(&desc_) == 0) {
    }
  }
  EXPECT_EQ(reader_->Free(sent), 0);
}

}  // namespace
}  // namespace tarnik::test
