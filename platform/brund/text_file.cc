#include "platform/brund/text_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/owned.h"

namespace tarnik::brund {
namespace {

Error failed(const std::string& path) {
  return Error{path + ": " + std::strerror(errno)};
}

}  // namespace

Result<std::string> readTextFile(const std::string& path) {
  const Stream file = openForReading(path.c_str());
  std::string text;
  char chunk[65536];
  while (file && std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
    text.append(chunk, std::fread(chunk, 1, sizeof chunk, file.get()));
  }
  if (!file || std::ferror(file.get()) != 0) {
    return failed(path);
  }
  return text;
}

Result<> writeTextFile(const std::string& path, const std::string& text) {
  Stream file(std::fopen(path.c_str(), "we"));
  if (!file || std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() ||
      !closeStream(file)) {
    return failed(path);
  }
  return Done{};
}

}  // namespace tarnik::brund
