// Fixtures for the tests of TarnikIf and TarnikQ, on the driver stand-in inside the test program.
#pragma once

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/log.h"
#include "frameq/tarnik_if.h"
#include "frameq/tarnik_if_state.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {

// Checks the lines that were logged since the last check.
inline void expectLog(const std::vector<std::string>& texts, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
  const ::testing::ScopedTrace trace(file, line, "expectLog");
  EXPECT_EQ(logLines(), lines(texts));
  clearLog();
}

class TarnikIfTest : public DriverTest {
 protected:
  void TearDown() override {
    answerNothing();
    setDebugLevel(0);
    TarnikIfgClose();
    DriverTest::TearDown();
  }
};

// The results of a ReadPkt.
struct Packet {
  int result;
  zorvik_frm_desc* frame;
  std::uint8_t* data;
  std::uint64_t tag;
  std::uint32_t flags;
};

// The queue, open for reading and for writing, without time limits.
class TarnikQTest : public TarnikIfTest {
 protected:
  using Object = std::unique_ptr<TarnikQ, decltype(&TarnikIfDestroy)>;

  void SetUp() override {
    DriverTest::SetUp();
    ASSERT_EQ(TarnikIfQInit(51), kQOk);
    reader_ = TarnikIfCreate();
    writer_ = TarnikIfCreate();
    ASSERT_EQ(reader_->Open(TarnikQ::kIngress), kQOk);
    ASSERT_EQ(writer_->Open(TarnikQ::kEgress), kQOk);
    reader_->SetTimeout(0);
    writer_->SetTimeout(0);
  }
  void TearDown() override {
    answerNothing();
    for (TarnikQ* const q : {reader_, writer_}) {
      EXPECT_EQ(q->Close(), kQOk);
      TarnikIfDestroy(q);
    }
    TarnikIfTest::TearDown();
  }

  zorvik_frm_desc* frame(std::uint32_t size = 64) { return allocFrame(capture_if::ifg, size); }
  // An object that was not opened yet.
  static Object fresh() { return {TarnikIfCreate(), &TarnikIfDestroy}; }
  static Object opened(int mode) {
    Object q = fresh();
    EXPECT_EQ(q->Open(mode), kQOk);
    return q;
  }
  static Packet readPkt(TarnikQ* q) {
    Packet packet{.result = 99,
                  .frame = reinterpret_cast<zorvik_frm_desc*>(1),
                  .data = nullptr,
                  .tag = 99,
                  .flags = 99};
    errno = 0;
    packet.result = q->ReadPkt(&packet.frame, &packet.data, &packet.tag, &packet.flags);
    return packet;
  }

  // The object's fields.
  struct Fields {
    void* table;
    std::uint64_t unused;
    zorlib_q* q;
    std::int32_t mode;
  };
  static Fields fieldsOf(const TarnikQ* object) {
    Fields fields;
    static_assert(sizeof fields == sizeof *object);
    std::memcpy(static_cast<void*>(&fields), static_cast<const void*>(object), sizeof fields);
    return fields;
  }
  static zorlib_q* handleOf(const TarnikQ* object) { return fieldsOf(object).q; }

  TarnikQ* reader_ = nullptr;
  TarnikQ* writer_ = nullptr;
};

}  // namespace tarnik::test
