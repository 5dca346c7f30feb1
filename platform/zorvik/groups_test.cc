// Loading, groups, queues and the requests on them, each with what it refuses.
#include <sys/mman.h>
#include <sys/stat.h>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using GroupsTest = DriverTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string k16 = "ABCDEFGHIJKLMNOP";

bool there(const std::string& path) {
  return ::access((ZORVIK_DEV_DIR "/" + path).c_str(), F_OK) == 0;
}

zorvik_q_enum enumerate(const Fd& ifg, std::uint32_t capacity = ZORVIK_ENUM_MAX) {
  zorvik_q_enum list{};
  list.count = capacity;
  EXPECT_EQ(call(ifg, ZORVIK_Q_ENUM, &list), 0);
  return list;
}

std::vector<std::string> names(const zorvik_q_enum& list) {
  std::vector<std::string> result;
  for (std::uint32_t i = 0; i < list.count; ++i) {
    result.emplace_back(list.records[i].name, ::strnlen(list.records[i].name, ZORVIK_NAME_MAX));
  }
  return result;
}

TEST_F(GroupsTest, LoadingTwiceIsRefused) {
  EXPECT_EQ(load(kClasses), -EEXIST);
}

TEST_F(GroupsTest, NodesAreReadableByOwnerAndGroupWhateverTheUmask) {
  const mode_t before = ::umask(0077);
  ASSERT_EQ(createIfg("other", 1), 0);
  ::umask(before);
  for (const char* path : {"ctl", "net_data", "other/ctl", "other/frm_desc"}) {
    struct stat status {};
    ASSERT_EQ(::stat((std::string(ZORVIK_DEV_DIR "/") + path).c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & 0777, 0660u) << path;
  }
}

TEST(Load, RefusesPoolsThatCannotBe) {
  using Classes = std::vector<ClassSize>;
  for (const Classes& classes :
       {Classes{}, Classes{{2048, 0}}, Classes{{100, 1}}, Classes{{0, 1}}, Classes{{65600, 1}},
        Classes{{2048, 1}, {2048, 1}}, Classes{{2048, 1}, {1024, 1}}, Classes{{65536, 65536}},
        Classes{{64, 1000001}}, Classes{{64, 1}, {128, 1}, {192, 1}, {256, 1}, {320, 1}}}) {
    EXPECT_EQ(load(classes), -EINVAL);
  }
  EXPECT_EQ(unload(), -ENODEV);
  EXPECT_FALSE(there("ctl"));
  EXPECT_FALSE(there("net_data"));
}

TEST_F(GroupsTest, ProcessFindsTheDriverThatWasLoadedAnew) {
  ASSERT_EQ(unload(), 0);
  ASSERT_EQ(load(std::vector<ClassSize>{{64, 3}}), 0);
  std::uint32_t size = 0;
  EXPECT_EQ(call(node("net_data"), ZORVIK_NET_DATA_SIZE, &size), 0);
  EXPECT_EQ(size, 192u);
}

TEST_F(GroupsTest, GroupShowsItsNodes) {
  EXPECT_TRUE(there("brund/ctl"));
  EXPECT_TRUE(there("brund/frm_desc"));
  zorvik_frm_desc_size size{};
  EXPECT_EQ(call(node("brund/frm_desc"), ZORVIK_FRM_DESC_SIZE, &size), 0);
  EXPECT_EQ(size.size, 13u * 128u);  // the first descriptor is never a frame's
  std::uint32_t payload = 0;
  EXPECT_EQ(call(node("net_data"), ZORVIK_NET_DATA_SIZE, &payload), 0);
  EXPECT_EQ(payload, 8u * 2048 + 4u * 16384 + 2u * 65536);
}

TEST_F(GroupsTest, GroupNames) {
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, k16), 0);
  EXPECT_TRUE(there(k16 + "/ctl"));
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, k16 + "Q"), -ENAMETOOLONG);
  for (const char* bad : {"", ".", "..", ".x", "a/b", "/", "ctl", "net_data"}) {
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, bad), -EINVAL) << bad;
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "brund"), -EEXIST);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "Brund"), 0);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, k16), 0);
  EXPECT_FALSE(there(k16));
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, k16), -ENOENT);
}

TEST_F(GroupsTest, NoMoreThanEightGroups) {
  for (int i = 1; i < 8; ++i) {
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g" + std::to_string(i)), 0);
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g8"), -ENOSPC);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "g3"), 0);
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "g8"), 0);
}

TEST_F(GroupsTest, FrameDataIsMadeOnce) {
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_CREATE, "bare"), 0);
  const Fd ifg = node("bare/ctl");
  const Fd desc = node("bare/frm_desc");
  zorvik_frm_desc_size size{};
  EXPECT_EQ(call(desc, ZORVIK_FRM_DESC_SIZE, &size), -ENXIO);
  int error = 0;
  EXPECT_THAT(alloc(desc, 1, 1, &error), IsEmpty());
  EXPECT_EQ(error, -ENXIO);
  EXPECT_EQ(freeId(desc, 1), -EINVAL);
  for (std::uint32_t bad : {0u, 1000001u}) {
    EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &bad), -EINVAL);
  }
  std::uint32_t frames = 1;
  EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &frames), 0);
  EXPECT_EQ(call(ifg, ZORVIK_FRM_DATA_CREATE, &frames), -EEXIST);
  EXPECT_EQ(call(desc, ZORVIK_FRM_DESC_SIZE, &size), 0);
  EXPECT_EQ(size.size, 256u);
}

TEST_F(GroupsTest, FramesOfAllGroupsAreLimited) {
  ASSERT_EQ(createIfg("one", 500000), 0);
  EXPECT_EQ(createIfg("two", 600000), -ENOSPC);
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "two"), 0);
  ASSERT_EQ(createIfg("two", 500000), 0);
  EXPECT_EQ(createIfg("three", 100000), -ENOSPC);
  ASSERT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "one"), 0);
  std::uint32_t frames = 400000;  // fits between the others
  EXPECT_EQ(call(node("three/ctl"), ZORVIK_FRM_DATA_CREATE, &frames), 0);
  EXPECT_EQ(inconsistencies(), "");
}

TEST_F(GroupsTest, FlagsAndQuery) {
  const Fd ifg = node("brund/ctl");
  zorvik_ifg_query query{.flags = 99, .count = 0, .reserved = 0};
  EXPECT_EQ(call(ifg, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0u);
  EXPECT_EQ(call(ifg, ZORVIK_IFG_SET_FLAGS, reinterpret_cast<void*>(0x8000000000000003)), 0);
  EXPECT_EQ(call(ifg, ZORVIK_IFG_QUERY, &query), 0);
  EXPECT_EQ(query.flags, 0x8000000000000003u);
  EXPECT_EQ(call(ifg, ZORVIK_IFG_SET_FLAGS, nullptr), 0);  // no flags, not a missing argument
  query.count = 32;
  EXPECT_EQ(call(ifg, ZORVIK_IFG_QUERY, &query), 0);  // the cookie of a group without interfaces
  EXPECT_EQ(query.count, 0u);
}

TEST_F(GroupsTest, LoggingMask) {
  std::uint64_t mask = 1;
  EXPECT_EQ(call(node("ctl"), ZORVIK_GET_LOG_MASK, &mask), 0);
  EXPECT_EQ(mask, 0u);
  mask = 0xfedcba9876543210;
  EXPECT_EQ(call(node("ctl"), ZORVIK_SET_LOG_MASK, &mask), 0);
  mask = 0;
  EXPECT_EQ(call(node("ctl"), ZORVIK_GET_LOG_MASK, &mask), 0);
  EXPECT_EQ(mask, 0xfedcba9876543210);
}

TEST_F(GroupsTest, QueueMemoryIsThatOfAnEmptyRing) {
  const Fd ifg = node("brund/ctl");
  for (const auto& [size, slots] : {std::pair{1u, 2u},
                                    {2u, 2u},
                                    {3u, 4u},
                                    {8u, 8u},
                                    {9u, 16u},
                                    {5000u, 8192u},
                                    {100000u, 131072u}}) {
    const int id = createQ(ifg, "q", size);
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
    EXPECT_EQ(removeQ(ifg, id), 0);
    EXPECT_FALSE(there("brund/q"));
  }
}

TEST_F(GroupsTest, LargestQueue) {
  const Fd ifg = node("brund/ctl");
  ASSERT_GT(createQ(ifg, "q", 16000000), 0);
  EXPECT_EQ(OpenQueue("brund/q").stat.entries, 16777216u);
}

TEST_F(GroupsTest, QueueCreationRefusals) {
  const Fd ifg = node("brund/ctl");
  EXPECT_EQ(createQ(ifg, "q", 0), -EINVAL);
  EXPECT_EQ(createQ(ifg, "q", 16000001), -EINVAL);
  EXPECT_EQ(createQ(ifg, "q", 8, 0), -EINVAL);
  EXPECT_EQ(createQ(ifg, "q", 8, 7), -EINVAL);
  for (const char* bad : {"", ".", "..", ".q", "a/b", "ctl", "frm_desc"}) {
    EXPECT_EQ(createQ(ifg, bad, 8), -EINVAL) << bad;
  }
  EXPECT_GT(createQ(ifg, "q", 8), 0);
  EXPECT_EQ(createQ(ifg, "q", 8), -EEXIST);
  for (std::uint32_t type = 1; type <= 6; ++type) {
    EXPECT_GT(createQ(ifg, "type" + std::to_string(type), 8, type), 0);
  }
  EXPECT_EQ(call(ifg, ZORVIK_Q_CREATE, nullptr), -EFAULT);
}

TEST_F(GroupsTest, SixteenCharacterQueueNameNeedsNoNul) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, k16, 8);
  ASSERT_GT(id, 0);
  EXPECT_TRUE(there("brund/" + k16));
  EXPECT_THAT(names(enumerate(ifg)), ElementsAre(k16));
  EXPECT_EQ(createQ(ifg, k16, 8), -EEXIST);
}

TEST_F(GroupsTest, EnumerationTellsEachQueue) {
  const Fd ifg = node("brund/ctl");
  EXPECT_EQ(enumerate(ifg).count, 0u);
  const int one = createQ(ifg, "one", 51);
  const int two = createQ(ifg, "two", 8, ZORVIK_Q_SHARED);
  zorvik_q_enum list = enumerate(ifg);
  EXPECT_THAT(names(list), ElementsAre("one", "two"));
  EXPECT_EQ(list.records[0].id, static_cast<std::uint32_t>(one));
  EXPECT_EQ(list.records[0].type, 5u);
  EXPECT_EQ(list.records[0].entries, 64u);
  EXPECT_EQ(list.records[0].requested, 51u);
  EXPECT_EQ(list.records[1].id, static_cast<std::uint32_t>(two));
  EXPECT_EQ(list.records[1].type, 3u);
  EXPECT_THAT(names(enumerate(ifg, 1)), ElementsAre("one"));
  EXPECT_EQ(enumerate(ifg, 0).count, 0u);
  EXPECT_EQ(enumerate(ifg, 0xffffffff).count, 2u);
}

TEST_F(GroupsTest, NoMoreThan32Queues) {
  const Fd ifg = node("brund/ctl");
  for (int i = 0; i < 32; ++i) {
    ASSERT_GT(createQ(ifg, "q" + std::to_string(i), 8), 0);
  }
  EXPECT_EQ(createQ(ifg, "q32", 8), -ENOSPC);
  EXPECT_EQ(enumerate(ifg).count, 32u);
}

TEST_F(GroupsTest, IdentifiersAndHandlesAreNotUsedAgain) {
  const Fd ifg = node("brund/ctl");
  std::set<std::uint32_t> handles;
  std::set<int> ids;
  for (int i = 0; i < 3; ++i) {
    const int id = createQ(ifg, "q", 8);
    ids.insert(id);
    {
      const OpenQueue queue("brund/q");
      handles.insert(queue.qmem().presq.kresq_handle);
      handles.insert(queue.qmem().cresq.kresq_handle);
    }
    EXPECT_EQ(removeQ(ifg, id), 0);
    EXPECT_EQ(removeQ(ifg, id), -ENOENT);
  }
  EXPECT_EQ(ids.size(), 3u);
  EXPECT_EQ(handles.size(), 6u);
}

TEST_F(GroupsTest, RequestsOnTheWrongNodeAreTheKernelsToRefuse) {
  const Fd ifg = node("brund/ctl");
  ASSERT_GT(createQ(ifg, "q", 8), 0);
  std::uint64_t argument[200] = {};
  EXPECT_EQ(call(node("brund/q"), ZORVIK_Q_ENUM, argument), -ENOTTY);
  EXPECT_EQ(call(node("brund/frm_desc"), ZORVIK_Q_STAT, argument), -ENOTTY);
  EXPECT_EQ(call(node("ctl"), ZORVIK_FRM_FREE, argument), -ENOTTY);
  EXPECT_EQ(call(ifg, ZORVIK_IFG_CREATE, argument), -ENOTTY);
  EXPECT_EQ(call(ifg, _IO(ZORVIK_IOC, 0xff), argument), -ENOTTY);
  EXPECT_EQ(call(-1, ZORVIK_Q_STAT, argument), -ENOTTY);
  EXPECT_EQ(call(Fd::open("/dev/null"), ZORVIK_Q_STAT, argument), -ENOTTY);
}

TEST_F(GroupsTest, NullArgumentsAreRefused) {
  const Fd ifg = node("brund/ctl");
  ASSERT_GT(createQ(ifg, "q", 8), 0);
  for (const unsigned long request :
       {ZORVIK_IFG_CREATE, ZORVIK_IFG_REMOVE, ZORVIK_GET_LOG_MASK, ZORVIK_SET_LOG_MASK}) {
    EXPECT_EQ(call(node("ctl"), request, nullptr), -EFAULT);
  }
  for (const unsigned long request : {ZORVIK_IFG_QUERY, ZORVIK_Q_CREATE, ZORVIK_Q_REMOVE,
                                      ZORVIK_Q_ENUM, ZORVIK_FRM_DATA_CREATE}) {
    EXPECT_EQ(call(ifg, request, nullptr), -EFAULT);
  }
  for (const unsigned long request : {ZORVIK_FRM_DESC_SIZE, ZORVIK_FRM_ALLOC, ZORVIK_FRM_FREE}) {
    EXPECT_EQ(call(node("brund/frm_desc"), request, nullptr), -EFAULT);
  }
  for (const unsigned long request : {ZORVIK_Q_STAT, ZORVIK_Q_WAIT, ZORVIK_Q_WAKE}) {
    EXPECT_EQ(call(node("brund/q"), request, nullptr), -EFAULT);
  }
  EXPECT_EQ(call(node("net_data"), ZORVIK_NET_DATA_SIZE, nullptr), -EFAULT);
}

}  // namespace
}  // namespace tarnik::zorvik
