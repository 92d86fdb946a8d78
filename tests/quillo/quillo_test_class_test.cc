// Tests of the object model by name through QuilloTestClass: every value kind
// through its properties, the error numbers of late binding, optional
// arguments, the host-supplied generator called by name, the collection
// property, the Ping event and the private twin.
#include "quillo/quillo_test_class.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/object.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

Variant Get(const ObjectPtr& o, std::string_view name) {
  return CallByName(o, name, CallKind::kGet);
}
void Put(const ObjectPtr& o, std::string_view name, Variant v) {
  CallByName(o, name, CallKind::kPut, {std::move(v)});
}
Variant Call(const ObjectPtr& o, std::string_view name, std::vector<Variant> args = {}) {
  return CallByName(o, name, CallKind::kMethod, std::move(args));
}

// A host-supplied identifier generator, reachable only by name.
class CountingGenerator : public Object {
 public:
  const MemberTable& Members() const override {
    static const MemberTable table =
        MemberTable::Builder<CountingGenerator>("CountingGenerator")
            .Method("GetNextRecordID",
                    [](CountingGenerator& g) { return "ID" + std::to_string(++g.n_); })
            .Build();
    return table;
  }

 private:
  int n_ = 0;
};

TEST(QuilloTestClass, IsCreatableByName) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->TypeName(), "QuilloTestClass");
  EXPECT_NE(std::dynamic_pointer_cast<QuilloTestClass>(o), nullptr);
}

TEST(QuilloTestClass, PublishesMembersInInterfaceOrder) {
  QuilloTestClass t;
  std::vector<std::string> names;
  for (const Member& m : t.Members().members()) {
    if (names.empty() || names.back() != m.name) names.push_back(m.name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Text", "Count", "Small", "Ratio", "Amount", "Money",
                                             "When", "Flag", "Child", "Describe", "RaiseError",
                                             "Echo", "CallGenerator", "Items", "RaisePing"}));
}

TEST(QuilloTestClass, PropertiesOfEveryKindKeepTheirValues) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  Put(o, "Text", Variant("hello"));
  Put(o, "Count", Variant(std::int32_t{123456}));
  Put(o, "Small", Variant(std::int16_t{-12}));
  Put(o, "Ratio", Variant(0.25f));
  Put(o, "Amount", Variant(1234.5678));
  Put(o, "Money", Variant(Currency{123456}));
  Put(o, "When", Variant(DateFromParts(2005, 3, 1, 14, 5, 9)));
  Put(o, "Flag", Variant(true));
  auto child = CreateObject("QuilloTestClass");
  Put(o, "Child", Variant(child));

  EXPECT_EQ(Get(o, "Text"), Variant("hello"));
  EXPECT_EQ(Get(o, "Count"), Variant(std::int32_t{123456}));
  EXPECT_EQ(Get(o, "Small"), Variant(std::int16_t{-12}));
  EXPECT_EQ(Get(o, "Ratio"), Variant(0.25f));
  EXPECT_EQ(Get(o, "Amount"), Variant(1234.5678));
  EXPECT_EQ(Get(o, "Money"), Variant(Currency{123456}));
  EXPECT_EQ(Get(o, "When"), Variant(DateFromParts(2005, 3, 1, 14, 5, 9)));
  EXPECT_EQ(Get(o, "Flag"), Variant(true));
  EXPECT_EQ(Get(o, "Child").ToObject(), child);
}

TEST(QuilloTestClass, PropertiesReportTheirKinds) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_EQ(Get(o, "Text").Type(), VarType::kString);
  EXPECT_EQ(Get(o, "Count").Type(), VarType::kLong);
  EXPECT_EQ(Get(o, "Small").Type(), VarType::kInteger);
  EXPECT_EQ(Get(o, "Ratio").Type(), VarType::kSingle);
  EXPECT_EQ(Get(o, "Amount").Type(), VarType::kDouble);
  EXPECT_EQ(Get(o, "Money").Type(), VarType::kCurrency);
  EXPECT_EQ(Get(o, "When").Type(), VarType::kDate);
  EXPECT_EQ(Get(o, "Flag").Type(), VarType::kBoolean);
  EXPECT_EQ(Get(o, "Child").Type(), VarType::kObject);
  EXPECT_EQ(Get(o, "Child").ToObject(), nullptr);
}

TEST(QuilloTestClass, PutConvertsToThePropertyKind) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  Put(o, "Count", Variant("12.5"));
  EXPECT_EQ(Get(o, "Count"), Variant(std::int32_t{12}));
  Put(o, "Small", Variant(13.5));
  EXPECT_EQ(Get(o, "Small"), Variant(std::int16_t{14}));
  Put(o, "Text", Variant(3.5));
  EXPECT_EQ(Get(o, "Text"), Variant("3.5"));
  Put(o, "When", Variant("2005-03-01"));
  EXPECT_EQ(Get(o, "When"), Variant(DateSerial(2005, 3, 1)));
  Put(o, "Flag", Variant("True"));
  EXPECT_EQ(Get(o, "Flag"), Variant(true));
  Put(o, "Child", Variant());
  EXPECT_EQ(Get(o, "Child").ToObject(), nullptr);
}

TEST(QuilloTestClass, NamesAreCaseInsensitive) {
  ObjectPtr o = CreateObject("quillotestclass");
  Put(o, "TEXT", Variant("a"));
  EXPECT_EQ(Get(o, "text").ToString(), "a");
  EXPECT_EQ(Call(o, "echo", {Variant(5)}), Variant(5));
}

TEST(QuilloTestClass, UnknownMemberIsError438) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Get(o, "NoSuchThing"), err::kMemberNotFound);
  EXPECT_RUNTIME_ERROR(Call(o, "NoSuchThing"), err::kMemberNotFound);
  EXPECT_RUNTIME_ERROR(Put(o, "Items", Variant(1)), err::kMemberNotFound);
}

TEST(QuilloTestClass, WrongArityIsError450) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Call(o, "Echo"), err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(Call(o, "Echo", {Variant(1), Variant(2)}), err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(Call(o, "Describe"), err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(CallByName(o, "Text", CallKind::kGet, {Variant(1)}),
                       err::kWrongArgumentCount);
}

TEST(QuilloTestClass, WrongTypeIsError13) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Put(o, "Count", Variant("many")), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Put(o, "When", Variant("someday")), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Put(o, "Child", Variant("text")), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Put(o, "Text", Variant(CreateObject("QuilloTestClass"))),
                       err::kTypeMismatch);
}

TEST(QuilloTestClass, OutOfRangeIsError6) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Put(o, "Small", Variant(std::int32_t{40000})), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Put(o, "Count", Variant(3e9)), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Put(o, "Ratio", Variant(1e300)), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Put(o, "Money", Variant(1e300)), err::kOverflow);
}

TEST(QuilloTestClass, OptionalArgumentsMayBeLeftOut) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_EQ(Call(o, "Describe", {Variant("a")}).ToString(), "a|2|none");
  EXPECT_EQ(Call(o, "Describe", {Variant("a"), Variant(5)}).ToString(), "a|5|none");
  EXPECT_EQ(Call(o, "Describe", {Variant("a"), Variant(), Variant("z")}).ToString(), "a|2|z");
  EXPECT_EQ(Call(o, "Describe", {Variant("a"), Variant(5), Variant("z")}).ToString(), "a|5|z");
}

TEST(QuilloTestClass, RaiseErrorRaisesTheGivenNumber) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  try {
    Call(o, "RaiseError", {Variant(1234), Variant("custom failure")});
    FAIL() << "no error raised";
  } catch (const RuntimeError& e) {
    EXPECT_EQ(e.number, 1234);
    EXPECT_EQ(e.description, "custom failure");
  }
  try {
    Call(o, "RaiseError", {Variant(9)});
    FAIL() << "no error raised";
  } catch (const RuntimeError& e) {
    EXPECT_EQ(e.number, 9);
    EXPECT_EQ(e.description, "Subscript out of range");
  }
}

TEST(QuilloTestClass, EchoReturnsItsArgumentUnchanged) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  std::vector<Variant> values{Variant(),
                              Variant(kNull),
                              Variant(std::int16_t{3}),
                              Variant(std::int32_t{70000}),
                              Variant(0.5f),
                              Variant(0.1),
                              Variant(Currency{12345}),
                              Variant(Date(-1.25)),
                              Variant(std::string("a\0b", 3)),
                              Variant(false),
                              Variant(ObjectPtr()),
                              Variant(o)};
  for (const Variant& v : values) {
    Variant back = Call(o, "Echo", {v});
    EXPECT_EQ(back.Type(), v.Type()) << TypeName(v);
    EXPECT_EQ(back, v) << TypeName(v);
  }
}

TEST(QuilloTestClass, CallGeneratorCallsGetNextRecordIDByName) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  auto generator = std::make_shared<CountingGenerator>();
  EXPECT_EQ(Call(o, "CallGenerator", {Variant(generator)}).ToString(), "ID1");
  EXPECT_EQ(Call(o, "CallGenerator", {Variant(generator)}).ToString(), "ID2");
}

TEST(QuilloTestClass, CallGeneratorOnNothingIsError91) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Call(o, "CallGenerator", {Variant(ObjectPtr())}), err::kObjectNotSet);
}

TEST(QuilloTestClass, CallGeneratorWithoutTheMethodIsError438) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  EXPECT_RUNTIME_ERROR(Call(o, "CallGenerator", {Variant(CreateObject("QuilloTestClass"))}),
                       err::kMemberNotFound);
}

TEST(QuilloTestClass, ItemsIsACollectionCreatedOnFirstUse) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  ObjectPtr items = Get(o, "Items").ToObject();
  ASSERT_NE(items, nullptr);
  EXPECT_EQ(Get(items, "Count"), Variant(std::int32_t{0}));
  Call(items, "Add", {Variant("first")});
  Call(items, "Add", {Variant("second")});
  ObjectPtr again = Get(o, "Items").ToObject();
  EXPECT_EQ(again, items);
  EXPECT_EQ(Get(again, "Count"), Variant(std::int32_t{2}));
  EXPECT_EQ(Call(again, "Item", {Variant(2)}).ToString(), "second");
  EXPECT_RUNTIME_ERROR(Call(again, "Item", {Variant(3)}), err::kSubscriptOutOfRange);
  auto typed = std::dynamic_pointer_cast<QuilloTestClass>(o);
  EXPECT_EQ(typed->Items()->Item(1), "first");
}

TEST(QuilloTestClass, RaisePingFiresPingWithItsArguments) {
  ObjectPtr o = CreateObject("QuilloTestClass");
  std::vector<std::vector<Variant>> seen;
  o->Advise("ping", [&](std::vector<Variant>& args) { seen.push_back(args); });
  Call(o, "RaisePing", {Variant("hello"), Variant(3)});
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], (std::vector<Variant>{Variant("hello"), Variant(std::int32_t{3})}));
}

TEST(QuilloPrivateTestClass, IsNotCreatableButReachableForTests) {
  EXPECT_RUNTIME_ERROR(CreateObject("QuilloPrivateTestClass"), err::kCantCreateObject);
  ObjectPtr o = testing::CreatePrivateObject("QuilloPrivateTestClass");
  ASSERT_NE(o, nullptr);
  Put(o, "Value", Variant("v"));
  EXPECT_EQ(Get(o, "value").ToString(), "v");
}

}  // namespace
}  // namespace quillo
