// The frame pool: allocation by size, exhaustion, freeing, references, statistics, and the frames
// of processes that died.
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

class FramesTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = node("brund/ctl");
    desc_ = node("brund/frm_desc");
    memory_ = std::make_unique<Mapping>(desc_.get(), sizeof(zorvik_frm_desc) * 13);
  }
  void TearDown() override {
    ifg_ = Fd();
    desc_ = Fd();
    memory_.reset();
    DriverTest::TearDown();
  }
  zorvik_frm_desc& at(std::uint32_t id) {
    return reinterpret_cast<zorvik_frm_desc*>(memory_->base())[id & ZORVIK_FRM_INDEX_MASK];
  }
  std::vector<std::uint32_t> take(std::uint32_t size, std::uint32_t count) {
    return alloc(desc_, size, count);
  }
  // The statistics of the group: frames allocated and freed since its creation.
  void expectFrames(std::uint64_t allocs, std::uint64_t frees) const {
    const zorvik_ifg_stats stats = statistics(ifg_);
    EXPECT_EQ(stats.frm_allocs, allocs);
    EXPECT_EQ(stats.frm_frees, frees);
    EXPECT_EQ(stats.frm_count, 12u);
    EXPECT_EQ(stats.frm_free, 12u - (allocs - frees));
  }

  Fd ifg_;
  Fd desc_;
  std::unique_ptr<Mapping> memory_;
};

TEST_F(FramesTest, ANewFrameHasNothingThatWasWrittenToItsDescriptor) {
  for (int round = 0; round < 2; ++round) {
    const auto ids = take(1, 12);
    ASSERT_THAT(ids, SizeIs(12));
    EXPECT_EQ(ids[0], round == 0 ? 1u : 0x01000001u);  // generation and index
    for (const std::uint32_t id : ids) {
      zorvik_frm_desc& frame = at(id);
      EXPECT_EQ(frame.wire_len, 0u);
      EXPECT_EQ(frame.cap_len, 0u);
      EXPECT_EQ(frame.frame_size, 0u);
      EXPECT_EQ(frame.tag, 0u);
      EXPECT_EQ(frame.if_in, ZORVIK_IF_LOCAL);
      EXPECT_EQ(frame.if_out, ZORVIK_IF_LOCAL);
      EXPECT_EQ(frame.q_idx, ZORVIK_Q_UNKNOWN);
      EXPECT_NE(frame.assoc_buf, 0u);
      EXPECT_EQ(frame.qref_cnt, 0u);
      EXPECT_EQ(frame.ref_cnt, 1u);
      EXPECT_EQ(frame.eng_ref_cnt, 0u);
      EXPECT_EQ(frame.flags, ZORVIK_FRM_VALID);
      EXPECT_EQ(frame.index, id & ZORVIK_FRM_INDEX_MASK);
      EXPECT_EQ(frame.generation, round);
      EXPECT_LE(frame.data_off + frame.buf_size, 8u * 2048 + 4u * 16384 + 2u * 65536);
      std::memset(&frame, 0xff, sizeof(zorvik_frm_desc));
      frame.qref_cnt = 0;
    }
    for (const std::uint32_t id : ids) {
      EXPECT_EQ(freeId(desc_, id), 0);
    }
  }
}

TEST_F(FramesTest, AFrameHasTheSmallestBufferThatFits) {
  const std::pair<std::uint32_t, std::uint32_t> cases[] = {
      {0, 2048}, {2048, 2048}, {2049, 16384}, {16384, 16384}, {16385, 65536}, {65536, 65536}};
  for (const auto& [size, buffer] : cases) {
    const std::uint32_t id = take(size, 1).at(0);
    EXPECT_EQ(at(id).buf_size, buffer) << size;
    EXPECT_EQ(freeId(desc_, id), 0);
  }
  EXPECT_EQ(allocError(desc_, 65537), -EMSGSIZE);
  EXPECT_EQ(allocError(desc_, 0xffffffff), -EMSGSIZE);
  EXPECT_EQ(allocError(desc_, 1, 0), -EINVAL);
  EXPECT_EQ(statistics(ifg_).alloc_too_large, 2u);
}

TEST_F(FramesTest, LargerBuffersAreUsedWhenTheSmallOnesAreTaken) {
  std::vector<std::uint32_t> sizes;
  std::set<std::uint32_t> bytes;
  for (const std::uint32_t id : take(2048, 62)) {
    sizes.push_back(at(id).buf_size);
    for (std::uint32_t i = 0; i < at(id).buf_size; i += 64) {
      EXPECT_TRUE(bytes.insert(at(id).data_off + i).second) << "buffers overlap";
    }
  }
  // 12 descriptors: all 8 small buffers, then all 4 middle ones.
  EXPECT_THAT(sizes, ElementsAre(2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 16384, 16384,
                                 16384, 16384));
}

TEST_F(FramesTest, SmallerBuffersAreNeverUsed) {
  EXPECT_THAT(take(65536, 5), SizeIs(2));
  EXPECT_EQ(allocError(desc_, 65536), -ENOBUFS);
  EXPECT_EQ(allocError(desc_, 16385), -ENOBUFS);
  EXPECT_THAT(take(16384, 5), SizeIs(4));
  EXPECT_EQ(allocError(desc_, 2049), -ENOBUFS);
  EXPECT_THAT(take(1, 5), SizeIs(5));
  EXPECT_EQ(statistics(ifg_).alloc_empty, 3u);
  EXPECT_EQ(statistics(ifg_).alloc_too_large, 0u);
  expectFrames(11, 0);
}

TEST_F(FramesTest, AFreedFrameCanBeAllocatedAgain) {
  auto ids = take(1, 62);
  EXPECT_THAT(ids, SizeIs(12));
  EXPECT_EQ(allocError(desc_, 1), -ENOBUFS);
  expectFrames(12, 0);
  EXPECT_EQ(freeId(desc_, ids.back()), 0);
  expectFrames(12, 1);
  EXPECT_THAT(take(1, 62), SizeIs(1));
  expectFrames(13, 1);
}

TEST_F(FramesTest, GroupsShareTheBuffersButCountTheirOwnFrames) {
  ASSERT_EQ(createIfg("other", 20), 0);
  {
    const Fd other = node("other/frm_desc");
    EXPECT_THAT(alloc(other, 1, 3), SizeIs(3));
    expectFrames(0, 0);
    const zorvik_ifg_stats stats = statistics(node("other/ctl"));
    EXPECT_EQ(stats.frm_count, 20u);
    EXPECT_EQ(stats.frm_free, 17u);
    EXPECT_EQ(stats.frm_allocs, 3u);
    EXPECT_EQ(stats.buf_count, 14u);
    EXPECT_EQ(stats.buf_free, 11u);
    EXPECT_EQ(statistics(ifg_).buf_free, 11u);
    EXPECT_THAT(alloc(other, 1, 62), SizeIs(11));
    EXPECT_EQ(allocError(desc_, 1), -ENOBUFS);
  }
  EXPECT_EQ(removeIfg("other"), 0);
  EXPECT_THAT(take(1, 62), SizeIs(12));
}

TEST_F(FramesTest, FreeingEndsTheIdentifier) {
  const std::uint32_t id = take(1, 1).at(0);
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(at(id).flags, 0u);
  EXPECT_EQ(at(id).generation, 1u);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
  EXPECT_EQ(freeId(desc_, id | 1u << ZORVIK_FRM_GENERATION_SHIFT), -ENOENT);
}

TEST_F(FramesTest, RefusesIdentifiersOfNoFrame) {
  for (const std::uint32_t id : {0u, 13u, 0xffffffu, 0x05000000u}) {
    EXPECT_EQ(freeId(desc_, id), -EINVAL) << id;
  }
  EXPECT_EQ(freeId(desc_, 12), -ENOENT);
  const std::uint32_t id = take(1, 1).at(0);
  EXPECT_EQ(freeId(desc_, id | 0x07000000), -ENOENT);
  at(id).generation = 7;  // only the driver's own record counts
  EXPECT_EQ(freeId(desc_, id | 0x07000000), -ENOENT);
  EXPECT_EQ(freeId(desc_, id), 0);
  expectFrames(1, 1);
}

TEST_F(FramesTest, AnIdentifierIsUsedAgainAfterAllOthers) {
  std::set<std::uint32_t> seen;
  for (int i = 0; i < 256 * 12; ++i) {
    const std::uint32_t id = take(1, 1).at(0);
    EXPECT_TRUE(seen.insert(id).second) << id;
    ASSERT_EQ(freeId(desc_, id), 0);
  }
  EXPECT_EQ(take(1, 1).at(0), 1u);
}

TEST_F(FramesTest, EachFreeDropsAQueueReferenceAndTheLastFreesTheFrame) {
  const std::uint32_t id = take(1, 1).at(0);
  at(id).qref_cnt = 3;
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(freeId(desc_, id), 0);
  expectFrames(1, 0);
  EXPECT_EQ(at(id).qref_cnt, 1u);
  EXPECT_EQ(at(id).flags, ZORVIK_FRM_VALID);
  EXPECT_EQ(freeId(desc_, id), 0);
  expectFrames(1, 1);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
}

TEST_F(FramesTest, OtherReferencesDoNotKeepAFrame) {
  const std::uint32_t id = take(1, 1).at(0);
  at(id).ref_cnt = 9;
  at(id).eng_ref_cnt = 9;
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
}

TEST_F(FramesTest, RemovingAQueueFreesItsFrames) {
  const int id = createQ(ifg_, "q", 16);
  const auto ids = take(1, 12);
  {
    const OpenQueue queue("brund/q");
    for (std::uint32_t i = 0; i < 11; ++i) {
      queue.entries()[(i + 9) % 16] = ids[i];
    }
    queue.qmem().dequeue = 9;
    queue.qmem().enqueue = 4;
    EXPECT_EQ(removeQ(ifg_, id), -EBUSY);
  }
  EXPECT_EQ(removeQ(ifg_, id), 0);
  expectFrames(12, 11);
  EXPECT_THAT(take(1, 12), SizeIs(11));
}

// ---- Frames of dead processes

class DeadOwnerTest : public FramesTest {
 protected:
  void SetUp() override {
    FramesTest::SetUp();
    ASSERT_GT(createQ(ifg_, "q", 8), 0);
    // The first allocation of a process frees the frames of dead ones, the later ones only when
    // there is no other frame.
    ASSERT_EQ(freeId(desc_, take(1, 1).at(0)), 0);
  }
  // A child allocates all frames, leaves two on the queue, gives two a queue reference and dies.
  static void dieWithFrames() {
    Process child([] {
      const Fd desc = node("brund/frm_desc");
      const auto ids = alloc(desc, 1, 62);
      EXPECT_EQ(ids.size(), 12u);
      const OpenQueue queue("brund/q");
      queue.entries()[7] = ids.at(3);
      queue.entries()[0] = ids.at(4);
      queue.qmem().dequeue = 7;
      queue.qmem().enqueue = 1;
      const Mapping memory(desc.get(), sizeof(zorvik_frm_desc) * 13);
      auto* frames = reinterpret_cast<zorvik_frm_desc*>(memory.base());
      frames[ids.at(3)].qref_cnt = 1;
      frames[ids.at(5)].qref_cnt = 1;
      return ::raise(SIGKILL);
    });
    EXPECT_EQ(child.wait(), test::killedBy(SIGKILL));
  }
};

TEST_F(DeadOwnerTest, FramesAreFreedAtTheNextRequestThatNeedsThem) {
  // All but the two on the queue and the one that a living reader may have read.
  static constexpr std::uint32_t kFreed = 9;
  const struct {
    std::function<void()> request;
    std::uint32_t freeAfterwards;
  } cases[] = {{[this] { expectFrames(13, 1 + kFreed); }, kFreed},
               {[this] { EXPECT_THAT(take(1, 62), SizeIs(kFreed)); }, 0},
               {[] { EXPECT_TRUE(node("brund/frm_desc")); }, kFreed}};
  for (const auto& each : cases) {
    dieWithFrames();
    each.request();
    EXPECT_EQ(findGroup(Driver::get()->state(), "brund")->freeCount, each.freeAfterwards);
    TearDown();
    SetUp();
  }
}

TEST_F(DeadOwnerTest, FramesStayWhileAQueueDoesNotCountReferences) {
  const int id = createQ(ifg_, "raw", 8, ZORVIK_Q_RAW);
  dieWithFrames();
  expectFrames(13, 1);
  EXPECT_EQ(removeQ(ifg_, id), 0);
  expectFrames(13, 10);
}

TEST_F(DeadOwnerTest, AllFramesAreFreedWhenNoProcessHasTheGroupOpen) {
  memory_.reset();
  desc_ = Fd();
  dieWithFrames();
  desc_ = node("brund/frm_desc");
  expectFrames(13, 11);  // all but the two on the queue
  EXPECT_THAT(take(1, 62), SizeIs(10));
  EXPECT_EQ(allocError(desc_, 1), -ENOBUFS) << "a living process lost its frames";
  memory_ = std::make_unique<Mapping>(desc_.get(), sizeof(zorvik_frm_desc) * 13);
}

TEST_F(DeadOwnerTest, AProcessWithTheNumberOfADeadOneDoesNotInheritItsFrames) {
  const Signal open;
  const Signal dead;
  Process heir([&] {
    const Fd desc = node("brund/frm_desc");
    open.send();
    dead.await();
    return static_cast<int>(alloc(desc, 1, 62).size());
  });
  open.await();
  Process child([&] { return static_cast<int>(alloc(desc_, 1, 5).size()); });
  EXPECT_EQ(child.wait(), test::exited(5));
  dead.send();
  EXPECT_EQ(heir.wait(), test::exited(12));
  expectFrames(18, 18);
}

TEST_F(DeadOwnerTest, AFrameOfTheParentOutlivesItsChild) {
  const std::uint32_t mine = take(1, 1).at(0);
  Process child([&] { return static_cast<int>(alloc(desc_, 1, 62).size()); });
  EXPECT_EQ(child.wait(), test::exited(11));
  expectFrames(13, 12);
  EXPECT_EQ(freeId(desc_, mine), 0);
}

TEST_F(FramesTest, ALivingProcessKeepsItsFrames) {
  const std::uint32_t mine = take(65536, 1).at(0);
  Process child([] {
    const Fd desc = node("brund/frm_desc");
    EXPECT_GT(descSize(desc), 0);
    return static_cast<int>(alloc(desc, 1, 62).size());
  });
  EXPECT_EQ(child.wait(), test::exited(11));
  EXPECT_EQ(freeId(desc_, mine), 0);
}

}  // namespace
}  // namespace tarnik::zorvik
