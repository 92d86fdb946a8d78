// QuilloTestClass: a small public class that exercises the whole by-name
// object model, for the C++ and Python test suites and for host authors who
// want to see every value kind cross the boundary.
//
// It has a property of every value kind, a method with optional arguments, a
// method that raises a chosen error, Echo (returns its argument unchanged),
// CallGenerator (calls GetNextRecordID by name on an object a host supplies,
// as the record classes do with an identifier generator), a collection
// property and the event Ping. QuilloPrivateTestClass is its non-creatable
// twin, reachable only through testing::CreatePrivateObject.
// Thread-safety: none; one thread uses an instance.
#ifndef QUILLO_QUILLO_QUILLO_TEST_CLASS_H_
#define QUILLO_QUILLO_QUILLO_TEST_CLASS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/collection.h"
#include "platform/date.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

class QuilloTestClass : public Object {
 public:
  QuilloTestClass() = default;

  const MemberTable& Members() const override;

  // String property.
  const std::string& Text() const { return text_; }
  void Text(std::string value) { text_ = std::move(value); }
  // Long property.
  std::int32_t Count() const { return count_; }
  void Count(std::int32_t value) { count_ = value; }
  // Integer property.
  std::int16_t Small() const { return small_; }
  void Small(std::int16_t value) { small_ = value; }
  // Single property.
  float Ratio() const { return ratio_; }
  void Ratio(float value) { ratio_ = value; }
  // Double property.
  double Amount() const { return amount_; }
  void Amount(double value) { amount_ = value; }
  // Currency property.
  Currency Money() const { return money_; }
  void Money(Currency value) { money_ = value; }
  // Date property.
  Date When() const { return when_; }
  void When(Date value) { when_ = value; }
  // Boolean property.
  bool Flag() const { return flag_; }
  void Flag(bool value) { flag_ = value; }
  // Object property; Nothing (null) until set.
  const ObjectPtr& Child() const { return child_; }
  void Child(ObjectPtr value) { child_ = std::move(value); }

  // Joins its arguments as "first|second|third"; a left-out `second` counts
  // as 2 and a left-out `third` as "none".
  std::string Describe(const std::string& first, std::optional<std::int32_t> second,
                       std::optional<std::string> third) const;

  // Raises run-time error `number` with `description` (the standard text when
  // left out).
  [[noreturn]] void RaiseError(std::int32_t number, std::optional<std::string> description) const;

  // Returns `value` unchanged, whatever its kind.
  Variant Echo(const Variant& value) const { return value; }

  // Calls GetNextRecordID by name on `generator` and returns the result as
  // text. Error 91 when `generator` is Nothing.
  std::string CallGenerator(const ObjectPtr& generator) const;

  // The list of texts, created empty on first use.
  std::shared_ptr<Collection<std::string>> Items();

  // Raises the event Ping(message, n).
  void RaisePing(const std::string& message, std::int32_t n);

 private:
  std::string text_;
  std::int32_t count_ = 0;
  std::int16_t small_ = 0;
  float ratio_ = 0;
  double amount_ = 0;
  Currency money_;
  Date when_;
  bool flag_ = false;
  ObjectPtr child_;
  std::shared_ptr<Collection<std::string>> items_;  // Created on first use.
};

// A non-creatable class for the registry's private path: one property Value.
class QuilloPrivateTestClass : public Object {
 public:
  const MemberTable& Members() const override;

  // Text property.
  const std::string& Value() const { return value_; }
  void Value(std::string value) { value_ = std::move(value); }

 private:
  std::string value_;
};

}  // namespace quillo

#endif  // QUILLO_QUILLO_QUILLO_TEST_CLASS_H_
