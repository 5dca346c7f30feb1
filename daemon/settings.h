// The daemon's settings, read from the configuration file.
//
// Main thread. The capture thread gets the values it needs as arguments and never reads the record.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace tarnik {

// The fields bear the names of their keys: `tarnik.file.maxno` is file.maxno.
struct TarnikSettings {
  bool enabled = false;  // shown by the dump, used by nobody
  std::uint32_t debuglevel = 0;
  struct {
    std::int64_t bytes = 53687091;  // a twentieth of 1 GiB
    std::int64_t percent = 4;       // shown by the dump, used by nobody
  } diskspace;
  struct {
    std::int64_t maxno = 1000;
    std::int64_t maxsize = 1048576;  // bytes
    std::int64_t timeout = 120;      // seconds; acts when a read of the queue times out
  } file;
  struct {
    std::int64_t timeout = 300;       // seconds
    std::int64_t interval = 300;      // seconds; no key writes it
    std::int64_t qtimeout = 5000000;  // milliseconds, handed to the frame queue as it is
    std::int64_t qsize = 5000;        // used by nobody: the queue's owner decides
  } brund;
  struct {
    std::int64_t interval = 0;   // seconds
    std::int64_t threshold = 0;  // frames
  } event;
};

// The one record, with the defaults above from its first use. Nothing resets it: a reload only
// overwrites the fields whose keys it meets.
[[nodiscard]] TarnikSettings& getSettings();

// Reads the file at `path` into the record, line by line. 0 when it was read to its end; 1 when it
// cannot be opened or parsed at all, or when a value was rejected: the lines before that one are
// applied then, those after it are not read. Only a regular file is opened.
[[nodiscard]] int load(TarnikSettings& settings, const char* path);

// Applies one key, split at its dots, and its value. 0 when it was applied or is unknown, 1 when
// the value was rejected; the field is then as it was.
[[nodiscard]] int loadTarnikCfg(TarnikSettings& settings,
                                std::span<const std::string_view> components, const char* value);

// Writes the record to the log.
void dumpSettings(const TarnikSettings& settings);

// Reads a decimal number of 32 bits from the start of `text`; what stands behind it is ignored.
// False, with `result` as it was, when there is none.
[[nodiscard]] bool parseUnsigned(const char* text, std::uint32_t& result);

}  // namespace tarnik
