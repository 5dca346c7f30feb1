#include "policy/name_map.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <new>
#include <thread>

namespace tarnik::test {
namespace {

using Names = NameMap::Names;

std::string nameOf(const NameMap& map, std::uint32_t number) {
  std::string name = "before";
  return map.lookup(number, name) ? name : "(none) " + name;
}

TEST(NameMapTest, AddKeepsAndRefillDiscardsWhatTheMapHeld) {
  NameMap map;
  EXPECT_TRUE(map.add([](Names& names) { return names.insert_or_assign(1, "a").second; }));
  EXPECT_FALSE(map.add([](Names& names) {
    names[2] = "b";
    return false;
  }));
  EXPECT_EQ(map.copy(), (Names{{1, "a"}, {2, "b"}}));
  EXPECT_FALSE(map.refill([](Names& names) {
    EXPECT_TRUE(names.empty());
    names[3] = "c";
    return false;
  }));
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(nameOf(map, 3), "c");
  EXPECT_EQ(nameOf(map, 1), "(none) before");
}

TEST(NameMapTest, AnExceptionLeavesTheMap) {
  NameMap map;
  ASSERT_TRUE(map.add([](Names& names) { return names.emplace(1, "a").second; }));
  EXPECT_THROW((void)map.refill([](Names&) -> bool { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_EQ(nameOf(map, 1), "a");
}

TEST(NameMapTest, ALookUpDuringARefillSeesTheOldMapAtOnce) {
  NameMap map;
  ASSERT_TRUE(map.add([](Names& names) { return names.emplace(1, "old").second; }));
  EXPECT_TRUE(map.refill([&map](Names& names) {
    names[1] = "new";
    auto name = std::async(std::launch::async, [&map] { return nameOf(map, 1); });
    EXPECT_EQ(name.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(name.get(), "old");
    return true;
  }));
  EXPECT_EQ(nameOf(map, 1), "new");
}

TEST(NameMapTest, ALookUpNeverSeesAHalfFilledMap) {
  NameMap map;
  const auto fill = [](Names& names) {
    for (std::uint32_t number = 0; number < 500; ++number) {
      names[number] = "name" + std::to_string(number);
    }
    return true;
  };
  ASSERT_TRUE(map.refill(fill));
  std::atomic<bool> stop = false;
  std::atomic<int> looked = 0;
  std::thread reader([&] {
    for (std::uint32_t number = 0; !stop; number = (number + 1) % 500) {
      EXPECT_EQ(nameOf(map, number), "name" + std::to_string(number));
      ++looked;
    }
  });
  for (int round = 0; round < 50 || looked < 1000; ++round) {
    EXPECT_TRUE(map.refill(fill));
  }
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace tarnik::test
