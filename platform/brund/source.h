// Where frames come from: capture files and network interfaces, through libpcap. Timestamps are in
// microseconds, finer ones are cut. Only Ethernet is read. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "packet/frame.h"

struct pcap;

namespace tarnik::brund {

struct ClosePcap {
  void operator()(pcap* handle) const noexcept;
};
using PcapHandle = std::unique_ptr<pcap, ClosePcap>;

enum class Next : std::uint8_t {
  kFrame,
  kNothing,  // a file: its end; an interface: nothing within the wait
  kFailed,
};

// A capture file: pcap in every byte order and resolution, or pcapng. It must be a regular file.
// Frames longer than the file's header announces are given in full.
class FileSource {
 public:
  // Reasons are one line without the file's name: "No such file or directory", "empty file",
  // "truncated dump file; ...", "link type RAW is not Ethernet".
  [[nodiscard]] bool open(const std::string& path, std::string& reason);
  // The next frame, whose data is valid until the next call; after kFailed the rest of the file
  // cannot be read.
  [[nodiscard]] Next next(Frame& frame, std::string& reason);

 private:
  PcapHandle handle_;
};

// A network interface, in promiscuous mode. Needs the right to sniff.
class LiveSource {
 public:
  struct Drops {
    std::uint64_t kernel = 0;     // the kernel's buffer was full
    std::uint64_t interface = 0;  // the interface's own
  };

  [[nodiscard]] bool open(const std::string& interface, std::string& reason);
  // Waits up to `ms` milliseconds; a signal ends the wait.
  [[nodiscard]] Next next(Frame& frame, int ms, std::string& reason);
  [[nodiscard]] Drops drops() const;

 private:
  PcapHandle handle_;
  int fd_ = -1;  // the handle's
};

}  // namespace tarnik::brund
