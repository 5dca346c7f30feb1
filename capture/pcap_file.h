// Operations on capture files, used by the PCAP writer.
#pragma once

#include <array>
#include <cstdint>

namespace tarnik {

inline constexpr std::array<std::uint8_t, 24> kPcapFileHeader = {
    0xd4, 0xc3, 0xb2, 0xa1,  // magic: microseconds, little-endian
    2,    0,    4,    0,     // version 2.4
    0,    0,    0,    0,     // time zone
    0,    0,    0,    0,     // accuracy
    0xdc, 0x05, 0,    0,     // snaplen 1500, also if frames are longer
    1,    0,    0,    0,     // Ethernet
};

// The part of a capture file that ends with its last whole record.
struct WholeRecords {
  std::uint64_t end = 0;      // file offset; 0 without the file's header
  std::uint64_t records = 0;  // up to there
};

// Returns the whole records within the first `size` bytes of `path`. `known` is a part of them, and
// the result if the file cannot be read.
[[nodiscard]] WholeRecords findWholeRecords(const char* path, WholeRecords known,
                                            std::uint64_t size);

// Opens a descriptor and closes it again, to learn its number: the lowest that is free. False, with
// errno, if one more capture would leave too few descriptors for a reload or an info file.
[[nodiscard]] bool reserveDescriptors();

// Renames a file. Never replaces another: false, with errno EEXIST, if `to` exists. False, with
// errno, also on other failures; the file then keeps its name.
[[nodiscard]] bool renameWithoutReplacing(const char* from, const char* to);

}  // namespace tarnik
