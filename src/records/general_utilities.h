// GeneralUtilities: null-safe conversion of database field values into typed
// values, and the text forms of date-times (ODBC escape literals for SQL,
// "yyyy-mm-dd hh:nn:ss" for XML, and parsing them back).
//
// Each NC* conversion maps a Null or unsuitable value to a fixed default and
// never raises for it. The class is stateless and private to the library; the
// free functions NullToText and DateToODBCLiteral are the campaign engine's
// own shorthands. Thread-safety: stateless; safe from any thread.
#ifndef QUILLO_RECORDS_GENERAL_UTILITIES_H_
#define QUILLO_RECORDS_GENERAL_UTILITIES_H_

#include <string>
#include <string_view>

#include "platform/date.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

class GeneralUtilities : public Object {
 public:
  // `x` unchanged when numeric, else Integer 0.
  Variant NCN(const Variant& x) const;
  // `x` as a Single when numeric, else Single 0.
  Variant NCSingle(const Variant& x) const;
  // `x` as a Double when numeric, else Double 0.
  Variant NCDouble(const Variant& x) const;
  // `x` rounded (half to even) to a Long when numeric, else Long 0.
  Variant NCLong(const Variant& x) const;
  // `x` rounded (half to even) to an Integer when numeric, else Integer 0.
  Variant NCInteger(const Variant& x) const;
  // `x` as Currency when numeric, else 0.
  Currency NCCurrency(const Variant& x) const;
  // The text form of `x` as a String Variant; "" for Null.
  Variant NCS(const Variant& x) const;
  // The text form of `x`; "" for Null.
  std::string NCString(const Variant& x) const;
  // `x` as a date when it is a valid date, else the zero date.
  Date NCDate(const Variant& x) const;
  // `x` formatted with `fmt` when it is a valid date, else "".
  Variant NCD(const Variant& x, std::string_view fmt) const;
  // {d 'yyyy-mm-dd'}, or "NULL" when `d` is not a valid date.
  std::string MakeODBCDate(const Variant& d) const;
  // {t 'hh:nn:ss'}, or "NULL".
  std::string MakeODBCTime(const Variant& t) const;
  // {ts 'yyyy-mm-dd hh:nn:ss'}, or "NULL".
  std::string MakeODBCTimeStamp(const Variant& ts) const;
  // yyyy-mm-dd hh:nn:ss, or "0000-00-00 00:00:00" when not a valid date.
  std::string DateTimeToODBC(const Variant& ts) const;
  // Parses any of the forms above back into a date-time; the zero date when
  // the text cannot be read.
  Date ODBCToDateTime(std::string_view s) const;

  const MemberTable& Members() const override;
};

// The empty text joined with `x` (Null gives "").
Variant NullToText(const Variant& x);
// {d 'yyyy-mm-dd'}, cut from the "mm/dd/yyyy" text form of `x`.
Variant DateToODBCLiteral(const Variant& x);

namespace odbc {
// The literal parts shared by GeneralUtilities and SQLStatement, for a valid
// date `d`: "yyyy-mm-dd", "hh:nn:ss".
std::string DatePart(Date d);
std::string TimePart(Date d);
// True when `v` holds or reads as a valid date; stores it in *out.
bool AsValidDate(const Variant& v, Date* out);
}  // namespace odbc

}  // namespace quillo

#endif  // QUILLO_RECORDS_GENERAL_UTILITIES_H_
