// What the installed program is made of: it needs nothing but the language's library and the
// platform's, and nothing in it can be redirected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

namespace tarnik::test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

struct PipeCloser {
  void operator()(std::FILE* pipe) const { pclose(pipe); }
};

std::string outputOf(const std::string& command) {
  const std::unique_ptr<std::FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
  std::string text;
  char buffer[4096];
  while (pipe && std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
    text += buffer;
  }
  return text;
}

TEST(BinaryTest, NeedsOnlyTheLanguageAndThePlatform) {
  const std::string dynamic = outputOf("LC_ALL=C readelf -d " TARNIKD_PATH);
  std::size_t needed = 0;
  bool platform = false;
  for (std::size_t at = 0; (at = dynamic.find("Shared library: [", at)) != std::string::npos;) {
    at += 17;
    const std::string library = dynamic.substr(at, dynamic.find(']', at) - at);
    EXPECT_THAT(library,
                AnyOf(StartsWith("libstdc++.so"), StartsWith("libgcc_s.so"), StartsWith("libc.so"),
                      StartsWith("libm.so"), StartsWith("libpthread.so"),
                      StartsWith("liborlo_sdk.so"), StartsWith("ld-linux"),
                      // A sanitizer's runtime needs these two.
                      StartsWith("libdl.so"), StartsWith("librt.so"), StartsWith("libresolv.so")));
    platform = platform || library.starts_with("liborlo_sdk.so");
    ++needed;
  }
  EXPECT_TRUE(platform);
  EXPECT_GE(needed, 3U);
}

TEST(BinaryTest, ReadsNoEnvironment) {
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "a sanitizer's runtime reads it";
#endif
#endif
  const std::string symbols = outputOf("LC_ALL=C readelf --dyn-syms -W " TARNIKD_PATH);
  EXPECT_THAT(symbols, HasSubstr("OrloLoop"));
  EXPECT_THAT(symbols, Not(HasSubstr("getenv")));
}

}  // namespace
}  // namespace tarnik::test
