// Queue handles: open, shut down, and their properties.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueueTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    createQueue(ifg_);
    clearRequests();
  }
  void TearDown() override {
    EXPECT_EQ(ifg_->refs, 1u) << "a queue is still open, or a failed open kept its reference";
    GroupTest::TearDown();
  }

  void openFails(std::uint32_t mode, const char* name, int error, const std::string& line) {
    zorlib_q* q = nullptr;
    expectFailure([&] { return zorlib_q_app_open(ifg_, name, mode, &q); }, error, {line});
    EXPECT_EQ(q, nullptr);
  }
};

TEST_F(QueueTest, OpensWithTheDriversValues) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(q->magic.get(), 0xfaceb00bu);
  EXPECT_EQ(q->mode, 0u);
  EXPECT_EQ(q->ifg, ifg_);
  EXPECT_EQ(q->frmDesc, ifg_->frmDesc.base());
  EXPECT_EQ(q->payload, ifg_->payload.base());
  EXPECT_EQ(q->type, 5u);
  zorvik_q_enum* found = nullptr;
  ASSERT_EQ(zorlib_ifg_q_enum(ifg_, &found), 0);
  const std::unique_ptr<zorvik_q_enum, zorlib::Free> list(found);
  EXPECT_EQ(q->id, list->records[0].id);
  EXPECT_EQ(q->timeout, -1);
  EXPECT_EQ(q->entries, 16u);
  EXPECT_EQ(q->memSize, 320u + 16 * 8);
  EXPECT_EQ(q->frmDescSize, ifg_->frmDescSize);
  EXPECT_EQ(q->payloadSize, ifg_->payloadSize);
  EXPECT_STREQ(q->name.data(), "TarnikQ");
  EXPECT_STREQ(q->path.data(), "/dev/zorvik/brund/TarnikQ");
  EXPECT_EQ(::fcntl(q->fd.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(q->fd.get(), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_FRM_DESC_SIZE, ZORVIK_NET_DATA_SIZE, ZORVIK_Q_STAT,
                                      ZORVIK_Q_WAKE, ZORVIK_Q_ENUM));
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(QueueTest, KeepsNineteenCharactersOfTheName) {
  const std::string name = "./././././././TarnikQ";
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ, name.c_str());
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(std::string(q->name.data()), name.substr(0, 19));
  EXPECT_EQ(std::string(q->path.data()), "/dev/zorvik/brund/" + name);
  EXPECT_EQ(zorlib_q_close(q), 0);
}

// ---- Shutdown: an open clears the flag of its side, a shutdown sets it, and both then wake the
// side

class ShutdownTest : public QueueTest, public ::testing::WithParamInterface<std::uint32_t> {
 protected:
  void SetUp() override {
    QueueTest::SetUp();
    other_ = openQueue(ifg_, GetParam() == ZORLIB_READ ? ZORLIB_WRITE : ZORLIB_READ);
    zorvik_qmem& memory = other_->memory();
    own_ = GetParam() == ZORLIB_READ ? &memory.cresq : &memory.presq;
    answer(ZORVIK_Q_WAKE, [this](int, void* argument) {
      woken_.push_back(static_cast<zorvik_q_wake*>(argument)->kresq_handle);
      flagsAtWake_ = own_->flags;
      return -EIO;  // has no consequence
    });
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_q_close(other_), 0);
    QueueTest::TearDown();
  }

  zorlib_q* other_ = nullptr;
  zorvik_resq* own_ = nullptr;
  std::vector<std::uint32_t> woken_;
  std::uint32_t flagsAtWake_ = 0;
};

TEST_P(ShutdownTest, AnOpenClearsTheShutdownOfItsSide) {
  own_->flags = 0xf;
  other_->side().flags = 0xf;
  zorlib_q* const q = openQueue(ifg_, GetParam());
  EXPECT_EQ(flagsAtWake_, 0xbu) << "cleared before the wake-up";
  EXPECT_EQ(own_->flags, 0xbu);
  EXPECT_EQ(other_->side().flags, 0xfu);
  EXPECT_THAT(woken_, ElementsAre(own_->kresq_handle));
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_P(ShutdownTest, AShutdownSetsTheFlagOfItsSide) {
  zorlib_q* const q = openQueue(ifg_, GetParam());
  own_->flags = other_->side().flags = 0xa;
  woken_.clear();
  EXPECT_EQ(zorlib_q_shutdown(q), 0);
  EXPECT_EQ(flagsAtWake_, 0xeu) << "set before the wake-up";
  EXPECT_EQ(own_->flags, 0xeu);
  EXPECT_EQ(other_->side().flags, 0xau);
  EXPECT_THAT(woken_, ElementsAre(own_->kresq_handle));
  EXPECT_EQ(zorlib_q_close(q), 0);
}

INSTANTIATE_TEST_SUITE_P(Sides, ShutdownTest, ::testing::Values(ZORLIB_READ, ZORLIB_WRITE));

// ---- Failed opens

TEST_F(QueueTest, LogsAFailedOpen) {
  openFails(2, "TarnikQ", EINVAL, "Error: zorlib_q_app_open: Invalid mode 2");
  openFails(0xffffffff, "TarnikQ", EINVAL, "Error: zorlib_q_app_open: Invalid mode -1");
  EXPECT_THAT(requests(), IsEmpty());
  openFails(
      0, "none", ENOENT,
      "Error: zorlib_q_open: open(/dev/zorvik/brund/none) failed - No such file or directory");
  refuse(ZORVIK_Q_STAT, EIO);
  openFails(0, "TarnikQ", EIO, "Error: zorlib_q_stat: stat ioctl failed - Input/output error");
  answer(ZORVIK_Q_STAT, [](int, void*) { return 0; });
  openFails(1, "TarnikQ", ENXIO, "Error: zorlib_q_open: brund/TarnikQ stat ioctl shows size 0");
}

TEST_F(QueueTest, LogsAFailedMapping) {
  int fd = -1;
  answer(ZORVIK_Q_STAT, [&](int descriptor, void* argument) {
    fd = descriptor;
    static_cast<zorvik_q_stat*>(argument)->mem_size = 320;
    // A directory cannot be mapped.
    EXPECT_EQ(::dup2(::open("/dev/zorvik", O_RDONLY | O_DIRECTORY), descriptor), descriptor);
    return 0;
  });
  zorlib_q* q = nullptr;
  EXPECT_EQ(zorlib_q_app_open(ifg_, "TarnikQ", 0, &q), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_q_open: mmap failed (" + std::to_string(fd) +
                               ", 320) - Permission denied"}));
}

TEST_F(QueueTest, RefusesMemoryThatHasNoRing) {
  struct Case {
    std::uint32_t memSize, slots, mask;
  };
  zorlib_q* const owner = openQueue(ifg_, ZORLIB_READ);
  zorvik_qmem& memory = owner->memory();
  for (const Case& each : {Case{319, 16, 15}, Case{320 + 16 * 8 - 1, 16, 15}, Case{448, 16, 16},
                           Case{448, 12, 11}, Case{448, 1, 0}, Case{448, 0, 0xffffffff},
                           Case{448, 0x80000000, 0x7fffffff}, Case{448, 32, 31}}) {
    answer(ZORVIK_Q_STAT, [&](int, void* argument) {
      static_cast<zorvik_q_stat*>(argument)->mem_size = each.memSize;
      return 0;
    });
    memory.max_elements = each.slots;
    memory.mask = each.mask;
    openFails(0, "TarnikQ", ENXIO,
              "Error: zorlib_q_open: brund/TarnikQ queue memory of " +
                  std::to_string(each.memSize) + " bytes holds no ring");
  }
  answerNothing();
  memory.max_elements = 2;
  memory.mask = 1;
  EXPECT_EQ(zorlib_q_close(openQueue(ifg_, ZORLIB_WRITE)), 0) << "the smallest ring";
  memory.max_elements = 16;
  memory.mask = 15;
  EXPECT_EQ(zorlib_q_close(owner), 0);
}

// ---- Removal by name

TEST_F(QueueTest, FindsTheNameInEachOfThe32Records) {
  for (const std::uint32_t place : {0u, 15u, 31u}) {
    answer(ZORVIK_Q_ENUM, [place](int, void* argument) {
      auto& list = *static_cast<zorvik_q_enum*>(argument);
      EXPECT_EQ(list.count, 32u);
      for (std::uint32_t i = 0; i < 32; ++i) {
        list.records[i].id = 100 + i;
        std::strcpy(list.records[i].name, i == place ? "wanted" : "other");
      }
      return 0;
    });
    std::uint32_t removed = 0;
    answer(ZORVIK_Q_REMOVE, [&](int, void* argument) {
      removed = *static_cast<std::uint32_t*>(argument);
      return 0;
    });
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "WANTED"), 0);
    EXPECT_EQ(removed, 100 + place);
  }
}

// ---- Checks and properties of a handle

TEST_F(QueueTest, RefusesBadHandles) {
  alignas(8) std::uint32_t closed[128] = {0xbaadf00d};
  auto* const dead = reinterpret_cast<zorlib_q*>(closed);
  const std::vector<std::string> deadLine = {"Error: zorlib_q_validate: Unknown magic baadf00d"};
  zorvik_frm_desc frame{};
  zorvik_frm_desc* read = nullptr;
  struct Function {
    std::function<int(zorlib_q*)> call;
    zorvik_frm_desc* readAfter;  // a read sets the frame to null
  };
  const Function functions[] = {
      {[](zorlib_q* q) { return zorlib_q_close(q); }, &frame},
      {[](zorlib_q* q) { return zorlib_q_shutdown(q); }, &frame},
      {[&](zorlib_q* q) { return zorlib_q_read(q, &read); }, nullptr},
      {[&](zorlib_q* q) { return zorlib_q_read_timeout(q, &read, 0); }, nullptr},
      {[&](zorlib_q* q) { return zorlib_q_write(q, &frame); }, &frame},
  };
  for (const auto& [call, readAfter] : functions) {
    for (zorlib_q* const q : {static_cast<zorlib_q*>(nullptr), dead}) {
      read = &frame;
      expectFailure(
          [&, &function = call] { return function(q); }, EBADR,
          q == dead ? deadLine : std::vector<std::string>{"Error: zorlib_q_validate: Nil handle"});
      EXPECT_EQ(read, readAfter);
    }
  }
  expectFailure([&] { return zorlib_q_free(dead, &frame); }, EBADR, deadLine);
  EXPECT_EQ(frame.ref_cnt, 0);
  EXPECT_THAT(requests(), IsEmpty());
  std::uint32_t size = 0;
  for (zorlib_q* const q : {static_cast<zorlib_q*>(nullptr), dead}) {
    expectFailure([&] { return zorlib_q_get_fd(q); }, EBADR);
    expectFailure([&] { return zorlib_q_get_size(q, &size); }, EBADR);
  }
}

TEST_F(QueueTest, ReturnsSizeAndDescriptor) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  std::uint32_t entries = 0;
  EXPECT_EQ(zorlib_q_get_size(q, &entries), 0);
  EXPECT_EQ(entries, 16u);
  EXPECT_EQ(zorlib_q_get_fd(q), q->fd.get());
  const int fd = q->fd.release();
  expectFailure([&] { return zorlib_q_get_fd(q); }, ENOTCONN);
  q->fd.reset(fd);
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(QueueTest, StoresANegativeTimeoutAsMinusOne) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  for (const auto& [timeout, stored] : {std::pair{0, 0}, {5000, 5000}, {-1, -1}, {-12345, -1}}) {
    EXPECT_EQ(zorlib_q_set_timeout(q, timeout), 0);
    EXPECT_EQ(q->timeout, stored);
  }
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(QueueTest, AFramesDataIsInThePayload) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  const std::uint32_t size = q->payloadSize;
  zorvik_frm_desc frame{};
  struct Case {
    std::uint32_t offset;
    std::uint16_t length;
    bool inside;
    std::uint32_t room;
  };
  for (const Case& each :
       {Case{0, 0, true, size}, Case{100, 60, true, size - 100}, Case{size - 60, 60, true, 60},
        Case{size - 60, 61, false, 0}, Case{size, 0, true, 0}, Case{size, 1, false, 0},
        Case{0xffffffff, 1, false, 0}, Case{0xffffffff, 0xffff, false, 0}}) {
    frame.data_off = each.offset;
    frame.frame_size = each.length;
    std::uint8_t* const data = zorlib_q_frm_data(q, &frame);
    EXPECT_EQ(data, each.inside ? q->payload + each.offset : nullptr);
    EXPECT_EQ(zorlib_q_room(q, data), each.room);
  }
  EXPECT_EQ(zorlib_q_room(q, q->payload + size + 1), 0u);
  EXPECT_EQ(zorlib_q_room(q, q->payload - 1), 0u);
  EXPECT_EQ(zorlib_q_close(q), 0);
}

// ---- The dump

TEST_F(QueueTest, DumpsHandleAndMemoryAtDebugLevelOne) {
  for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
    zorlib_q* const q = openQueue(ifg_, mode);
    zorlib_q_set_timeout(q, 77);
    zorvik_qmem& memory = q->memory();
    memory.presq.tag = 0x1234;
    memory.presq.flags = 5;
    memory.cresq.tag = 0xab;
    memory.cresq.flags = 1;
    memory.enqueue = 3;
    memory.dequeue = 2;
    zorlib_q_dump(q);
    zorlib_q_dump(nullptr);
    EXPECT_THAT(logLines(), IsEmpty());
    setDebugLevel(1);
    zorlib_q_dump(q);
    const char* const prefix = "Debug: zorlib_DBG: ";
    const auto line = [&](const std::string& rest) { return prefix + rest; };
    EXPECT_EQ(
        logLines(),
        lines({line("name: TarnikQ, path: /dev/zorvik/brund/TarnikQ"),
               std::string("Debug: zorlib_DBG:\topen mode: ") +
                   (mode == ZORLIB_READ ? "Read" : "Write"),
               text("Debug: zorlib_DBG:\ttype: App, fd: %d, id: %d, timeout: 77", q->fd.get(),
                    static_cast<int>(q->id)),
               text("Debug: zorlib_DBG:\tentries: 16, memory size: 448, size frame desc mapping: "
                    "%d, size payload data space: %d",
                    (kFrames + 1) * 128, kPayload),
               text("Debug: zorlib_DBG:\tqueue memory: 0x%p, ifg: 0x%p", q->qmem.base(),
                    static_cast<void*>(ifg_)),
               text("Debug: zorlib_DBG:\tframe desc mapping: 0x%p, payload data mapping: 0x%p",
                    static_cast<void*>(q->frmDesc), static_cast<void*>(q->payload)),
               line(text("presq.tag: 0x1234, presq.flags: 0x5, presq.kresq_handle: %d",
                         static_cast<int>(memory.presq.kresq_handle))),
               line(text("cresq.tag: 0xab, cresq.flags: 0x1, cresq.kresq_handle: %d",
                         static_cast<int>(memory.cresq.kresq_handle))),
               line(text("q: 0x%p", static_cast<void*>(&memory.enqueue))),
               line("enqueue counter: 3"), line("dequeue counter: 2"),
               line("max elements: 16, max elements mask: 0xf")}));
    clearLog();
    alignas(8) std::uint32_t closed[128] = {1};
    zorlib_q_dump(reinterpret_cast<zorlib_q*>(closed));
    EXPECT_EQ(logLines(), lines({line("invalid queue")}));
    setDebugLevel(0);
    clearLog();
    memory.enqueue = memory.dequeue = 0;
    EXPECT_EQ(zorlib_q_close(q), 0);
  }
}

}  // namespace
}  // namespace tarnik::test
