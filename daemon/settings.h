// The daemon's settings, read from the configuration file. Main thread: the capture thread gets the
// values it needs as arguments.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace tarnik {

// The fields are named after their keys: `tarnik.file.maxno` is file.maxno.
struct TarnikSettings {
  bool enabled = false;  // only shown by the dump
  std::uint32_t debuglevel = 0;
  struct {
    std::int64_t bytes = 53687091;  // a twentieth of 1 GiB
    std::int64_t percent = 4;       // only shown by the dump
  } diskspace;
  struct {
    std::int64_t maxno = 1000;
    std::int64_t maxsize = 1048576;  // bytes
    std::int64_t timeout = 120;      // seconds
  } file;
  struct {
    std::int64_t timeout = 300;       // seconds
    std::int64_t interval = 300;      // seconds; no key sets it
    std::int64_t qtimeout = 5000000;  // milliseconds
    std::int64_t qsize = 5000;        // not used: the queue's owner sets its size
  } brund;
  struct {
    std::int64_t interval = 0;   // seconds
    std::int64_t threshold = 0;  // frames
  } event;
};

// The one record. It starts with the defaults above, and a reload only overwrites the fields whose
// keys are in the file.
[[nodiscard]] TarnikSettings& getSettings();

// Reads the file at `path` into the record, line by line. Returns 0 at its end; 1 when it cannot be
// opened or read, or when a value was rejected. The lines before that one have then taken effect,
// and those after it are not read. Only a regular file is opened.
[[nodiscard]] int load(TarnikSettings& settings, const char* path);

// Applies one key, split at its dots, and its value. Returns 0 when it was applied or is unknown, 1
// when the value was rejected; then the field is unchanged.
[[nodiscard]] int loadTarnikCfg(TarnikSettings& settings,
                                std::span<const std::string_view> components, const char* value);

// Writes the record to the log.
void dumpSettings(const TarnikSettings& settings);

// Reads a decimal number of 32 bits from the start of `text`; text after it is ignored. False, with
// `result` unchanged, when there is none.
[[nodiscard]] bool parseUnsigned(const char* text, std::uint32_t& result);

}  // namespace tarnik
