// Creating, listing and removing application queues.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::IsEmpty;

class AdminTest : public GroupTest {
 protected:
  // Creates a queue. asked_ is the driver's request.
  int create(const char* name, std::uint32_t type, std::uint32_t size) {
    asked_ = zorvik_q_create{};
    answer(ZORVIK_Q_CREATE, [this](int, void* argument) -> std::optional<int> {
      asked_ = *static_cast<zorvik_q_create*>(argument);
      return std::nullopt;
    });
    clearRequests();
    return zorlib_ifg_create_q_app(ifg_, name, type, size);
  }
  int remove(const char* name) { return zorlib_ifg_remove_q_app(ifg_, name); }
  // The driver has these queues, with ids from 7 on, and reports `count`. removed_ is the id in a
  // remove request.
  void queues(std::initializer_list<const char*> names, std::uint32_t count) {
    zorvik_q_enum list{};
    for (std::uint32_t i = 0; i < names.size(); ++i) {
      list.records[i].id = 7 + i;
      std::strcpy(list.records[i].name, names.begin()[i]);
    }
    list.count = count;
    answer(ZORVIK_Q_ENUM, [list](int, void* argument) {
      EXPECT_EQ(static_cast<zorvik_q_enum*>(argument)->count, 32u);
      *static_cast<zorvik_q_enum*>(argument) = list;
      return 0;
    });
    answer(ZORVIK_Q_REMOVE, [this](int, void* argument) {
      removed_ = *static_cast<std::uint32_t*>(argument);
      return 0;
    });
  }

  zorvik_q_create asked_{};
  std::uint32_t removed_ = 0;
};

// ---- Creation

TEST_F(AdminTest, CreatesAQueueAndWaitsForItsNode) {
  EXPECT_EQ(create("TarnikQ", 5, 100), 0);
  EXPECT_EQ(asked_.type, 5u);
  EXPECT_EQ(asked_.size, 100u);
  EXPECT_EQ(asked_.reserved[0], 0u);
  EXPECT_EQ(asked_.reserved[1], 0u);
  EXPECT_EQ(asked_.reserved2, 0u);
  EXPECT_STREQ(asked_.name, "TarnikQ");
  EXPECT_TRUE(std::filesystem::exists("/dev/zorvik/brund/TarnikQ"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(AdminTest, TheCallerSetsTheReservedWords) {
  zorvik_q_create asked{};
  answer(ZORVIK_Q_CREATE, [&](int, void* argument) {
    asked = *static_cast<zorvik_q_create*>(argument);
    return 0;  // a valid id
  });
  nodeAppearsAt(1);
  EXPECT_EQ(zorlib_ifg_q_create(ifg_, "q", 5, 10, 7, 8), 0);
  EXPECT_EQ(systemCalls.looks, 1);
  EXPECT_EQ(asked.reserved[0], 7u);
  EXPECT_EQ(asked.reserved[1], 8u);
  EXPECT_EQ(asked.reserved2, 0u);
}

TEST_F(AdminTest, ChecksNameThenTypeThenSize) {
  struct Case {
    const char* name;
    std::uint32_t type, size;
    int error;
    const char* message;
  };
  for (const Case& each : {
           Case{"12345678901234567", 2, 9, ENAMETOOLONG, "Queue name too long (max 16)"},
           Case{"q", 2, 9, EINVAL, "Invalid queue type 2"},
           Case{"q", 0, 9, EINVAL, "Invalid queue type 0"},
           Case{"q", 7, 100, EINVAL, "Invalid queue type 7"},
           Case{"q", 3, 9, EINVAL, "q_size (9) out of bounds (10 <= q_size <= 16000000)"},
           Case{"q", 6, 16000001, EINVAL,
                "q_size (16000001) out of bounds (10 <= q_size <= 16000000)"},
       }) {
    expectFailure([&] { return create(each.name, each.type, each.size); }, each.error,
                  {std::string("Error: zorlib_ifg_create_q_app: ") + each.message});
    EXPECT_THAT(requests(), IsEmpty());
  }
}

TEST_F(AdminTest, AcceptsTheLimitsOfNameTypeAndSize) {
  EXPECT_EQ(create("1234567890123456", 3, 10), 0);
  EXPECT_EQ(std::string(asked_.name, 16), "1234567890123456");
  EXPECT_EQ(create("b", 4, 10), 0);
  EXPECT_EQ(create("d", 6, 11), 0);
  refuse(ZORVIK_Q_CREATE, ENOSPC);  // the stand-in has no room for the largest queue
  EXPECT_EQ(zorlib_ifg_create_q_app(ifg_, "c", 5, 16000000), -1);
  EXPECT_EQ(errno, ENOSPC) << "not EINVAL";
}

TEST_F(AdminTest, AQueueWithoutASizeGetsTheDefault) {
  EXPECT_EQ(create("silent", 5, 0), 0);
  EXPECT_EQ(asked_.size, 100000u);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(create("TarnikQ", 5, 0), 0);
  EXPECT_EQ(asked_.size, 100000u);
  EXPECT_EQ(logLines(), lines({"Debug: zorlib_ifg_create_q_app: brund No q_size param - use def "
                               "100000"}));
}

TEST_F(AdminTest, AnExistingQueueIsReportedAtDebugLevelOnly) {
  EXPECT_EQ(create("TarnikQ", 5, 100), 0);
  const auto again = [&] { return create("TarnikQ", 5, 100); };
  expectFailure(again, EEXIST);
  setDebugLevel(1);
  expectFailure(again, EEXIST,
                {"Debug: zorlib_ifg_q_create: Create queue (brund/TarnikQ/type 5) failed - File "
                 "exists"});
}

TEST_F(AdminTest, AnyOtherRefusalIsAnError) {
  for (const int error : {ENOSPC, EBUSY}) {
    refuse(ZORVIK_Q_CREATE, error);
    expectFailure([&] { return zorlib_ifg_q_create(ifg_, "x", 6, 10, 0, 0); }, error,
                  {std::string("Error: zorlib_ifg_q_create: Create queue (brund/x/type 6) failed "
                               "- ") +
                   std::strerror(error)});
  }
}

TEST_F(AdminTest, AQueueWhoseNodeDoesNotAppearIsRemoved) {
  queues({}, 0);
  answer(ZORVIK_Q_CREATE, [](int, void*) { return 4711; });
  nodeAppearsAt(kNever);
  expectFailure([&] { return zorlib_ifg_q_create(ifg_, "late", 5, 10, 0, 0); }, ENOENT,
                {"Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode "
                 "/dev/zorvik/brund/late to appear"});
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_EQ(removed_, 4711u);
}

// ---- Removal

TEST_F(AdminTest, FindsAQueueByItsNameInAnyCase) {
  createQueue(ifg_, 5, 16, "other");
  createQueue(ifg_);
  EXPECT_EQ(remove("tARNIKq"), 0);
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/brund/TarnikQ"));
  EXPECT_TRUE(std::filesystem::exists("/dev/zorvik/brund/other"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(AdminTest, ComparesAllSixteenCharacters) {
  createQueue(ifg_, 5, 16, "1234567890123456");
  EXPECT_EQ(remove("123456789012345"), -1);
  EXPECT_EQ(remove("1234567890123456"), 0);
}

TEST_F(AdminTest, RemovesTheFirstOfTwoNamesThatDifferInCase) {
  queues({"a", "QQ", "qq"}, 3);
  EXPECT_EQ(remove("qq"), 0);
  EXPECT_EQ(removed_, 8u);
}

TEST_F(AdminTest, ReadsOnlyTheRecordsThatTheDriverCounts) {
  queues({"a", "q"}, 1);
  expectFailure([&] { return remove("q"); }, ENOENT);
  queues({"a"}, 0xffffffff);
  expectFailure([&] { return remove("q"); }, ENOENT);
  EXPECT_EQ(count(ZORVIK_Q_REMOVE), 0);
}

TEST_F(AdminTest, RemovalWaitsForTheNodeOfTheQueuesOwnName) {
  queues({"TarnikQ"}, 1);
  nodeVanishesAt(kNever);
  EXPECT_EQ(remove("tarnikq"), 0) << "the queue is removed, its node is not";
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode "
                               "/dev/zorvik/brund/TarnikQ to disappear"}));
}

TEST_F(AdminTest, AnUnknownQueueIsNotFound) {
  const auto removeUnknown = [&] { return remove("nobody"); };
  expectFailure(removeUnknown, ENOENT);
  setDebugLevel(1);
  expectFailure(removeUnknown, ENOENT, {"Debug: zorlib_ifg_remove_q_app: Queue not found nobody"});
}

TEST_F(AdminTest, AnOpenQueueCannotBeRemoved) {
  createQueue(ifg_);
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  expectFailure([&] { return remove("TarnikQ"); }, EBUSY,
                {text("Error: zorlib_ifg_q_remove: Delete queue (brund) %u failed - Device or "
                      "resource busy",
                      q->id)});
  EXPECT_EQ(zorlib_q_close(q), 0);
}

// ---- The list

TEST_F(AdminTest, ListsQueues) {
  createQueue(ifg_, 3, 100, "one");
  createQueue(ifg_, 6, 16, "two");
  zorvik_q_enum* found = nullptr;
  ASSERT_EQ(zorlib_ifg_q_enum(ifg_, &found), 0);
  const std::unique_ptr<zorvik_q_enum, zorlib::Free> list(found);
  ASSERT_EQ(list->count, 2u);
  EXPECT_STREQ(list->records[0].name, "one");
  EXPECT_STREQ(list->records[1].name, "two");
}

TEST_F(AdminTest, LogsWhyTheListFailed) {
  zorvik_q_enum* list = nullptr;
  const auto enumerate = [&] { return zorlib_ifg_q_enum(ifg_, &list); };
  const char kLine[] = "Error: zorlib_ifg_q_enum: q enum ioctl failed - Input/output error";
  systemCalls.allocationsLeft = 0;
  expectFailure(enumerate, ENOMEM,
                {"Error: zorlib_ifg_q_enum: malloc(292) failed - Cannot allocate memory"});
  refuse(ZORVIK_Q_ENUM, EIO);
  expectFailure(enumerate, EIO, {kLine});
  EXPECT_EQ(list, nullptr);
  expectFailure([&] { return remove("x"); }, EIO, {kLine});
}

// The last test, because parameters remain until the process ends.
TEST_F(AdminTest, TheSizeIsTheParameterOfTheQueueOrOfAppq) {
  ASSERT_EQ(zorlib_set_param("zorvik.brund.appq.q_size", "40"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.brund.named.q_size", "20"), 0);
  EXPECT_EQ(create("named", 5, 0), 0);
  EXPECT_EQ(asked_.size, 20u);
  EXPECT_EQ(create("other", 5, 0), 0);
  EXPECT_EQ(asked_.size, 40u);
}

}  // namespace
}  // namespace tarnik::test
