// Where the library's own objects are allocated: calloc(3) and free(3). The memory is zero-filled,
// so a handle never shows what was in it before, and a C program's allocator serves the library
// too.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace tarnik::zorlib {

// A base class. `new (std::nothrow)` gives null with errno ENOMEM when memory is short; there is no
// other form.
struct CMemory {
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::calloc(1, size);
  }
  static void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return std::calloc(1, size);
  }
  static void operator delete(void* memory) noexcept { std::free(memory); }
  static void operator delete[](void* memory) noexcept { std::free(memory); }
};

// For memory of calloc that has no class, and for what an application frees with free(3).
struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

}  // namespace tarnik::zorlib
