// The main function of the test programs. Exit status 77 marks a skipped test for CTest: all tests
// that could run passed, but at least one was skipped.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr int kSkipped = 77;

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  const int status = RUN_ALL_TESTS();
  const bool skipped = testing::UnitTest::GetInstance()->skipped_test_count() > 0;
  return status == 0 && skipped ? kSkipped : status;
}
