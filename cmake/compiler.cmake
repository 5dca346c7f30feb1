# The language, the warnings and the sanitizers of every target.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

add_compile_definitions(_GNU_SOURCE)
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)

# The frame lists swap a pointer and its change counter as one 128-bit unit.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
  add_compile_options(-mcx16)
endif()

# ccache shortens repeated builds; the project does not need it.
find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # It only caches what uses a precompiled header when it may ignore these differences.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
endif()

find_package(Threads REQUIRED)

if(TARNIK_SANITIZE)
  # clang links the sanitizer runtime into the program, which works with the preloaded driver
  # stand-in. g++ uses a shared library, which does not.
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TARNIK_SANITIZE needs clang: use the asan or tsan preset")
  endif()
  set(TARNIK_SANITIZE_OPTIONS -fsanitize=${TARNIK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${TARNIK_SANITIZE_OPTIONS})
  add_link_options(${TARNIK_SANITIZE_OPTIONS})
endif()

if(TARNIK_FUZZ)
  # All code reports to the fuzz target which branches an input reached.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# With link-time optimisation g++ 12 warns of a negative string length where there is none. The
# warning stays an error where each file is compiled on its own.
if(CMAKE_INTERPROCEDURAL_OPTIMIZATION AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_link_options(-Wno-stringop-overflow)
endif()
