#include "zorlib/frame_list.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

namespace tarnik::test {
namespace {

TEST(FrameList, PopsTheLastNodeFirst) {
  std::array<FrameNode, 3> nodes;
  FrameList list;
  EXPECT_EQ(list.pop(), nullptr);
  for (FrameNode& node : nodes) {
    EXPECT_TRUE(list.push(node));
  }
  EXPECT_EQ(list.pop(), &nodes[2]);
  EXPECT_EQ(list.pop(), &nodes[1]);
  EXPECT_TRUE(list.push(nodes[2]));
  EXPECT_EQ(list.pop(), &nodes[2]);
  EXPECT_EQ(list.pop(), &nodes[0]);
  EXPECT_EQ(list.pop(), nullptr);
}

TEST(FrameList, RefusesANodeThatIsInAList) {
  FrameNode node;
  FrameList list;
  FrameList other;
  EXPECT_TRUE(list.push(node));
  EXPECT_FALSE(list.push(node));
  EXPECT_FALSE(other.push(node));
  EXPECT_EQ(list.pop(), &node);
  EXPECT_EQ(list.pop(), nullptr);
  EXPECT_TRUE(other.push(node));
}

// Threads pop nodes and push them in another order.
TEST(FrameList, ThreadsNeverPopANodeTwiceOrLoseOne) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50000;
  std::array<FrameNode, 8> nodes;
  std::array<std::atomic<int>, 8> holders{};
  FrameList list;
  for (FrameNode& node : nodes) {
    ASSERT_TRUE(list.push(node));
  }
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        FrameNode* const first = list.pop();
        FrameNode* const second = list.pop();
        for (FrameNode* const node : {first, second}) {
          if (node != nullptr) {
            faults += holders[static_cast<std::size_t>(node - nodes.data())]++ != 0 ? 1 : 0;
          }
        }
        for (FrameNode* const node : {first, second}) {
          if (node != nullptr) {
            --holders[static_cast<std::size_t>(node - nodes.data())];
            faults += list.push(*node) ? 0 : 1;
          }
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(faults, 0);
  std::size_t left = 0;
  while (list.pop() != nullptr) {
    ++left;
  }
  EXPECT_EQ(left, nodes.size());
}

}  // namespace
}  // namespace tarnik::test
