// What the stand-in tells a plug-in must be what the host tells it.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "Func.h"
#include "MainThread.h"
#include "Reporter.h"
#include "UID.h"
#include "Val.h"
#include "standin/ReportRecorder.h"
#include "standin/Scripts.h"
#include "threading/SerialTypes.h"
#include "util.h"

using standin::ReportKind;
using standin::ReportRecorder;

namespace {

class ApiTest : public testing::Test {
 protected:
  void TearDown() override { standin::forget_scripts(); }
};

using ApiDeathTest = ApiTest;

int destroyed = 0;

class Counted : public Val {
 public:
  Counted() : Val(uint64(1), TYPE_COUNT) {}
  ~Counted() { ++destroyed; }
};

// What `action` prints on stderr.
template <typename Action>
std::string printed(Action action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

Val* answer(Frame*, val_list*) {
  return new Val(uint64(42), TYPE_COUNT);
}

}  // namespace

TEST_F(ApiTest, StrcasecmpNIsZeroOnlyWhereBothEnd) {
  EXPECT_EQ(strcasecmp_n(4, "HtTp", "http"), 0);
  EXPECT_EQ(strcasecmp_n(0, "x", ""), 0);
  EXPECT_EQ(strcasecmp_n(4, "http", "http-in"), 1);
  EXPECT_EQ(strcasecmp_n(7, "http-in", "http"), 1);
  EXPECT_EQ(strcasecmp_n(3, "abc", "abd"), -1);
  EXPECT_EQ(strcasecmp_n(3, nullptr, "abc"), -1);
  EXPECT_NE(strcasecmp_n(2, "a\0", "a"), 0);
}

TEST_F(ApiTest, UidsAreWrittenLeastSignificantDigitFirst) {
  const uint64 words[] = {0x0123456789abcdefULL, 0xfedcba9876543210ULL};
  Bro::UID uid;
  uid.Set(96, words, 2);
  EXPECT_EQ(uid.Base62("C"), "CXQ5i1gmXIANUMCSl");
}

TEST_F(ApiTest, ContainersAndFunctionsReleaseWhatTheyTookOver) {
  destroyed = 0;
  VectorType* type = new VectorType(base_type(TYPE_COUNT));
  VectorVal* vec = new VectorVal(type);
  EXPECT_TRUE(vec->Assign(0u, new Counted));
  EXPECT_TRUE(vec->Assign(0u, new Counted));
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(vec->Assign(1u, new StringVal("another type")));
  Unref(vec);
  Unref(type);
  EXPECT_EQ(destroyed, 2);
  standin::declare_function("M::answer");
  (void)new BuiltinFunc(answer, "M::answer", 0);
  val_list args;
  args.append(new Counted);
  Unref(internal_func("M::answer")->Call(&args));
  EXPECT_EQ(destroyed, 3);
}

TEST_F(ApiTest, StringsMayHoldNulBytesButCStringsMayNot) {
  EXPECT_EQ(StringVal(std::string("ab\0cd", 5)).Len(), 2);
  EXPECT_EQ(StringVal(5, "ab\0cd").Len(), 5);
  ReportRecorder recorder;
  EXPECT_STREQ(StringVal("text").CheckString(), "text");
  EXPECT_TRUE(recorder.Reports().empty());
  EXPECT_STREQ(StringVal(3, "a\0b").CheckString(), "<string-with-NUL>");
  EXPECT_EQ(recorder.Texts(ReportKind::kError).size(), 1u);
}

TEST_F(ApiTest, ReportsHaveTheHostsForm) {
  Reporter out;
  EXPECT_EQ(printed([&] { out.Info("%d lines", 3); }), "3 lines\n");
  EXPECT_EQ(printed([&] { out.Warning("careful"); }), "warning: careful\n");
  EXPECT_EQ(printed([&] { out.Weird("Empty type!"); }), "weird: Empty type!\n");
  EXPECT_EQ(out.Errors(), 0);
  network_time = 1340213005.165293;
  EXPECT_EQ(printed([&] { out.Error("text"); }), "1340213005.165293 error: text\n");
  network_time = 0;
  EXPECT_EQ(out.Errors(), 1);
}

TEST_F(ApiTest, NameOfAWeirdIsAFormat) {
  ReportRecorder recorder;
  Reporter out;
  out.Weird("100%%");
  EXPECT_EQ(recorder.Texts(ReportKind::kWeird), std::vector<std::string>{"100%"});
  EXPECT_TRUE(recorder.Texts(ReportKind::kInternalWarning).empty());
  out.Weird("%s");
  EXPECT_EQ(recorder.Texts(ReportKind::kInternalWarning).size(), 1u);
}

TEST_F(ApiDeathTest, MissingNamesAbort) {
  const auto aborted = testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(internal_const_val("M::x"), aborted, "internal variable M::x missing");
  EXPECT_EXIT(internal_type("M::t"), aborted, "internal type M::t missing");
  EXPECT_EXIT((void)new BuiltinFunc(answer, "M::f", 0), aborted, "built-in function M::f missing");
  standin::declare_function("M::f");
  EXPECT_EXIT(internal_const_val("M::f"), aborted, "internal variable M::f is not constant");
  (void)new BuiltinFunc(answer, "M::f", 0);
  EXPECT_EXIT((void)new BuiltinFunc(answer, "M::f", 0), aborted, "M::f multiply defined");
}

TEST_F(ApiDeathTest, ScriptValuesBelongToTheMainThread) {
  EXPECT_DEATH(
      {
        host::set_main_thread();
        std::thread([] { StringVal v("x"); }).join();
      },
      "wrong thread: creating a script object");
}
