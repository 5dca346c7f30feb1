// Runs two functions in two threads at the same time.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <latch>
#include <thread>

namespace tarnik::test {

// Binds the calling thread to one of its processors, if it has several.
inline void useProcessor(int which) {
  cpu_set_t all;
  CPU_ZERO(&all);
  if (::sched_getaffinity(0, sizeof all, &all) != 0 || CPU_COUNT(&all) < 2) {
    return;
  }
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &all) && which-- == 0) {
      cpu_set_t own;
      CPU_ZERO(&own);
      CPU_SET(i, &own);
      ::pthread_setaffinity_np(::pthread_self(), sizeof own, &own);
      return;
    }
  }
}

// Calls each function repeatedly, each in its own thread, long enough that they run at the same
// time even on a busy machine. Returns the number of calls.
template <class One, class Two>
int inTwoThreads(One one, Two two) {
  using Clock = std::chrono::steady_clock;
  std::latch start(2);
  const auto repeat = [&start](int which, int& calls, auto& body) {
    useProcessor(which);
    start.arrive_and_wait();
    const auto end = Clock::now() + std::chrono::milliseconds(400);
    do {
      body();
      ++calls;
    } while (Clock::now() < end);
  };
  int calls[2] = {};
  std::thread first([&] { repeat(0, calls[0], one); });
  std::thread second([&] { repeat(1, calls[1], two); });
  first.join();
  second.join();
  return calls[0] + calls[1];
}

}  // namespace tarnik::test
