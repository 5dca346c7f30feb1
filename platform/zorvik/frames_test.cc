// The frame pool: allocation by size, exhaustion, freeing, references, what comes back from the
// dead.
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class FramesTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    desc_ = node("brund/frm_desc");
    memory_ = std::make_unique<Mapping>(desc_.get(), sizeof(zorvik_frm_desc) * 13);
  }
  void TearDown() override {
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
  int refusal(std::uint32_t size, std::uint32_t count) {
    int error = 0;
    EXPECT_THAT(alloc(desc_, size, count, &error), IsEmpty());
    return error;
  }

  Fd desc_;
  std::unique_ptr<Mapping> memory_;
};

TEST_F(FramesTest, FreshFrame) {
  const std::uint32_t id = take(100, 1).at(0);
  const zorvik_frm_desc& frame = at(id);
  EXPECT_EQ(id, 1u);  // generation 0, index 1
  EXPECT_EQ(frame.wire_len, 0u);
  EXPECT_EQ(frame.cap_len, 0u);
  EXPECT_EQ(frame.frame_size, 0u);
  EXPECT_EQ(frame.tag, 0u);
  EXPECT_EQ(frame.buf_size, 2048u);
  EXPECT_EQ(frame.index, 1u);
  EXPECT_EQ(frame.generation, 0u);
  EXPECT_EQ(frame.if_in, ZORVIK_IF_LOCAL);
  EXPECT_EQ(frame.if_out, ZORVIK_IF_LOCAL);
  EXPECT_EQ(frame.q_idx, ZORVIK_Q_UNKNOWN);
  EXPECT_NE(frame.assoc_buf, 0u);
  EXPECT_EQ(frame.qref_cnt, 0u);
  EXPECT_EQ(frame.ref_cnt, 1u);
  EXPECT_EQ(frame.eng_ref_cnt, 0u);
  EXPECT_EQ(frame.flags, ZORVIK_FRM_VALID);
}

TEST_F(FramesTest, WhatAnApplicationScribbledIsGoneFromTheNextFrame) {
  for (int round = 0; round < 2; ++round) {
    const auto ids = take(1, 12);
    ASSERT_THAT(ids, SizeIs(12));
    for (const std::uint32_t id : ids) {
      EXPECT_LE(at(id).data_off + at(id).buf_size, 8u * 2048 + 4u * 16384 + 2u * 65536);
      EXPECT_EQ(at(id).index, id & ZORVIK_FRM_INDEX_MASK);
      EXPECT_EQ(at(id).generation, round);
      EXPECT_EQ(at(id).flags, ZORVIK_FRM_VALID);
      EXPECT_EQ(at(id).tag, 0u);
      std::memset(&at(id), 0xff, sizeof(zorvik_frm_desc));
      at(id).qref_cnt = 0;
    }
    for (const std::uint32_t id : ids) {
      EXPECT_EQ(freeId(desc_, id), 0);
    }
  }
}

TEST_F(FramesTest, SmallestBufferThatFits) {
  const std::pair<std::uint32_t, std::uint32_t> cases[] = {
      {0, 2048}, {2048, 2048}, {2049, 16384}, {16384, 16384}, {16385, 65536}, {65536, 65536}};
  for (const auto& [size, buffer] : cases) {
    const std::uint32_t id = take(size, 1).at(0);
    EXPECT_EQ(at(id).buf_size, buffer) << size;
    EXPECT_EQ(freeId(desc_, id), 0);
  }
  EXPECT_EQ(refusal(65537, 1), -EMSGSIZE);
  EXPECT_EQ(refusal(0xffffffff, 1), -EMSGSIZE);
  EXPECT_EQ(refusal(1, 0), -EINVAL);
}

TEST_F(FramesTest, LargerBuffersServeWhenTheSmallOnesAreOut) {
  std::vector<std::uint32_t> sizes;
  std::set<std::uint32_t> bytes;
  for (const std::uint32_t id : take(2048, 62)) {
    sizes.push_back(at(id).buf_size);
    for (std::uint32_t i = 0; i < at(id).buf_size; i += 64) {
      EXPECT_TRUE(bytes.insert(at(id).data_off + i).second) << "buffers overlap";
    }
  }
  // 12 descriptors: all 8 small buffers, then all 4 middle ones.
  EXPECT_THAT(sizes, ::testing::ElementsAre(2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048, 16384,
                                            16384, 16384, 16384));
}

TEST_F(FramesTest, NeverASmallerBuffer) {
  EXPECT_THAT(take(65536, 5), SizeIs(2));
  EXPECT_EQ(refusal(65536, 1), -ENOBUFS);
  EXPECT_EQ(refusal(16385, 1), -ENOBUFS);
  EXPECT_THAT(take(16384, 5), SizeIs(4));
  EXPECT_EQ(refusal(2049, 1), -ENOBUFS);
  EXPECT_THAT(take(1, 5), SizeIs(5));
}

TEST_F(FramesTest, ExhaustedPoolComesBack) {
  auto ids = take(1, 62);
  EXPECT_THAT(ids, SizeIs(12));
  EXPECT_EQ(refusal(1, 1), -ENOBUFS);
  EXPECT_EQ(freeId(desc_, ids.back()), 0);
  EXPECT_THAT(take(1, 62), SizeIs(1));
}

TEST_F(FramesTest, GroupsShareTheBuffers) {
  ASSERT_EQ(createIfg("other", 20), 0);
  {
    const Fd other = node("other/frm_desc");
    EXPECT_THAT(alloc(other, 1, 62), SizeIs(14));
    EXPECT_EQ(refusal(1, 1), -ENOBUFS);
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), 0);
  EXPECT_THAT(take(1, 62), SizeIs(12));
}

TEST_F(FramesTest, FreeingChangesTheGenerationAndEndsValidity) {
  const std::uint32_t id = take(1, 1).at(0);
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(at(id).flags, 0u);
  EXPECT_EQ(at(id).generation, 1u);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
  EXPECT_EQ(freeId(desc_, id | 1u << ZORVIK_FRM_GENERATION_SHIFT), -ENOENT);
}

TEST_F(FramesTest, IdentifiersThatNameNoFrame) {
  EXPECT_EQ(freeId(desc_, 0), -EINVAL);
  EXPECT_EQ(freeId(desc_, 13), -EINVAL);
  EXPECT_EQ(freeId(desc_, 0xffffff), -EINVAL);
  EXPECT_EQ(freeId(desc_, 0x05000000), -EINVAL);
  EXPECT_EQ(freeId(desc_, 12), -ENOENT);
  const std::uint32_t id = take(1, 1).at(0);
  EXPECT_EQ(freeId(desc_, id | 0x07000000), -ENOENT);
  at(id).generation = 7;  // the driver believes itself, not the descriptor
  EXPECT_EQ(freeId(desc_, id | 0x07000000), -ENOENT);
  EXPECT_EQ(freeId(desc_, id), 0);
}

TEST_F(FramesTest, GenerationRunsThroughAllValues) {
  std::set<std::uint32_t> seen;
  for (int i = 0; i < 256 * 12; ++i) {
    const std::uint32_t id = take(1, 1).at(0);
    EXPECT_TRUE(seen.insert(id).second) << "an identifier came back early";
    ASSERT_EQ(freeId(desc_, id), 0);
  }
  EXPECT_EQ(take(1, 1).at(0), 1u);
}

TEST_F(FramesTest, EachFreeDropsAQueueReferenceAndTheLastReturnsTheFrame) {
  const std::uint32_t id = take(1, 1).at(0);
  at(id).qref_cnt = 3;
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(at(id).qref_cnt, 1u);
  EXPECT_EQ(at(id).flags, ZORVIK_FRM_VALID);
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
}

TEST_F(FramesTest, OtherReferenceCountsDoNotKeepAFrame) {
  const std::uint32_t id = take(1, 1).at(0);
  at(id).ref_cnt = 9;
  at(id).eng_ref_cnt = 9;
  EXPECT_EQ(freeId(desc_, id), 0);
  EXPECT_EQ(freeId(desc_, id), -ENOENT);
}

TEST_F(FramesTest, RemovingAQueueReturnsItsFrames) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 16);
  const auto ids = take(1, 12);
  {
    const OpenQueue queue("brund/q");
    for (std::uint32_t i = 0; i < 12; ++i) {
      queue.entries()[i + 2] = ids[i];
    }
    queue.qmem().dequeue = 2;
    queue.qmem().enqueue = 14;
    EXPECT_EQ(removeQ(ifg, id), -EBUSY);
  }
  EXPECT_EQ(removeQ(ifg, id), 0);
  EXPECT_THAT(take(1, 12), SizeIs(12));
}

// A child takes frames, leaves some on the queue and dies.
void dieWithFrames() {
  Child child([] {
    const Fd desc = node("brund/frm_desc");
    const auto ids = alloc(desc, 1, 12);
    EXPECT_EQ(ids.size(), 12u);
    const OpenQueue queue("brund/q");
    queue.entries()[7] = ids.at(3);
    queue.entries()[0] = ids.at(4);
    queue.qmem().dequeue = 7;
    queue.qmem().enqueue = 1;
    return 0;
  });
  EXPECT_EQ(child.join(), 0);
}

TEST_F(FramesTest, FramesOfTheDeadComeBackWhenTheGroupIsOpenedNext) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  dieWithFrames();
  zorvik_frm_desc_size size{};
  EXPECT_EQ(call(desc_, ZORVIK_FRM_DESC_SIZE, &size), 0);
  const auto ids = take(1, 62);
  EXPECT_THAT(ids, SizeIs(10));  // all but the two that are on the queue
  EXPECT_EQ(call(desc_, ZORVIK_FRM_DESC_SIZE, &size), 0);
  EXPECT_EQ(refusal(1, 1), -ENOBUFS) << "a process lost its own frames";
}

TEST_F(FramesTest, FramesStayWithALivingProcess) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  const std::uint32_t mine = take(65536, 1).at(0);
  Child child([] {
    const Fd desc = node("brund/frm_desc");
    zorvik_frm_desc_size size{};
    EXPECT_EQ(call(desc, ZORVIK_FRM_DESC_SIZE, &size), 0);
    return static_cast<int>(alloc(desc, 1, 62).size());
  });
  EXPECT_EQ(child.join(), 11);
  EXPECT_EQ(freeId(desc_, mine), 0);
}

}  // namespace
}  // namespace tarnik::zorvik
