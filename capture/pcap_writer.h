// The file of one capture: a classic libpcap file (microseconds, little-endian, snaplen 1500,
// Ethernet). It has a working name until Close moves it to its final name and writes its info file.
// A capture without a final name is removed.
//
// A frame that Write accepted can wait in the stream's buffer. If the buffer cannot be written, the
// file is truncated to the last whole record that reached it.
//
// Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "base/owned.h"
#include "capture/pcap_file.h"
#include "frameq/frame_header.h"
#include "policy/capture_info.h"

namespace tarnik {

inline constexpr std::int32_t kStatusFull = 11;  // status of a writer that reached its size limit

// The largest useful buffer. With half of it a frame takes a tenth more time (measured in
// bench/pipeline_bench.cc), because the directory is measured again after each write to a file.
inline constexpr std::size_t kLargestBuffer = 65536;

class PcapWriter {
 public:
  // `maxFileSize` limits the bytes of records in the file; the file's own header does not count.
  // At most `bufferSize` bytes of records wait in memory.
  PcapWriter(std::string workingPath, std::uint64_t maxFileSize,
             std::size_t bufferSize = kLargestBuffer);
  // Closes the capture.
  ~PcapWriter();
  PcapWriter(const PcapWriter&) = delete;
  PcapWriter& operator=(const PcapWriter&) = delete;

  // Creates or truncates the working file and writes its header. Returns true at once if it is
  // open. False, with a log line, on failure, also if the process has few descriptors left or no
  // memory for the buffer. The caller then destroys the writer.
  [[nodiscard]] bool Open();

  // Appends one record: frame.capturedLength bytes from `data`. False if the record would exceed
  // the size limit (status() is then 11 and nothing is logged) or, with a log line, on failure.
  // Allocates nothing.
  [[nodiscard]] bool Write(const FrameHeader& frame, const std::uint8_t* data);

  // From now on at most `bytes` wait in memory, and at most the size given to the constructor.
  // Writes the buffer to the file if more is waiting now.
  void limitBuffer(std::size_t bytes);

  // Sets the final name and the policy that requested the capture. A later call replaces them.
  void Update(const std::string& finalPath, std::uint32_t policyId, const std::string& policyName,
              std::int64_t flowId);

  // Flushes and closes the stream, moves the file to its final name and writes the info file.
  // Removes the capture if it has no final name, if the info file cannot be written, or if not even
  // its header reached the disk. Records that cannot be flushed are lost, with a log line.
  // False, with a log line, if the stream cannot be closed or the file cannot be moved. The
  // working file then remains; another file is never replaced. Returns true at once if the stream
  // is not open, also after a Close that failed.
  bool Close();

  [[nodiscard]] const std::string& workingPath() const { return workingPath_; }
  [[nodiscard]] const std::string& finalPath() const { return finalPath_; }
  [[nodiscard]] const CaptureInfo& info() const { return info_; }
  // Bytes of records, without the header of the file.
  [[nodiscard]] std::uint64_t bytesWritten() const { return bytesWritten_; }
  // Time of the last successful Open or Write; 0 before.
  [[nodiscard]] std::time_t lastWriteTime() const { return lastWriteTime_; }
  // True after Update.
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
  void dropPartialRecord(const char* operation);
  [[nodiscard]] bool truncateToWholeRecords();
  [[nodiscard]] bool Finalize();
  [[nodiscard]] bool publish() const;
  [[nodiscard]] bool writeInfo();

  std::string workingPath_;
  std::string finalPath_;
  std::size_t bufferSize_;
  std::size_t bufferLimit_;
  std::unique_ptr<char[]> buffer_;  // used by stream_, so declared before it
  Stream stream_;
  std::uint64_t bytesWritten_ = 0;
  std::time_t lastWriteTime_ = 0;
  bool named_ = false;
  std::uint64_t maxFileSize_;
  std::int32_t status_ = 0;
  std::uint64_t records_ = 0;  // accepted by Write and not lost
  WholeRecords complete_;      // known to have reached the file; more may have
  int truncateError_ = 0;  // errno of a failed truncation: the file ends in a partial record; or 0
  RecordHeader recordHeader_{};
  CaptureInfo info_;
};

}  // namespace tarnik
