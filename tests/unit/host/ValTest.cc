#include "Val.h"

#include <gtest/gtest.h>

#include <thread>

#include "Conn.h"
#include "Event.h"
#include "Func.h"
#include "standin/MainThread.h"
#include "standin/ReportRecorder.h"
#include "standin/Scripts.h"

using standin::FieldSpec;

namespace {

std::string text_of(const BroObj* o) {
  ODesc d;
  o->Describe(&d);
  return std::string(d.Description(), static_cast<size_t>(d.Len()));
}

class ValTest : public testing::Test {
 protected:
  void TearDown() override { standin::forget_scripts(); }
};

class ValDeathTest : public ValTest {};

int destroyed = 0;

class Counted : public Val {
 public:
  Counted() : Val(uint64(1), TYPE_COUNT) {}
  ~Counted() { ++destroyed; }
};

}  // namespace

TEST_F(ValTest, CountsBeginAtOneAndTheLastUnrefDestroys) {
  destroyed = 0;
  Counted* v = new Counted;
  EXPECT_EQ(v->RefCnt(), 1);
  EXPECT_EQ(v->Ref(), v);
  EXPECT_EQ(v->RefCnt(), 2);
  Unref(v);
  EXPECT_EQ(destroyed, 0);
  Unref(v);
  EXPECT_EQ(destroyed, 1);
  Unref(nullptr);
}

TEST_F(ValTest, ValuesKeepTheirTypeAlive) {
  VectorType* type = new VectorType(base_type(TYPE_COUNT));
  VectorVal* vec = new VectorVal(type);
  EXPECT_EQ(type->RefCnt(), 2);
  Unref(vec);
  EXPECT_EQ(type->RefCnt(), 1);
  Unref(type);
}

TEST_F(ValTest, AccessorsGiveWhatWasPutIn) {
  Val b(true, TYPE_BOOL), i(int64(-5), TYPE_INT), c(uint64(7), TYPE_COUNT), d(1.5, TYPE_DOUBLE);
  EXPECT_TRUE(b.AsBool());
  EXPECT_EQ(i.AsInt(), -5);
  EXPECT_EQ(c.AsCount(), 7u);
  EXPECT_EQ(d.AsDouble(), 1.5);
  EXPECT_EQ(c.CoerceToDouble(), 7.0);
  EXPECT_EQ(d.CoerceToInt(), 1);
  EXPECT_EQ(IntervalVal(2, Minutes).AsInterval(), 120.0);
}

TEST_F(ValTest, WrongInternalClassIsAWarningAndZero) {
  standin::ReportRecorder recorder;
  Val c(uint64(7), TYPE_COUNT);
  EXPECT_EQ(c.InternalInt(), 0);
  EXPECT_EQ(c.InternalUnsigned(), 7u);
  EXPECT_EQ(recorder.Texts(standin::ReportKind::kInternalWarning).size(), 1u);
}

TEST_F(ValTest, StringFromStdStringEndsAtTheFirstNul) {
  StringVal cut(std::string("ab\0cd", 5));
  EXPECT_EQ(cut.Len(), 2);
  StringVal whole(5, "ab\0cd");
  EXPECT_EQ(whole.Len(), 5);
  EXPECT_EQ(whole.Bytes()[3], 'c');
}

TEST_F(ValTest, CheckStringRefusesEmbeddedNul) {
  standin::ReportRecorder recorder;
  EXPECT_STREQ(StringVal("text").CheckString(), "text");
  EXPECT_STREQ(StringVal("").CheckString(), "");
  EXPECT_TRUE(recorder.Reports().empty());
  EXPECT_STREQ(StringVal(3, "a\0b").CheckString(), "<string-with-NUL>");
  EXPECT_EQ(recorder.Texts(standin::ReportKind::kError).size(), 1u);
}

TEST_F(ValTest, PortKeepsNumberAndProtocolApart) {
  PortVal port(53, TRANSPORT_UDP);
  EXPECT_EQ(port.Port(), 53u);
  EXPECT_TRUE(port.IsUDP());
  EXPECT_FALSE(port.IsTCP());
  EXPECT_EQ(port.InternalUnsigned(), 0x20000u + 53);
  EXPECT_EQ(text_of(&port), "53/udp");
}

TEST_F(ValTest, RecordAssignConsumesAndReleasesTheOldValue) {
  destroyed = 0;
  RecordType* type = standin::record_type("r", {FieldSpec("n", base_type(TYPE_COUNT), true)});
  RecordVal* rec = new RecordVal(type);
  EXPECT_EQ(rec->Lookup(0), nullptr);
  Counted* first = new Counted;
  rec->Assign(0, first);
  EXPECT_EQ(first->RefCnt(), 1);
  EXPECT_EQ(rec->Lookup(0), first);
  EXPECT_EQ(rec->Lookup("n"), first);
  rec->Assign(0, new Counted);
  EXPECT_EQ(destroyed, 1);
  Unref(rec);
  EXPECT_EQ(destroyed, 2);
  Unref(type);
}

TEST_F(ValTest, RecordBeginsWithDefaultsAndEmptyContainers) {
  RecordType* type = standin::record_type(
      "r", {FieldSpec("s", base_type(TYPE_STRING), false, false, new StringVal("preset")),
            FieldSpec("v", new VectorType(base_type(TYPE_COUNT))),
            FieldSpec("o", new VectorType(base_type(TYPE_COUNT)), true),
            FieldSpec("c", base_type(TYPE_COUNT))});
  RecordVal* rec = new RecordVal(type);
  EXPECT_EQ(text_of(rec->Lookup("s")), "preset");
  ASSERT_NE(rec->Lookup("v"), nullptr);
  EXPECT_EQ(rec->Lookup("v")->AsVectorVal()->Size(), 0u);
  EXPECT_EQ(rec->Lookup("o"), nullptr);
  EXPECT_EQ(rec->Lookup("c"), nullptr);
  Unref(rec);
  Unref(type);
}

TEST_F(ValTest, VectorGrowsAndRefusesOtherTypes) {
  VectorType* type = new VectorType(base_type(TYPE_COUNT));
  VectorVal* vec = new VectorVal(type);
  EXPECT_TRUE(vec->Assign(2u, new Val(uint64(5), TYPE_COUNT)));
  EXPECT_EQ(vec->Size(), 3u);
  const VectorVal* reader = vec;
  EXPECT_EQ(reader->Lookup(0u), nullptr);
  EXPECT_EQ(vec->Lookup(2u)->AsCount(), 5u);
  EXPECT_EQ(vec->Lookup(3u), nullptr);
  EXPECT_FALSE(vec->Assign(0u, new StringVal("no count")));
  EXPECT_EQ(vec->Resize(1), 3u);
  EXPECT_EQ(vec->Size(), 1u);
  Unref(vec);
  Unref(type);
}

TEST_F(ValTest, SetFindsWhatWasPutIn) {
  TableVal* set = new TableVal(internal_type("string_set")->AsTableType());
  StringVal here("here"), there("there");
  set->Assign(&here, nullptr);
  set->Assign(&here, nullptr);
  EXPECT_EQ(set->Size(), 1);
  EXPECT_NE(set->Lookup(&here), nullptr);
  EXPECT_EQ(set->Lookup(&there), nullptr);
  Unref(set);
}

TEST_F(ValTest, HostTypesAreThereFromTheStart) {
  EXPECT_EQ(internal_type("string_vec")->AsVectorType()->YieldType()->Tag(), TYPE_STRING);
  const RecordType* connection = internal_type("connection")->AsRecordType();
  EXPECT_EQ(connection->FieldOffset("id"), 0);
  EXPECT_EQ(connection->FieldOffset("uid"), 7);
  EXPECT_LT(connection->FieldOffset("nowhere"), 0);
}

namespace {

Val* add_one(Frame* frame, val_list* args) {
  EXPECT_EQ(frame, nullptr);
  return new Val((*args)[0]->AsCount() + 1, TYPE_COUNT);
}

}  // namespace

TEST_F(ValTest, BuiltinFunctionIsCalledByNameAndItsArgumentsAreReleased) {
  destroyed = 0;
  standin::declare_function("M::add_one");
  (void)new BuiltinFunc(add_one, "M::add_one", 0);
  val_list args;
  args.append(new Counted);
  Val* result = internal_func("M::add_one")->Call(&args);
  EXPECT_EQ(result->AsCount(), 2u);
  EXPECT_EQ(destroyed, 1);
  Unref(result);
}

TEST_F(ValTest, ConstantsAreFoundByName) {
  standin::define_const("M::x", new StringVal("value"));
  EXPECT_EQ(text_of(internal_const_val("M::x")), "value");
  EXPECT_EQ(text_of(opt_internal_string("M::x")), "value");
  EXPECT_EQ(opt_internal_val("M::y"), nullptr);
  EXPECT_EQ(opt_internal_double("M::y"), 0);
}

TEST_F(ValTest, NobodyListensToEvents) {
  destroyed = 0;
  EventHandlerPtr handler = internal_handler("M::event");
  EXPECT_FALSE(handler);
  EXPECT_TRUE(handler == internal_handler("M::event"));
  val_list* args = new val_list;
  args->append(new Counted);
  mgr.QueueEvent(handler, args);
  EXPECT_EQ(destroyed, 1);
}

namespace {

ConnID conn_id() {
  ConnID id;
  id.src_addr = IPAddr("192.0.2.1");
  id.dst_addr = IPAddr("2001:db8::1");
  id.src_port = htons(1234);
  id.dst_port = htons(80);
  id.is_one_way = false;
  return id;
}

}  // namespace

TEST_F(ValTest, ConnectionRecordKnowsItsOrigin) {
  const ConnID id = conn_id();
  Connection* conn = new Connection(nullptr, nullptr, 100, &id, 0, 0, 0, nullptr);
  conn->SetTransport(TRANSPORT_TCP);
  EXPECT_EQ(conn->OrigPort(), htons(1234));
  EXPECT_FALSE(conn->GetUID());
  RecordVal* rec = conn->BuildConnVal();
  EXPECT_EQ(rec->GetOrigin(), conn);
  EXPECT_TRUE(conn->GetUID());
  EXPECT_EQ(text_of(rec->Lookup("uid")), conn->GetUID().Base62("C"));
  const RecordVal* ids = rec->Lookup("id")->AsRecordVal();
  EXPECT_EQ(text_of(ids), "[orig_h=192.0.2.1, orig_p=1234/tcp, resp_h=2001:db8::1, resp_p=80/tcp]");
  RecordVal* again = conn->BuildConnVal();
  EXPECT_EQ(again, rec);
  EXPECT_EQ(rec->RefCnt(), 3);
  Unref(again);
  Unref(conn);
  EXPECT_EQ(rec->GetOrigin(), nullptr);
  EXPECT_EQ(rec->RefCnt(), 1);
  Unref(rec);
}

TEST_F(ValDeathTest, WrongTagsEndTheProcessWithTheHostsText) {
  const auto one = testing::ExitedWithCode(1);
  Val count(uint64(5), TYPE_COUNT);
  const Val& const_count = count;
  EXPECT_EXIT(count.AsStringVal(), one,
              "fatal error in <no location>: Val::CONVERTER \\(count/string\\) \\(5\\)");
  EXPECT_EXIT(count.AsRecordVal(), one, "Val::CONVERTER \\(count/record\\)");
  EXPECT_EXIT(count.AsPortVal(), one, "Val::CONVERTER \\(count/port\\)");
  EXPECT_EXIT(count.AsBool(), one, "Val::CONST_ACCESSOR \\(count/bool\\)");
  EXPECT_EXIT(const_count.AsFunc(), one, "Val::CONST_ACCESSOR \\(count/func\\)");
  EXPECT_EXIT(count.AsFunc(), one, "Val::ACCESSOR \\(count/func\\)");
  EXPECT_EXIT(count.AsAddr(), one, "Val::AsAddr \\(count\\)");
  EXPECT_EXIT(count.AsSubNet(), one, "Val::SubNet \\(count/subnet\\)");
  EXPECT_EXIT(base_type_no_ref(TYPE_COUNT)->AsRecordType(), one,
              "BroType::AsRecordType \\(count/record\\) \\(count\\)");
  EXPECT_EXIT(base_type_no_ref(TYPE_COUNT)->AsVectorType(), one,
              "BroType::AsVectorType \\(count/vector\\)");
}

TEST_F(ValDeathTest, MissingNamesAbort) {
  const auto aborted = testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(internal_const_val("M::x"), aborted, "internal variable M::x missing");
  EXPECT_EXIT(internal_type("M::t"), aborted, "internal type M::t missing");
  EXPECT_EXIT(internal_func("M::f"), aborted, "internal variable M::f missing");
  EXPECT_EXIT((void)new BuiltinFunc(add_one, "M::f", 0), aborted, "built-in function M::f missing");
  standin::declare_function("M::f");
  EXPECT_EXIT(internal_const_val("M::f"), aborted, "internal variable M::f is not constant");
  (void)new BuiltinFunc(add_one, "M::f", 0);
  EXPECT_EXIT((void)new BuiltinFunc(add_one, "M::f", 0), aborted,
              "built-in function M::f multiply defined");
}

TEST_F(ValDeathTest, UnknownRecordFieldsAbort) {
  RecordType* type = standin::record_type("r", {FieldSpec("n", base_type(TYPE_COUNT))});
  RecordVal* rec = new RecordVal(type);
  EXPECT_DEATH(rec->Lookup("m"), "missing record field: m");
  EXPECT_DEATH(rec->Assign(1, nullptr), "no field number 1");
  Unref(rec);
  Unref(type);
}

TEST_F(ValDeathTest, ScriptValuesBelongToTheMainThread) {
  EXPECT_DEATH(
      {
        standin::set_main_thread();
        std::thread([] { StringVal v("x"); }).join();
      },
      "wrong thread: creating a script object");
}
