#include "quillo/quillo_test_class.h"

#include <utility>
#include <vector>

#include "platform/error.h"

namespace quillo {

const MemberTable& QuilloTestClass::Members() const {
  using T = QuilloTestClass;
  static const MemberTable table =
      MemberTable::Builder<T>("QuilloTestClass")
          .Get("Text", [](T& o) { return o.Text(); })
          .Put("Text", [](T& o, std::string v) { o.Text(std::move(v)); })
          .Get("Count", [](T& o) { return o.Count(); })
          .Put("Count", [](T& o, std::int32_t v) { o.Count(v); })
          .Get("Small", [](T& o) { return o.Small(); })
          .Put("Small", [](T& o, std::int16_t v) { o.Small(v); })
          .Get("Ratio", [](T& o) { return o.Ratio(); })
          .Put("Ratio", [](T& o, float v) { o.Ratio(v); })
          .Get("Amount", [](T& o) { return o.Amount(); })
          .Put("Amount", [](T& o, double v) { o.Amount(v); })
          .Get("Money", [](T& o) { return o.Money(); })
          .Put("Money", [](T& o, Currency v) { o.Money(v); })
          .Get("When", [](T& o) { return o.When(); })
          .Put("When", [](T& o, Date v) { o.When(v); })
          .Get("Flag", [](T& o) { return o.Flag(); })
          .Put("Flag", [](T& o, bool v) { o.Flag(v); })
          .Get("Child", [](T& o) { return o.Child(); })
          .Put("Child", [](T& o, ObjectPtr v) { o.Child(std::move(v)); })
          .Method("Describe",
                  [](T& o, std::string first, std::optional<std::int32_t> second,
                     std::optional<std::string> third) { return o.Describe(first, second, third); })
          .Method("RaiseError",
                  [](T& o, std::int32_t number, std::optional<std::string> description) {
                    o.RaiseError(number, std::move(description));
                  })
          .Method("Echo", [](T& o, Variant v) { return o.Echo(v); })
          .Method("CallGenerator", [](T& o, ObjectPtr gen) { return o.CallGenerator(gen); })
          .Get("Items", [](T& o) { return o.Items(); })
          .Method("RaisePing",
                  [](T& o, std::string message, std::int32_t n) { o.RaisePing(message, n); })
          .Build();
  return table;
}

std::string QuilloTestClass::Describe(const std::string& first, std::optional<std::int32_t> second,
                                      std::optional<std::string> third) const {
  return first + "|" + std::to_string(second.value_or(2)) + "|" + third.value_or("none");
}

void QuilloTestClass::RaiseError(std::int32_t number,
                                 std::optional<std::string> description) const {
  Raise(number, description.value_or(std::string()));
}

std::string QuilloTestClass::CallGenerator(const ObjectPtr& generator) const {
  return CallByName(generator, "GetNextRecordID", CallKind::kMethod).ToString();
}

std::shared_ptr<Collection<std::string>> QuilloTestClass::Items() {
  EnsureCollection(items_);
  return items_;
}

void QuilloTestClass::RaisePing(const std::string& message, std::int32_t n) {
  std::vector<Variant> args{Variant(message), Variant(n)};
  FireEvent("Ping", args);
}

const MemberTable& QuilloPrivateTestClass::Members() const {
  using T = QuilloPrivateTestClass;
  static const MemberTable table =
      MemberTable::Builder<T>("QuilloPrivateTestClass")
          .Get("Value", [](T& o) { return o.Value(); })
          .Put("Value", [](T& o, std::string v) { o.Value(std::move(v)); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(QuilloTestClass, quillo::Creatable::kPublic);
QUILLO_REGISTER_CLASS(QuilloPrivateTestClass, quillo::Creatable::kPrivate);

}  // namespace quillo
