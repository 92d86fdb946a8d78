// SQL text handling shared by the engines: the ODBC escape-literal rewrite,
// quoting of column names an engine refuses bare, and the statement "shape"
// (the text with its literal values taken out as parameters) by which the
// engines reuse prepared statements.
// Thread-safety: pure functions.
#ifndef QUILLO_PLATFORM_DB_SQL_TEXT_H_
#define QUILLO_PLATFORM_DB_SQL_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quillo::db {

enum class Dialect { kSqlite, kPostgres };

// `sql` with every {d 'yyyy-mm-dd'}, {t 'hh:nn:ss'} and {ts 'yyyy-mm-dd
// hh:nn:ss'} outside quoted text replaced by the engine's date-time literal
// (a {d} literal is midnight of its day, a {t} literal that time on the zero
// date 1899-12-30), and the reserved word Default quoted where it stands as a
// column name. Raises 3001 for a broken escape literal (bad form or a date
// that does not exist).
std::string RewriteSql(std::string_view sql, Dialect dialect);

// One literal value taken out of a statement.
struct ShapeParam {
  enum class Kind { kText, kInteger, kReal } kind = Kind::kText;
  std::string text;  // The value as text (quotes removed and undoubled).
  std::int64_t integer = 0;
  double real = 0;
};

// A statement with its literal values replaced by parameters.
struct Shape {
  std::string text;                // With "?" (SQLite) or "$n" (PostgreSQL).
  std::vector<ShapeParam> params;  // In order.
};

// Splits a rewritten single SELECT, INSERT, UPDATE or DELETE statement into
// its shape: quoted text literals (anywhere in an INSERT or UPDATE; in a
// SELECT or DELETE only after a comparison operator or LIKE), and numbers that
// follow a comparison operator, become parameters. False when the statement is not one
// whose meaning a parameter would keep (other statements, several statements,
// existing placeholders, no literal at all).
bool ExtractShape(std::string_view sql, Dialect dialect, Shape* shape);

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_SQL_TEXT_H_
