// Frames from capture files and network interfaces, through libpcap. Only Ethernet is read.
// Timestamps are in microseconds; finer ones are truncated. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "packet/frame.h"

struct pcap;

namespace tarnik::brund {

struct ClosePcap {
  void operator()(pcap* handle) const noexcept;
};
using PcapHandle = std::unique_ptr<pcap, ClosePcap>;

// A capture file: pcap in every byte order and resolution, or pcapng. It must be a regular file.
// A frame longer than the maximum in the file's header is returned in full.
class FileSource {
 public:
  // The error is one line without the file's name: "No such file or directory", "empty file",
  // "truncated dump file; ...", "link type RAW is not Ethernet".
  [[nodiscard]] static Result<FileSource> open(const std::string& path);
  // Reads the next frame, whose data is valid until the next call. False at the end of the file.
  // After an error the rest of the file cannot be read.
  [[nodiscard]] Result<bool> next(Frame& frame);

 private:
  explicit FileSource(PcapHandle handle) : handle_(std::move(handle)) {}

  PcapHandle handle_;
};

// A network interface in promiscuous mode. Needs the right to capture.
class LiveSource {
 public:
  [[nodiscard]] static Result<LiveSource> open(const std::string& interface);
  // Takes the next frame, whose data is valid until the next call. False when there is none now.
  [[nodiscard]] Result<bool> next(Frame& frame);
  // Waits up to `ms` milliseconds for a frame or, unless `writable` is -1, until this descriptor
  // can be written. A signal ends the wait.
  void wait(int ms, int writable) const;
  // Frames that the kernel or the interface dropped because their buffers were full.
  [[nodiscard]] std::uint64_t dropped() const;

 private:
  LiveSource(PcapHandle handle, int fd) : handle_(std::move(handle)), fd_(fd) {}

  PcapHandle handle_;
  int fd_;  // belongs to the handle
};

}  // namespace tarnik::brund
