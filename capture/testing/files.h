// Frames, capture files and the capture directory, for tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/testing/files.h"
#include "frameq/frame_header.h"

namespace tarnik::test {

using Bytes = std::string;

inline FrameHeader frame(std::uint32_t wireLength, std::uint32_t capturedLength,
                         std::uint32_t seconds = 0, std::uint32_t microseconds = 0) {
  return {wireLength, capturedLength, seconds, microseconds};
}

// Data that differs between seeds and from byte to byte.
inline std::vector<std::uint8_t> frameData(std::size_t size, unsigned seed = 0) {
  std::vector<std::uint8_t> data(size);
  for (std::size_t i = 0; i < size; ++i) {
    data[i] = static_cast<std::uint8_t>(i * 7 + seed * 31 + 1);
  }
  return data;
}

inline Bytes bytesOf(const std::vector<std::uint8_t>& data) {
  return {data.begin(), data.end()};
}

// Makes a file longer.
inline void append(const std::string& path, std::size_t bytes) {
  std::ofstream(path, std::ios::app) << std::string(bytes, 'x');
}

// The names in the capture directory, sorted.
inline std::vector<std::string> entries() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(kCaptureDir)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Creates the capture directory, or removes all its entries.
inline void emptyCaptureDir() {
  std::filesystem::remove_all("/var/support/tarnik");
  std::filesystem::create_directories(kCaptureDir);
}

inline std::uint32_t wordAt(const Bytes& bytes, std::size_t offset) {
  std::uint32_t word = 0;
  for (std::size_t i = 4; i-- > 0;) {
    word = word << 8U | static_cast<std::uint8_t>(bytes[offset + i]);
  }
  return word;
}

struct Record {
  std::uint32_t seconds;
  std::uint32_t microseconds;
  std::uint32_t wireLength;
  Bytes data;
  bool operator==(const Record&) const = default;
};

inline const Bytes kPcapHeader(
    "\xd4\xc3\xb2\xa1\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\xdc\x05\x00\x00\x01\x00\x00"
    "\x00",
    24);

// The records of a capture file, or nothing if the file does not exist, has another header or ends
// in a partial record.
inline std::optional<std::vector<Record>> parsePcap(const std::optional<Bytes>& content) {
  const Bytes& file = content.value_or("");
  if (file.substr(0, kPcapHeader.size()) != kPcapHeader) {
    return std::nullopt;
  }
  std::vector<Record> records;
  std::size_t at = kPcapHeader.size();
  while (at < file.size()) {
    if (file.size() - at < 16 || file.size() - at - 16 < wordAt(file, at + 8)) {
      return std::nullopt;
    }
    const std::size_t length = wordAt(file, at + 8);
    records.push_back({wordAt(file, at), wordAt(file, at + 4), wordAt(file, at + 12),
                       file.substr(at + 16, length)});
    at += 16 + length;
  }
  return records;
}

}  // namespace tarnik::test
