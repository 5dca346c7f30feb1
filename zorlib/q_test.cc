// Queue handles: opening, closing, shutting down, and the small questions.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class QueueTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    createQueue(ifg_);
    clearRequests();
  }
  void TearDown() override {
    EXPECT_EQ(ifg_->refs, 1u) << "a queue was left open, or a failed open kept its reference";
    GroupTest::TearDown();
  }

  // Opens and fails.
  void openFails(std::uint32_t mode, const char* name, int expected, const std::string& message) {
    zorlib_q* q = nullptr;
    clearLog();
    errno = 0;
    EXPECT_EQ(zorlib_q_app_open(ifg_, name, mode, &q), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(q, nullptr);
    EXPECT_THAT(logLines(), ElementsAre(error(message)));
  }
};

TEST_F(QueueTest, OpensWithWhatTheDriverTells) {
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

TEST_F(QueueTest, OpeningEndsTheShutdownOfItsOwnSideOnly) {
  zorlib_q* const reader = openQueue(ifg_, ZORLIB_READ);
  zorvik_qmem& memory = reader->memory();
  for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
    memory.presq.flags = memory.cresq.flags = 0xf;
    std::uint32_t woken = 0;
    std::uint32_t flagsThen = 0;
    answer(ZORVIK_Q_WAKE, [&](int, void* argument) {
      woken = static_cast<zorvik_q_wake*>(argument)->kresq_handle;
      flagsThen = (mode == ZORLIB_READ ? memory.cresq : memory.presq).flags;
      return 0;
    });
    zorlib_q* const q = openQueue(ifg_, mode);
    EXPECT_EQ(flagsThen, 0xbu) << "the shutdown has ended before the wake-up";
    EXPECT_EQ(memory.cresq.flags, mode == ZORLIB_READ ? 0xbu : 0xfu);
    EXPECT_EQ(memory.presq.flags, mode == ZORLIB_READ ? 0xfu : 0xbu);
    EXPECT_EQ(woken, mode == ZORLIB_READ ? memory.cresq.kresq_handle : memory.presq.kresq_handle);
    EXPECT_EQ(zorlib_q_close(q), 0);
    answerNothing();
  }
  EXPECT_EQ(zorlib_q_close(reader), 0);
}

TEST_F(QueueTest, ShutdownMarksItsOwnSideAndWakesIt) {
  for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
    zorlib_q* const q = openQueue(ifg_, mode);
    zorvik_qmem& memory = q->memory();
    memory.presq.flags = memory.cresq.flags = 0;
    std::uint32_t woken = 0;
    std::uint32_t flagsThen = 0;
    answer(ZORVIK_Q_WAKE, [&](int, void* argument) {
      woken = static_cast<zorvik_q_wake*>(argument)->kresq_handle;
      flagsThen = q->side().flags;
      return -EIO;  // which nobody hears of
    });
    EXPECT_EQ(zorlib_q_shutdown(q), 0);
    EXPECT_EQ(flagsThen, 4u) << "the flag stands before the wake-up";
    EXPECT_EQ(memory.cresq.flags, mode == ZORLIB_READ ? 4u : 0u);
    EXPECT_EQ(memory.presq.flags, mode == ZORLIB_READ ? 0u : 4u);
    EXPECT_EQ(woken, mode == ZORLIB_READ ? memory.cresq.kresq_handle : memory.presq.kresq_handle);
    EXPECT_EQ(zorlib_q_close(q), 0);
    answerNothing();
  }
}

TEST_F(QueueTest, SaysWhyAQueueCannotBeOpened) {
  openFails(2, "TarnikQ", EINVAL, "Error: zorlib_q_app_open: Invalid mode 2");
  openFails(0xffffffff, "TarnikQ", EINVAL, "Error: zorlib_q_app_open: Invalid mode -1");
  EXPECT_THAT(requests(), IsEmpty());
  openFails(0, "nobody", ENOENT,
            "Error: zorlib_q_open: open(/dev/zorvik/brund/nobody) failed - No such file or "
            "directory");
  refuse(ZORVIK_Q_STAT, EIO);
  openFails(0, "TarnikQ", EIO, "Error: zorlib_q_stat: stat ioctl failed - Input/output error");
}

TEST_F(QueueTest, RefusesAQueueWithoutMemory) {
  answer(ZORVIK_Q_STAT, [](int, void*) { return 0; });
  openFails(1, "TarnikQ", ENXIO, "Error: zorlib_q_open: brund/TarnikQ stat ioctl shows size 0");
}

TEST_F(QueueTest, SaysWhyTheMemoryCannotBeMapped) {
  int fd = -1;
  answer(ZORVIK_Q_STAT, [&](int descriptor, void* argument) {
    fd = descriptor;
    static_cast<zorvik_q_stat*>(argument)->mem_size = 320;
    // The node is replaced by one that cannot be mapped.
    EXPECT_EQ(::dup2(::open("/dev/zorvik", O_RDONLY | O_DIRECTORY), descriptor), descriptor);
    return 0;
  });
  zorlib_q* q = nullptr;
  EXPECT_EQ(zorlib_q_app_open(ifg_, "TarnikQ", 0, &q), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_q_open: mmap failed (" +
                                            std::to_string(fd) + ", 320) - Permission denied")));
}

TEST_F(QueueTest, RefusesMemoryThatHoldsNoRing) {
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
  EXPECT_EQ(zorlib_q_close(openQueue(ifg_, ZORLIB_WRITE)), 0) << "the smallest that holds a frame";
  memory.max_elements = 16;
  memory.mask = 15;
  EXPECT_EQ(zorlib_q_close(owner), 0);
}

TEST_F(QueueTest, KeepsNineteenCharactersOfTheName) {
  const char name[] = "./././././././TarnikQ";
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ, name);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(std::string(q->name.data()), std::string(name, 19));
  EXPECT_EQ(std::string(q->path.data()), std::string("/dev/zorvik/brund/") + name);
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(QueueTest, RefusesBadHandles) {
  alignas(8) std::uint32_t wrong[128] = {0xbaadf00d};
  auto* const dead = reinterpret_cast<zorlib_q*>(wrong);
  zorvik_frm_desc frame{};
  const std::function<int(zorlib_q*)> functions[] = {
      [&](zorlib_q* q) { return zorlib_q_close(q); },
      [&](zorlib_q* q) { return zorlib_q_shutdown(q); },
      [&](zorlib_q* q) {
        zorvik_frm_desc* read = &frame;
        const int result = zorlib_q_read(q, &read);
        EXPECT_EQ(read, nullptr);
        return result;
      },
      [&](zorlib_q* q) {
        zorvik_frm_desc* read = &frame;
        const int result = zorlib_q_read_timeout(q, &read, 0);
        EXPECT_EQ(read, nullptr);
        return result;
      },
      [&](zorlib_q* q) { return zorlib_q_write(q, &frame); },
  };
  const auto refuses = [](const auto& function, zorlib_q* q, const char* message) {
    clearLog();
    errno = 0;
    EXPECT_EQ(function(q), -1);
    EXPECT_EQ(errno, EBADR);
    EXPECT_THAT(logLines(), ElementsAre(error(message)));
  };
  for (const auto& function : functions) {
    refuses(function, nullptr, "Error: zorlib_q_validate: Nil handle");
    refuses(function, dead, "Error: zorlib_q_validate: Unknown magic baadf00d");
  }
  // Which has an answer of its own to a null handle.
  refuses([&](zorlib_q* q) { return zorlib_q_free(q, &frame); }, dead,
          "Error: zorlib_q_validate: Unknown magic baadf00d");
  EXPECT_EQ(frame.ref_cnt, 0) << "nothing was counted";
  EXPECT_THAT(requests(), IsEmpty());
  clearLog();
  std::uint32_t size = 0;
  for (zorlib_q* const q : {static_cast<zorlib_q*>(nullptr), dead}) {
    errno = 0;
    EXPECT_EQ(zorlib_q_get_fd(q), -1);
    EXPECT_EQ(errno, EBADR);
    errno = 0;
    EXPECT_EQ(zorlib_q_get_size(q, &size), -1);
    EXPECT_EQ(errno, EBADR);
  }
  EXPECT_THAT(logLines(), IsEmpty()) << "these two say nothing";
}

TEST_F(QueueTest, TellsSizeAndDescriptor) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  std::uint32_t entries = 0;
  EXPECT_EQ(zorlib_q_get_size(q, &entries), 0);
  EXPECT_EQ(entries, 16u);
  EXPECT_EQ(zorlib_q_get_fd(q), q->fd.get());
  const int fd = q->fd.release();
  errno = 0;
  EXPECT_EQ(zorlib_q_get_fd(q), -1);
  EXPECT_EQ(errno, ENOTCONN);
  q->fd.reset(fd);
  EXPECT_EQ(zorlib_q_close(q), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(QueueTest, KeepsTheTimeout) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  for (const auto& [given, kept] : {std::pair{0, 0}, {5000, 5000}, {-1, -1}, {-12345, -1}}) {
    EXPECT_EQ(zorlib_q_set_timeout(q, given), 0);
    EXPECT_EQ(q->timeout, kept);
  }
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(QueueTest, BoundsAFramesDataByThePayload) {
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

TEST_F(QueueTest, DumpsHandleAndMemoryToTheDebugLog) {
  zorlib_q* const q = openQueue(ifg_, ZORLIB_WRITE);
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
  const int producer = static_cast<int>(memory.presq.kresq_handle);
  const int consumer = static_cast<int>(memory.cresq.kresq_handle);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          debug("Debug: zorlib_DBG: name: TarnikQ, path: /dev/zorvik/brund/TarnikQ"),
          debug("Debug: zorlib_DBG:\topen mode: Write"),
          debug(text("Debug: zorlib_DBG:\ttype: App, fd: %d, id: %d, timeout: 77", q->fd.get(),
                     static_cast<int>(q->id))),
          debug(text("Debug: zorlib_DBG:\tentries: 16, memory size: 448, size frame desc mapping: "
                     "%d, size payload data space: %d",
                     (kFrames + 1) * 128, kPayload)),
          debug(text("Debug: zorlib_DBG:\tqueue memory: 0x%p, ifg: 0x%p", q->qmem.base(),
                     static_cast<void*>(ifg_))),
          debug(text("Debug: zorlib_DBG:\tframe desc mapping: 0x%p, payload data mapping: 0x%p",
                     static_cast<void*>(q->frmDesc), static_cast<void*>(q->payload))),
          debug(text("Debug: zorlib_DBG: presq.tag: 0x1234, presq.flags: 0x5, "
                     "presq.kresq_handle: %d",
                     producer)),
          debug(text("Debug: zorlib_DBG: cresq.tag: 0xab, cresq.flags: 0x1, cresq.kresq_handle: "
                     "%d",
                     consumer)),
          debug(text("Debug: zorlib_DBG: q: 0x%p", static_cast<void*>(&memory.enqueue))),
          debug("Debug: zorlib_DBG: enqueue counter: 3"),
          debug("Debug: zorlib_DBG: dequeue counter: 2"),
          debug("Debug: zorlib_DBG: max elements: 16, max elements mask: 0xf")));
  clearLog();
  alignas(8) std::uint32_t wrong[128] = {1};
  zorlib_q_dump(reinterpret_cast<zorlib_q*>(wrong));
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: zorlib_DBG: invalid queue")));
  memory.enqueue = memory.dequeue = 0;
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(QueueTest, ADumpTellsAReaderFromAWriter) {
  const LogLine names[] = {debug("Debug: zorlib_DBG:\topen mode: Read"),
                           debug("Debug: zorlib_DBG:\topen mode: Write")};
  setDebugLevel(1);
  for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
    zorlib_q* const q = openQueue(ifg_, mode);
    clearLog();
    zorlib_q_dump(q);
    EXPECT_THAT(logLines(), Contains(names[mode]));
    EXPECT_THAT(logLines(), Not(Contains(names[1 - mode])));
    EXPECT_EQ(zorlib_q_close(q), 0);
  }
}

}  // namespace
}  // namespace tarnik::test
