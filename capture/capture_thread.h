// The daemon's second thread: reads frames from the queue, hands them to the capture manager and
// counts them.
//
// Thread safety: the main thread calls start, stop and join. The capture thread calls everything
// else. stop ends the thread at any moment of its life: before the queue is open the thread
// remembers the request, and stop never uses a queue that is being opened or destroyed.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "frameq/tarnik_if.h"

namespace tarnik {

class CaptureManager;

class CaptureThread {
 public:
  CaptureThread() = default;
  CaptureThread(const CaptureThread&) = delete;
  CaptureThread& operator=(const CaptureThread&) = delete;

  // Creates the thread. `queueTimeout` is the read timeout of the queue, in the unit of
  // TarnikQ::SetTimeout. Logs a failure; the daemon then continues without the thread.
  void start(std::uint64_t queueTimeout);
  // Asks the thread to end and wakes it from a read.
  void stop();
  // Waits until the thread has ended and has closed all captures. Closing thousands of captures
  // takes long: calls `onProgress` every tenth of a second in which captures were finished. Without
  // progress, as when a child process hangs, there are no calls. Does nothing when the thread was
  // never started.
  void join(const std::function<void()>& onProgress = {});

 protected:
  enum class Opening {
    kFirst,
    kAgain,  // close what is open first
  };
  // Opens the interface group and the queue for reading. Logs a line and returns false on failure.
  [[nodiscard]] bool initCaptureQueue(Opening opening);

 private:
  struct QueueDestroyer {
    void operator()(TarnikQ* queue) const noexcept { TarnikIfDestroy(queue); }
  };
  using Queue = std::unique_ptr<TarnikQ, QueueDestroyer>;

  // The counters of the statistics area "tarnik", which other processes read.
  enum Counter : unsigned {
    kFilesUsedSum,  // each frame adds the number of files measured after it
    kDiskUsedSum,   // each frame adds the bytes measured after it
    kFramesRead,
    kFramesAccepted,
    kFramesRefused,
    kInvalidFrames,
    kCounters,
  };

  static void* threadFunc(void* self);
  void awaitEnd(const std::function<void()>& onProgress);
  void run();
  [[nodiscard]] bool initStatistics();
  void processFrames();
  void processFrame(CaptureManager& manager, zorvik_frm_desc& frame, const std::uint8_t* data,
                    std::uint64_t captureId, std::uint32_t flags);
  void handleReadFailure(CaptureManager& manager, int result, int error, zorvik_frm_desc* frame);
  void setQueue(Queue queue);
  void closeQueue();
  void addToCounter(Counter counter, std::uint64_t amount);

  bool started_ = false;
  pthread_t thread_{};
  std::uint64_t queueTimeout_ = 0;
  // The read loop runs while this is set. Relaxed: it orders nothing; the shutdown of the queue
  // wakes the reader.
  std::atomic<bool> running_{false};

  // stop() uses the queue on the main thread, so the capture thread sets and clears the pointer
  // with the mutex locked. It reads the pointer without the mutex because no other thread changes
  // it.
  std::mutex mutex_;
  Queue captureIf_;             // null while there is no open queue
  bool stopRequested_ = false;  // guarded by mutex_
  bool ended_ = false;          // guarded by mutex_
  std::condition_variable end_;

  std::uint64_t* counters_ = nullptr;  // kCounters values; null until the area exists
};

}  // namespace tarnik
