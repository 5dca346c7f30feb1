// The queues of a group: creation, enumeration, identifiers.
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::ElementsAre;

const std::string k16 = "ABCDEFGHIJKLMNOP";

class QueuesTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = node("brund/ctl");
  }
  void TearDown() override {
    ifg_ = Fd();
    DriverTest::TearDown();
  }
  [[nodiscard]] zorvik_q_enum queues(std::uint32_t capacity = ZORVIK_ENUM_MAX) const {
    return enumerate<zorvik_q_enum>(ifg_, ZORVIK_Q_ENUM, capacity);
  }

  Fd ifg_;
};

TEST_F(QueuesTest, ANewQueueIsAnEmptyRing) {
  for (const auto& [size, slots] : {std::pair{1u, 2u},
                                    {2u, 2u},
                                    {3u, 4u},
                                    {8u, 8u},
                                    {9u, 16u},
                                    {5000u, 8192u},
                                    {100000u, 131072u},
                                    {16000000u, 16777216u}}) {
    const int id = createQ(ifg_, "q", size);
    ASSERT_GT(id, 0);
    {
      const OpenQueue queue("brund/q");
      EXPECT_EQ(queue.stat.id, static_cast<std::uint32_t>(id));
      EXPECT_EQ(queue.stat.type, 5u);
      EXPECT_EQ(queue.stat.entries, slots);
      EXPECT_EQ(queue.stat.mem_size, 320 + 8 * slots);
      struct stat status {};
      ASSERT_EQ(::fstat(queue.fd.get(), &status), 0);
      EXPECT_EQ(status.st_size, 320 + 8 * slots);
      EXPECT_EQ(queue.qmem().max_elements, slots);
      EXPECT_EQ(queue.qmem().mask, slots - 1);
      EXPECT_EQ(queue.qmem().enqueue, 0u);
      EXPECT_EQ(queue.qmem().dequeue, 0u);
      EXPECT_EQ(queue.qmem().presq.flags, 0u);
      EXPECT_EQ(queue.qmem().cresq.flags, 0u);
      EXPECT_NE(queue.qmem().presq.kresq_handle, queue.qmem().cresq.kresq_handle);
      EXPECT_EQ(queue.entries()[slots - 1], 0u);
    }
    EXPECT_EQ(removeQ(ifg_, id), 0);
    EXPECT_FALSE(exists("brund/q"));
  }
}

TEST_F(QueuesTest, QueueCreationErrors) {
  struct {
    const char* name;
    std::uint32_t size;
    std::uint32_t type;
    int error;
  } const cases[] = {
      {"q", 0, 5, -EINVAL},        {"q", 16000001, 5, -EINVAL}, {"q", 8, 0, -EINVAL},
      {"q", 8, 7, -EINVAL},        {"", 8, 5, -EINVAL},         {".", 8, 5, -EINVAL},
      {"..", 8, 5, -EINVAL},       {".q", 8, 5, -EINVAL},       {"a/b", 8, 5, -EINVAL},
      {"ctl", 8, 5, -EINVAL},      {"frm_desc", 8, 5, -EINVAL}, {"there", 8, 5, -EEXIST},
      {k16.c_str(), 8, 5, -EEXIST}};
  // A name of 16 characters has no NUL in the request.
  ASSERT_GT(createQ(ifg_, "there", 8), 0);
  ASSERT_GT(createQ(ifg_, k16, 8), 0);
  for (const auto& each : cases) {
    EXPECT_EQ(createQ(ifg_, each.name, each.size, each.type), each.error)
        << each.name << " " << each.size << " " << each.type;
  }
  for (std::uint32_t type = 1; type <= 6; ++type) {
    EXPECT_GT(createQ(ifg_, "type" + std::to_string(type), 8, type), 0);
  }
}

TEST_F(QueuesTest, EnumerationListsTheQueues) {
  EXPECT_EQ(queues().count, 0u);
  const int one = createQ(ifg_, "one", 51);
  const int two = createQ(ifg_, k16, 8, ZORVIK_Q_SHARED);
  const zorvik_q_enum list = queues();
  EXPECT_THAT(names(list), ElementsAre("one", k16));
  EXPECT_EQ(list.records[0].id, static_cast<std::uint32_t>(one));
  EXPECT_EQ(list.records[0].type, 5u);
  EXPECT_EQ(list.records[0].entries, 64u);
  EXPECT_EQ(list.records[0].requested, 51u);
  EXPECT_EQ(list.records[1].id, static_cast<std::uint32_t>(two));
  EXPECT_EQ(list.records[1].type, 3u);
  EXPECT_THAT(names(queues(1)), ElementsAre("one"));
  EXPECT_EQ(queues(0).count, 0u);
  EXPECT_EQ(queues(0xffffffff).count, 2u);
}

TEST_F(QueuesTest, AtMost32Queues) {
  for (int i = 0; i < 32; ++i) {
    ASSERT_GT(createQ(ifg_, "q" + std::to_string(i), 8), 0);
  }
  EXPECT_EQ(createQ(ifg_, "q32", 8), -ENOSPC);
  EXPECT_EQ(queues().count, 32u);
}

TEST_F(QueuesTest, IdentifiersAndHandlesAreNotUsedAgain) {
  std::set<std::uint32_t> handles;
  std::set<int> ids;
  for (int i = 0; i < 3; ++i) {
    const int id = createQ(ifg_, "q", 8);
    ids.insert(id);
    {
      const OpenQueue queue("brund/q");
      handles.insert(queue.qmem().presq.kresq_handle);
      handles.insert(queue.qmem().cresq.kresq_handle);
    }
    EXPECT_EQ(removeQ(ifg_, id), 0);
    EXPECT_EQ(removeQ(ifg_, id), -ENOENT);
  }
  EXPECT_EQ(ids.size(), 3u);
  EXPECT_EQ(handles.size(), 6u);
}

}  // namespace
}  // namespace tarnik::zorvik
