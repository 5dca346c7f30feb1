// Queues from their owner's side.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AdminTest : public GroupTest {
 protected:
  // Creates a queue, and what the driver was asked for.
  int create(const char* name, std::uint32_t type, std::uint32_t size) {
    asked_ = zorvik_q_create{};
    answer(ZORVIK_Q_CREATE, [this](int, void* argument) -> std::optional<int> {
      asked_ = *static_cast<zorvik_q_create*>(argument);
      return std::nullopt;
    });
    clearLog();
    clearRequests();
    errno = 0;
    return zorlib_ifg_create_q_app(ifg_, name, type, size);
  }

  zorvik_q_create asked_{};
};

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

TEST_F(AdminTest, TheReservedWordsOfACreationAreTheCallers) {
  zorvik_q_create asked{};
  answer(ZORVIK_Q_CREATE, [&](int, void* argument) -> std::optional<int> {
    asked = *static_cast<zorvik_q_create*>(argument);
    return 0;  // an identifier like any other
  });
  systemCalls.looks = 0;
  systemCalls.appearsAt = 1;
  systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
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
    EXPECT_EQ(create(each.name, each.type, each.size), -1);
    EXPECT_EQ(errno, each.error);
    EXPECT_THAT(logLines(),
                ElementsAre(error(std::string("Error: zorlib_ifg_create_q_app: ") + each.message)));
    EXPECT_THAT(requests(), IsEmpty());
  }
}

TEST_F(AdminTest, AcceptsTheBoundsOfNameTypeAndSize) {
  EXPECT_EQ(create("1234567890123456", 3, 10), 0);
  EXPECT_EQ(std::string(asked_.name, 16), "1234567890123456");
  EXPECT_EQ(create("b", 4, 10), 0);
  EXPECT_EQ(create("d", 6, 11), 0);
  refuse(ZORVIK_Q_CREATE, ENOSPC);  // only the library's own check is of interest
  clearLog();
  EXPECT_EQ(zorlib_ifg_create_q_app(ifg_, "c", 5, 16000000), -1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(AdminTest, AQueueWithoutASizeGetsTheDefault) {
  EXPECT_EQ(create("silent", 5, 0), 0);
  EXPECT_EQ(asked_.size, 100000u);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(create("TarnikQ", 5, 0), 0);
  EXPECT_EQ(asked_.size, 100000u);
  EXPECT_THAT(logLines(),
              ElementsAre(debug("Debug: zorlib_ifg_create_q_app: brund No q_size param - use def "
                                "100000")));
}

TEST_F(AdminTest, AnExistingQueueIsToldInTheDebugLogOnly) {
  EXPECT_EQ(create("TarnikQ", 5, 100), 0);
  EXPECT_EQ(create("TarnikQ", 5, 100), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(create("TarnikQ", 5, 100), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_THAT(logLines(),
              ElementsAre(debug("Debug: zorlib_ifg_q_create: Create queue (brund/TarnikQ/type 5) "
                                "failed - File exists")));
}

TEST_F(AdminTest, AnyOtherRefusalIsAnError) {
  refuse(ZORVIK_Q_CREATE, ENOSPC);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_q_create(ifg_, "x", 6, 10, 0, 0), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_q_create: Create queue "
                                            "(brund/x/type 6) failed - No space left on device")));
}

TEST_F(AdminTest, AQueueWhoseNodeDoesNotAppearIsRemovedAgain) {
  answer(ZORVIK_Q_CREATE, [](int, void*) { return 4711; });
  std::uint32_t removed = 0;
  answer(ZORVIK_Q_REMOVE, [&](int, void* argument) {
    removed = *static_cast<std::uint32_t*>(argument);
    return 0;
  });
  systemCalls.looks = 0;
  systemCalls.appearsAt = systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
  EXPECT_EQ(zorlib_ifg_q_create(ifg_, "late", 5, 10, 0, 0), -1);
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_EQ(removed, 4711u);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_devnode_wait: Timeout waiting for "
                                            "devnode /dev/zorvik/brund/late to appear")));
}

TEST_F(AdminTest, RemovesAQueueByItsNameInAnyCase) {
  createQueue(ifg_, 5, 16, "other");
  createQueue(ifg_);
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "tARNIKq"), 0);
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/brund/TarnikQ"));
  EXPECT_TRUE(std::filesystem::exists("/dev/zorvik/brund/other"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(AdminTest, RemovesAQueueOfSixteenCharacters) {
  createQueue(ifg_, 5, 16, "1234567890123456");
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "123456789012345"), -1);
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "1234567890123456"), 0);
}

TEST_F(AdminTest, RemovesTheFirstOfTwoNamesThatDifferInCase) {
  answer(ZORVIK_Q_ENUM, [](int, void* argument) {
    auto& list = *static_cast<zorvik_q_enum*>(argument);
    EXPECT_EQ(list.count, 32u);
    list.count = 3;
    list.records[0] = {
        .id = 7, .type = 0, .entries = 0, .reserved = 0, .name = "a", .requested = 0};
    list.records[1] = {
        .id = 8, .type = 0, .entries = 0, .reserved = 0, .name = "QQ", .requested = 0};
    list.records[2] = {
        .id = 9, .type = 0, .entries = 0, .reserved = 0, .name = "qq", .requested = 0};
    return 0;
  });
  std::uint32_t removed = 0;
  answer(ZORVIK_Q_REMOVE, [&](int, void* argument) {
    removed = *static_cast<std::uint32_t*>(argument);
    return 0;
  });
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "qq"), 0);
  EXPECT_EQ(removed, 8u);
}

TEST_F(AdminTest, ARecordBehindTheCountIsNoQueue) {
  answer(ZORVIK_Q_ENUM, [](int, void* argument) {
    auto& list = *static_cast<zorvik_q_enum*>(argument);
    list.count = 1;
    std::strcpy(list.records[0].name, "a");
    std::strcpy(list.records[1].name, "q");
    return 0;
  });
  errno = 0;
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "q"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(count(ZORVIK_Q_REMOVE), 0);
}

TEST_F(AdminTest, RemovalSucceedsThoughTheNodeLingers) {
  createQueue(ifg_);
  answer(ZORVIK_Q_REMOVE, [](int, void*) { return 0; });
  systemCalls.looks = 0;
  systemCalls.appearsAt = 1;
  systemCalls.vanishesAt = 0;
  systemCalls.fakeNode = true;
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), 0);
  EXPECT_EQ(systemCalls.looks, 1501);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_devnode_wait: Timeout waiting for "
                                            "devnode /dev/zorvik/brund/TarnikQ to disappear")));
}

TEST_F(AdminTest, AnUnknownQueueIsNotFound) {
  errno = 0;
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "nobody"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "nobody"), -1);
  EXPECT_THAT(logLines(),
              ElementsAre(debug("Debug: zorlib_ifg_remove_q_app: Queue not found nobody")));
}

TEST_F(AdminTest, AnOpenQueueCannotBeRemoved) {
  createQueue(ifg_);
  zorlib_q* const q = openQueue(ifg_, ZORLIB_READ);
  const std::string id = std::to_string(q->id);
  errno = 0;
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "TarnikQ"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_q_remove: Delete queue (brund) " +
                                            id + " failed - Device or resource busy")));
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(AdminTest, AnEnumerationThatClaimsMoreThanItCanHoldIsBounded) {
  answer(ZORVIK_Q_ENUM, [](int, void* argument) {
    static_cast<zorvik_q_enum*>(argument)->count = 0xffffffff;
    return 0;
  });
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "nobody"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(AdminTest, ListsItsQueues) {
  createQueue(ifg_, 3, 100, "one");
  createQueue(ifg_, 6, 16, "two");
  zorvik_q_enum* found = nullptr;
  ASSERT_EQ(zorlib_ifg_q_enum(ifg_, &found), 0);
  const std::unique_ptr<zorvik_q_enum, zorlib::Free> list(found);
  ASSERT_EQ(list->count, 2u);
  EXPECT_STREQ(list->records[0].name, "one");
  EXPECT_STREQ(list->records[1].name, "two");
}

TEST_F(AdminTest, SaysWhyTheListOfQueuesFailed) {
  zorvik_q_enum* list = nullptr;
  systemCalls.allocationsLeft = 0;
  EXPECT_EQ(zorlib_ifg_q_enum(ifg_, &list), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_q_enum: malloc(292) failed - "
                                            "Cannot allocate memory")));
  clearLog();
  refuse(ZORVIK_Q_ENUM, EIO);
  EXPECT_EQ(zorlib_ifg_q_enum(ifg_, &list), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_q_enum: q enum ioctl failed - "
                                            "Input/output error")));
  EXPECT_EQ(zorlib_ifg_remove_q_app(ifg_, "x"), -1);
  EXPECT_EQ(errno, EIO);
}

// The last one: parameters stay for the life of the process.
TEST_F(AdminTest, AQueueWithoutASizeIsLookedUpByItsNameThenAsAppq) {
  ASSERT_EQ(zorlib_set_param("zorvik.brund.appq.q_size", "40"), 0);
  ASSERT_EQ(zorlib_set_param("zorvik.brund.named.q_size", "20"), 0);
  EXPECT_EQ(create("named", 5, 0), 0);
  EXPECT_EQ(asked_.size, 20u);
  EXPECT_EQ(create("other", 5, 0), 0);
  EXPECT_EQ(asked_.size, 40u);
}

}  // namespace
}  // namespace tarnik::test
