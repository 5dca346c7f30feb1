// The main function of the test programs. Exit status 77, by which CTest knows a skipped test: what
// could run passed, but a test could not, and said why.
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
