// The daemon's second thread: reads frames from the queue, hands them to the capture manager and
// counts them.
//
// Thread safety: start, stop and join are the main thread's; all else is the capture thread's.
#pragma once

#include <cstdint>

namespace tarnik {

class CaptureThread {
 public:
  // Creates the thread; `queueTimeout` is the read timeout of the queue, handed on unconverted.
  void start(std::uint64_t queueTimeout);
  // Asks the thread to end and wakes it from a read.
  void stop();
  // Waits until it has ended. Harmless when it was never started.
  void join();
};

}  // namespace tarnik
