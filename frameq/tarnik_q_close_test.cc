// Close by another thread while the queue's own thread uses it.
#include <chrono>
#include <thread>

#include "base/testing/process.h"
#include "frameq/testing/tarnik_q.h"
#include "zorlib/ring.h"

namespace tarnik::test {
namespace {

using namespace std::chrono_literals;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TarnikQCloseTest : public TarnikQTest {
 protected:
  static bool isMarkedShutDown(const zorvik_resq& side) {
    return (ring::load(const_cast<zorvik_resq&>(side).flags) & ZORVIK_RESQ_SHUTDOWN) != 0;
  }
};

TEST_F(TarnikQCloseTest, ShutsDownItsSideFirst) {
  const Object q = opened(TarnikQ::kIngress);
  const zorvik_resq& side = handleOf(writer_)->memory().cresq;
  EXPECT_FALSE(isMarkedShutDown(side));
  EXPECT_EQ(q->Close(), kQOk);
  EXPECT_TRUE(isMarkedShutDown(side));
}

// A driver may wake the reader late. The library uses the handle until the wait returns.
TEST_F(TarnikQCloseTest, WaitsForAReaderInsideTheLibrary) {
  const Object q = opened(TarnikQ::kIngress);
  q->SetTimeout(-1);
  zorvik_resq& side = handleOf(q.get())->side();
  std::thread closer;
  forgetObjects();
  answer(ZORVIK_Q_WAIT, [&](int, void*) {
    closer = std::thread([&] { EXPECT_EQ(q->Close(), kQOk); });
    EXPECT_TRUE(eventually([&] { return isMarkedShutDown(side); }));
    std::this_thread::sleep_for(50ms);
    EXPECT_THAT(lastWords(), IsEmpty()) << "closed during a read";
    return 0;
  });
  EXPECT_EQ(readPkt(q.get()).result, kQFailed);
  EXPECT_EQ(errno, ESHUTDOWN);
  closer.join();
  EXPECT_THAT(lastWords(), ElementsAre(0xbaadf00du));
  expectLog({});
}

// Another process may clear the flag at once, each time.
TEST_F(TarnikQCloseTest, EndsAReadAlthoughItsShutdownIsCleared) {
  const Object q = opened(TarnikQ::kIngress);
  q->SetTimeout(-1);
  zorvik_resq& side = handleOf(q.get())->side();
  std::thread closer;
  int waits = 0;
  answer(ZORVIK_Q_WAIT, [&](int, void*) {
    ++waits;
    closer = std::thread([&] { EXPECT_EQ(q->Close(), kQOk); });
    EXPECT_TRUE(eventually([&] { return isMarkedShutDown(side); }));
    ring::clearShutdown(side);
    EXPECT_TRUE(eventually([&] { return isMarkedShutDown(side); })) << "repeated";
    ring::clearShutdown(side);
    return 0;
  });
  EXPECT_EQ(readPkt(q.get()).result, kQFailed);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_EQ(waits, 1) << "the next read sees the shutdown without the flag";
  closer.join();
}

TEST_F(TarnikQCloseTest, AClosedObjectNeverReachesTheLibrary) {
  zorvik_frm_desc* const sent = frame();
  for (const int mode : {TarnikQ::kIngress, TarnikQ::kEgress}) {
    const Object q = opened(mode);
    ASSERT_EQ(q->Close(), kQOk);
    // The library may use the memory again: then the old handle looks open.
    const Object second = opened(mode);
    ASSERT_EQ(writer_->WritePkt(sent, 1, 0), kQOk);
    EXPECT_EQ(readPkt(q.get()).result, kQFailed);
    EXPECT_EQ(errno, ESHUTDOWN);
    EXPECT_EQ(readPkt(q.get()).frame, nullptr);
    EXPECT_EQ(q->room(zorlib_ifg_frm_data(capture_if::ifg, sent)), 0u);
    EXPECT_EQ(q->used(), 0u);
    expectLog({});
    zorvik_frm_desc* desc = sent;
    if (mode == TarnikQ::kIngress) {
      EXPECT_EQ(q->Read(&desc), kQFailed);
      EXPECT_EQ(errno, ESHUTDOWN);
      EXPECT_EQ(desc, nullptr);
      EXPECT_EQ(q->Drain(), kQOk);
      EXPECT_EQ(errno, ESHUTDOWN);
      expectLog({"Error: Drain: read failed, errno=108"});
    } else {
      EXPECT_EQ(q->Write(sent), kQFailed);
      expectLog({"Error: Write: zorlib_q_read failed, errno=108"});
    }
    EXPECT_EQ(q->getSize(), kQFailed);
    EXPECT_EQ(q->getFd(), kQFailed);
    q->SetTimeout(7);
    q->Shutdown();
    EXPECT_EQ(q->Close(), kQOk);
    expectLog({"Error: getSize: zorlib_q_get_size failed",
               "Error: getFd: zorlib_q_get_fd failed, errno=108",
               "Error: SetTimeout: zorlib_q_set_timeout failed, errno=108"});
    EXPECT_EQ(reader_->Read(&desc), kQOk) << "the one frame is still in the queue";
    EXPECT_EQ(second->Close(), kQOk);
    ring::clearShutdown(handleOf(reader_)->side());
    ring::clearShutdown(handleOf(writer_)->side());
  }
  EXPECT_EQ(reader_->Free(sent), kQOk);
}

TEST_F(TarnikQCloseTest, TwoThreadsCloseOnce) {
  for (int round = 0; round < 50; ++round) {
    const Object q = opened(TarnikQ::kIngress);
    forgetObjects();
    std::thread other([&] { EXPECT_EQ(q->Close(), kQOk); });
    EXPECT_EQ(q->Close(), kQOk);
    other.join();
    ASSERT_THAT(lastWords(), ElementsAre(0xbaadf00du));
  }
}

TEST_F(TarnikQCloseTest, ClosesAtAnyMomentWhileFramesArrive) {
  zorvik_frm_desc* const sent = frame();
  for (int round = 0; round < 20; ++round) {
    const Object q = opened(TarnikQ::kIngress);
    q->SetTimeout(-1);
    const std::uint8_t* const payload = handleOf(q.get())->payload;
    std::thread closer([&] {
      for (int i = 0; i < 200; ++i) {
        static_cast<void>(writer_->Write(sent));
      }
      EXPECT_EQ(q->Close(), kQOk);
    });
    Packet packet = readPkt(q.get());
    for (; packet.result == kQOk; packet = readPkt(q.get())) {
      EXPECT_THAT(q->room(packet.data), AnyOf(kPayload - (packet.data - payload), 0u));
    }
    EXPECT_EQ(errno, ESHUTDOWN);
    closer.join();
    ring::clearShutdown(handleOf(reader_)->side());
    while (readPkt(reader_).result == kQOk) {
    }
  }
  EXPECT_EQ(reader_->Free(sent), kQOk);
}

}  // namespace
}  // namespace tarnik::test
