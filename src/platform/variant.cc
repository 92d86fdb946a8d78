#include "platform/variant.h"

#include <locale.h>

#include <cfenv>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "platform/date.h"
#include "platform/error.h"
#include "platform/format.h"

namespace quillo {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

// Reads "&H.." / "&O.." radix literals; nullopt when `s` is not one.
std::optional<double> ParseRadix(std::string_view s) {
  if (s.size() < 3 || s[0] != '&') return std::nullopt;
  int base = 0;
  if (s[1] == 'H' || s[1] == 'h') base = 16;
  if (s[1] == 'O' || s[1] == 'o') base = 8;
  if (base == 0) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : s.substr(2)) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return std::nullopt;
    }
    if (digit >= base) return std::nullopt;
    value = value * base + digit;
    if (value > 0xFFFFFFFFull) Raise(err::kOverflow);
  }
  // Up to four hex digits read as a 16-bit value, more as a 32-bit value.
  if (value <= 0xFFFF && s.size() - 2 <= (base == 16 ? 4u : 6u)) {
    return static_cast<double>(static_cast<std::int16_t>(static_cast<std::uint16_t>(value)));
  }
  return static_cast<double>(static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
}

// Length of the decimal number (sign, digits, point, exponent) at the start
// of `s`, 0 when there is none.
size_t ScanDecimal(std::string_view s) {
  size_t i = 0;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  size_t digits = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
  if (i < s.size() && s[i] == '.') {
    ++i;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
  }
  if (digits == 0) return 0;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E' || s[i] == 'd' || s[i] == 'D')) {
    size_t j = i + 1;
    if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
    size_t exp_digits = 0;
    while (j < s.size() && s[j] >= '0' && s[j] <= '9') ++j, ++exp_digits;
    if (exp_digits > 0) i = j;
  }
  return i;
}

double ToDoubleChecked(std::string_view number) {
  std::string text(number);
  for (char& c : text) {
    if (c == 'd' || c == 'D') c = 'e';
  }
  // Always "." as the point, whatever LC_NUMERIC the host has set.
  static const locale_t c_locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  double value = ::strtod_l(text.c_str(), nullptr, c_locale);
  if (std::isinf(value)) Raise(err::kOverflow);
  return value;
}

// Writes `value` with `digits` significant digits in the classic form:
// fixed notation for moderate exponents, "1.5E-07" / "1E+20" beyond them.
std::string FormatSignificant(double value, int digits) {
  if (value == 0) return "0";
  if (std::isnan(value)) return "NaN";
  // to_chars, unlike printf, never follows the host's LC_NUMERIC.
  char buf[64];
  auto written =
      std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific, digits - 1);
  // buf = [-]d.ddddde[+-]xx
  std::string s(buf, written.ptr);
  size_t e = s.find('e');
  int exponent = std::atoi(s.c_str() + e + 1);
  std::string mantissa = s.substr(0, e);
  bool negative = mantissa[0] == '-';
  if (negative) mantissa.erase(0, 1);
  std::string all_digits;
  for (char c : mantissa) {
    if (c != '.') all_digits += c;
  }
  while (all_digits.size() > 1 && all_digits.back() == '0') all_digits.pop_back();
  std::string out;
  if (exponent >= digits || exponent < -5) {
    out = all_digits.substr(0, 1);
    if (all_digits.size() > 1) out.append(".").append(all_digits, 1);
    char exp_text[16];
    std::snprintf(exp_text, sizeof exp_text, "E%c%02d", exponent < 0 ? '-' : '+',
                  std::abs(exponent));
    out += exp_text;
  } else if (exponent < 0) {
    out.assign("0.").append(static_cast<size_t>(-exponent - 1), '0').append(all_digits);
  } else {
    size_t int_len = static_cast<size_t>(exponent) + 1;
    if (all_digits.size() <= int_len) {
      out = all_digits + std::string(int_len - all_digits.size(), '0');
    } else {
      out.assign(all_digits, 0, int_len).append(".").append(all_digits, int_len);
    }
  }
  return negative ? "-" + out : out;
}

[[noreturn]] void TypeMismatch() { Raise(err::kTypeMismatch); }
[[noreturn]] void InvalidUseOfNull() { Raise(err::kInvalidUseOfNull); }

}  // namespace

Currency Currency::FromDouble(double value) {
  double scaled = std::nearbyint(value * 10000.0);
  if (!(scaled >= -9.2233720368547758e18 && scaled < 9.2233720368547758e18)) Raise(err::kOverflow);
  return Currency{static_cast<std::int64_t>(scaled)};
}

Variant::Variant(long x) {
  if (x >= std::numeric_limits<std::int32_t>::min() &&
      x <= std::numeric_limits<std::int32_t>::max()) {
    v_ = static_cast<std::int32_t>(x);
  } else {
    v_ = static_cast<double>(x);
  }
}

VarType Variant::Type() const {
  static constexpr VarType kTypes[] = {VarType::kEmpty,    VarType::kNull,   VarType::kInteger,
                                       VarType::kLong,     VarType::kSingle, VarType::kDouble,
                                       VarType::kCurrency, VarType::kDate,   VarType::kString,
                                       VarType::kBoolean,  VarType::kObject};
  return kTypes[v_.index()];
}

bool Variant::IsNumberKind() const {
  switch (Type()) {
    case VarType::kInteger:
    case VarType::kLong:
    case VarType::kSingle:
    case VarType::kDouble:
    case VarType::kCurrency:
    case VarType::kBoolean:
      return true;
    default:
      return false;
  }
}

std::int16_t RoundToInteger(double value) {
  double r = std::nearbyint(value);
  if (!(r >= -32768.0 && r <= 32767.0)) Raise(err::kOverflow);
  return static_cast<std::int16_t>(r);
}

std::int32_t RoundToLong(double value) {
  double r = std::nearbyint(value);
  if (!(r >= -2147483648.0 && r <= 2147483647.0)) Raise(err::kOverflow);
  return static_cast<std::int32_t>(r);
}

double Variant::ToDouble() const {
  switch (Type()) {
    case VarType::kEmpty:
      return 0;
    case VarType::kNull:
      InvalidUseOfNull();
    case VarType::kInteger:
      return std::get<std::int16_t>(v_);
    case VarType::kLong:
      return std::get<std::int32_t>(v_);
    case VarType::kSingle:
      return std::get<float>(v_);
    case VarType::kDouble:
      return std::get<double>(v_);
    case VarType::kCurrency:
      return std::get<Currency>(v_).ToDouble();
    case VarType::kDate:
      return std::get<Date>(v_).value;
    case VarType::kBoolean:
      return std::get<bool>(v_) ? -1.0 : 0.0;
    case VarType::kString: {
      auto number = ParseNumber(std::get<std::string>(v_));
      if (!number) TypeMismatch();
      return *number;
    }
    case VarType::kObject:
      TypeMismatch();
  }
  TypeMismatch();
}

std::int16_t Variant::ToInteger() const {
  if (auto* i = std::get_if<std::int16_t>(&v_)) return *i;
  return RoundToInteger(ToDouble());
}

std::int32_t Variant::ToLong() const {
  if (auto* i = std::get_if<std::int32_t>(&v_)) return *i;
  if (auto* i = std::get_if<std::int16_t>(&v_)) return *i;
  return RoundToLong(ToDouble());
}

float Variant::ToSingle() const {
  if (auto* f = std::get_if<float>(&v_)) return *f;
  double d = ToDouble();
  if (std::fabs(d) > std::numeric_limits<float>::max()) Raise(err::kOverflow);
  return static_cast<float>(d);
}

Currency Variant::ToCurrency() const {
  if (auto* c = std::get_if<Currency>(&v_)) return *c;
  return Currency::FromDouble(ToDouble());
}

Date Variant::ToDate() const {
  switch (Type()) {
    case VarType::kDate:
      return std::get<Date>(v_);
    case VarType::kString: {
      Date d;
      if (TryParseDate(std::get<std::string>(v_), &d)) return d;
      auto number = ParseNumber(std::get<std::string>(v_));
      if (!number) TypeMismatch();
      if (!IsValidDateValue(*number)) Raise(err::kOverflow);
      return Date(*number);
    }
    case VarType::kNull:
      InvalidUseOfNull();
    case VarType::kObject:
      TypeMismatch();
    default: {
      double value = ToDouble();
      if (!IsValidDateValue(value)) Raise(err::kOverflow);
      return Date(value);
    }
  }
}

std::string Variant::ToString() const {
  switch (Type()) {
    case VarType::kEmpty:
      return {};
    case VarType::kNull:
      InvalidUseOfNull();
    case VarType::kInteger:
      return std::to_string(std::get<std::int16_t>(v_));
    case VarType::kLong:
      return std::to_string(std::get<std::int32_t>(v_));
    case VarType::kSingle:
      return CStrSingle(std::get<float>(v_));
    case VarType::kDouble:
      return CStrNumber(std::get<double>(v_));
    case VarType::kCurrency:
      return CStrCurrency(std::get<Currency>(v_));
    case VarType::kDate:
      return FormatDate(std::get<Date>(v_), "General Date");
    case VarType::kString:
      return std::get<std::string>(v_);
    case VarType::kBoolean:
      return std::get<bool>(v_) ? "True" : "False";
    case VarType::kObject:
      TypeMismatch();
  }
  TypeMismatch();
}

bool Variant::ToBool() const {
  switch (Type()) {
    case VarType::kBoolean:
      return std::get<bool>(v_);
    case VarType::kString: {
      const std::string& s = std::get<std::string>(v_);
      std::string_view t = TrimBlanks(s);
      auto equals = [&](std::string_view word) {
        if (t.size() != word.size()) return false;
        for (size_t i = 0; i < t.size(); ++i) {
          char c = t[i];
          if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
          if (c != word[i]) return false;
        }
        return true;
      };
      if (equals("true")) return true;
      if (equals("false")) return false;
      return ToDouble() != 0;
    }
    default:
      return ToDouble() != 0;
  }
}

ObjectPtr Variant::ToObject() const {
  if (IsEmpty()) return nullptr;
  if (auto* o = std::get_if<ObjectPtr>(&v_)) return *o;
  TypeMismatch();
}

std::optional<double> ParseNumber(std::string_view text) {
  std::string_view s = TrimBlanks(text);
  if (s.empty()) return std::nullopt;
  if (s[0] == '&') return ParseRadix(s);
  size_t n = ScanDecimal(s);
  if (n == 0 || n != s.size()) return std::nullopt;
  return ToDoubleChecked(s);
}

bool IsNumeric(const Variant& v) {
  switch (v.Type()) {
    case VarType::kEmpty:
      return true;
    case VarType::kString:
      try {
        return ParseNumber(v.StringRef()).has_value();
      } catch (const RuntimeError&) {
        return false;
      }
    case VarType::kNull:
    case VarType::kDate:
    case VarType::kObject:
      return false;
    default:
      return true;
  }
}

bool IsDate(const Variant& v) {
  if (v.IsDateValue()) return true;
  if (!v.IsString()) return false;
  Date d;
  return TryParseDate(v.StringRef(), &d);
}

double Val(std::string_view text) {
  std::string compact;
  compact.reserve(text.size());
  for (char c : text) {
    if (!IsBlank(c)) compact += c;
  }
  std::string_view s = compact;
  if (s.size() >= 2 && s[0] == '&') {
    // The literal ends at the first character that is not a digit of its
    // radix: Val("&O19") reads "&O1".
    bool octal = s[1] == 'O' || s[1] == 'o';
    auto is_digit = [octal](char c) {
      if (octal) return c >= '0' && c <= '7';
      return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    size_t end = 2;
    while (end < s.size() && is_digit(s[end])) ++end;
    try {
      auto radix = ParseRadix(s.substr(0, end));
      return radix ? *radix : 0.0;
    } catch (const RuntimeError&) {
      return 0.0;
    }
  }
  size_t n = ScanDecimal(s);
  if (n == 0) return 0.0;
  return ToDoubleChecked(s.substr(0, n));
}

std::string CStrNumber(double value) { return FormatSignificant(value, 15); }

std::string CStrSingle(float value) { return FormatSignificant(static_cast<double>(value), 7); }

std::string CStrCurrency(Currency value) {
  std::int64_t scaled = value.scaled;
  bool negative = scaled < 0;
  std::uint64_t magnitude =
      negative ? static_cast<std::uint64_t>(-(scaled + 1)) + 1 : static_cast<std::uint64_t>(scaled);
  std::string out = std::to_string(magnitude / 10000);
  std::uint64_t fraction = magnitude % 10000;
  if (fraction != 0) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04u", static_cast<unsigned>(fraction));
    std::string f(buf);
    while (f.back() == '0') f.pop_back();
    out += "." + f;
  }
  return negative ? "-" + out : out;
}

std::string Str(const Variant& v) {
  if (v.IsNull()) return {};
  std::string text;
  switch (v.Type()) {
    case VarType::kString:
    case VarType::kDate:
      return v.ToString();
    default:
      text = v.ToString();
  }
  if (v.Type() == VarType::kBoolean) text = std::to_string(v.ToInteger());
  // Str drops the zero before the decimal point.
  if (text.rfind("0.", 0) == 0) {
    text.erase(0, 1);
  } else if (text.rfind("-0.", 0) == 0) {
    text.erase(1, 1);
  }
  if (text.empty() || text[0] != '-') text.insert(text.begin(), ' ');
  return text;
}

std::string TypeName(const Variant& v) {
  switch (v.Type()) {
    case VarType::kEmpty:
      return "Empty";
    case VarType::kNull:
      return "Null";
    case VarType::kInteger:
      return "Integer";
    case VarType::kLong:
      return "Long";
    case VarType::kSingle:
      return "Single";
    case VarType::kDouble:
      return "Double";
    case VarType::kCurrency:
      return "Currency";
    case VarType::kDate:
      return "Date";
    case VarType::kString:
      return "String";
    case VarType::kBoolean:
      return "Boolean";
    case VarType::kObject:
      return v.ObjectRef() ? "Object" : "Nothing";
  }
  return "Unknown";
}

}  // namespace quillo
