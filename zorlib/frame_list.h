// A lock-free stack of frames that wait in this process for their next use. Private memory: the
// links never stand in the frame descriptors, which other processes can write.
//
// Any thread may push and pop. The head is a pointer with a change counter, swapped as one
// 128-bit unit: a pop that was overtaken by a pop and a push of the same node sees another
// counter and starts again.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

namespace tarnik {

// One a frame descriptor; outlives the lists (a pop may look at a node that is already gone from
// its list). In at most one list at a time, which `listed` says.
struct FrameNode {
  std::atomic<FrameNode*> next{nullptr};
  std::atomic<bool> listed{false};
};

class FrameList {
 public:
  // False when the node is in a list already: a frame that is handed out twice must not tie the
  // list into a ring.
  bool push(FrameNode& node) noexcept {
    // Pairs with the store in pop: the one who turns the flag owns the node's link.
    if (node.listed.exchange(true, std::memory_order_acquire)) {
      return false;
    }
    Head seen = look();
    do {
      // Relaxed: published by the swap.
      node.next.store(seen.first, std::memory_order_relaxed);
    } while (!swap(seen, &node));
    return true;
  }

  // Null when the list is empty.
  FrameNode* pop() noexcept {
    Head seen = look();
    while (seen.first != nullptr) {
      // Relaxed: the node was published by a swap that look or swap has seen, and a link that
      // changed meanwhile fails the swap.
      FrameNode* next = seen.first->next.load(std::memory_order_relaxed);
      if (swap(seen, next)) {
        seen.first->listed.store(false, std::memory_order_release);
        return seen.first;
      }
    }
    return nullptr;
  }

 private:
  __extension__ using Pair = unsigned __int128;
  struct Head {
    FrameNode* first;
    std::uint64_t changes;
  };

  // A full barrier, and the only way to see both halves of one moment.
  Head look() noexcept {
    return std::bit_cast<Head>(__sync_val_compare_and_swap(&head_, Pair{0}, Pair{0}));
  }

  // Puts `first` in the place of what was seen; else sees again. A full barrier.
  bool swap(Head& seen, FrameNode* first) noexcept {
    const Pair expected = std::bit_cast<Pair>(seen);
    const Pair found = __sync_val_compare_and_swap(
        &head_, expected, std::bit_cast<Pair>(Head{first, seen.changes + 1}));
    seen = std::bit_cast<Head>(found);
    return found == expected;
  }

  alignas(16) Pair head_ = 0;
};

}  // namespace tarnik
