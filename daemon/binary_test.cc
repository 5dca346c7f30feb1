// The installed program depends only on the language's library and the platform's, and no
// environment variable changes what it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/testing/process.h"

namespace tarnik::test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

std::string readelf(const std::vector<std::string>& options) {
  std::vector<std::string> command{"readelf"};
  command.insert(command.end(), options.begin(), options.end());
  command.emplace_back(TARNIKD_PATH);
  const Finished finished = runProgram(command, {"LC_ALL=C"});
  EXPECT_EQ(finished.ending, kSucceeded);
  return finished.output;
}

TEST(BinaryTest, NeedsOnlyTheLanguageAndThePlatform) {
  const std::string dynamic = readelf({"-d"});
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

TEST(BinaryTest, HasTheWatchdogTimerAsAGlobal) {
  const auto isGlobal = ::testing::ContainsRegex("OBJECT +GLOBAL +DEFAULT.*tarnik13watchdogTimer");
  EXPECT_TRUE(::testing::Value(readelf({"-s", "-W"}), isGlobal));
}

TEST(BinaryTest, ReadsNoEnvironment) {
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "a sanitizer's runtime reads it";
#endif
#endif
  const std::string symbols = readelf({"--dyn-syms", "-W"});
  EXPECT_THAT(symbols, HasSubstr("OrloLoop"));
  EXPECT_THAT(symbols, Not(HasSubstr("getenv")));
}

}  // namespace
}  // namespace tarnik::test
