// The generic record: one table row in memory, moved to and from the database
// and to and from its XML form by one shared protocol.
//
// Every table class (dmcatalogitem, dmclients, dmmrktcmp, ...) is a Record
// driven by a TableInfo: the table's name, its key column and its columns in
// catalogue order, each with its property name, its SQL column name, its XML
// element name and its value type. From that list the Record derives
// everything a table class offers:
//   - the column properties, get then let, in column order, followed by the
//     shared members Connection, IDGenerator, UI, Error, ErrorMessage,
//     ConnectionOpen, IsNew, LoadDataFromDS, LoadData, Delete, SaveData, Copy,
//     GetDOMDocument, GetDOMElement, XML (get), LoadFromDOMElement, XML (let),
//     and any members a class adds after them;
//   - the SQL texts "SELECT * FROM <table> WHERE <key> = ", "DELETE FROM ...",
//     "SELECT <key> FROM ...", "INSERT INTO <table> (?) VALUES (?);" and
//     "UPDATE <table> SET ? WHERE <key> = ", each followed by the key between
//     single quotes as it stands (quotes are not doubled) and ";";
//   - the XML form: a root element named after the table in upper case with
//     one child per column named after the column in upper case.
// A table class is then one small file: its column list and typed accessors.
//
// Example:
//   auto item = std::make_shared<dmcatalogitem>();
//   item->Connection(connection);
//   item->IDGenerator(quillo::CreateObject("idgen"));
//   item->Category("Newsletters");
//   if (!item->SaveData()) std::cerr << item->ErrorMessage();
//
// Database and XML operations report failures through Error and
// ErrorMessage; LoadDataFromDS, Copy and Delete (outside its statement) let
// failures reach the caller. Thread-safety: none; a record belongs to one
// thread.
#ifndef QUILLO_RECORDS_RECORD_H_
#define QUILLO_RECORDS_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/date.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

class Connection;
class Recordset;
class SQLStatement;
class DOMDocument;
class DOMNode;
class GeneralUtilities;
class Record;

// The value types a column can have.
enum class ColumnType {
  kText,     // std::string; SQL through SetString.
  kInteger,  // 16-bit std::int16_t; SQL through SetInteger.
  kLong,     // 32-bit std::int32_t; SQL through SetLong.
  kSingle,   // float; SQL through SetSingle.
  kDate,     // quillo::Date; SQL through SetTimeStamp.
};

// One column as a table class declares it.
struct ColumnDeclaration {
  std::string_view property;  // Property name, as published ("city").
  std::string_view sql_name;  // Column name written to SQL ("City").
  ColumnType type;            // Value type.
};

// One column of a table, with the names derived from its declaration.
struct Column {
  std::string property;  // Property name ("city").
  std::string sql_name;  // SQL column name ("City").
  std::string element;   // XML element name: the property name in upper case ("CITY").
  ColumnType type;       // Value type.
};

// Adds a class's own members after the shared ones.
using ExtraMembers = std::function<void(MemberTable::Builder<Record>&)>;

// What a table class is: its table, key and columns, the SQL texts derived
// from them and the member table built from them. Built once per class.
class TableInfo {
 public:
  // REQUIRES: `key_property` names one of `columns`.
  TableInfo(std::string_view table, std::vector<ColumnDeclaration> columns,
            std::string_view key_property, const ExtraMembers& extra = {});

  // The table name, which is also the class name ("dmcatalogitem").
  const std::string& table() const { return table_; }
  // The XML root element name ("DMCATALOGITEM").
  const std::string& root_element() const { return root_element_; }
  // The columns in catalogue order.
  const std::vector<Column>& columns() const { return columns_; }
  // Position of the key column in columns().
  size_t key() const { return key_; }
  // The class's dispatch interface.
  const MemberTable& members() const { return members_; }

  // The fixed statement texts; the quoted key and ";" follow the first four.
  const std::string& select_sql() const { return select_sql_; }  // "SELECT * FROM t WHERE k = "
  const std::string& delete_sql() const { return delete_sql_; }  // "DELETE FROM t WHERE k = "
  const std::string& probe_sql() const { return probe_sql_; }    // "SELECT k FROM t WHERE k = "
  const std::string& update_sql() const { return update_sql_; }  // "UPDATE t SET ? WHERE k = "
  const std::string& insert_sql() const { return insert_sql_; }  // "INSERT INTO t (?) VALUES (?);"

 private:
  std::string table_;
  std::string root_element_;
  std::vector<Column> columns_;
  size_t key_ = 0;
  std::string select_sql_, delete_sql_, probe_sql_, update_sql_, insert_sql_;
  MemberTable members_;
};

// The base of every table class.
class Record : public Object {
 public:
  // One column's value.
  using Value = std::variant<std::string, std::int16_t, std::int32_t, float, Date>;

  // A record of `table`, created empty: empty texts, zero numbers, the zero date.
  explicit Record(const TableInfo& table);
  ~Record() override;

  const MemberTable& Members() const override { return table_->members(); }

  // The table this record belongs to.
  const TableInfo& Info() const { return *table_; }

  // Column `index` as a Variant of the column's type (Integer, Long, Single,
  // Date or String). REQUIRES: index < Info().columns().size().
  Variant ColumnValue(size_t index) const;
  // Stores `value` in column `index`, converted to the column's type by the
  // classic conversions (error 13 or 6 when it does not convert).
  void ColumnValue(size_t index, const Variant& value);

  // --- Shared properties --------------------------------------------------

  // The host's database connection (may be null: every database operation
  // then fails and reports it).
  const std::shared_ptr<quillo::Connection>& Connection() const { return connection_; }
  void Connection(std::shared_ptr<quillo::Connection> connection);
  // The identifier generator, called by name (GetNextRecordID) on insert.
  const ObjectPtr& IDGenerator() const { return id_generator_; }
  void IDGenerator(ObjectPtr generator) { id_generator_ = std::move(generator); }
  // Any host object; stored and returned.
  const ObjectPtr& UI() const { return ui_; }
  void UI(ObjectPtr ui) { ui_ = std::move(ui); }
  // True when the last database or XML operation failed.
  bool Error() const { return error_; }
  void Error(bool error) { error_ = error; }
  // What the last failure was (for database failures, the statement's message).
  const std::string& ErrorMessage() const { return error_message_; }
  void ErrorMessage(std::string message) { error_message_ = std::move(message); }
  // True when a connection is set and open.
  bool ConnectionOpen() const;
  // True when the key, trimmed of blanks, is empty.
  bool IsNew() const;

  // --- Database protocol ----------------------------------------------------

  // Copies the current row of the open recordset `ds` into the columns (by
  // SQL column name, nulls becoming "", 0 or the zero date); does nothing at
  // the end of the recordset. Failures reach the caller.
  void LoadDataFromDS(const std::shared_ptr<Recordset>& ds);
  // Reads the row whose key equals the key property; no row changes nothing.
  void LoadData();
  // Deletes the row whose key equals the key property.
  void Delete();
  // Inserts the row (with a fresh key from IDGenerator, whatever the key
  // property held) when no row has the key, else updates it. Returns false
  // and sets Error/ErrorMessage on failure.
  bool SaveData();
  // Inserts `records`, new rows of one table on one connection, each with a
  // fresh key from its IDGenerator, in as few statements as the database
  // takes (the same text per row as SaveData's insert). For many rows at
  // once, inside the caller's transaction. Failures reach the caller: then
  // some rows may be in, so the caller rolls back.
  static void InsertNew(std::span<Record* const> records);
  // Copies every column property of `source`, key included, read by name.
  // Error 91 when `source` is null; 438 when it lacks a column property.
  void Copy(const ObjectPtr& source);

  // --- XML form -------------------------------------------------------------

  // A new document holding the record; null (and Error set) on failure.
  std::shared_ptr<DOMDocument> GetDOMDocument();
  // The root element of a new GetDOMDocument(); null on failure.
  std::shared_ptr<DOMNode> GetDOMElement();
  // The serialised text of a new GetDOMDocument(); "" on failure.
  std::string XML();
  // Sets the columns from the children of `element`, matched by tag name
  // ignoring case; unknown children are skipped, a repeated one's last
  // occurrence wins. A null element or a conversion failure sets Error.
  void LoadFromDOMElement(const std::shared_ptr<DOMNode>& element);
  // Parses `text` and loads the record from its root element.
  void XML(std::string_view text);

  // --- Test seam ------------------------------------------------------------

  // The SQL texts the last LoadData, Delete or SaveData handed to the
  // database, in order (for SaveData: the key probe, then the INSERT or
  // UPDATE). Not part of the dispatch interface.
  const std::vector<std::string>& SQLExecuted() const { return sql_executed_; }
  // The last of SQLExecuted(), or "".
  std::string LastSQLExecuted() const;

  // The shared members, in interface order, for TableInfo.
  static void AddSharedMembers(MemberTable::Builder<Record>& builder);

 protected:
  // Typed column access for the table classes. REQUIRES: column `index` has
  // the accessor's type.
  const std::string& TextAt(size_t index) const { return std::get<std::string>(values_[index]); }
  void SetText(size_t index, std::string value) { values_[index] = std::move(value); }
  std::int16_t IntegerAt(size_t index) const { return std::get<std::int16_t>(values_[index]); }
  void SetInteger(size_t index, std::int16_t value) { values_[index] = value; }
  std::int32_t LongAt(size_t index) const { return std::get<std::int32_t>(values_[index]); }
  void SetLong(size_t index, std::int32_t value) { values_[index] = value; }
  float SingleAt(size_t index) const { return std::get<float>(values_[index]); }
  void SetSingle(size_t index, float value) { values_[index] = value; }
  Date DateAt(size_t index) const { return std::get<Date>(values_[index]); }
  void SetDate(size_t index, Date value) { values_[index] = value; }

  // The private conversion helper, created on first use.
  GeneralUtilities& Utilities();

  // Records a failure: Error true and `message`.
  void Fail(std::string message);

 private:
  // Stores a field or element value through the converter of the column's
  // type; `from_xml` picks ODBCToDateTime instead of NCDate for dates.
  void StoreConverted(size_t index, const Variant& value, bool from_xml);
  // Builds the document; throws on failure.
  std::shared_ptr<DOMDocument> BuildDocument();
  // Sets every column but the key on `statement`, each through the setter
  // of its type.
  void SetColumns(SQLStatement& statement) const;
  // The key between single quotes, as it stands, and ";".
  std::string QuotedKey() const;

  const TableInfo* table_;                          // The class's table; static lifetime.
  std::vector<Value> values_;                       // One value per column.
  std::shared_ptr<quillo::Connection> connection_;  // Lent by the host.
  ObjectPtr id_generator_;                          // Lent by the host.
  ObjectPtr ui_;                                    // Lent by the host.
  bool error_ = false;                              // Outcome of the last operation.
  std::string error_message_;                       // Message of the last failure.
  std::unique_ptr<GeneralUtilities> utilities_;     // Created on first use.
  std::vector<std::string> sql_executed_;           // Texts of the last operation.
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_RECORD_H_
