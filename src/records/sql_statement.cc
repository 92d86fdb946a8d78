// The SQL statement builder.
#include "records/sql_statement.h"

#include <utility>

#include "platform/error.h"
#include "platform/text.h"
#include "records/general_utilities.h"

namespace quillo {
namespace {

// `text` between single quotes, as an SQL literal (text is already escaped).
// Built by appending: "'" + std::string&& sets off a false -Wrestrict
// warning in GCC 12's libstdc++ at -O3 (GCC bug 105329).
std::string Quoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '\'';
  out += text;
  out += '\'';
  return out;
}

// The number as Str writes it, trimmed; "0" for Null or a value that is not
// numeric. `convert` turns a usable value into the setter's own type.
template <class Convert>
std::string NumberLiteral(const Variant& value, Convert convert) {
  if (value.IsNull() || !IsNumeric(value)) return "0";
  return Trim(Str(convert(value)));
}

}  // namespace

const MemberTable& SQLFieldNameValues::Members() const {
  using F = SQLFieldNameValues;
  static const MemberTable table =
      MemberTable::Builder<F>("SQLFieldNameValues")
          .Get("FieldName", [](F& f) { return f.FieldName(); })
          .Put("FieldName", [](F& f, std::string v) { f.FieldName(std::move(v)); })
          .Get("FieldValue", [](F& f) { return f.FieldValue(); })
          .Put("FieldValue", [](F& f, std::string v) { f.FieldValue(std::move(v)); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(SQLFieldNameValues, Creatable::kPrivate);

SQLStatement::~SQLStatement() { connection_.reset(); }

void SQLStatement::Sql(std::string_view template_text) {
  template_ = Trim(template_text);
  const std::string head = Left(template_, 6);
  if (EqualsIgnoreCase(head, "INSERT")) {
    kind_ = kInsert;
  } else if (EqualsIgnoreCase(head, "UPDATE")) {
    kind_ = kUpdate;
  } else {
    kind_ = kOther;
  }
  ClearFields();
}

std::string SQLStatement::Sql() const {
  // Replaces the first "?" of `text` by `list`; raises 5 when there is none.
  auto replace_first = [](const std::string& text, const std::string& list) {
    const size_t at = text.find('?');
    if (at == std::string::npos) Raise(err::kInvalidProcedureCall);
    return text.substr(0, at) + list + text.substr(at + 1);
  };
  if (kind_ == kInsert) return replace_first(replace_first(template_, FieldNames()), FieldValues());
  if (kind_ == kUpdate) {
    if (template_.find('?') == std::string::npos) return template_;
    std::string items;
    if (fields_) {
      bool first = true;
      for (const auto& f : *fields_) {
        if (!first) items += ", ";
        first = false;
        items += f->FieldName() + " = " + f->FieldValue();
      }
    }
    return replace_first(template_, items);
  }
  return template_;
}

std::string SQLStatement::FieldNames() const { return JoinFields(true); }

std::string SQLStatement::FieldValues() const { return JoinFields(false); }

std::string SQLStatement::JoinFields(bool names) const {
  std::string joined;
  bool first = true;
  if (fields_) {
    for (const auto& f : *fields_) {
      if (!first) joined += ", ";
      first = false;
      joined += names ? f->FieldName() : f->FieldValue();
    }
  }
  return joined;
}

std::shared_ptr<::quillo::Connection> SQLStatement::Connection() {
  if (!connection_) connection_ = std::make_shared<::quillo::Connection>();
  return connection_;
}

void SQLStatement::Connection(std::shared_ptr<::quillo::Connection> connection) {
  connection_ = std::move(connection);
}

Collection<std::shared_ptr<SQLFieldNameValues>>& SQLStatement::FieldList() {
  return EnsureCollection(fields_);
}

void SQLStatement::SetFieldValue(std::string_view fld, std::string value) {
  for (auto& f : FieldList()) {
    if (EqualsIgnoreCase(f->FieldName(), fld)) {
      f->FieldValue(std::move(value));
      return;
    }
  }
  auto entry = std::make_shared<SQLFieldNameValues>();
  entry->FieldName(std::string(fld));
  entry->FieldValue(std::move(value));
  FieldList().Add(std::move(entry));
}

void SQLStatement::SetInteger(std::string_view fld, const Variant& value) {
  SetFieldValue(fld, NumberLiteral(value, [](const Variant& v) { return Variant(v.ToInteger()); }));
}

void SQLStatement::SetLong(std::string_view fld, const Variant& value) {
  SetFieldValue(fld, NumberLiteral(value, [](const Variant& v) { return Variant(v.ToLong()); }));
}

void SQLStatement::SetSingle(std::string_view fld, const Variant& value) {
  SetFieldValue(fld, NumberLiteral(value, [](const Variant& v) { return Variant(v.ToSingle()); }));
}

void SQLStatement::SetDouble(std::string_view fld, const Variant& value) {
  SetFieldValue(fld, NumberLiteral(value, [](const Variant& v) { return Variant(v.ToDouble()); }));
}

void SQLStatement::SetCurrency(std::string_view fld, const Variant& value) {
  SetFieldValue(fld,
                NumberLiteral(value, [](const Variant& v) { return Variant(v.ToCurrency()); }));
}

void SQLStatement::SetString(std::string_view fld, std::string_view value) {
  SetFieldValue(fld, Quoted(VerifyString(value)));
}

void SQLStatement::SetStringNZ(std::string_view fld, std::string_view value) {
  if (Trim(value).empty()) {
    SetFieldValue(fld, "NULL");
  } else {
    SetFieldValue(fld, Quoted(VerifyString(value)));
  }
}

void SQLStatement::SetVariant(std::string_view fld, const Variant& value) {
  switch (value.Type()) {
    case VarType::kString:
      SetFieldValue(fld, Quoted(Trim(VerifyString(value.StringRef()))));
      break;
    case VarType::kInteger:
    case VarType::kLong:
    case VarType::kSingle:
    case VarType::kDouble:
    case VarType::kCurrency:
      SetFieldValue(fld, NumberLiteral(value, [](const Variant& v) { return v; }));
      break;
    case VarType::kDate:
      SetTimeStamp(fld, value);
      break;
    default:
      // Values of other kinds are recorded with an empty literal.
      SetFieldValue(fld, std::string());
      break;
  }
}

void SQLStatement::SetDate(std::string_view fld, const Variant& value) {
  Date d;
  SetFieldValue(fld, odbc::AsValidDate(value, &d) ? "{d '" + odbc::DatePart(d) + "'}" : "NULL");
}

void SQLStatement::SetTime(std::string_view fld, const Variant& value) {
  Date d;
  SetFieldValue(fld, odbc::AsValidDate(value, &d) ? "{t '" + odbc::TimePart(d) + "'}" : "NULL");
}

void SQLStatement::SetTimeStamp(std::string_view fld, const Variant& value) {
  Date d;
  SetFieldValue(fld, odbc::AsValidDate(value, &d)
                         ? "{ts '" + odbc::DatePart(d) + " " + odbc::TimePart(d) + "'}"
                         : "NULL");
}

std::string SQLStatement::VerifyString(std::string_view s) const { return Replace(s, "'", "''"); }

void SQLStatement::ClearFields() {
  if (fields_) {
    while (fields_->Count() > 0) fields_->Remove(1);
  }
}

void SQLStatement::SetLastError(long code) {
  error_code_ = code;
  error_ = true;
  error_message_ = last_sql_ + ".....(SysCode: " + std::to_string(code) + "). ";
  error_source_.clear();
}

void SQLStatement::ClearLastError() {
  error_code_ = 0;
  error_ = false;
  error_message_.clear();
  error_source_.clear();
}

void SQLStatement::Execute() {
  ClearLastError();
  try {
    last_sql_ = Sql();
    Connection()->Execute(last_sql_, nullptr, kAdOptionUnspecified);
    ClearFields();
  } catch (const RuntimeError& e) {
    SetLastError(e.number);
  } catch (const std::exception&) {
    SetLastError(err::kInvalidProcedureCall);
  }
}

bool SQLStatement::OpenRecordset(const std::shared_ptr<Recordset>& rs, long cursor_type) {
  try {
    if (!rs) Raise(err::kObjectNotSet);
    if (rs->State() == kAdStateOpen) rs->Close();
    last_sql_ = Sql();
    rs->Open(last_sql_, Connection(), cursor_type, kAdLockOptimistic, kAdCmdText);
    return rs->State() == kAdStateOpen;
  } catch (const RuntimeError& e) {
    SetLastError(e.number);
  } catch (const std::exception&) {
    SetLastError(err::kInvalidProcedureCall);
  }
  return false;
}

bool SQLStatement::GetRecordset(const std::shared_ptr<Recordset>& rs, std::optional<long>) {
  return OpenRecordset(rs, kAdOpenKeyset);
}

bool SQLStatement::GetRecordsetRO(const std::shared_ptr<Recordset>& rs, std::optional<long>) {
  return OpenRecordset(rs, kAdOpenStatic);
}

bool SQLStatement::GetRecordsetFO(const std::shared_ptr<Recordset>& rs, std::optional<long>) {
  return OpenRecordset(rs, kAdOpenForwardOnly);
}

const MemberTable& SQLStatement::Members() const {
  using S = SQLStatement;
  using Conn = ::quillo::Connection;
  static const MemberTable table =
      MemberTable::Builder<S>("SQLStatement")
          .Put("Sql", [](S& s, std::string v) { s.Sql(v); })
          .Get("Sql", [](S& s) { return s.Sql(); })
          .Get("Connection", [](S& s) { return s.Connection(); })
          .Put("Connection", [](S& s, std::shared_ptr<Conn> c) { s.Connection(std::move(c)); })
          .Get("LastSQLExecuted", [](S& s) { return s.LastSQLExecuted(); })
          .Get("ErrorCode", [](S& s) { return static_cast<std::int32_t>(s.ErrorCode()); })
          .Get("Error", [](S& s) { return s.Error(); })
          .Get("ErrorMessage", [](S& s) { return s.ErrorMessage(); })
          .Get("ErrorSource", [](S& s) { return s.ErrorSource(); })
          .Get("ClassName", [](S& s) { return s.ClassName(); })
          .Method("SetInteger", [](S& s, std::string f, Variant v) { s.SetInteger(f, v); })
          .Method("SetLong", [](S& s, std::string f, Variant v) { s.SetLong(f, v); })
          .Method("SetSingle", [](S& s, std::string f, Variant v) { s.SetSingle(f, v); })
          .Method("SetDouble", [](S& s, std::string f, Variant v) { s.SetDouble(f, v); })
          .Method("SetCurrency", [](S& s, std::string f, Variant v) { s.SetCurrency(f, v); })
          .Method("SetString", [](S& s, std::string f, std::string v) { s.SetString(f, v); })
          .Method("SetStringNZ", [](S& s, std::string f, std::string v) { s.SetStringNZ(f, v); })
          .Method("SetVariant", [](S& s, std::string f, Variant v) { s.SetVariant(f, v); })
          .Method("SetDate", [](S& s, std::string f, Variant v) { s.SetDate(f, v); })
          .Method("SetTime", [](S& s, std::string f, Variant v) { s.SetTime(f, v); })
          .Method("SetTimeStamp", [](S& s, std::string f, Variant v) { s.SetTimeStamp(f, v); })
          .Method("VerifyString", [](S& s, std::string v) { return s.VerifyString(v); })
          .Method("ClearFields", [](S& s) { s.ClearFields(); })
          .Method("Execute", [](S& s) { s.Execute(); })
          .Method("GetRecordset", [](S& s, std::shared_ptr<Recordset> rs,
                                     std::optional<Variant>) { return s.GetRecordset(rs); })
          .Method("GetRecordsetRO", [](S& s, std::shared_ptr<Recordset> rs,
                                       std::optional<Variant>) { return s.GetRecordsetRO(rs); })
          .Method("GetRecordsetFO", [](S& s, std::shared_ptr<Recordset> rs,
                                       std::optional<Variant>) { return s.GetRecordsetFO(rs); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(SQLStatement, Creatable::kPrivate);

}  // namespace quillo
