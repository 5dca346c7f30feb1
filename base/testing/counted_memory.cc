#include "base/testing/counted_memory.h"

#include <atomic>
#include <cstdlib>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNIK_SANITIZED
#include <sanitizer/allocator_interface.h>
#endif
#endif

namespace {
std::atomic<std::uint64_t> count{0};
}

std::uint64_t tarnik::test::allocations() {
  return count;
}

#ifdef TARNIK_SANITIZED
namespace {
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++count; }, [](const volatile void*) {});
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
