#include "capture/capture_manager.h"

#include <orlo_sdk.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "capture/meta_cache.h"
#include "frameq/tarnik_q.h"

namespace tarnik {
namespace {

constexpr char kEventCategory[] = "VRK_events";

void reportDiskSpaceLimit(std::uint64_t diskUsed, std::uint64_t diskSpace) {
  TARNIK_WARNING("Warning: %s: Disk space limit exceeded=[%lu/%lu ] ", "ConsumeFrame", diskUsed,
                 diskSpace);
  OrloLogEvent("VRKPC0001I", kEventCategory, "MaxDiskSize=%zd,DiskSizeUsed=%zd ", diskSpace,
               diskUsed);
}

// The event calls the number of files in use the maximum. Its receivers expect that.
void reportFileCountLimit(std::uint64_t filesUsed, std::uint64_t fileCount) {
  TARNIK_WARNING("Warning: %s: Files limit exceeded=[%lu/%lu ] ", "ConsumeFrame", filesUsed,
                 fileCount);
  OrloLogEvent("VRKPC0002I", kEventCategory, "MaxNumberOfFiles=%zd ", filesUsed);
}

// Returns the result for a frame that `writer` refused.
CaptureManager::Result reportWriteFailure(const PcapWriter& writer, std::uint64_t captureId) {
  TARNIK_ERROR("Error: %s: Failed write to 0x%lx", "ConsumeFrame", captureId);
  if (writer.status() != kStatusFull) {
    return CaptureManager::kWriteFailed;
  }
  TARNIK_ERROR("Error: %s: File size limit reached for 0x%lx", "ConsumeFrame", captureId);
  return CaptureManager::kFileSizeExceeded;
}

void raiseFileSizeEvent(CaptureManager::Result result, std::int64_t maxFileSize) {
  if (result == CaptureManager::kFileSizeExceeded) {
    OrloLogEvent("VRKPC0003I", kEventCategory, "MaxFileSize=%zd ", maxFileSize);
  }
}

}  // namespace

CaptureManager& CaptureManager::instance() {
  static CaptureManager manager;
  return manager;
}

int CaptureManager::Init(const std::string& issuesPath, std::int64_t maxTimeout,
                         std::uint64_t diskSpace, std::uint64_t fileCount, std::int64_t maxFileSize,
                         std::int64_t eventInterval, std::uint32_t eventThreshold) {
  const int result =
      configure(Operation::kInit, issuesPath,
                {maxTimeout, diskSpace, fileCount, maxFileSize, eventInterval, eventThreshold});
  if (result == kOk) {
    namer_.restart();
    diskUsed_ = 0;
    filesUsed_ = 0;
  }
  return result;
}

int CaptureManager::Reload(const std::string& issuesPath, std::int64_t maxTimeout,
                           std::uint64_t diskSpace, std::uint64_t fileCount,
                           std::int64_t maxFileSize, std::int64_t eventInterval,
                           std::uint32_t eventThreshold) {
  return configure(Operation::kReload, issuesPath,
                   {maxTimeout, diskSpace, fileCount, maxFileSize, eventInterval, eventThreshold});
}

int CaptureManager::configure(Operation operation, const std::string& issuesPath,
                              const Limits& limits) {
  const bool reload = operation == Operation::kReload;
  const char* const name = reload ? "Reload" : "Init";
  TARNIK_DEBUG(1,
               "Debug: %s: path=%s, maxTimeout=%ld, diskSpace=%zd fileCount=%zd, "
               "eventInterval=%zd, eventThreshold=%zd",
               name, issuesPath.c_str(), limits.maxTimeout, limits.diskSpace, limits.fileCount,
               limits.eventInterval, std::size_t{limits.eventThreshold});
  // Each of the two messages names the other map. Users know them this way, so they stay.
  NapMap& napMap = namer_.napMap();
  if (!(reload ? napMap.Reload() : napMap.Load())) {
    TARNIK_ERROR("Error: %s: Loading of IPS lookup failed", name);
    return kNapMapFailed;
  }
  IssueMap& issueMap = namer_.issueMap();
  if (!(reload ? issueMap.Reload(issuesPath) : issueMap.PopulateIssueMap(issuesPath.c_str()))) {
    TARNIK_ERROR("Error: %s: Loading of NAP lookup failed ", name);
    return kIssueMapFailed;
  }
  const std::lock_guard guard(mutex_);
  limits_ = limits;
  diskEvent_.arm();
  filesEvent_.restart();  // frames arm this event, not the configuration
  return kOk;
}

Limits CaptureManager::limits() const {
  const std::lock_guard guard(mutex_);
  return limits_;
}

CaptureManager::Admission CaptureManager::admit(std::time_t now) {
  const std::lock_guard guard(mutex_);
  Admission admission{.limits = limits_};
  admission.disk = diskEvent_.test(diskUsed_, limits_.diskSpace, now, limits_);
  if (admission.disk == LimitEvent::Verdict::kWithin) {
    admission.files = filesEvent_.test(filesUsed_, limits_.fileCount, now, limits_);
  }
  return admission;
}

int CaptureManager::ConsumeFrame(std::uint64_t captureId, const FrameHeader& frame,
                                 const std::uint8_t* data, std::uint32_t flags) {
  using enum LimitEvent::Verdict;
  const Admission admission = admit(std::time(nullptr));
  const Limits& limits = admission.limits;
  TARNIK_DEBUG(1, "Debug: %s: captureId=0x%lx, flags=0x%x, %zd/%zd %zd/%zd", "ConsumeFrame",
               captureId, flags, filesUsed_, limits.fileCount, diskUsed_, limits.diskSpace);
  if (admission.disk != kWithin) {
    if (admission.disk == kRaise) {
      reportDiskSpaceLimit(diskUsed_, limits.diskSpace);
    }
    return kDiskSpaceExceeded;
  }
  if (admission.files != kWithin) {
    if (admission.files == kRaise) {
      reportFileCountLimit(filesUsed_, limits.fileCount);
    }
    return kFileCountExceeded;
  }

  if (limits.diskSpace != sharedDiskSpace_) {
    shareBuffers(limits.diskSpace, writers_.size());
  }
  Writer writer;
  WriterTable::iterator position;
  if (!LookupConnWriter(captureId, writer, position)) {
    return consumeFirstFrame(captureId, frame, data, flags, limits.maxFileSize);
  }
  TARNIK_DEBUG(3, "Debug: %s: Cached writer: 0x%lx", "ConsumeFrame", captureId);
  if (!writer->Write(frame, data)) {
    const Result result = reportWriteFailure(*writer, captureId);
    EraseConnWriter(position);
    raiseFileSizeEvent(result, limits.maxFileSize);
    return result;
  }
  TarnikMetaCache::instance().update(captureId);
  if (ProcessMetaData(*writer, captureId) && (flags & kPktLastFrame) != 0) {
    EraseConnWriter(position);
  }
  return kOk;
}

int CaptureManager::consumeFirstFrame(std::uint64_t captureId, const FrameHeader& frame,
                                      const std::uint8_t* data, std::uint32_t flags,
                                      std::int64_t maxFileSize) {
  TARNIK_DEBUG(3, "Debug: %s: New writer: 0x%lx", "ConsumeFrame", captureId);
  char name[17];
  std::snprintf(name, sizeof name, "%lx", captureId);
  WriterTable::iterator entry = writers_.end();
  Result result = kOpenFailed;
  try {
    shareBuffers(sharedDiskSpace_, writers_.size() + 1);
    const Writer writer = std::make_shared<PcapWriter>(
        std::string(kCaptureDir) + name, static_cast<std::uint64_t>(maxFileSize), bufferShare_);
    // Adds an empty entry before the file exists. So PushConnWriter needs no memory.
    entry = writers_.try_emplace(captureId).first;
    if (writer->Open()) {
      result = writeFirstFrame(writer, captureId, frame, data, flags);
    } else {
      TARNIK_ERROR("Error: %s: Open [%s] failed", "ConsumeFrame", name);
    }
  } catch (const std::bad_alloc&) {
    TARNIK_ERROR("Error: %s: Open [%s] failed", "ConsumeFrame", name);
  }
  if (entry != writers_.end() && entry->second == nullptr) {
    writers_.erase(entry);
  }
  return result;
}

CaptureManager::Result CaptureManager::writeFirstFrame(const Writer& writer,
                                                       std::uint64_t captureId,
                                                       const FrameHeader& frame,
                                                       const std::uint8_t* data,
                                                       std::uint32_t flags) {
  if (!writer->Write(frame, data)) {
    const Result result = reportWriteFailure(*writer, captureId);
    raiseFileSizeEvent(result, static_cast<std::int64_t>(writer->maxFileSize()));
    return result;
  }
  TarnikMetaCache::instance().update(captureId);
  const bool complete = ProcessMetaData(*writer, captureId) && (flags & kPktLastFrame) != 0;
  if (!complete) {
    PushConnWriter(captureId, writer);
  }
  return kOk;
}

// Divides the memory for buffers among `captures` open captures. The share changes rarely, so most
// calls cost a comparison.
void CaptureManager::shareBuffers(std::uint64_t diskSpace, std::size_t captures) {
  const std::size_t share = bufferShare(diskSpace, captures, kLargestBuffer);
  sharedDiskSpace_ = diskSpace;
  if (share == bufferShare_) {
    return;
  }
  bufferShare_ = share;
  for (const auto& [captureId, writer] : writers_) {
    writer->limitBuffer(share);
  }
}

bool CaptureManager::ProcessMetaData(PcapWriter& writer, std::uint64_t captureId) {
  TARNIK_DEBUG(3, "Debug: %s: captureId=0x%lx", "ProcessMetaData", captureId);
  if (writer.named()) {
    return true;
  }
  std::uint64_t flowId = 0;
  std::uint32_t triggerId = 0;
  if (!TarnikMetaCache::instance().lookup(captureId, flowId, triggerId)) {
    // The line shows the flow, which is 0 here.
    TARNIK_DEBUG(3, "Debug: %s: No metadata: 0x%lx", "ProcessMetaData", flowId);
    return false;
  }
  TARNIK_DEBUG(3, "Debug: %s: Found metadata: 0x%lx", "ProcessMetaData", flowId);
  bool updated = false;
  try {
    updated = UpdateWriter(writer, static_cast<std::int32_t>(triggerId), flowId);
  } catch (const std::bad_alloc&) {  // the next frame tries again
  }
  if (!updated) {
    TARNIK_ERROR("Error: %s: Failed to update writer: 0x%lx", "ProcessMetaData", captureId);
    return false;
  }
  return true;
}

bool CaptureManager::UpdateWriter(PcapWriter& writer, std::int32_t triggerId,
                                  std::uint64_t flowId) {
  return namer_.UpdateWriter(writer, triggerId, flowId, [this](const std::string& path) {
    return std::ranges::any_of(writers_, [&](const auto& item) {
      return item.second != nullptr && item.second->finalPath() == path;
    });
  });
}

bool CaptureManager::LookupConnWriter(std::uint64_t captureId, Writer& writer,
                                      WriterTable::iterator& position) {
  TARNIK_DEBUG(3, "Debug: %s: captureId=0x%lx", "LookupConnWriter", captureId);
  position = writers_.find(captureId);
  if (position == writers_.end()) {
    TARNIK_DEBUG(3, "Debug: %s: Not found captureId=0x%lx", "LookupConnWriter", captureId);
    return false;
  }
  writer = position->second;
  TARNIK_DEBUG(3, "Debug: %s: Found captureId=0x%lx", "LookupConnWriter", captureId);
  return true;
}

void CaptureManager::PushConnWriter(std::uint64_t captureId, Writer writer) {
  TARNIK_DEBUG(3, "Debug: %s: captureId=0x%lx", "PushConnWriter", captureId);
  writers_[captureId] = std::move(writer);
}

void CaptureManager::EraseConnWriter(WriterTable::iterator& position) {
  if (position == writers_.end()) {
    return;
  }
  TARNIK_DEBUG(3, "Debug: %s: captureId=0x%lx", "EraseConnWriter", position->first);
  writers_.erase(position);
  finishedCaptures_.fetch_add(1, std::memory_order_relaxed);
  position = writers_.end();
}

void CaptureManager::ExpireWriters() {
  TARNIK_DEBUG(3, "Debug: %s: Expiring writers", "ExpireWriters");
  const std::time_t now = std::time(nullptr);
  const std::int64_t maxTimeout = limits().maxTimeout;
  for (auto next = writers_.begin(); next != writers_.end();) {
    const auto position = next++;
    if (now - position->second->lastWriteTime() > maxTimeout) {
      closeWriter("ExpireWriters", position);
    }
  }
}

void CaptureManager::CloseWriters() {
  TARNIK_DEBUG(3, "Debug: %s: Closing writers", "CloseWriters");
  while (!writers_.empty()) {
    closeWriter("CloseWriters", writers_.begin());
  }
}

// Metadata that arrived after the last frame still names the file.
void CaptureManager::closeWriter(const char* operation, WriterTable::iterator position) {
  const std::uint64_t captureId = position->first;
  if (!ProcessMetaData(*position->second, captureId)) {
    TARNIK_DEBUG(0, "Debug: %s: No metadata for flow 0x%lx", operation, captureId);
  }
  EraseConnWriter(position);
}

void CaptureManager::UpdateUsageCounters() {
  usage_.update(diskUsed_, filesUsed_);
}

}  // namespace tarnik
