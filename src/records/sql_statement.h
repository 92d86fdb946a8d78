// SQLStatement: turns an SQL template with "?" placeholders and a list of
// named column values into finished SQL text, and runs it on a Connection as
// a command or by opening a Recordset.
//
// Values are rendered into literal SQL text by the setters (quotes doubled,
// numbers with "." as the point, ODBC date literals). Failures of Execute and
// the recordset operations are caught and reported through ErrorCode, Error
// and ErrorMessage; nothing is raised to the caller. Private to the library.
//
//   SQLStatement st;
//   st.Connection(conn);
//   st.Sql("INSERT INTO dmcatalogitem (?) VALUES (?);");
//   st.SetString("RecID", id);
//   st.Execute();
//   if (st.Error()) log(st.ErrorMessage());
//
// Thread-safety: none.
#ifndef QUILLO_RECORDS_SQL_STATEMENT_H_
#define QUILLO_RECORDS_SQL_STATEMENT_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/collection.h"
#include "platform/database.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

// One column of a statement: its name and its value as an SQL literal.
class SQLFieldNameValues : public Object {
 public:
  // The column name.
  const std::string& FieldName() const { return field_name_; }
  void FieldName(std::string value) { field_name_ = std::move(value); }
  // The value already rendered as an SQL literal ('O''Brien', 42, NULL, ...).
  const std::string& FieldValue() const { return field_value_; }
  void FieldValue(std::string value) { field_value_ = std::move(value); }

  const MemberTable& Members() const override;

 private:
  std::string field_name_;
  std::string field_value_;
};

class SQLStatement : public Object {
 public:
  // Statement kinds decided when the template is set.
  static constexpr int kInsert = 1;
  static constexpr int kUpdate = 2;
  static constexpr int kOther = 3;

  SQLStatement() = default;
  ~SQLStatement() override;

  // Stores the template trimmed, decides the kind, empties the field list.
  void Sql(std::string_view template_text);
  // The finished SQL text. Raises 5 for an insert template without "?".
  std::string Sql() const;
  // The field list's names, then its values, each joined by ", ": what an
  // insert template's two "?" become.
  std::string FieldNames() const;
  std::string FieldValues() const;
  // The connection used by Execute and the recordset operations; an unopened
  // one is created on first use when none was set.
  std::shared_ptr<::quillo::Connection> Connection();
  void Connection(std::shared_ptr<::quillo::Connection> connection);
  // The SQL text last handed to the database.
  const std::string& LastSQLExecuted() const { return last_sql_; }
  // The number of the last failure (0 when none).
  long ErrorCode() const { return error_code_; }
  // True once an operation has failed (until the next Execute).
  bool Error() const { return error_; }
  // The failed SQL text followed by ".....(SysCode: N). ".
  const std::string& ErrorMessage() const { return error_message_; }
  // Always empty.
  const std::string& ErrorSource() const { return error_source_; }
  // Always empty.
  std::string ClassName() const { return std::string(); }
  // The statement kind: 1 insert, 2 update, 3 anything else.
  int Kind() const { return kind_; }

  // Value setters: each renders the value as an SQL literal and records it
  // under `fld` (a column set twice keeps its first place and last value).
  void SetInteger(std::string_view fld, const Variant& value);
  void SetLong(std::string_view fld, const Variant& value);
  void SetSingle(std::string_view fld, const Variant& value);
  void SetDouble(std::string_view fld, const Variant& value);
  void SetCurrency(std::string_view fld, const Variant& value);
  void SetString(std::string_view fld, std::string_view value);
  void SetStringNZ(std::string_view fld, std::string_view value);
  void SetVariant(std::string_view fld, const Variant& value);
  void SetDate(std::string_view fld, const Variant& value);
  void SetTime(std::string_view fld, const Variant& value);
  void SetTimeStamp(std::string_view fld, const Variant& value);

  // `s` with every single quote doubled.
  std::string VerifyString(std::string_view s) const;
  // Removes every entry of the field list.
  void ClearFields();
  // The field list (created on first use).
  Collection<std::shared_ptr<SQLFieldNameValues>>& FieldList();
  // Runs the finished SQL as a command; failures set the error state.
  void Execute();
  // Open `rs` on the finished SQL: keyset (1), static (3) or forward-only (0)
  // cursor, optimistic lock (3), command text (1). True when `rs` is then
  // open. `error_code` is accepted and never written.
  bool GetRecordset(const std::shared_ptr<Recordset>& rs, std::optional<long> error_code = {});
  bool GetRecordsetRO(const std::shared_ptr<Recordset>& rs, std::optional<long> error_code = {});
  bool GetRecordsetFO(const std::shared_ptr<Recordset>& rs, std::optional<long> error_code = {});

  const MemberTable& Members() const override;

 private:
  void SetFieldValue(std::string_view fld, std::string value);
  // The field list's names (or values) joined by ", ".
  std::string JoinFields(bool names) const;
  void SetLastError(long code);
  void ClearLastError();
  bool OpenRecordset(const std::shared_ptr<Recordset>& rs, long cursor_type);

  std::string template_;
  int kind_ = kOther;
  std::string last_sql_;
  long error_code_ = 0;
  bool error_ = false;
  std::string error_message_;
  std::string error_source_;
  std::shared_ptr<Collection<std::shared_ptr<SQLFieldNameValues>>> fields_;
  std::shared_ptr<::quillo::Connection> connection_;
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_SQL_STATEMENT_H_
