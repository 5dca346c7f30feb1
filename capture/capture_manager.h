// Turns the stream of frames into one PCAP file a capture, within the limits on disk space, number
// of files and size of a file.
//
// Thread safety: the main thread calls Init before the capture thread exists, and Reload while it
// runs; everything else is the capture thread's. What both touch, the limits and the state of
// their events, has a mutex of its own, and the two maps guard themselves; none of these is held
// while a file is written or a line logged.
//
// A writer closes and finalises its file when its last handle goes; the table holds one, and each
// operation one more while it works on a writer.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <unordered_map>

#include "capture/disk_usage.h"
#include "capture/limits.h"
#include "capture/pcap_writer.h"
#include "frameq/frame_header.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"

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

  // Loads the NAP map and the issue map and takes the limits: maxTimeout and eventInterval in
  // seconds, diskSpace and maxFileSize in bytes, eventThreshold in frames. kNapMapFailed or
  // kIssueMapFailed, with a log line, when a map could not be loaded; the limits are then as
  // before.
  int Init(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
           std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
           std::uint32_t eventThreshold);
  // The same while frames flow. Open writers keep their size limit.
  int Reload(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
             std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
             std::uint32_t eventThreshold);

  // Writes one frame to its capture's file, which is opened with the first frame, named as soon as
  // the capture's metadata is known, and closed with the frame that `flags` (of ReadPkt) call the
  // last one. `data` stays the caller's. A result other than kOk means that the frame is not in a
  // file; the log and, for limits, a platform event say why.
  [[nodiscard]] int ConsumeFrame(std::uint64_t captureId, const FrameHeader& frame,
                                 const std::uint8_t* data, std::uint32_t flags);

  // True when the writer is named, or could be now from the capture's metadata.
  bool ProcessMetaData(PcapWriter& writer, std::uint64_t captureId);
  // Names the writer's file from the current time and the trigger. False, with a log line, when
  // the issue or rule is unknown.
  [[nodiscard]] bool UpdateWriter(PcapWriter& writer, std::int32_t triggerId, std::uint64_t flowId);

  // The writer of a capture and its place in the table, or false and the table's end.
  [[nodiscard]] bool LookupConnWriter(std::uint64_t captureId, Writer& writer,
                                      WriterTable::iterator& position);
  // Enters a writer, in the place of the capture's former one.
  void PushConnWriter(std::uint64_t captureId, Writer writer);
  // Removes the entry at `position`, which becomes the table's end.
  void EraseConnWriter(WriterTable::iterator& position);

  // Closes the writers that have been idle for longer than maxTimeout.
  void ExpireWriters();
  // Closes all writers.
  void CloseWriters();

  // Measures the capture directory; the limits act on the last measurement.
  void UpdateUsageCounters();
  [[nodiscard]] std::uint64_t filesUsed() const { return filesUsed_; }
  [[nodiscard]] std::uint64_t diskUsed() const { return diskUsed_; }  // bytes

 private:
  struct Admission {
    Limits limits;  // as they were for this frame
    LimitEvent::Verdict disk = LimitEvent::Verdict::kWithin;
    LimitEvent::Verdict files = LimitEvent::Verdict::kWithin;
  };

  int configure(const char* operation, bool reload, const std::string& issuesPath,
                const Limits& limits);
  [[nodiscard]] Limits limits() const;
  [[nodiscard]] Admission admit(std::time_t now);
  [[nodiscard]] int consumeFirst(std::uint64_t captureId, const FrameHeader& frame,
                                 const std::uint8_t* data, std::uint32_t flags,
                                 std::int64_t maxFileSize);
  void closeWriter(const char* operation, WriterTable::iterator position);
  [[nodiscard]] bool findIssue(std::int32_t issueId, std::string& name) const;
  [[nodiscard]] bool findRule(std::int32_t priority, std::string& uuid) const;

  mutable std::mutex mutex_;  // guards limits_, diskEvent_ and filesEvent_
  Limits limits_;
  LimitEvent diskEvent_;
  LimitEvent filesEvent_;

  IssueMap issueMap_;
  NapMap napMap_;

  // Its entries lie side by side, not between the writers' buffers: a look-up then meets fewer
  // pages of memory.
  std::pmr::unsynchronized_pool_resource entries_;
  WriterTable writers_{&entries_};
  DiskUsage usage_;
  std::uint64_t diskUsed_ = 0;
  std::uint64_t filesUsed_ = 0;
  std::time_t nameTime_ = 0;   // second of the last name, and
  std::uint64_t nameSeq_ = 0;  // how many names that second had before it
};

}  // namespace tarnik
