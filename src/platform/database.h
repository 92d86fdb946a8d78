// Database connections: the Connection / Recordset / Field classes through
// which the library talks SQL text to its database.
//
// A Connection is opened with a connection text that chooses the engine:
//   "sqlite:PATH" or "sqlite::memory:"       SQLite (the embedded default)
//   "postgresql://..." or "host=... dbname=..."  PostgreSQL through libpq
// Both engines rewrite the ODBC escape literals {d '...'}, {t '...'} and
// {ts '...'} outside quoted text into their own literals, and map column types
// to Variants (text -> String, 16-bit -> Integer, 32-bit -> Long, single ->
// Single, date-time -> Date, NULL -> Null).
//
// Failures raise quillo::RuntimeError with the layer's own numbers (3704 for
// an operation on a closed object, 3709 for a recordset without an open
// connection, 3265 for an unknown field, 3021 at EOF), SQLite's result codes,
// or, for PostgreSQL, a negative number that keeps the SQLSTATE readable
// (see docs/errors.md).
//
//   auto conn = std::make_shared<quillo::Connection>();
//   conn->Open("sqlite:/tmp/quillo.db");
//   conn->Execute("CREATE TABLE t (a INTEGER)");
//   auto rs = std::make_shared<quillo::Recordset>();
//   rs->Open("SELECT a FROM t", conn, 0, 3, 1);
//   for (; !rs->Eof(); rs->MoveNext()) use(rs->FieldValue("a"));
//
// Thread-safety: none; a connection and its recordsets belong to one thread.
#ifndef QUILLO_PLATFORM_DATABASE_H_
#define QUILLO_PLATFORM_DATABASE_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

namespace db {
class Backend;
class Cursor;
class RowStore;
}  // namespace db

// The database layer's own error numbers.
namespace err {
inline constexpr long kDbObjectClosed = 3704;      // Operation on a closed object.
inline constexpr long kDbConnectionClosed = 3709;  // No open connection to work with.
inline constexpr long kDbItemNotFound = 3265;      // No field of that name.
inline constexpr long kDbNoCurrentRecord = 3021;   // BOF or EOF.
inline constexpr long kDbBadArguments = 3001;      // Wrong, out-of-range or broken arguments.
inline constexpr long kDbObjectOpen = 3705;        // Operation on an object that is open.
}  // namespace err

// ADO-style numbers for State, cursor types, lock types and options.
inline constexpr long kAdStateClosed = 0;
inline constexpr long kAdStateOpen = 1;
inline constexpr long kAdOpenForwardOnly = 0;
inline constexpr long kAdOpenKeyset = 1;
inline constexpr long kAdOpenDynamic = 2;
inline constexpr long kAdOpenStatic = 3;
inline constexpr long kAdLockReadOnly = 1;
inline constexpr long kAdLockOptimistic = 3;
inline constexpr long kAdCmdText = 1;
inline constexpr long kAdOptionUnspecified = -1;

// A connection to one database.
class Connection : public Object {
 public:
  Connection();
  ~Connection() override;

  // Opens the database named by `connection_text` (see the file comment).
  // Raises the engine's error when it cannot be opened; 3705 when already open.
  void Open(std::string_view connection_text);
  // 1 when open, 0 when closed or never opened.
  long State() const;
  // Runs `sql` as a command. Stores the number of rows changed in
  // `*records_affected` when given and returns it. `options` is accepted
  // (-1 unspecified, 1 command text, 128 no records). Raises 3704 when closed.
  long Execute(std::string_view sql, long* records_affected = nullptr, long options = -1);
  // Closes the connection; closing a closed connection raises 3704.
  void Close();
  // The connection text given to Open.
  const std::string& ConnectionString() const { return connection_text_; }
  // "sqlite" or "postgresql"; empty when closed.
  std::string EngineName() const;

  // The engine behind an open connection; raises 3709 when not open. For the
  // library's own use (recordsets, the schema).
  db::Backend& Backend();

  const MemberTable& Members() const override;

 private:
  std::string connection_text_;
  std::unique_ptr<db::Backend> backend_;
};

// One column of the current row of a recordset.
class Field : public Object {
 public:
  Field() = default;
  Field(std::string name, Variant value) : name_(std::move(name)), value_(std::move(value)) {}
  // The column's name as the engine reports it.
  const std::string& Name() const { return name_; }
  // The column's value in the current row.
  const Variant& Value() const { return value_; }

  const MemberTable& Members() const override;

 private:
  std::string name_;
  Variant value_;
};

// The rows of a query, read one at a time.
class Recordset : public Object {
 public:
  Recordset();
  ~Recordset() override;

  // Runs `source` (SQL text) on `active_connection`. Cursor types 0
  // (forward-only: rows are read as they are walked, one row ahead), 1 (keyset) and 3
  // (static) are honoured (2 is treated as 1); the lock type and options are
  // accepted. Raises 3705 when already open, 3709 when the connection is
  // missing or closed, or the engine's error for bad SQL.
  void Open(std::string_view source, const std::shared_ptr<Connection>& active_connection,
            long cursor_type = kAdOpenForwardOnly, long lock_type = kAdLockReadOnly,
            long options = kAdOptionUnspecified);
  // 1 when open, 0 when closed.
  long State() const;
  // True when past the last row (or there were none); 3704 when closed.
  bool Eof() const;
  // Moves to the next row; 3021 when already at EOF, 3704 when closed.
  void MoveNext();
  // The number of rows for keyset and static cursors; -1 for forward-only.
  long RecordCount() const;
  // The field `name` (case-insensitive) of the current row; 3265 when there
  // is no such column, 3021 at EOF, 3704 when closed.
  std::shared_ptr<Field> Fields(std::string_view name) const;
  // Shorthand for Fields(name)->Value().
  Variant FieldValue(std::string_view name) const;
  // The same value into `*value`, whose text memory is reused: for loops
  // that read many rows.
  void FieldValue(std::string_view name, Variant* value) const;
  // The number of columns; 3704 when closed.
  long FieldCount() const;
  // The name of column `index` (0-based); 3265 when out of range.
  std::string FieldName(long index) const;
  // The cursor type the recordset was opened with.
  long CursorType() const { return cursor_type_; }
  // Closes the recordset; 3704 when already closed.
  void Close();

  const MemberTable& Members() const override;

 private:
  void RequireOpen() const;
  long ColumnIndex(std::string_view name) const;
  Variant CurrentValue(long column) const;
  void CurrentValueInto(long column, Variant* value) const;

  bool open_ = false;
  long cursor_type_ = kAdOpenForwardOnly;
  std::vector<std::string> names_;
  // Forward-only: the live cursor, the current row and the row read ahead.
  std::unique_ptr<db::Cursor> cursor_;
  std::vector<Variant> row_;
  std::vector<Variant> next_row_;
  bool has_next_ = false;
  bool eof_ = true;
  // Keyset and static: every row, packed, and the position in them.
  std::unique_ptr<db::RowStore> rows_;
  size_t position_ = 0;
};

}  // namespace quillo

#endif  // QUILLO_PLATFORM_DATABASE_H_
