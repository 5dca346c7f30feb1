#include "capture/pcap_writer.h"

#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/log.h"
#include "capture/pcap_file.h"

namespace tarnik {
namespace {

// Empty, with errno, if there is no memory.
std::unique_ptr<char[]> allocateBuffer(std::size_t size) {
  try {
    return std::make_unique_for_overwrite<char[]>(size);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void removeFile(const std::string& path) {
  if (std::remove(path.c_str()) != 0) {
    TARNIK_DEBUG(0, "Debug: %s: Failed to remove [%s]: %s", "Finalize", path.c_str(),
                 std::strerror(errno));
  }
}

}  // namespace

PcapWriter::PcapWriter(std::string workingPath, std::uint64_t maxFileSize, std::size_t bufferSize)
    : workingPath_(std::move(workingPath)),
      bufferSize_(bufferSize),
      bufferLimit_(bufferSize),
      maxFileSize_(maxFileSize) {}

PcapWriter::~PcapWriter() {
  Close();
}

bool PcapWriter::Open() {
  TARNIK_DEBUG(3, "Debug: %s: Opening [%s]", "Open", workingPath_.c_str());
  if (stream_) {
    return true;
  }
  // The stream is close-on-exec, because the shell that copies an info template must not inherit
  // it.
  if (reserveDescriptors() && (buffer_ = allocateBuffer(bufferSize_))) {
    stream_.reset(std::fopen(workingPath_.c_str(), "wbe"));
  }
  if (!stream_) {
    TARNIK_ERROR("Error: %s: Failed to open %s: %s", "Open", workingPath_.c_str(),
                 std::strerror(errno));
    return false;
  }
  // One thread at a time uses the writer, so the stream need not be locked at each call.
  __fsetlocking(stream_.get(), FSETLOCKING_BYCALLER);
  std::setvbuf(stream_.get(), buffer_.get(), _IOFBF, bufferSize_);
  info_.startTime = std::time(nullptr);
  if (!WritePCAPHeader()) {
    return false;
  }
  if (std::fflush(stream_.get()) != 0) {
    dropPartialRecord("Open");
  }
  lastWriteTime_ = std::time(nullptr);
  return true;
}

bool PcapWriter::WritePCAPHeader() {
  TARNIK_DEBUG(3, "Debug: %s: [%s]", "WritePCAPHeader", workingPath_.c_str());
  if (std::fwrite(kPcapFileHeader.data(), 1, kPcapFileHeader.size(), stream_.get()) <
      kPcapFileHeader.size()) {
    TARNIK_ERROR("Error: %s: Failed to write PCAP header: %s", "WritePCAPHeader",
                 std::strerror(errno));
    return false;
  }
  return true;
}

bool PcapWriter::Write(const FrameHeader& frame, const std::uint8_t* data) {
  const void* address = data;
  TARNIK_DEBUG(0, "Debug: %s: Writing [%s] [%p] size=[%d,%d]", "Write", workingPath_.c_str(),
               address, static_cast<int>(frame.wireLength), static_cast<int>(frame.capturedLength));
  if (data == nullptr || !stream_ || frame.capturedLength == 0) {
    TARNIK_ERROR("Error: %s: frameData=%p, fileStream=%p size=%d", "Write", address,
                 static_cast<void*>(stream_.get()), static_cast<int>(frame.capturedLength));
    return false;
  }
  recordHeader_ = {frame.seconds, frame.microseconds, frame.capturedLength, frame.wireLength};
  const std::uint64_t recordSize = sizeof recordHeader_ + std::uint64_t{frame.capturedLength};
  if (maxFileSize_ < bytesWritten_ + recordSize) {
    status_ = kStatusFull;
    return false;
  }
  if (!append(&recordHeader_, sizeof recordHeader_)) {
    TARNIK_ERROR("Error: %s: Failed to write packet header: %s", "Write", std::strerror(errno));
    dropPartialRecord("Write");
    return false;
  }
  if (!append(data, frame.capturedLength)) {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord("Write");
    return false;
  }
  if (__fpending(stream_.get()) > bufferLimit_ && std::fflush(stream_.get()) != 0) {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord("Write");
    return false;
  }
  // Only this record waits in the buffer, so all earlier ones have reached the file.
  if (__fpending(stream_.get()) <= recordSize) {
    complete_ = {kPcapFileHeader.size() + bytesWritten_, records_};
  }
  bytesWritten_ += recordSize;
  ++records_;
  lastWriteTime_ = std::time(nullptr);
  return true;
}

bool PcapWriter::append(const void* bytes, std::size_t size) {
  if (truncateError_ != 0) {
    dropPartialRecord("Write");  // anything appended to a partial record would be unreadable
  }
  if (truncateError_ != 0) {
    errno = truncateError_;
    return false;
  }
  return std::fwrite(bytes, size, 1, stream_.get()) == 1;
}

// After a failed write or flush: truncates the file, so that it ends in a whole record and the next
// record can follow. Logs how many accepted records that loses. If the truncation fails, the next
// Write or Close tries again.
void PcapWriter::dropPartialRecord(const char* operation) {
  truncateError_ = truncateToWholeRecords() ? 0 : errno;
  if (truncateError_ != 0) {
    return;
  }
  if (complete_.records < records_) {
    TARNIK_ERROR("Error: %s: Lost %lu record(s) of [%s]", operation, records_ - complete_.records,
                 workingPath_.c_str());
  }
  records_ = complete_.records;
}

bool PcapWriter::truncateToWholeRecords() {
  std::FILE* const stream = stream_.get();
  __fpurge(stream);  // the buffer can begin in the middle of a record
  struct stat status {};
  if (::fstat(::fileno(stream), &status) != 0) {
    return false;
  }
  const auto size = static_cast<std::uint64_t>(status.st_size);
  WholeRecords whole;
  if (size >= kPcapFileHeader.size()) {
    whole = {std::max(complete_.end, kPcapFileHeader.size()), complete_.records};
    whole = findWholeRecords(workingPath_.c_str(), whole, size);
  }
  const auto end = static_cast<off_t>(whole.end);
  if (::ftruncate(::fileno(stream), end) != 0 || ::fseeko(stream, end, SEEK_SET) != 0) {
    return false;
  }
  complete_ = whole;
  if (end == 0) {
    bytesWritten_ = 0;
    return std::fwrite(kPcapFileHeader.data(), kPcapFileHeader.size(), 1, stream) == 1;
  }
  bytesWritten_ = whole.end - kPcapFileHeader.size();
  return true;
}

void PcapWriter::limitBuffer(std::size_t bytes) {
  bufferLimit_ = bytes;
  if (!stream_ || __fpending(stream_.get()) <= bufferLimit_) {
    return;
  }
  if (std::fflush(stream_.get()) != 0) {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord("Write");
  }
}

void PcapWriter::Update(const std::string& finalPath, std::uint32_t policyId,
                        const std::string& policyName, std::int64_t flowId) {
  TARNIK_DEBUG(3, "Debug: %s: [%s]", "Update", finalPath.c_str());
  info_.set(finalPath, policyId, policyName, flowId);
  finalPath_ = finalPath;  // last: without memory the writer stays without a name
  named_ = true;
}

bool PcapWriter::Close() {
  TARNIK_DEBUG(3, "Debug: %s: Closing [%s]", "Close", workingPath_.c_str());
  if (!stream_) {
    return true;
  }
  const int flushError = std::fflush(stream_.get()) == 0 ? 0 : errno;
  if (flushError != 0 || truncateError_ != 0) {
    dropPartialRecord("Close");
  }
  const bool empty = flushError != 0 && truncateError_ == 0 && complete_.end == 0;
  if (empty) {
    __fpurge(stream_.get());  // not even the header fits
  }
  const bool closed = closeStream(stream_);
  if (!closed || flushError != 0) {
    TARNIK_ERROR("Error: %s: Failed to close [%s]: %s", "Close", workingPath_.c_str(),
                 std::strerror(closed ? flushError : errno));
  }
  if (empty && named_) {
    removeFile(workingPath_);
    return false;
  }
  return closed && Finalize();
}

bool PcapWriter::Finalize() {
  TARNIK_DEBUG(3, "Debug: %s: Finalizing [%s] to [%s]", "Finalize", workingPath_.c_str(),
               finalPath_.c_str());
  if (finalPath_.empty()) {
    TARNIK_WARNING("Warning: %s: Failed to determine capture name for [%s]", "Finalize",
                   workingPath_.c_str());
    removeFile(workingPath_);
    return true;
  }
  if (!publish()) {
    TARNIK_ERROR("Error: %s: Failed to finalize [%s]: %s", "Finalize", finalPath_.c_str(),
                 std::strerror(errno));
    return false;
  }
  if (!writeInfo()) {
    TARNIK_WARNING("Warning: %s: Failed to generate info for [%s]", "Finalize", finalPath_.c_str());
    removeFile(finalPath_);
  }
  TARNIK_DEBUG(3, "Debug: %s: Finalized [%s]", "Finalize", finalPath_.c_str());
  return true;
}

// Moves the file to its final name. False, with errno, if it ends in a partial record or if another
// file has that name. An info file from an earlier capture is replaced: an issue name that contains
// ".pcap" gives all captures of a second the same info file, and they must all be published.
bool PcapWriter::publish() const {
  if (truncateError_ != 0) {
    errno = truncateError_;
    return false;
  }
  return renameWithoutReplacing(workingPath_.c_str(), finalPath_.c_str());
}

bool PcapWriter::writeInfo() {
  try {
    return fini(info_);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace tarnik
