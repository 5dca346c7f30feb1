// The check of descriptors.
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
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
  // The log is the dead child's: it is shown on standard error before the process goes.
  void dies(zorvik_frm_desc* frame, const std::string& condition, const std::string& rest) {
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
                         ::testing::HasSubstr(rest),
                         ::testing::ContainsRegex("zorlib_frm_check_test.*\\[0x")));
  }
  void dies(const std::string& condition, const std::string& rest = "") {
    dies(frame_, condition, rest);
  }

  zorlib_q* q_ = nullptr;
  zorvik_frm_desc* frame_ = nullptr;
};

using CheckDeathTest = CheckTest;

TEST_F(CheckTest, ASoundDescriptorPasses) {
  zorlib_FRM_Vm(ifg_, frame_);
  frame_->if_out = 0;
  frame_->if_in = ZORVIK_IF_LOCAL;
  frame_->q_idx = ZORVIK_Q_UNKNOWN;
  zorlib_FRM_Vm(ifg_, frame_);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CheckTest, TheInterfacesAreThoseOfNow) {
  zorlib_FRM_Vm(ifg_, frame_);  // the handle did not configure the group
  configureElsewhere(4);
  frame_->if_in = 3;
  frame_->if_out = 2;
  zorlib_FRM_Vm(ifg_, frame_);
  clearRequests();
  zorlib_FRM_Vm(ifg_, frame_);
  EXPECT_THAT(requests(), IsEmpty()) << "a sound frame costs no request";
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(CheckTest, ABadHandleIsNoFrame) {
  errno = 0;
  zorlib_FRM_Vm(nullptr, frame_);
  EXPECT_EQ(errno, EBADR);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_validate: Nil handle")));
}

TEST_F(CheckDeathTest, InterfacesThatAreGoneAreNoneAnyMore) {
  configureElsewhere(4);
  frame_->if_in = 3;
  zorlib_FRM_Vm(ifg_, frame_);
  configureElsewhere(2);
  frame_->if_out = 7;
  dies("fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)",
       "if_in 3 if_out 7 num_if 2 ");
}

TEST_F(CheckDeathTest, ADescriptorOutsideTheArrayIsNotRead) {
  dies(nullptr, "fp >= bp", "bsz 0 fsz 0 idx 0");
  dies(q_->frmDesc - 1, "fp >= bp", "bsz 0 fsz 0 idx 0");
  dies(q_->frmDesc + kFrames + 1, "fp < ep", "bsz 0 fsz 0 idx 0");
  // Between two descriptors: the words there are those of neither.
  auto* const between = reinterpret_cast<std::byte*>(frame_) + 3;
  dies(reinterpret_cast<zorvik_frm_desc*>(between), "fp == &bp[fp->frm_idx]", "bsz 0 fsz 0 idx 0");
}

TEST_F(CheckDeathTest, AGroupThatIsNotMappedHasNoDescriptors) {
  zorlib_ifg* other = openGroup();
  std::swap(ifg_, other);
  dies("fp < ep", "(nil)-(nil)/0]");
  std::swap(ifg_, other);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
}

TEST_F(CheckDeathTest, EachConditionIsNamed) {
  const std::string range = text(
      "%p [%p-%p/257] bsz 64 fsz 64 idx 5 if_in 1 if_out 4294967295 "
      "num_if 2 ref_cnt 10 qref_cnt 9 eng_ref_cnt 9",
      static_cast<void*>(frame_), static_cast<void*>(q_->frmDesc),
      static_cast<void*>(q_->frmDesc + kFrames + 1));
  const zorvik_frm_desc sound = *frame_;
  const auto broken = [&](auto change) {
    *frame_ = sound;
    change(*frame_);
  };
  broken([](auto& f) { f.index = 6; });
  dies("fp == &bp[fp->frm_idx]");
  broken([](auto& f) { f.buf_size = 63; });
  dies("fp->buf_size >= 64", "bsz 63 fsz 64");
  broken([](auto& f) { f.frame_size = 65; });
  dies("fp->frame_size <= fp->buf_size");
  for (const std::int16_t number : {std::int16_t{-2}, std::int16_t{2}}) {
    broken([&](auto& f) { f.if_in = number; });
    dies("fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)");
  }
  broken([](auto& f) { f.if_out = -2; });
  dies("(fp->if_out == ZORVIK_IF_LOCAL) || (fp->if_out >= 0)");
  broken([](auto& f) { f.if_out = 2; });
  dies("(fp->if_out == ZORVIK_IF_LOCAL) || ((fp->if_out >= 0) && (fp->if_out < ifgp->num_if))");
  for (const std::int16_t number : {std::int16_t{-2}, std::int16_t{32}}) {
    broken([&](auto& f) { f.q_idx = number; });
    dies("fp->q_idx == ZORVIK_Q_UNKNOWN || (fp->q_idx >= 0 && fp->q_idx < ZORLIB_MAX_QPAIRS)");
  }
  broken([](auto& f) { f.ref_cnt = 10; });
  dies("fp->ref_ctl.ref_cnt < 10", range);
  broken([](auto& f) { f.qref_cnt = 10; });
  dies("fp->ref_ctl.qref_cnt < 10");
  broken([](auto& f) { f.eng_ref_cnt = 10; });
  dies("fp->ref_ctl.eng_ref_cnt < 10");
  broken([](auto& f) { f.assoc_buf = 0; });
  dies("fp->assoc_buf != NULL");
  *frame_ = sound;
}

TEST_F(CheckDeathTest, TheFirstConditionThatFailsIsNamed) {
  // Everything is wrong; each correction shows the next complaint.
  frame_->index = 6;
  frame_->buf_size = 63;
  frame_->frame_size = 65;
  frame_->if_in = frame_->if_out = frame_->q_idx = -2;
  frame_->ref_cnt = frame_->qref_cnt = frame_->eng_ref_cnt = 255;
  frame_->assoc_buf = 0;
  dies("fp == &bp[fp->frm_idx]", "ref_cnt 255 qref_cnt 255 eng_ref_cnt 255");
  frame_->index = 5;
  dies("fp->buf_size >= 64");
  frame_->buf_size = 64;
  dies("fp->frame_size <= fp->buf_size");
  frame_->frame_size = 0;
  dies("fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)");
  frame_->if_in = 0;
  dies("(fp->if_out == ZORVIK_IF_LOCAL) || (fp->if_out >= 0)");
  frame_->if_out = 2;
  dies("(fp->if_out == ZORVIK_IF_LOCAL) || ((fp->if_out >= 0) && (fp->if_out < ifgp->num_if))");
  frame_->if_out = 1;
  dies("fp->q_idx == ZORVIK_Q_UNKNOWN || (fp->q_idx >= 0 && fp->q_idx < ZORLIB_MAX_QPAIRS)");
  frame_->q_idx = 0;
  dies("fp->ref_ctl.ref_cnt < 10");
  frame_->ref_cnt = 0;
  dies("fp->ref_ctl.qref_cnt < 10");
  frame_->qref_cnt = 0;
  dies("fp->ref_ctl.eng_ref_cnt < 10");
  frame_->eng_ref_cnt = 0;
  dies("fp->assoc_buf != NULL");
}

}  // namespace
}  // namespace tarnik::test
