// A process that maps a queue can write anywhere in it, at any time. Reads and writes must stay
// inside the mappings, and the queue must close.
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "base/testing/process.h"
#include "frameq/testing/tarnik_q.h"
#include "platform/zorvik/driver.h"
#include "platform/zorvik/setup.h"
#include "zorlib/testing/seed.h"

namespace tarnik::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Writes random and chosen values over the queue's words, the descriptors and the payload, until it
// is killed.
class Attacker {
 public:
  Attacker(const zorlib_q& q, unsigned seed)
      : q_(q), payload_(q.payloadSize), frames_(q.frmDescSize / sizeof *q.frmDesc), random_(seed) {}

  [[noreturn]] void run() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    auto* const queue = static_cast<volatile std::uint32_t*>(q_.qmem.base());
    auto* const payload = const_cast<volatile std::uint8_t*>(q_.payload);
    for (;;) {
      queue[draw(q_.memSize / 4)] = value();
      overwriteRing();
      overwriteDescriptor();
      payload[draw(payload_)] = static_cast<std::uint8_t>(random_());
    }
  }

 private:
  std::uint32_t draw(std::uint32_t below) { return static_cast<std::uint32_t>(random_()) % below; }

  std::uint32_t value() {
    const std::uint32_t chosen[] = {0,           1,          15,           16,        4096,
                                    frames_ - 1, frames_,    payload_ - 1, payload_,  payload_ + 1,
                                    0x7fffffff,  0x80000000, 0xffffff00,   0xffffffff};
    return draw(2) == 0 ? chosen[draw(std::size(chosen))] : static_cast<std::uint32_t>(random_());
  }

  // Changes what readers and writers depend on. Most entries name a frame that could be valid, and
  // most counters are inside the ring.
  void overwriteRing() {
    volatile zorvik_qmem& memory = q_.memory();
    const std::uint32_t frame = draw(frames_);
    const std::uint32_t id = frame | std::uint32_t{q_.frmDesc[frame].generation} << 24;
    auto* const entries = static_cast<volatile std::uint64_t*>(zorvik_qmem_entries(&q_.memory()));
    const std::uint32_t kind = draw(4);
    entries[draw(q_.mask + 1)] = kind == 0 ? 0 : kind == 1 ? value() : id;
    switch (draw(4)) {
      case 0:
        memory.enqueue = draw(8) == 0 ? value() : draw(q_.mask + 1);
        break;
      case 1:
        memory.dequeue = draw(8) == 0 ? value() : draw(q_.mask + 1);
        break;
      default:
        // Shutdowns are rare, because they stop all reads and writes.
        (draw(2) == 0 ? memory.presq : memory.cresq).flags = draw(2) | (draw(64) == 0 ? 4 : 0);
    }
  }

  void overwriteDescriptor() {
    zorvik_frm_desc* const frame = q_.frmDesc + draw(frames_);
    volatile zorvik_frm_desc& shared = *frame;
    switch (draw(6)) {
      case 0:
        shared.data_off = draw(2) == 0 ? value() : draw(payload_);
        break;
      case 1:
        shared.cap_len = value();
        break;
      case 2:
        shared.frame_size = static_cast<std::uint16_t>(value());
        break;
      case 3:
        shared.flags = static_cast<std::uint16_t>(value() | (draw(8) != 0 ? ZORVIK_FRM_VALID : 0));
        break;
      case 4:
        shared.index = draw(2) == 0 ? value() : draw(frames_);
        break;
      default:
        reinterpret_cast<volatile std::uint32_t*>(frame)[draw(sizeof *frame / 4)] = value();
    }
  }

  const zorlib_q& q_;
  const std::uint32_t payload_;
  const std::uint32_t frames_;
  std::mt19937 random_;
};

struct Outcomes {
  std::atomic<int> done{0};
  std::atomic<int> invalid{0};
  std::atomic<std::uint64_t> touched{0};  // bytes
};

class HostileMemoryTest : public TarnikIfTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    // The attacker names other wait records, so wake requests miss the sleepers. They have to check
    // the ring themselves.
    zorvik::Driver::latest()->state().faults.strictWaits = 0;
    ASSERT_EQ(TarnikIfgOpen(), kQOk);
    ifg_ = capture_if::ifg;
  }

  static TarnikQ* open(int mode, std::int32_t ms) {
    TarnikQ* const q = TarnikIfCreate();
    EXPECT_EQ(q->Open(mode), kQOk);
    q->SetTimeout(ms);
    return q;
  }

  static bool isExpected(int error) {
    // EINVAL: the driver does not know the wait record that the attacker has named.
    return error == EAGAIN || error == ESHUTDOWN || error == ENXIO || error == EINVAL;
  }

  // Reads, touches and frees frames like the daemon, until the queue is closed. `q` is another
  // handle of the group.
  void readAll(TarnikQ* reader, const zorlib_q& q) {
    zorvik_frm_desc* frame = nullptr;
    std::uint8_t* data = nullptr;
    std::uint64_t tag = 0;
    std::uint32_t flags = 0;
    for (;;) {
      if (reader->ReadPkt(&frame, &data, &tag, &flags) == kQOk) {
        ++read_.done;
        ASSERT_GT(frame, q.frmDesc);
        ASSERT_LE(reinterpret_cast<std::uint8_t*>(frame + 1),
                  reinterpret_cast<std::uint8_t*>(q.frmDesc) + q.frmDescSize);
        const std::uint32_t length =
            std::min(std::atomic_ref(frame->cap_len).load(), reader->room(data));
        ASSERT_GE(data, q.payload);
        ASSERT_LE(data + length, q.payload + q.payloadSize);
        touch(data, length);
      } else if (errno == ESHUTDOWN && closing_) {
        return;
      } else if (errno == ENXIO) {
        ++read_.invalid;
      } else {
        ASSERT_TRUE(isExpected(errno)) << errno;
      }
      if (frame != nullptr) {
        static_cast<void>(reader->Free(frame));  // fails when the descriptor has changed
      }
      clearLog();
    }
  }
  // Reads one byte in 512, and the last.
  void touch(const std::uint8_t* data, std::uint32_t length) {
    const volatile std::uint8_t* const bytes = data;
    for (std::uint32_t i = 0; i < length; i += 512) {
      static_cast<void>(bytes[i]);
    }
    if (length != 0) {
      static_cast<void>(bytes[length - 1]);
    }
    read_.touched += length;
  }

  void writeAll(TarnikQ* writer, const zorlib_q& q) {
    const std::uint32_t frames = q.frmDescSize / sizeof *q.frmDesc;
    for (std::uint32_t i = 0;; ++i) {
      const int result = writer->Write(q.frmDesc + i % frames);
      if (result == kQOk) {
        ++written_.done;
      } else if (errno == ESHUTDOWN && closing_) {
        return;
      } else {
        ASSERT_TRUE(isExpected(errno)) << errno;
      }
      clearLog();
    }
  }

  // Reads and writes for a while with this timeout, then closes both. The attacker runs all the
  // time.
  void round(std::uint32_t type, std::int32_t ms, unsigned seed) {
    createQueue(ifg_, type, 16);
    zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
    TarnikQ* const reader = open(TarnikQ::kIngress, ms);
    TarnikQ* const writer = open(TarnikQ::kEgress, ms);
    closing_ = false;
    Process attacker([&]() -> int { Attacker(*q, seed).run(); });
    std::thread reading([&] { readAll(reader, *q); });
    std::thread writing([&] { writeAll(writer, *q); });
    const int before[] = {read_.done, read_.invalid, written_.done};
    const auto begin = Clock::now();
    const auto passed = [&](std::chrono::milliseconds time) { return Clock::now() - begin > time; };
    while (!passed(150ms) || (!passed(20s) && !HasFailure() &&
                              (read_.done == before[0] || read_.invalid == before[1] ||
                               written_.done == before[2]))) {
      std::this_thread::sleep_for(1ms);
    }
    EXPECT_FALSE(passed(20s)) << "no frame was read or written";
    const auto start = Clock::now();
    closing_ = true;
    EXPECT_EQ(reader->Close(), kQOk);
    EXPECT_EQ(writer->Close(), kQOk);
    EXPECT_LT(Clock::now() - start, 10s);
    reading.join();
    writing.join();
    attacker.signal(SIGKILL);
    EXPECT_EQ(attacker.wait(), killedBy(SIGKILL)) << "it ran to the end";
    TarnikIfDestroy(reader);
    TarnikIfDestroy(writer);
    EXPECT_EQ(zorlib_q_close(q), 0);
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), 0);
  }

  zorlib_ifg* ifg_ = nullptr;
  std::atomic<bool> closing_{false};
  Outcomes read_;
  Outcomes written_;
};

TEST_F(HostileMemoryTest, ReadsAndWritesStayInsideTheMappingsAndEnd) {
  unsigned seed = chosenSeed();
  for (const std::uint32_t type : {ZORVIK_Q_INGRESS, ZORVIK_Q_SHARED, ZORVIK_Q_APP}) {
    for (const std::int32_t ms : {0, 2001, -1}) {
      SCOPED_TRACE(text("type %u, %d ms", type, ms));
      round(type, ms, seed++);
      ASSERT_FALSE(HasFailure());
    }
  }
  EXPECT_GT(read_.touched, 0u);
  std::printf("%d frames and %d invalid ones read, %llu bytes, %d written\n", read_.done.load(),
              read_.invalid.load(), static_cast<unsigned long long>(read_.touched),
              written_.done.load());
}

}  // namespace
}  // namespace tarnik::test
