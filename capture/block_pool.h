// Memory for many blocks of at most 32 bytes. The blocks are next to each other, so that the
// entries of a table take few pages. Larger requests go to the default resource.
//
// A request that fails leaves the pool as it was. (The pools of libstdc++ 12 do not survive that.)
// The pool keeps its memory until it is destroyed. Not thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <memory_resource>
#include <vector>

namespace tarnik {

class BlockPool : public std::pmr::memory_resource {
 private:
  union Block {
    Block* next;  // in the list of free blocks
    alignas(std::max_align_t) std::array<std::byte, 32> bytes;
  };
  static constexpr std::size_t kBlocksPerChunk = 128;  // one page
  using Chunk = std::array<Block, kBlocksPerChunk>;

  void* do_allocate(std::size_t bytes, std::size_t alignment) override;
  void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override;
  [[nodiscard]] bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
    return this == &other;
  }

  std::vector<std::unique_ptr<Chunk>> chunks_;
  Block* free_ = nullptr;
};

}  // namespace tarnik
