// The engine interface behind Connection and Recordset, and the two engines.
//
// A Backend runs SQL text (after the ODBC escape rewrite) and returns rows
// through a Cursor, values already mapped to Variants. Failures raise
// quillo::RuntimeError with the engine's number and text (docs/errors.md).
// Thread-safety: none.
#ifndef QUILLO_PLATFORM_DB_BACKEND_H_
#define QUILLO_PLATFORM_DB_BACKEND_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/variant.h"

namespace quillo::db {

class RowStore;

// The rows of one query, read forward.
class Cursor {
 public:
  virtual ~Cursor() = default;
  // The column names, in order.
  virtual const std::vector<std::string>& Names() const = 0;
  // Reads the next row into *row; false when there are no more rows.
  virtual bool Next(std::vector<Variant>* row) = 0;
  // Reads the next row and appends it to *rows; false when there are no
  // more rows. The values are those Next gives.
  virtual bool NextInto(RowStore* rows);

 private:
  std::vector<Variant> scratch_;
};

// A query prepared once and run many times with text values bound to its
// "?" placeholders. It must not be used once its backend is gone (compare
// Backend::Serial before each use).
class PreparedQuery {
 public:
  virtual ~PreparedQuery() = default;
  // Runs the query with `values` bound in order: true when it gives a row,
  // false when none; nullopt when it could not be run this way (the caller
  // then runs the plain text and gets the engine's own answer).
  virtual std::optional<bool> HasRow(std::span<const std::string_view> values) = 0;
};

// A read snapshot of the database that can be taken for a short run of
// small queries, so that they do not each take and drop the engine's locks.
// While it is taken, the queries do not see other connections' changes;
// any other statement run on the connection lets it go first.
class ReadHold {
 public:
  virtual ~ReadHold() = default;
  // Takes the snapshot (nothing when already taken, or inside a transaction).
  virtual void Take() = 0;
  // Lets the snapshot go (nothing when not taken).
  virtual void LetGo() = 0;
};

// A value bound to a "?" placeholder: text, or SQL NULL when empty.
using BoundValue = std::optional<std::string_view>;

// The rows a statement gave, each column as text ("" for NULL).
using TextRows = std::vector<std::vector<std::string>>;

// One open database.
class Backend {
 public:
  Backend();
  virtual ~Backend() = default;
  // A number no other backend of this process has: tells a backend from a
  // later one opened on the same Connection.
  std::uint64_t Serial() const { return serial_; }
  // Prepares `sql` (a single query with "?" placeholders for text values);
  // null when the engine cannot prepare it.
  virtual std::unique_ptr<PreparedQuery> Prepare(std::string_view sql);
  // A read snapshot to take and let go (see ReadHold); null when the engine
  // has no use for one.
  virtual std::unique_ptr<ReadHold> HoldRead();
  // "sqlite" or "postgresql".
  virtual std::string EngineName() const = 0;
  // Runs a command; returns the number of rows it changed.
  virtual long Execute(std::string_view sql) = 0;
  // Runs a query. With `stream` the rows may be read from the engine as the
  // cursor is walked; otherwise the cursor holds them all.
  virtual std::unique_ptr<Cursor> Query(std::string_view sql, bool stream) = 0;
  // Runs one statement with "?" placeholders (outside quoted text) and
  // `values` bound to them in order, as text. The text goes to the engine as
  // it is (no escape rewrite, no literals taken out) and is prepared once
  // and kept, so a writer that builds the same few statement texts pays no
  // parsing per run. Returns the rows it changed; when `rows` is given, the
  // rows it gave (RETURNING) are appended. Raises the engine's error.
  virtual long Run(std::string_view sql, std::span<const BoundValue> values,
                   TextRows* rows = nullptr) = 0;

 private:
  std::uint64_t serial_;
};

// Opens the engine named by `connection_text`: "sqlite:PATH", "sqlite::memory:",
// "postgresql://..."/"postgres://..." or libpq key=value text. Raises the
// engine's error when it cannot open, 3001 for text naming no engine.
std::unique_ptr<Backend> OpenBackend(std::string_view connection_text);

// The error number for a PostgreSQL SQLSTATE: -NNNNN for an all-digit state
// ("23505" -> -23505), else -(100000 + the state read in base 36).
long PgErrorNumber(std::string_view sqlstate);
// The SQLSTATE that PgErrorNumber turned into `number` ("" when none).
std::string PgSqlStateFromNumber(long number);

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_BACKEND_H_
