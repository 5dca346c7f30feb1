// The daemon's queue, open on both sides.
#pragma once

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "base/log.h"
#include "frameq/tarnik_if.h"
#include "frameq/tarnik_if_state.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {

class TarnikQTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ASSERT_EQ(TarnikIfQInit(51), 0);
    reader_ = TarnikIfCreate();
    writer_ = TarnikIfCreate();
    ASSERT_EQ(reader_->Open(TarnikQ::kIngress), 0);
    ASSERT_EQ(writer_->Open(TarnikQ::kEgress), 0);
    reader_->SetTimeout(0);
    writer_->SetTimeout(0);
  }
  void TearDown() override {
    answerNothing();
    setDebugLevel(0);
    for (TarnikQ* const q : {reader_, writer_}) {
      EXPECT_EQ(q->Close(), 0);
      TarnikIfDestroy(q);
    }
    TarnikIfgClose();
    DriverTest::TearDown();
  }
  zorvik_frm_desc* frame(std::uint32_t size = 64) { return allocFrame(capture_if::ifg, size); }
  // An object that was never opened.
  std::unique_ptr<TarnikQ, decltype(&TarnikIfDestroy)> fresh() {
    return {TarnikIfCreate(), &TarnikIfDestroy};
  }
  // The library's handle, as it lies in the object.
  static zorlib_q* handleOf(const TarnikQ* object) {
    zorlib_q* handle = nullptr;
    std::memcpy(&handle, reinterpret_cast<const char*>(object) + 16, sizeof handle);
    return handle;
  }
  // `format` with the address of the frame's data.
  static std::string payloadAt(zorvik_frm_desc* desc, const char* format) {
    char line[200];
    std::snprintf(line, sizeof line, format, zorlib_ifg_frm_data(capture_if::ifg, desc));
    return line;
  }

  TarnikQ* reader_ = nullptr;
  TarnikQ* writer_ = nullptr;
};

}  // namespace tarnik::test
