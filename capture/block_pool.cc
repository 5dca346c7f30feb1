#include "capture/block_pool.h"

#include <utility>

namespace tarnik {
namespace {

bool fits(std::size_t bytes, std::size_t alignment, std::size_t blockSize) {
  return bytes <= blockSize && alignment <= alignof(std::max_align_t);
}

}  // namespace

void* BlockPool::do_allocate(std::size_t bytes, std::size_t alignment) {
  if (!fits(bytes, alignment, sizeof(Block))) {
    return std::pmr::new_delete_resource()->allocate(bytes, alignment);
  }
  if (free_ == nullptr) {
    chunks_.push_back(std::make_unique<Chunk>());
    for (Block& block : *chunks_.back()) {
      block.next = std::exchange(free_, &block);
    }
  }
  return std::exchange(free_, free_->next);
}

void BlockPool::do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) {
  if (!fits(bytes, alignment, sizeof(Block))) {
    std::pmr::new_delete_resource()->deallocate(memory, bytes, alignment);
    return;
  }
  auto* const block = static_cast<Block*>(memory);
  block->next = std::exchange(free_, block);
}

}  // namespace tarnik
