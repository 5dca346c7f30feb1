#include "capture/counted_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "capture/test_sanitizers.h"

namespace {
std::atomic<std::uint64_t> count{0};
}

std::uint64_t tarnik::test::allocations() {
  return count;
}

#ifdef TARNIK_TEST_SANITIZED

void* operator new(std::size_t size) {
  ++count;
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#else

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

#endif
