#include "capture/capture_thread.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "base/log.h"
#include "capture/capture_manager.h"
#include "frameq/frame_header.h"

namespace tarnik {
namespace {

constexpr std::chrono::milliseconds kJoinRound{100};

}  // namespace

void CaptureThread::start(std::uint64_t queueTimeout) {
  queueTimeout_ = queueTimeout;
  stopRequested_ = false;  // no lock: no other thread exists yet
  ended_ = false;
  TARNIK_DEBUG(3, "Debug: %s: Packet capture starting", "start");
  const int error = ::pthread_create(&thread_, nullptr, &CaptureThread::threadFunc, this);
  if (error != 0) {
    TARNIK_ERROR("Error: Failed to create analysis thread: %s", std::strerror(error));
    return;
  }
  started_ = true;
}

void CaptureThread::stop() {
  TARNIK_DEBUG(0, "Debug: %s: Packet capture stop", "stop");
  const std::lock_guard guard(mutex_);
  stopRequested_ = true;
  running_.store(false, std::memory_order_relaxed);
  if (captureIf_) {
    captureIf_->Shutdown();
  }
}

void CaptureThread::join(const std::function<void()>& onProgress) {
  TARNIK_DEBUG(3, "Debug: %s: Packet capture stopping", "join");
  if (!started_) {
    return;
  }
  if (::pthread_equal(thread_, ::pthread_self()) == 0) {  // otherwise pthread_join fails
    awaitEnd(onProgress);
  }
  const int error = ::pthread_join(thread_, nullptr);
  if (error != 0) {
    TARNIK_ERROR("Error: Failed to join analysis thread: %s", std::strerror(error));
  }
  started_ = false;
}

// pthread_timedjoin_np would use the wall clock, which may be set back.
void CaptureThread::awaitEnd(const std::function<void()>& onProgress) {
  const CaptureManager& manager = CaptureManager::instance();
  std::uint64_t finishedBefore = manager.finishedCaptures();
  std::unique_lock lock(mutex_);
  while (!end_.wait_for(lock, kJoinRound, [this] { return ended_; })) {
    // A process that shares the memory of the queue can clear the shutdown, so request it again.
    if (stopRequested_ && captureIf_) {
      captureIf_->Shutdown();
    }
    lock.unlock();
    const std::uint64_t finished = manager.finishedCaptures();
    if (finished != finishedBefore && onProgress) {
      onProgress();
    }
    finishedBefore = finished;
    lock.lock();
  }
}

void* CaptureThread::threadFunc(void* self) {
  auto& thread = *static_cast<CaptureThread*>(self);
  thread.run();
  const std::lock_guard guard(thread.mutex_);
  thread.ended_ = true;
  thread.end_.notify_all();
  return nullptr;
}

void CaptureThread::run() {
  bool ready = false;
  try {
    ready = initCaptureQueue(Opening::kFirst);
  } catch (const std::bad_alloc&) {  // TarnikIfCreate found no memory
    TARNIK_ERROR("Error: %s: Failed to create tarnikd interface", "initCaptureQueue");
  }
  if (!ready) {
    TARNIK_ERROR("Error: %s: Failed initialize the thread for capture", "threadFunc");
    return;
  }
  if (initStatistics()) {
    processFrames();
  }
}

bool CaptureThread::initStatistics() {
  if (counters_ == nullptr) {
    OrloStats* const stats = ::OrloStatsProdInit("tarnik", kCounters * sizeof *counters_);
    if (stats == nullptr) {
      return false;
    }
    counters_ = static_cast<std::uint64_t*>(::OrloStatsArea(stats));
    for (unsigned counter = 0; counter < kCounters; ++counter) {
      std::atomic_ref(counters_[counter]).store(0, std::memory_order_relaxed);
    }
  }
  return true;
}

// Relaxed: the counters are independent of each other.
void CaptureThread::addToCounter(Counter counter, std::uint64_t amount) {
  std::atomic_ref(counters_[counter]).fetch_add(amount, std::memory_order_relaxed);
}

// The old queue is destroyed after the mutex is unlocked.
void CaptureThread::setQueue(Queue queue) {
  const std::lock_guard guard(mutex_);
  captureIf_.swap(queue);
}

void CaptureThread::closeQueue() {
  Queue queue;
  {
    const std::lock_guard guard(mutex_);
    queue.swap(captureIf_);
  }
  queue->Close();
  queue.reset();
  TarnikIfgClose();
}

bool CaptureThread::initCaptureQueue(Opening opening) {
  if (opening == Opening::kAgain && captureIf_) {
    closeQueue();
  }
  if (TarnikIfgOpen() != kQOk) {
    TARNIK_ERROR("Error: %s: Failed to open tarnikd ifg", "initCaptureQueue");
    return false;
  }
  Queue queue(TarnikIfCreate());
  if (!queue) {
    TARNIK_ERROR("Error: %s: Failed to create tarnikd interface", "initCaptureQueue");
    return false;
  }
  const int result = queue->Open(TarnikQ::kIngress);
  if (result != kQOk) {
    TARNIK_ERROR("Error: %s: Failed to open tarnikQ: %d", "initCaptureQueue", result);
  } else {
    queue->SetTimeout(static_cast<std::int32_t>(queueTimeout_));
  }
  setQueue(std::move(queue));
  return result == kQOk;
}

void CaptureThread::processFrames() {
  CaptureManager& manager = CaptureManager::instance();
  {
    const std::lock_guard guard(mutex_);
    running_.store(!stopRequested_, std::memory_order_relaxed);
  }
  while (running_.load(std::memory_order_relaxed)) {
    zorvik_frm_desc* frame = nullptr;
    std::uint8_t* data = nullptr;
    std::uint64_t captureId = 0;
    std::uint32_t flags = 0;
    const int result = captureIf_->ReadPkt(&frame, &data, &captureId, &flags);
    const int error = errno;
    TARNIK_DEBUG(3, "Debug: %s: rv=%d (errno=%d) %p %p", "processFrames", result, error,
                 static_cast<void*>(frame), static_cast<void*>(data));
    if (result != kQOk) {
      handleReadFailure(manager, result, error, frame);
    } else if (frame == nullptr) {
      TARNIK_ERROR("Error: %s: Invalid frame", "processFrames");
      addToCounter(kInvalidFrames, 1);
    } else {
      processFrame(manager, *frame, data, captureId, flags);
    }
  }
  TARNIK_DEBUG(3, "Debug: %s: exiting", "processFrames");
  manager.CloseWriters();
  closeQueue();
}

void CaptureThread::processFrame(CaptureManager& manager, zorvik_frm_desc& frame,
                                 const std::uint8_t* data, std::uint64_t captureId,
                                 std::uint32_t flags) {
  addToCounter(kFramesRead, 1);
  // The manager refuses a frame without data. So a frame whose length exceeds the payload memory
  // gets no data.
  const FrameHeader header = readFrameHeader(frame);
  const bool inside = header.capturedLength <= captureIf_->room(data);
  const int result = manager.ConsumeFrame(captureId, header, inside ? data : nullptr, flags);
  if (result == CaptureManager::kDiskSpaceExceeded ||
      result == CaptureManager::kFileCountExceeded) {
    TARNIK_DEBUG(0, "Debug: %s: Failed to capture frame (0x%lx)", "processFrames", captureId);
  } else if (result != CaptureManager::kOk) {
    TARNIK_ERROR("Error: %s: Failed to capture frame (0x%lx)", "processFrames", captureId);
  }
  addToCounter(result == CaptureManager::kOk ? kFramesAccepted : kFramesRefused, 1);
  captureIf_->Free(&frame);
  manager.UpdateUsageCounters();
  addToCounter(kFilesUsedSum, manager.filesUsed());
  addToCounter(kDiskUsedSum, manager.diskUsed());
}

void CaptureThread::handleReadFailure(CaptureManager& manager, int result, int error,
                                      zorvik_frm_desc* frame) {
  switch (error) {
    case ESHUTDOWN:
      TARNIK_DEBUG(0, "Debug: %s: Shutdown", "processFrames");
      running_.store(false, std::memory_order_relaxed);
      break;
    case EINTR:
      TARNIK_DEBUG(3, "Debug: %s: Interrupted", "processFrames");
      break;
    case EAGAIN:
      TARNIK_DEBUG(3, "Debug: %s: Timeout", "processFrames");
      manager.ExpireWriters();
      break;
    default:
      TARNIK_ERROR("Error: %s: ReadPkt rc=%d): errno=%d", "processFrames", result, error);
      break;
  }
  if (frame != nullptr) {  // ReadPkt could not find its data; it must be freed nevertheless
    captureIf_->Free(frame);
  }
}

}  // namespace tarnik
