// The counters of a group's frames.
#include "platform/zorvik/groups.h"
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::SizeIs;

class StatsTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = node("brund/ctl");
    desc_ = node("brund/frm_desc");
  }
  void TearDown() override {
    ifg_ = Fd();
    desc_ = Fd();
    DriverTest::TearDown();
  }

  // Frames given out and taken back, and what of the 12 is free.
  void expectFrames(std::uint64_t allocs, std::uint64_t frees) const {
    const zorvik_ifg_stats stats = statistics(ifg_);
    EXPECT_EQ(stats.frm_allocs, allocs);
    EXPECT_EQ(stats.frm_frees, frees);
    EXPECT_EQ(stats.frm_count, 12u);
    EXPECT_EQ(stats.frm_free, 12u - (allocs - frees));
  }
  int refusal(std::uint32_t size) const {
    int error = 0;
    (void)alloc(desc_, size, 1, &error);
    return error;
  }

  Fd ifg_;
  Fd desc_;
};

TEST_F(StatsTest, AGroupWithoutFramesHasNone) {
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "bare"), 0);
  const zorvik_ifg_stats stats = statistics(node("bare/ctl"));
  EXPECT_EQ(stats.frm_count, 0u);
  EXPECT_EQ(stats.frm_free, 0u);
  EXPECT_EQ(stats.buf_count, 14u);
  EXPECT_EQ(stats.buf_free, 14u);
  EXPECT_EQ(stats.frm_allocs, 0u);
  EXPECT_EQ(stats.frm_frees, 0u);
  EXPECT_EQ(stats.alloc_empty, 0u);
  EXPECT_EQ(stats.alloc_too_large, 0u);
}

TEST_F(StatsTest, CountsFramesGivenOutAndTakenBack) {
  expectFrames(0, 0);
  const auto ids = alloc(desc_, 1, 5);
  ASSERT_THAT(ids, SizeIs(5));
  expectFrames(5, 0);
  EXPECT_EQ(statistics(ifg_).buf_free, 9u);
  EXPECT_EQ(freeId(desc_, ids[0]), 0);
  EXPECT_EQ(freeId(desc_, ids[1]), 0);
  expectFrames(5, 2);
  EXPECT_EQ(freeId(desc_, ids[0]), -ENOENT);
  EXPECT_EQ(freeId(desc_, 13), -EINVAL);
  expectFrames(5, 2);
  ASSERT_THAT(alloc(desc_, 1, 62), SizeIs(9)) << "fewer than were asked for";
  expectFrames(14, 2);
}

TEST_F(StatsTest, CountsRequestsThatGaveNothing) {
  EXPECT_EQ(refusal(65537), -EMSGSIZE);
  EXPECT_EQ(refusal(0xffffffff), -EMSGSIZE);
  ASSERT_THAT(alloc(desc_, 65536, 2), SizeIs(2));
  EXPECT_EQ(refusal(65536), -ENOBUFS);
  ASSERT_THAT(alloc(desc_, 1, 62), SizeIs(10));
  EXPECT_EQ(refusal(1), -ENOBUFS);
  EXPECT_EQ(refusal(1), -ENOBUFS);
  const zorvik_ifg_stats stats = statistics(ifg_);
  EXPECT_EQ(stats.alloc_empty, 3u);
  EXPECT_EQ(stats.alloc_too_large, 2u);
  expectFrames(12, 0);
}

TEST_F(StatsTest, AFrameOnSeveralQueuesIsTakenBackOnce) {
  const auto ids = alloc(desc_, 1, 1);
  ASSERT_THAT(ids, SizeIs(1));
  {
    const Mapping memory(desc_.get(), sizeof(zorvik_frm_desc) * 13);
    reinterpret_cast<zorvik_frm_desc*>(memory.base())[ids[0]].qref_cnt = 2;
  }
  EXPECT_EQ(freeId(desc_, ids[0]), 0);
  expectFrames(1, 0);
  EXPECT_EQ(freeId(desc_, ids[0]), 0);
  expectFrames(1, 1);
}

TEST_F(StatsTest, EachGroupCountsItsOwn) {
  ASSERT_EQ(createIfg("other", 4), 0);
  const Fd other = node("other/ctl");
  ASSERT_THAT(alloc(node("other/frm_desc"), 1, 3), SizeIs(3));
  expectFrames(0, 0);
  EXPECT_EQ(statistics(other).frm_count, 4u);
  EXPECT_EQ(statistics(other).frm_free, 1u);
  EXPECT_EQ(statistics(other).frm_allocs, 3u);
  EXPECT_EQ(statistics(other).buf_free, 11u);
  EXPECT_EQ(statistics(ifg_).buf_free, 11u);
}

TEST_F(StatsTest, FramesOfTheDeadAreTakenBack) {
  desc_ = Fd();
  Child child([] {
    (void)alloc(node("brund/frm_desc"), 1, 7);
    (void)::raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(child.join(), -1);
  expectFrames(7, 0);
  zorvik_frm_desc_size size{};
  desc_ = node("brund/frm_desc");
  EXPECT_EQ(call(desc_, ZORVIK_FRM_DESC_SIZE, &size), 0);
  expectFrames(7, 7);
}

TEST_F(StatsTest, FramesOfARemovedQueueAreTakenBack) {
  const int id = createQ(ifg_, "q", 8);
  const auto ids = alloc(desc_, 1, 3);
  ASSERT_THAT(ids, SizeIs(3));
  {
    const OpenQueue queue("brund/q");
    queue.entries()[0] = ids[0];
    queue.entries()[1] = ids[1];
    queue.qmem().enqueue = 2;
  }
  EXPECT_EQ(removeQ(ifg_, id), 0);
  expectFrames(3, 2);
}

// What a process that died inside the driver had moved but not counted, and what it had counted but
// not moved, is put right when the lock is next taken.
TEST_F(StatsTest, ADeathBetweenAFrameAndItsCountIsPutRight) {
  ASSERT_THAT(alloc(desc_, 1, 4), SizeIs(4));
  const auto dieAfter = [](auto change) {
    Child child([&] {
      const Lock lock(Driver::get()->state());
      change(*findGroup(Driver::get()->state(), "brund"));
      ::_exit(0);
      return 0;
    });
    EXPECT_EQ(child.join(), 0);
  };
  dieAfter([](Group& group) { group.allocs = 2; });
  expectFrames(4, 0);
  dieAfter([](Group& group) { Driver::get()->state().records(group)[1].buffer = 0; });
  expectFrames(4, 1);
}

}  // namespace
}  // namespace tarnik::zorvik
