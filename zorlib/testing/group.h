// The group "brund", open, with interfaces of the test's own.
#pragma once

#include "zorlib/testing/driver.h"

namespace tarnik::test {

class GroupTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ifg_ = openGroup();
    clearRequests();
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_ifg_close(ifg_), 0);
    DriverTest::TearDown();
  }

  zorlib_ifg* ifg_ = nullptr;
};

}  // namespace tarnik::test
