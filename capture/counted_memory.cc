#include "capture/counted_memory.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<std::uint64_t> count{0};
}

std::uint64_t tarnik::test::allocations() {
  return count;
}

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) noexcept {
  ++count;
  return __libc_malloc(size);
}
void* calloc(std::size_t number, std::size_t size) noexcept {
  ++count;
  return __libc_calloc(number, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  ++count;
  return __libc_realloc(memory, size);
}
}
