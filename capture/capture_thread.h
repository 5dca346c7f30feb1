// The daemon's second thread: reads frames from the queue, hands them to the capture manager and
// counts them.
//
// Thread safety: start, stop and join are the main thread's; all else is the capture thread's. A
// stop ends the thread whatever it is doing: it is remembered while there is no open queue yet,
// and never meets one that is being opened or destroyed.
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

  // Creates the thread; `queueTimeout` is the read timeout of the queue, handed on unconverted.
  // A failure is logged, and the daemon goes on without the thread.
  void start(std::uint64_t queueTimeout);
  // Asks the thread to end and wakes it from a read.
  void stop();
  // Waits until it has ended, with all captures closed, and calls `onRound` once a second
  // meanwhile: closing thousands of captures takes its time. Harmless when it was never started.
  void join(const std::function<void()>& onRound = {});

 protected:
  // Opens group and queue for reading; with `reopen` after closing those that are open. False,
  // with a log line, on failure.
  [[nodiscard]] bool initCaptureQueue(bool reopen);

 private:
  struct QueueDestroyer {
    void operator()(TarnikQ* queue) const noexcept { TarnikIfDestroy(queue); }
  };
  using Queue = std::unique_ptr<TarnikQ, QueueDestroyer>;

  // The statistics area "tarnik": counters that other processes read.
  enum Counter : unsigned {
    kFilesUsedSum,  // the measured value is added after each frame
    kDiskUsedSum,   // likewise, in bytes
    kFramesRead,
    kFramesAccepted,
    kFramesRefused,
    kInvalidFrames,
    kCounters,
  };

  static void* threadFunc(void* self);
  void awaitEnd(const std::function<void()>& onRound);
  void run();
  [[nodiscard]] bool initStatistics();
  void processFrames();
  void processFrame(CaptureManager& manager, zorvik_frm_desc& frame, const std::uint8_t* data,
                    std::uint64_t captureId, std::uint32_t flags);
  void readFailed(CaptureManager& manager, int result, int error, zorvik_frm_desc* frame);
  void setQueue(Queue queue);
  void closeQueue();
  void count(Counter counter, std::uint64_t amount);

  bool started_ = false;
  pthread_t thread_{};
  std::uint64_t queueTimeout_ = 0;
  // The read loop goes on while set. Relaxed: it orders nothing, the queue's shutdown wakes the
  // reader.
  std::atomic<bool> running_{false};

  // stop() uses the queue from the main thread, so it is put in place and taken away under the
  // mutex; the capture thread, which alone does that, reads the pointer without it.
  std::mutex mutex_;
  Queue captureIf_;             // null while there is no open queue
  bool stopRequested_ = false;  // guarded by mutex_
  bool ended_ = false;          // guarded by mutex_
  std::condition_variable end_;

  std::uint64_t* counters_ = nullptr;  // kCounters of them; null until the area exists
};

}  // namespace tarnik
