// One capture's file while the capture lasts: a classic libpcap file (microseconds, little-endian,
// snaplen 1500, Ethernet) under a working name, which Close moves to its final name and describes
// by an info file. A capture that never got a final name is removed.
//
// A frame that Write accepted may wait in the stream's buffer; when that buffer can not be
// written out, the file is cut back to the last whole record that reached it.
//
// Thread safety: none; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "base/owned.h"
#include "frameq/frame_header.h"
#include "policy/capture_info.h"

namespace tarnik {

inline constexpr std::int32_t kStatusFull = 11;  // status of a writer that reached its size limit

// The largest useful buffer. With half of it a frame takes a tenth more time (measured in
// bench/pipeline_bench.cc), because the directory is measured again after each write to a file.
inline constexpr std::size_t kLargestBuffer = 65536;

class PcapWriter {
 public:
  // `maxFileSize` bounds the records of the file in bytes; the file's own header is not counted.
  // `bufferSize` bounds the records that wait in memory, also in bytes.
  PcapWriter(std::string workingPath, std::uint64_t maxFileSize,
             std::size_t bufferSize = kLargestBuffer);
  // Closes the capture.
  ~PcapWriter();
  PcapWriter(const PcapWriter&) = delete;
  PcapWriter& operator=(const PcapWriter&) = delete;

  // Creates or truncates the working file and writes its header. True at once when it is open.
  // False, with a log line, on failure, also when the last descriptors would go; the writer is then
  // only fit to be destroyed.
  [[nodiscard]] bool Open();

  // Appends one record: `data` must be readable for frame.capturedLength bytes. False when the
  // record would exceed the size limit (status() is then 11, nothing is written or logged) or, with
  // a log line, on failure. Allocates nothing.
  [[nodiscard]] bool Write(const FrameHeader& frame, const std::uint8_t* data);

  // From now on at most `bytes` wait in memory, and at most the size given to the constructor.
  // Writes the buffer to the file if more is waiting now.
  void limitBuffer(std::size_t bytes);

  // Records the final name and the policy that asked for the capture; the last call wins.
  void Update(const std::string& finalPath, std::uint32_t policyId, const std::string& policyName,
              std::int64_t flowId);

  // Flushes, closes, moves the file to its final name and writes the info file; without a final
  // name, or when the info file cannot be written, removes the capture. What can no longer be
  // flushed is lost, with a log line; the whole records before it are kept. False, with a log line,
  // when the stream does not close or the file cannot be moved: the working file then stays. True
  // at once when nothing is open, so also after a close that failed.
  bool Close();

  [[nodiscard]] const std::string& workingPath() const { return workingPath_; }
  [[nodiscard]] const std::string& finalPath() const { return finalPath_; }
  [[nodiscard]] const CaptureInfo& info() const { return info_; }
  // Bytes of records, the header of the file not counted.
  [[nodiscard]] std::uint64_t bytesWritten() const { return bytesWritten_; }
  // Time of the last successful Open or Write, 0 before.
  [[nodiscard]] std::time_t lastWriteTime() const { return lastWriteTime_; }
  // True once Update has given the final name.
  [[nodiscard]] bool named() const { return named_; }
  [[nodiscard]] std::int32_t status() const { return status_; }
  [[nodiscard]] std::uint64_t maxFileSize() const { return maxFileSize_; }

 private:
  struct RecordHeader {
    std::uint32_t seconds;
    std::uint32_t microseconds;
    std::uint32_t capturedLength;
    std::uint32_t wireLength;
  };

  [[nodiscard]] bool WritePCAPHeader();
  [[nodiscard]] bool append(const void* bytes, std::size_t size);
  void mend();
  [[nodiscard]] bool cutToWholeRecords();
  [[nodiscard]] bool Finalize();

  std::string workingPath_;
  std::string finalPath_;
  std::size_t bufferSize_;
  std::size_t bufferLimit_;         // at most bufferSize_
  std::unique_ptr<char[]> buffer_;  // the stream's; outlives it
  Stream stream_;
  std::uint64_t bytesWritten_ = 0;
  std::time_t lastWriteTime_ = 0;
  bool named_ = false;
  std::uint64_t maxFileSize_;
  std::int32_t status_ = 0;
  std::uint64_t wholeOnDisk_ = 0;  // a record's end, up to which the file is known to be complete
  int tornErrno_ = 0;              // why the rest of a failed write could not be cut off yet, or 0
  RecordHeader recordHeader_{};
  CaptureInfo info_;
};

}  // namespace tarnik
