// The engine interface behind Connection and Recordset, and the two engines.
//
// A Backend runs SQL text (after the ODBC escape rewrite) and returns rows
// through a Cursor, values already mapped to Variants. Failures raise
// quillo::RuntimeError with the engine's number and text (docs/errors.md).
// Thread-safety: none.
#ifndef QUILLO_PLATFORM_DB_BACKEND_H_
#define QUILLO_PLATFORM_DB_BACKEND_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/variant.h"

namespace quillo::db {

// The rows of one query, read forward.
class Cursor {
 public:
  virtual ~Cursor() = default;
  // The column names, in order.
  virtual const std::vector<std::string>& Names() const = 0;
  // Reads the next row into *row; false when there are no more rows.
  virtual bool Next(std::vector<Variant>* row) = 0;
};

// One open database.
class Backend {
 public:
  virtual ~Backend() = default;
  // "sqlite" or "postgresql".
  virtual std::string EngineName() const = 0;
  // Runs a command; returns the number of rows it changed.
  virtual long Execute(std::string_view sql) = 0;
  // Runs a query. With `stream` the rows may be read from the engine as the
  // cursor is walked; otherwise the cursor holds them all.
  virtual std::unique_ptr<Cursor> Query(std::string_view sql, bool stream) = 0;
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
