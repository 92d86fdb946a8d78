// Variant: the one value type for everything that crosses a by-name call or a
// database field, with the classic automation conversion rules.
//
// Kinds: Empty, Null, Integer (16-bit), Long (32-bit), Single, Double,
// Currency (64-bit, four implied decimals), Date, String (bytes), Boolean and
// Object (a shared reference; a null reference is "Nothing").
//
// Conversions: integer conversions round half to even and raise error 6 on
// overflow; text that does not read as the target raises error 13; Null raises
// error 94 wherever a value is needed. Numbers become text in two ways: CStr
// ("0.5", "-2", "1E+20") and Str (" .5", "-.5", a blank before a non-negative
// number). Thread-safety: a Variant is a value; distinct Variants may be used
// from distinct threads.
#ifndef QUILLO_PLATFORM_VARIANT_H_
#define QUILLO_PLATFORM_VARIANT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "platform/date.h"

namespace quillo {

class Object;
using ObjectPtr = std::shared_ptr<Object>;

// The kinds of value a Variant holds, numbered as the automation type codes.
enum class VarType : int {
  kEmpty = 0,
  kNull = 1,
  kInteger = 2,
  kLong = 3,
  kSingle = 4,
  kDouble = 5,
  kCurrency = 6,
  kDate = 7,
  kString = 8,
  kObject = 9,
  kBoolean = 11,
};

// The database and automation Null.
struct NullValue {
  friend constexpr bool operator==(NullValue, NullValue) { return true; }
};
inline constexpr NullValue kNull{};

// A fixed-point amount with four implied decimals (value * 10000).
struct Currency {
  std::int64_t scaled = 0;  // The amount times 10,000.

  // Rounds `value` to four decimals, half to even; error 6 when out of range.
  static Currency FromDouble(double value);
  double ToDouble() const { return static_cast<double>(scaled) / 10000.0; }
  friend constexpr auto operator<=>(Currency, Currency) = default;
};

class Variant {
 public:
  Variant() = default;  // Empty.
  Variant(NullValue) : v_(kNull) {}
  Variant(std::int16_t x) : v_(x) {}
  Variant(std::int32_t x) : v_(x) {}
  Variant(long x);  // Long when it fits 32 bits, else Double.
  Variant(long long x) : Variant(static_cast<long>(x)) {}
  Variant(float x) : v_(x) {}
  Variant(double x) : v_(x) {}
  Variant(Currency x) : v_(x) {}
  Variant(Date x) : v_(x) {}
  Variant(std::string x) : v_(std::move(x)) {}
  Variant(std::string_view x) : v_(std::string(x)) {}
  Variant(const char* x) : v_(std::string(x)) {}
  Variant(bool x) : v_(x) {}
  Variant(ObjectPtr x) : v_(std::move(x)) {}
  template <class T,
            class = std::enable_if_t<std::is_base_of_v<Object, T> && !std::is_same_v<T, Object>>>
  Variant(std::shared_ptr<T> x) : v_(ObjectPtr(std::move(x))) {}

  // The kind of value held.
  VarType Type() const;
  bool IsEmpty() const { return v_.index() == 0; }
  bool IsNull() const { return std::holds_alternative<NullValue>(v_); }
  bool IsString() const { return std::holds_alternative<std::string>(v_); }
  bool IsObject() const { return std::holds_alternative<ObjectPtr>(v_); }
  bool IsDateValue() const { return std::holds_alternative<Date>(v_); }
  // True for Integer, Long, Single, Double, Currency and Boolean values.
  bool IsNumberKind() const;

  // Makes this a String holding `text`, reusing the memory of a string
  // already held.
  void AssignText(std::string_view text) {
    if (auto* s = std::get_if<std::string>(&v_)) {
      s->assign(text);
    } else {
      v_.emplace<std::string>(text);
    }
  }

  // The held string, object or date; REQUIRES: the matching kind.
  const std::string& StringRef() const { return std::get<std::string>(v_); }
  const ObjectPtr& ObjectRef() const { return std::get<ObjectPtr>(v_); }

  // Classic conversions (CInt, CLng, CSng, CDbl, CCur, CDate, CStr, CBool).
  std::int16_t ToInteger() const;
  std::int32_t ToLong() const;
  float ToSingle() const;
  double ToDouble() const;
  Currency ToCurrency() const;
  Date ToDate() const;
  std::string ToString() const;
  bool ToBool() const;
  // The object held; Empty gives Nothing (null); any other kind raises 13.
  ObjectPtr ToObject() const;

  friend bool operator==(const Variant& a, const Variant& b) { return a.v_ == b.v_; }

 private:
  using Storage = std::variant<std::monostate, NullValue, std::int16_t, std::int32_t, float, double,
                               Currency, Date, std::string, bool, ObjectPtr>;
  Storage v_;
};

// True when `v` is a number, Empty, a Boolean, or text that reads as a number
// ("12.5", " 3 ", "1e3", "&H10"); false for Null, dates, objects, "", "3a".
bool IsNumeric(const Variant& v);

// True when `v` is a date or text that reads as a date.
bool IsDate(const Variant& v);

// Parses text that reads as a number as a whole; nullopt otherwise.
std::optional<double> ParseNumber(std::string_view text);

// The number at the start of `text`, ignoring blanks, tabs and line feeds
// anywhere: "12abc" -> 12, "abc" -> 0, " 1 2" -> 12, "&H10" -> 16.
double Val(std::string_view text);

// Number to text as CStr writes it: 15 significant digits, "0.5", "-2", "1E+20".
std::string CStrNumber(double value);
// Single-precision number to text: 7 significant digits.
std::string CStrSingle(float value);
// Currency to text: up to four decimals, no trailing zeros.
std::string CStrCurrency(Currency value);

// Number to text as Str writes it: no leading zero and a leading blank before
// a non-negative number (" 3.5", " .5", "-.5").
std::string Str(const Variant& v);

// Rounds half to even and checks the range of a 16- or 32-bit integer
// (error 6 when outside).
std::int16_t RoundToInteger(double value);
std::int32_t RoundToLong(double value);

// The automation type name of the value ("String", "Long", ...).
std::string TypeName(const Variant& v);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_VARIANT_H_
