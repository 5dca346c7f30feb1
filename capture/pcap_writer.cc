#include "capture/pcap_writer.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/log.h"

namespace tarnik {
namespace {

constexpr std::array<std::uint8_t, 24> kFileHeader = {
    0xd4, 0xc3, 0xb2, 0xa1,  // magic: microseconds, little-endian
    2,    0,    4,    0,     // version 2.4
    0,    0,    0,    0,     // time zone
    0,    0,    0,    0,     // accuracy
    0xdc, 0x05, 0,    0,     // snaplen 1500, also if frames are longer
    1,    0,    0,    0,     // Ethernet
};

// Opens a descriptor and closes it again, to learn its number: the lowest that is free. False, with
// errno, if one more capture would leave too few descriptors for a reload or an info file.
bool reserveDescriptors() {
  constexpr rlim_t kReserved = 16;
  rlimit limit{};
  const OwnedFd lowestFree(::eventfd(0, EFD_CLOEXEC));
  if (!lowestFree || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return false;
  }
  const rlim_t reserved = std::min(kReserved, limit.rlim_cur / 4);
  if (static_cast<rlim_t>(lowestFree.get()) + reserved < limit.rlim_cur) {
    return true;
  }
  errno = EMFILE;
  return false;
}

// Returns the end of the last whole record within the first `size` bytes of `path`. `known` is the
// end of a record, and the result if the file cannot be read.
std::uint64_t findLastRecordEnd(const char* path, std::uint64_t known, std::uint64_t size) {
  const OwnedFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  std::array<std::uint32_t, 4> header{};
  std::uint64_t end = known;
  while (fd && ::pread(fd.get(), header.data(), sizeof header, static_cast<off_t>(end)) ==
                   static_cast<ssize_t>(sizeof header)) {
    const std::uint64_t next = end + sizeof header + header[2];
    if (next > size) {
      break;
    }
    end = next;
  }
  return end;
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
  if (!reserveDescriptors()) {
    TARNIK_ERROR("Error: %s: Failed to open %s: %s", "Open", workingPath_.c_str(),
                 std::strerror(errno));
    return false;
  }
  // Close-on-exec, because the shell that copies an info template must not inherit capture files.
  stream_.reset(std::fopen(workingPath_.c_str(), "wbe"));
  if (!stream_) {
    TARNIK_ERROR("Error: %s: Failed to open %s: %s", "Open", workingPath_.c_str(),
                 std::strerror(errno));
    return false;
  }
  // One thread at a time uses the writer, so the stream need not be locked at each call.
  __fsetlocking(stream_.get(), FSETLOCKING_BYCALLER);
  buffer_ = std::make_unique_for_overwrite<char[]>(bufferSize_);
  std::setvbuf(stream_.get(), buffer_.get(), _IOFBF, bufferSize_);
  info_.startTime = std::time(nullptr);
  if (!WritePCAPHeader()) {
    return false;
  }
  if (std::fflush(stream_.get()) == 0) {
    completeEnd_ = kFileHeader.size();
  } else {
    dropPartialRecord();
  }
  lastWriteTime_ = std::time(nullptr);
  return true;
}

bool PcapWriter::WritePCAPHeader() {
  TARNIK_DEBUG(3, "Debug: %s: [%s]", "WritePCAPHeader", workingPath_.c_str());
  if (std::fwrite(kFileHeader.data(), 1, kFileHeader.size(), stream_.get()) < kFileHeader.size()) {
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
    dropPartialRecord();
    return false;
  }
  if (!append(data, frame.capturedLength)) {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord();
    return false;
  }
  if (__fpending(stream_.get()) > bufferLimit_ && std::fflush(stream_.get()) != 0) {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord();
    return false;
  }
  // Only this record waits in the buffer, so all earlier ones have reached the file.
  if (__fpending(stream_.get()) <= recordSize) {
    completeEnd_ = kFileHeader.size() + bytesWritten_;
  }
  bytesWritten_ += recordSize;
  lastWriteTime_ = std::time(nullptr);
  return true;
}

bool PcapWriter::append(const void* bytes, std::size_t size) {
  if (truncateError_ != 0) {
    dropPartialRecord();  // anything appended to a partial record would be unreadable
  }
  if (truncateError_ != 0) {
    errno = truncateError_;
    return false;
  }
  return std::fwrite(bytes, size, 1, stream_.get()) == 1;
}

// After a failed write or flush: truncates the file, so that it ends in a whole record and the next
// record can follow. Otherwise the next Write or Close tries again.
void PcapWriter::dropPartialRecord() {
  truncateError_ = truncateToWholeRecords() ? 0 : errno;
}

bool PcapWriter::truncateToWholeRecords() {
  std::FILE* const stream = stream_.get();
  __fpurge(stream);  // the buffer can begin in the middle of a record
  struct stat status {};
  if (::fstat(::fileno(stream), &status) != 0) {
    return false;
  }
  const auto size = static_cast<std::uint64_t>(status.st_size);
  std::uint64_t end = 0;
  if (size >= kFileHeader.size()) {
    end = findLastRecordEnd(workingPath_.c_str(), std::max(completeEnd_, kFileHeader.size()), size);
  }
  if (::ftruncate(::fileno(stream), static_cast<off_t>(end)) != 0 ||
      ::fseeko(stream, static_cast<off_t>(end), SEEK_SET) != 0) {
    return false;
  }
  completeEnd_ = end;
  if (end == 0) {
    bytesWritten_ = 0;
    return std::fwrite(kFileHeader.data(), kFileHeader.size(), 1, stream) == 1;
  }
  bytesWritten_ = end - kFileHeader.size();
  return true;
}

void PcapWriter::limitBuffer(std::size_t bytes) {
  bufferLimit_ = std::min(bytes, bufferSize_);
  if (!stream_ || __fpending(stream_.get()) <= bufferLimit_) {
    return;
  }
  if (std::fflush(stream_.get()) == 0) {
    completeEnd_ = kFileHeader.size() + bytesWritten_;
  } else {
    TARNIK_ERROR("Error: %s: Failed to write packet: %s", "Write", std::strerror(errno));
    dropPartialRecord();
  }
}

void PcapWriter::Update(const std::string& finalPath, std::uint32_t policyId,
                        const std::string& policyName, std::int64_t flowId) {
  TARNIK_DEBUG(3, "Debug: %s: [%s]", "Update", finalPath.c_str());
  finalPath_ = finalPath;
  info_.set(finalPath, policyId, policyName, flowId);
  named_ = true;
}

bool PcapWriter::Close() {
  TARNIK_DEBUG(3, "Debug: %s: Closing [%s]", "Close", workingPath_.c_str());
  if (!stream_) {
    return true;
  }
  const int flushError = std::fflush(stream_.get()) == 0 ? 0 : errno;
  if (flushError != 0 || truncateError_ != 0) {
    dropPartialRecord();
  }
  const bool closed = closeStream(stream_);
  if (!closed || flushError != 0) {
    TARNIK_ERROR("Error: %s: Failed to close [%s]: %s", "Close", workingPath_.c_str(),
                 std::strerror(closed ? flushError : errno));
  }
  return closed && Finalize();
}

bool PcapWriter::Finalize() {
  TARNIK_DEBUG(3, "Debug: %s: Finalizing [%s] to [%s]", "Finalize", workingPath_.c_str(),
               finalPath_.c_str());
  if (finalPath_.empty()) {
    TARNIK_WARNING("Warning: %s: Failed to determine capture name for [%s]", "Finalize",
                   workingPath_.c_str());
    if (std::remove(workingPath_.c_str()) != 0) {
      TARNIK_DEBUG(0, "Debug: %s: Failed to remove [%s]: %s", "Finalize", workingPath_.c_str(),
                   std::strerror(errno));
    }
    return true;
  }
  // A file that ends in a partial record is not published.
  errno = truncateError_;
  if (truncateError_ != 0 || std::rename(workingPath_.c_str(), finalPath_.c_str()) != 0) {
    TARNIK_ERROR("Error: %s: Failed to finalize [%s]: %s", "Finalize", finalPath_.c_str(),
                 std::strerror(errno));
    return false;
  }
  if (!fini(info_)) {
    TARNIK_WARNING("Warning: %s: Failed to generate info for [%s]", "Finalize", finalPath_.c_str());
    if (std::remove(finalPath_.c_str()) != 0) {
      TARNIK_DEBUG(0, "Debug: %s: Failed to remove [%s]: %s", "Finalize", finalPath_.c_str(),
                   std::strerror(errno));
    }
  }
  TARNIK_DEBUG(3, "Debug: %s: Finalized [%s]", "Finalize", finalPath_.c_str());
  return true;
}

}  // namespace tarnik
