// zorlib_FRM_Vm: the check of a descriptor.
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::IsEmpty;

class CheckTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    configureElsewhere(2);
    createQueue(ifg_);
    q_ = openQueue(ifg_, ZORLIB_WRITE);
    frame_ = &q_->frmDesc[5];
    *frame_ = {};
    frame_->index = 5;
    frame_->buf_size = 64;
    frame_->frame_size = 64;
    frame_->if_in = 1;
    frame_->if_out = ZORVIK_IF_LOCAL;
    frame_->q_idx = 31;
    frame_->assoc_buf = 1;
    frame_->ref_cnt = frame_->qref_cnt = frame_->eng_ref_cnt = 9;
  }
  void TearDown() override {
    EXPECT_EQ(zorlib_q_close(q_), 0);
    GroupTest::TearDown();
  }
  // Checks that the process aborts and logs this condition and these values. The child that dies
  // writes its log to standard error.
  void dies(zorvik_frm_desc* frame, const std::string& condition, const std::string& values) {
    EXPECT_DEATH(
        {
          ::signal(SIGABRT, [](int) {
            for (const LogLine& line : logLines()) {
              std::fprintf(stderr, "%d %s\n", line.priority, line.text.c_str());
            }
          });
          zorlib_FRM_Vm(ifg_, frame);
        },
        ::testing::AllOf(::testing::HasSubstr("3 Error: zorlib_Assertion failed: " + condition +
                                              "\n3 Error: zorlib_FRM_Vm failed!  fp "),
                         ::testing::HasSubstr(values),
                         ::testing::ContainsRegex("zorlib_frm_check_test.*\\[0x")));
  }
  void dies(const std::string& condition, const std::string& values = "") {
    dies(frame_, condition, values);
  }

  zorlib_q* q_ = nullptr;
  zorvik_frm_desc* frame_ = nullptr;
};

using CheckDeathTest = CheckTest;

TEST_F(CheckTest, AcceptsAConsistentDescriptor) {
  zorlib_FRM_Vm(ifg_, frame_);
  frame_->if_out = 0;
  frame_->if_in = ZORVIK_IF_LOCAL;
  frame_->q_idx = ZORVIK_Q_UNKNOWN;
  zorlib_FRM_Vm(ifg_, frame_);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CheckTest, KnowsTheInterfacesOfALaterConfiguration) {
  zorlib_FRM_Vm(ifg_, frame_);  // another handle has configured the group
  configureElsewhere(4);
  frame_->if_in = 3;
  frame_->if_out = 2;
  zorlib_FRM_Vm(ifg_, frame_);
  clearRequests();
  zorlib_FRM_Vm(ifg_, frame_);
  EXPECT_THAT(requests(), IsEmpty()) << "a consistent descriptor needs no request";
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CheckTest, RefusesANullHandle) {
  errno = 0;
  zorlib_FRM_Vm(nullptr, frame_);
  EXPECT_EQ(errno, EBADR);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_ifg_validate: Nil handle"}));
}

TEST_F(CheckDeathTest, InterfacesThatWereRemovedAreInvalid) {
  configureElsewhere(4);
  frame_->if_in = 3;
  zorlib_FRM_Vm(ifg_, frame_);
  configureElsewhere(2);
  frame_->if_out = 7;
  dies("fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)",
       "if_in 3 if_out 7 num_if 2 ");
}

TEST_F(CheckDeathTest, DoesNotReadADescriptorOutsideTheArray) {
  const std::string zeros = "bsz 0 fsz 0 idx 0";
  dies(nullptr, "fp >= bp", zeros);
  dies(q_->frmDesc - 1, "fp >= bp", zeros);
  dies(q_->frmDesc + kFrames + 1, "fp < ep", zeros);
  // Not at the start of a descriptor.
  auto* const between = reinterpret_cast<std::byte*>(frame_) + 3;
  dies(reinterpret_cast<zorvik_frm_desc*>(between), "fp == &bp[fp->frm_idx]", zeros);
}

TEST_F(CheckDeathTest, AGroupThatIsNotMappedHasNoDescriptors) {
  zorlib_ifg* other = openGroup();
  std::swap(ifg_, other);
  dies("fp < ep", "(nil)-(nil)/0]");
  std::swap(ifg_, other);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
}

// The conditions in their order, and changes that violate each.
struct Condition {
  const char* text;
  std::vector<std::function<void(zorvik_frm_desc&)>> violations;
};
const Condition kConditions[] = {
    {"fp == &bp[fp->frm_idx]", {[](auto& f) { f.index = 6; }}},
    {"fp->buf_size >= 64", {[](auto& f) { f.buf_size = 63; }}},
    {"fp->frame_size <= fp->buf_size", {[](auto& f) { f.frame_size = 65; }}},
    {"fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)",
     {[](auto& f) { f.if_in = -2; }, [](auto& f) { f.if_in = 2; }}},
    {"(fp->if_out == ZORVIK_IF_LOCAL) || (fp->if_out >= 0)", {[](auto& f) { f.if_out = -2; }}},
    {"(fp->if_out == ZORVIK_IF_LOCAL) || ((fp->if_out >= 0) && (fp->if_out < ifgp->num_if))",
     {[](auto& f) { f.if_out = 2; }}},
    {"fp->q_idx == ZORVIK_Q_UNKNOWN || (fp->q_idx >= 0 && fp->q_idx < ZORLIB_MAX_QPAIRS)",
     {[](auto& f) { f.q_idx = -2; }, [](auto& f) { f.q_idx = 32; }}},
    {"fp->ref_ctl.ref_cnt < 10", {[](auto& f) { f.ref_cnt = 10; }}},
    {"fp->ref_ctl.qref_cnt < 10", {[](auto& f) { f.qref_cnt = 10; }}},
    {"fp->ref_ctl.eng_ref_cnt < 10", {[](auto& f) { f.eng_ref_cnt = 10; }}},
    {"fp->assoc_buf != NULL", {[](auto& f) { f.assoc_buf = 0; }}},
};

TEST_F(CheckDeathTest, NamesTheFirstConditionThatIsViolated) {
  const zorvik_frm_desc consistent = *frame_;
  for (std::size_t i = 0; i < std::size(kConditions); ++i) {
    for (const auto& violate : kConditions[i].violations) {
      *frame_ = consistent;
      violate(*frame_);
      dies(kConditions[i].text);
      // Also when all later conditions are violated.
      for (std::size_t later = i + 1; later < std::size(kConditions); ++later) {
        if (later != 5) {  // its change of if_out would satisfy the condition before it
          kConditions[later].violations[0](*frame_);
        }
      }
      dies(kConditions[i].text);
    }
  }
  *frame_ = consistent;
}

TEST_F(CheckDeathTest, LogsTheDescriptor) {
  frame_->ref_cnt = 255;
  frame_->qref_cnt = 8;
  frame_->eng_ref_cnt = 7;
  dies("fp->ref_ctl.ref_cnt < 10",
       text("%p [%p-%p/257] bsz 64 fsz 64 idx 5 if_in 1 if_out 4294967295 num_if 2 ref_cnt 255 "
            "qref_cnt 8 eng_ref_cnt 7",
            static_cast<void*>(frame_), static_cast<void*>(q_->frmDesc),
            static_cast<void*>(q_->frmDesc + kFrames + 1)));
}

}  // namespace
}  // namespace tarnik::test
