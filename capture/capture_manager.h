// Turns the stream of frames into one PCAP file per capture, within the limits on disk space,
// number of files and file size.
//
// Thread safety: the main thread calls Init before the capture thread exists, and Reload while it
// runs. The capture thread calls everything else. Both threads use the limits and the state of
// their events, which a mutex guards, and the two maps, which guard themselves. None of these locks
// is held while a file is written or a line is logged.
//
// Out of memory: a new capture fails as if its file could not be opened, and a capture that cannot
// be named is tried again. Only Init and Reload throw std::bad_alloc; the limits are then
// unchanged.
//
// A writer closes and finalises its file when its last handle is destroyed. The table holds one
// handle; an operation holds another one while it works on a writer.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <unordered_map>

#include "capture/block_pool.h"
#include "capture/capture_namer.h"
#include "capture/disk_usage.h"
#include "capture/limits.h"
#include "capture/pcap_writer.h"
#include "frameq/frame_header.h"

namespace tarnik {

class CaptureManager {
 public:
  using Writer = std::shared_ptr<PcapWriter>;
  using WriterTable = std::pmr::unordered_map<std::uint64_t, Writer>;  // by captureId

  // Results of Init, Reload and ConsumeFrame.
  enum Result : int {
    kOk = 0,
    kOpenFailed = 5,
    kWriteFailed = 6,
    kNapMapFailed = 7,
    kIssueMapFailed = 8,
    kDiskSpaceExceeded = 9,
    kFileCountExceeded = 10,
    kFileSizeExceeded = kStatusFull,
  };

  static CaptureManager& instance();

  // Loads the NAP map and the issue map and sets the limits: maxTimeout and eventInterval in
  // seconds, diskSpace and maxFileSize in bytes, eventThreshold in frames. Returns kNapMapFailed or
  // kIssueMapFailed and logs a line when it cannot load a map; it then keeps the old limits.
  int Init(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
           std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
           std::uint32_t eventThreshold);
  // Does the same while frames flow. Open writers keep their size limit.
  int Reload(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
             std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
             std::uint32_t eventThreshold);

  // Writes one frame to its capture's file. Opens the file for the first frame, names it as soon as
  // the capture's metadata is known, and closes it after the last frame (kPktLastFrame) if it has a
  // name. `data` stays the caller's. After a result other than kOk the frame is in no file; a log
  // line says why, and for limits a platform event.
  [[nodiscard]] int ConsumeFrame(std::uint64_t captureId, const FrameHeader& frame,
                                 const std::uint8_t* data, std::uint32_t flags);

  // Names the writer from the capture's metadata. True when the writer has a name.
  bool ProcessMetaData(PcapWriter& writer, std::uint64_t captureId);
  // Names the writer's file, as CaptureNamer::UpdateWriter describes.
  [[nodiscard]] bool UpdateWriter(PcapWriter& writer, std::int32_t triggerId, std::uint64_t flowId);

  // Finds a capture's writer and its position in the table. Otherwise returns false and the end.
  [[nodiscard]] bool LookupConnWriter(std::uint64_t captureId, Writer& writer,
                                      WriterTable::iterator& position);
  // Adds a writer to the table. Replaces the capture's previous writer.
  void PushConnWriter(std::uint64_t captureId, Writer writer);
  // Removes the entry at `position` and sets `position` to the end.
  void EraseConnWriter(WriterTable::iterator& position);

  // Closes the writers that were idle for more than maxTimeout.
  void ExpireWriters();
  // Closes all writers.
  void CloseWriters();
  // The number of captures that have left the table. It grows while ExpireWriters or CloseWriters
  // makes progress. Any thread.
  [[nodiscard]] std::uint64_t finishedCaptures() const {
    return finishedCaptures_.load(std::memory_order_relaxed);
  }

  // Measures the capture directory. The limits use the last measurement.
  void UpdateUsageCounters();
  [[nodiscard]] std::uint64_t filesUsed() const { return filesUsed_; }
  [[nodiscard]] std::uint64_t diskUsed() const { return diskUsed_; }  // bytes

 private:
  struct Admission {
    Limits limits;  // the limits that this frame was tested against
    LimitEvent::Verdict disk = LimitEvent::Verdict::kWithin;
    LimitEvent::Verdict files = LimitEvent::Verdict::kWithin;
  };

  enum class Operation { kInit, kReload };

  int configure(Operation operation, const std::string& issuesPath, const Limits& limits);
  [[nodiscard]] Limits limits() const;
  [[nodiscard]] Admission admit(std::time_t now);
  [[nodiscard]] int consumeFirstFrame(std::uint64_t captureId, const FrameHeader& frame,
                                      const std::uint8_t* data, std::uint32_t flags,
                                      std::int64_t maxFileSize);
  [[nodiscard]] Result writeFirstFrame(const Writer& writer, std::uint64_t captureId,
                                       const FrameHeader& frame, const std::uint8_t* data,
                                       std::uint32_t flags);
  void closeWriter(const char* operation, WriterTable::iterator position);
  void shareBuffers(std::uint64_t diskSpace, std::size_t captures);

  mutable std::mutex mutex_;  // guards limits_, diskEvent_ and filesEvent_
  Limits limits_;
  LimitEvent diskEvent_;
  LimitEvent filesEvent_;

  CaptureNamer namer_;
  // Keeps the entries of the table apart from the writers' buffers, so that lookups touch few
  // pages.
  BlockPool entries_;
  WriterTable writers_{&entries_};
  std::atomic<std::uint64_t> finishedCaptures_{0};  // relaxed: a gauge of progress
  std::size_t bufferShare_ = kLargestBuffer;        // bytes that each writer may buffer
  std::uint64_t sharedDiskSpace_ = 0;               // the limit that bufferShare_ was computed from
  DiskUsage usage_;
  std::uint64_t diskUsed_ = 0;
  std::uint64_t filesUsed_ = 0;
};

}  // namespace tarnik
