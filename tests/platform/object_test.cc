// Tests for objects by name: the member table, Invoke's lookup and argument
// conversion, events, the class registry and CallByName.
#include "platform/object.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

// A small class with a property, an indexed property, methods and an event.
class Gadget : public Object {
 public:
  const MemberTable& Members() const override {
    static const MemberTable table =
        MemberTable::Builder<Gadget>("Gadget")
            .Get("Name", [](Gadget& g) { return g.name_; })
            .Put("Name", [](Gadget& g, std::string v) { g.name_ = std::move(v); })
            .Get("Slot", [](Gadget& g, std::int32_t i) { return g.slots_.at(i); })
            .Put("Slot", [](Gadget& g, std::int32_t i, std::string v) { g.slots_.at(i) = v; })
            .Method("Add", [](Gadget&, std::int32_t a,
                              std::optional<std::int32_t> b) { return a + b.value_or(100); })
            .Method("Half", [](Gadget&, std::int16_t n) { return n / 2.0; })
            .Method("Touch", [](Gadget& g) { ++g.touched_; })
            .Method("Fire",
                    [](Gadget& g, std::string what) {
                      std::vector<Variant> args{Variant(what), Variant(std::int32_t{7})};
                      g.FireEvent("Changed", args);
                      return args[0];
                    })
            .Build();
    return table;
  }

  std::string name_;
  std::vector<std::string> slots_ = {"a", "b", "c"};
  int touched_ = 0;
};

QUILLO_REGISTER_CLASS(Gadget, quillo::Creatable::kPublic);

class HiddenGadget : public Gadget {};
QUILLO_REGISTER_CLASS(HiddenGadget, quillo::Creatable::kPrivate);

TEST(Object, PublishesMembersInInterfaceOrder) {
  Gadget g;
  std::vector<std::string> names;
  for (const Member& m : g.Members().members()) names.push_back(m.name);
  EXPECT_EQ(names, (std::vector<std::string>{"Name", "Name", "Slot", "Slot", "Add", "Half", "Touch",
                                             "Fire"}));
  EXPECT_EQ(g.TypeName(), "Gadget");
}

TEST(Object, RecordsArityWithOptionalArguments) {
  Gadget g;
  const Member* add = g.Members().Find("Add", CallKind::kMethod);
  ASSERT_NE(add, nullptr);
  EXPECT_EQ(add->min_args, 1);
  EXPECT_EQ(add->max_args, 2);
}

TEST(Object, GetsAndPutsPropertiesByName) {
  Gadget g;
  g.Invoke("Name", CallKind::kPut, {Variant("widget")});
  EXPECT_EQ(g.name_, "widget");
  EXPECT_EQ(g.Invoke("Name", CallKind::kGet).ToString(), "widget");
}

TEST(Object, NamesAreCaseInsensitive) {
  Gadget g;
  g.Invoke("NAME", CallKind::kPut, {Variant("x")});
  EXPECT_EQ(g.Invoke("name", CallKind::kGet).ToString(), "x");
  EXPECT_EQ(g.Invoke("aDD", CallKind::kMethod, {Variant(1)}).ToLong(), 101);
  EXPECT_TRUE(g.HasMember("nAmE", CallKind::kPut));
}

TEST(Object, IndexedPropertiesTakeTheValueLast) {
  Gadget g;
  g.Invoke("Slot", CallKind::kPut, {Variant(1), Variant("B")});
  EXPECT_EQ(g.Invoke("Slot", CallKind::kGet, {Variant(1)}).ToString(), "B");
}

TEST(Object, OptionalArgumentsMayBeLeftOutOrEmpty) {
  Gadget g;
  EXPECT_EQ(g.Invoke("Add", CallKind::kMethod, {Variant(1)}).ToLong(), 101);
  EXPECT_EQ(g.Invoke("Add", CallKind::kMethod, {Variant(1), Variant()}).ToLong(), 101);
  EXPECT_EQ(g.Invoke("Add", CallKind::kMethod, {Variant(1), Variant(2)}).ToLong(), 3);
}

TEST(Object, VoidMethodsReturnEmpty) {
  Gadget g;
  EXPECT_TRUE(g.Invoke("Touch", CallKind::kMethod).IsEmpty());
  EXPECT_EQ(g.touched_, 1);
}

TEST(Object, GetAndMethodStandInForEachOther) {
  Gadget g;
  g.name_ = "n";
  EXPECT_EQ(g.Invoke("Name", CallKind::kMethod).ToString(), "n");
  EXPECT_EQ(g.Invoke("Add", CallKind::kGet, {Variant(1), Variant(1)}).ToLong(), 2);
  EXPECT_FALSE(g.HasMember("Add", CallKind::kPut));
}

TEST(Object, UnknownMemberIsError438) {
  Gadget g;
  EXPECT_RUNTIME_ERROR(g.Invoke("Nope", CallKind::kGet), err::kMemberNotFound);
  EXPECT_RUNTIME_ERROR(g.Invoke("Touch", CallKind::kPut, {Variant(1)}), err::kMemberNotFound);
  EXPECT_FALSE(g.HasMember("Nope", CallKind::kMethod));
}

TEST(Object, WrongNumberOfArgumentsIsError450) {
  Gadget g;
  EXPECT_RUNTIME_ERROR(g.Invoke("Add", CallKind::kMethod), err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(g.Invoke("Add", CallKind::kMethod, {Variant(1), Variant(2), Variant(3)}),
                       err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(g.Invoke("Name", CallKind::kPut), err::kWrongArgumentCount);
  EXPECT_RUNTIME_ERROR(g.Invoke("Name", CallKind::kGet, {Variant(1)}), err::kWrongArgumentCount);
}

TEST(Object, ArgumentsConvertToTheMembersTypes) {
  Gadget g;
  EXPECT_EQ(g.Invoke("Add", CallKind::kMethod, {Variant("2"), Variant(2.5)}).ToLong(), 4);
  EXPECT_EQ(g.Invoke("Half", CallKind::kMethod, {Variant("9")}).ToDouble(), 4.5);
  g.Invoke("Name", CallKind::kPut, {Variant(3.5)});
  EXPECT_EQ(g.name_, "3.5");
}

TEST(Object, ArgumentOfTheWrongTypeIsError13) {
  Gadget g;
  EXPECT_RUNTIME_ERROR(g.Invoke("Add", CallKind::kMethod, {Variant("abc")}), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(g.Invoke("Name", CallKind::kPut, {Variant(std::make_shared<Gadget>())}),
                       err::kTypeMismatch);
}

TEST(Object, ArgumentOutOfRangeIsError6) {
  Gadget g;
  EXPECT_RUNTIME_ERROR(g.Invoke("Half", CallKind::kMethod, {Variant(40000)}), err::kOverflow);
  EXPECT_RUNTIME_ERROR(g.Invoke("Add", CallKind::kMethod, {Variant(1e12)}), err::kOverflow);
}

TEST(Object, NullArgumentIsError94) {
  Gadget g;
  EXPECT_RUNTIME_ERROR(g.Invoke("Name", CallKind::kPut, {Variant(kNull)}), err::kInvalidUseOfNull);
}

TEST(Object, EventsReachEverySinkInOrder) {
  Gadget g;
  std::vector<std::string> seen;
  g.Advise("Changed", [&](std::vector<Variant>& args) {
    seen.push_back("1:" + args[0].ToString() + ":" + args[1].ToString());
  });
  g.Advise("CHANGED",
           [&](std::vector<Variant>& args) { seen.push_back("2:" + args[0].ToString()); });
  g.Advise("Other", [&](std::vector<Variant>&) { seen.push_back("other"); });
  g.Invoke("Fire", CallKind::kMethod, {Variant("x")});
  EXPECT_EQ(seen, (std::vector<std::string>{"1:x:7", "2:x"}));
}

TEST(Object, SinksMayChangeTheEventArguments) {
  Gadget g;
  g.Advise("Changed", [](std::vector<Variant>& args) { args[0] = Variant("changed"); });
  EXPECT_EQ(g.Invoke("Fire", CallKind::kMethod, {Variant("x")}).ToString(), "changed");
}

TEST(Object, UnadviseStopsDelivery) {
  Gadget g;
  int calls = 0;
  long cookie = g.Advise("Changed", [&](std::vector<Variant>&) { ++calls; });
  g.Invoke("Fire", CallKind::kMethod, {Variant("x")});
  g.Unadvise(cookie);
  g.Invoke("Fire", CallKind::kMethod, {Variant("x")});
  EXPECT_EQ(calls, 1);
}

TEST(Object, ASinkMayUnadviseItselfWhileRunning) {
  Gadget g;
  int calls = 0;
  long cookie = 0;
  cookie = g.Advise("Changed", [&](std::vector<Variant>&) {
    ++calls;
    g.Unadvise(cookie);
  });
  g.Invoke("Fire", CallKind::kMethod, {Variant("x")});
  g.Invoke("Fire", CallKind::kMethod, {Variant("x")});
  EXPECT_EQ(calls, 1);
}

TEST(Registry, CreatesPublicClassesByCaseInsensitiveName) {
  ObjectPtr o = CreateObject("gadget");
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->TypeName(), "Gadget");
  EXPECT_NE(CreateObject("Gadget"), o);  // A new instance each time.
}

TEST(Registry, PrivateClassesAreNotCreatable) {
  EXPECT_RUNTIME_ERROR(CreateObject("HiddenGadget"), err::kCantCreateObject);
  EXPECT_NE(testing::CreatePrivateObject("HiddenGadget"), nullptr);
  EXPECT_NE(testing::CreatePrivateObject("Gadget"), nullptr);
}

TEST(Registry, UnknownClassIsError429) {
  EXPECT_RUNTIME_ERROR(CreateObject("NoSuchClass"), err::kCantCreateObject);
  EXPECT_RUNTIME_ERROR(testing::CreatePrivateObject("NoSuchClass"), err::kCantCreateObject);
}

TEST(Registry, ListsPublicNamesAndOnRequestPrivateOnes) {
  auto contains = [](const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
  };
  EXPECT_TRUE(contains(RegisteredClassNames(), "Gadget"));
  EXPECT_FALSE(contains(RegisteredClassNames(), "HiddenGadget"));
  EXPECT_TRUE(contains(RegisteredClassNames(true), "HiddenGadget"));
}

TEST(CallByName, CallsThroughInvoke) {
  ObjectPtr o = CreateObject("Gadget");
  CallByName(o, "Name", CallKind::kPut, {Variant("via")});
  EXPECT_EQ(CallByName(o, "Name", CallKind::kGet).ToString(), "via");
}

TEST(CallByName, NothingIsError91) {
  EXPECT_RUNTIME_ERROR(CallByName(nullptr, "Name", CallKind::kGet), err::kObjectNotSet);
}

TEST(FromVariant, ObjectParametersAcceptNothingAndCheckTheClass) {
  auto gadget = std::make_shared<Gadget>();
  using GadgetPtr = std::shared_ptr<Gadget>;
  EXPECT_EQ(internal::FromVariant<GadgetPtr>::Convert(Variant()), nullptr);
  EXPECT_EQ(internal::FromVariant<GadgetPtr>::Convert(Variant(ObjectPtr())), nullptr);
  EXPECT_EQ(internal::FromVariant<GadgetPtr>::Convert(Variant(gadget)), gadget);
  EXPECT_RUNTIME_ERROR(internal::FromVariant<GadgetPtr>::Convert(Variant("x")), err::kTypeMismatch);
}

}  // namespace
}  // namespace quillo
