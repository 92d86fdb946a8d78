// Null-safe conversions and the date-time text forms.
#include "records/general_utilities.h"

#include <string>

#include "platform/error.h"
#include "platform/format.h"
#include "platform/text.h"

namespace quillo {
namespace odbc {

bool AsValidDate(const Variant& v, Date* out) {
  if (v.IsNull() || v.IsEmpty() || v.IsObject()) return false;
  if (!v.IsDateValue() && !IsDate(v)) return false;
  try {
    const Date d = v.ToDate();
    if (!IsValidDateValue(d.value)) return false;
    *out = d;
    return true;
  } catch (const RuntimeError&) {
    return false;
  }
}

namespace {
std::string Part(int value, size_t width) {
  return PadLeft(Trim(std::to_string(value)), '0', width);
}
}  // namespace

std::string DatePart(Date d) {
  return Part(Year(d), 4) + "-" + Part(Month(d), 2) + "-" + Part(Day(d), 2);
}

std::string TimePart(Date d) {
  return Part(Hour(d), 2) + ":" + Part(Minute(d), 2) + ":" + Part(Second(d), 2);
}

}  // namespace odbc

namespace {

bool Usable(const Variant& x) { return !x.IsNull() && IsNumeric(x); }

}  // namespace

Variant GeneralUtilities::NCN(const Variant& x) const {
  return Usable(x) ? x : Variant(static_cast<std::int16_t>(0));
}

Variant GeneralUtilities::NCSingle(const Variant& x) const {
  return Variant(Usable(x) ? x.ToSingle() : 0.0f);
}

Variant GeneralUtilities::NCDouble(const Variant& x) const {
  return Variant(Usable(x) ? x.ToDouble() : 0.0);
}

Variant GeneralUtilities::NCLong(const Variant& x) const {
  return Variant(Usable(x) ? x.ToLong() : std::int32_t{0});
}

Variant GeneralUtilities::NCInteger(const Variant& x) const {
  return Variant(Usable(x) ? x.ToInteger() : std::int16_t{0});
}

Currency GeneralUtilities::NCCurrency(const Variant& x) const {
  return Usable(x) ? x.ToCurrency() : Currency{};
}

Variant GeneralUtilities::NCS(const Variant& x) const { return Variant(NCString(x)); }

std::string GeneralUtilities::NCString(const Variant& x) const {
  if (x.IsNull()) return std::string();
  return x.ToString();
}

Date GeneralUtilities::NCDate(const Variant& x) const {
  Date d;
  return odbc::AsValidDate(x, &d) ? d : kZeroDate;
}

Variant GeneralUtilities::NCD(const Variant& x, std::string_view fmt) const {
  Date d;
  if (!odbc::AsValidDate(x, &d)) return Variant(std::string());
  return Variant(FormatDate(d, fmt, 1, 1));
}

std::string GeneralUtilities::MakeODBCDate(const Variant& d) const {
  Date v;
  if (!odbc::AsValidDate(d, &v)) return "NULL";
  return "{d '" + odbc::DatePart(v) + "'}";
}

std::string GeneralUtilities::MakeODBCTime(const Variant& t) const {
  Date v;
  if (!odbc::AsValidDate(t, &v)) return "NULL";
  return "{t '" + odbc::TimePart(v) + "'}";
}

std::string GeneralUtilities::MakeODBCTimeStamp(const Variant& ts) const {
  Date v;
  if (!odbc::AsValidDate(ts, &v)) return "NULL";
  return "{ts '" + odbc::DatePart(v) + " " + odbc::TimePart(v) + "'}";
}

std::string GeneralUtilities::DateTimeToODBC(const Variant& ts) const {
  Date v;
  if (!odbc::AsValidDate(ts, &v)) return "0000-00-00 00:00:00";
  return odbc::DatePart(v) + " " + odbc::TimePart(v);
}

Date GeneralUtilities::ODBCToDateTime(std::string_view s) const {
  try {
    std::string text(s);
    if (size_t q = text.find('\''); q != std::string::npos) text = Trim(text.substr(q + 1));
    if (size_t q = text.find('\''); q != std::string::npos) text = Trim(text.substr(0, q));
    std::string date_part;
    std::string time_part;
    bool has_time = false;
    if (size_t b = text.find(' '); b != std::string::npos) {
      date_part = Trim(text.substr(0, b));
      time_part = Trim(text.substr(b + 1));
      has_time = true;
    } else {
      date_part = Trim(text);
    }
    auto piece = [](const std::string& from, size_t start, size_t length) {
      return static_cast<int>(RoundToInteger(Val(Mid(from, start, length))));
    };
    const int year = piece(date_part, 1, 4);
    const int month = piece(date_part, 6, 2);
    const int day = piece(date_part, 9, 2);
    int hour = 0, minute = 0, second = 0;
    if (has_time) {
      hour = piece(time_part, 1, 2);
      minute = piece(time_part, 4, 2);
      second = piece(time_part, 7, 2);
    }
    return DateFromParts(year, month, day, hour, minute, second);
  } catch (const std::exception&) {
    return kZeroDate;
  }
}

const MemberTable& GeneralUtilities::Members() const {
  using G = GeneralUtilities;
  static const MemberTable table =
      MemberTable::Builder<G>("GeneralUtilities")
          .Method("NCN", [](G& g, Variant x) { return g.NCN(x); })
          .Method("NCSingle", [](G& g, Variant x) { return g.NCSingle(x); })
          .Method("NCDouble", [](G& g, Variant x) { return g.NCDouble(x); })
          .Method("NCLong", [](G& g, Variant x) { return g.NCLong(x); })
          .Method("NCInteger", [](G& g, Variant x) { return g.NCInteger(x); })
          .Method("NCCurrency", [](G& g, Variant x) { return g.NCCurrency(x); })
          .Method("NCS", [](G& g, Variant x) { return g.NCS(x); })
          .Method("NCString", [](G& g, Variant x) { return g.NCString(x); })
          .Method("NCDate", [](G& g, Variant x) { return g.NCDate(x); })
          .Method("NCD", [](G& g, Variant x, std::string fmt) { return g.NCD(x, fmt); })
          .Method("MakeODBCDate", [](G& g, Variant d) { return g.MakeODBCDate(d); })
          .Method("MakeODBCTime", [](G& g, Variant t) { return g.MakeODBCTime(t); })
          .Method("MakeODBCTimeStamp", [](G& g, Variant ts) { return g.MakeODBCTimeStamp(ts); })
          .Method("DateTimeToODBC", [](G& g, Variant ts) { return g.DateTimeToODBC(ts); })
          .Method("ODBCToDateTime", [](G& g, std::string s) { return g.ODBCToDateTime(s); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(GeneralUtilities, Creatable::kPrivate);

Variant NullToText(const Variant& x) { return Variant(x.IsNull() ? std::string() : x.ToString()); }

Variant DateToODBCLiteral(const Variant& x) {
  std::string result = "{d ''}";  // Overwritten below whatever the value is.
  std::string text;
  Date d;
  if (odbc::AsValidDate(x, &d)) {
    text = FormatDate(d, "mm/dd/yyyy");
  } else if (x.IsNumberKind() && IsValidDateValue(x.ToDouble())) {
    text = FormatDate(Date(x.ToDouble()), "mm/dd/yyyy");
  } else if (!x.IsNull()) {
    text = x.ToString();
  }
  result = "{d '" + Mid(text, 7, 4) + "-" + Mid(text, 1, 2) + "-" + Mid(text, 4, 2) + "'}";
  return Variant(result);
}

}  // namespace quillo
