// A lock-free stack of frames that this process has allocated and not used yet. The links are in
// private memory, because other processes can write the frame descriptors.
//
// Any thread may push and pop. The head is a pointer and a change counter, which are swapped as one
// 128-bit unit: when another thread pops a node and pushes it again during a pop, the counter has
// changed, the swap fails, and the pop starts again.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

#include "zorlib/c_memory.h"

namespace tarnik {

// One per frame descriptor. Nodes live longer than the lists, because a pop may read a node that
// another thread has already removed. A node is in one list at most; `listed` is set while it is.
struct FrameNode : zorlib::CMemory {
  std::atomic<FrameNode*> next{nullptr};
  std::atomic<bool> listed{false};
};

class FrameList {
 public:
  // False when the node is in a list already. Otherwise a frame that the driver grants twice would
  // make the list circular.
  bool push(FrameNode& node) noexcept {
    // Pairs with the store in pop: the thread that sets the flag owns the node's link.
    if (node.listed.exchange(true, std::memory_order_acquire)) {
      return false;
    }
    Head seen = read();
    do {
      // Relaxed: the swap publishes it.
      node.next.store(seen.first, std::memory_order_relaxed);
    } while (!swap(seen, &node));
    return true;
  }

  // Null when the list is empty.
  FrameNode* pop() noexcept {
    Head seen = read();
    while (seen.first != nullptr) {
      // Relaxed: read() or swap() has seen the swap that published the node. If the link changes
      // afterwards, the swap below fails.
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

  // Reads both halves of the head at once. A full barrier.
  Head read() noexcept {
    return std::bit_cast<Head>(__sync_val_compare_and_swap(&head_, Pair{0}, Pair{0}));
  }

  // Replaces the head by `first` if it is still `seen`. Otherwise false, with the new head in
  // `seen`. A full barrier.
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
