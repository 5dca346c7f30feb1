// The recorded captures that tests read.
#pragma once

#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <string>

namespace tarnik::test {

// The path of a recorded capture in the folder TARNIK_DATA. Empty when there is none; the test then
// skips with kNoCaptures.
inline std::string recordedCapture(const std::string& name) {
  const char* folder = std::getenv("TARNIK_DATA");
  const std::string path = (folder != nullptr ? folder : "") + ("/" + name);
  return folder != nullptr && access(path.c_str(), R_OK) == 0 ? path : "";
}
inline constexpr char kNoCaptures[] = "no capture files: set TARNIK_DATA to a folder of them";

// The name of a capture as part of a test's name.
inline std::string asTestName(std::string capture) {
  for (char& c : capture) {
    c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  }
  return capture;
}

}  // namespace tarnik::test
