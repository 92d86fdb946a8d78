// The SQLite engine. Statements are prepared once per shape (literal values
// taken out as parameters) and re-bound, so a stream of texts that differ
// only in their values costs one parse.
#include "platform/db/sqlite_backend.h"

#include <sqlite3.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/db/row_store.h"
#include "platform/db/sql_text.h"
#include "platform/db/statement_cache.h"
#include "platform/db/value_parse.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo::db {
namespace {

enum class ColumnKind { kNone, kText, kInteger, kLong, kSingle, kDouble, kDate };

ColumnKind KindOfDeclared(const char* declared) {
  if (!declared) return ColumnKind::kNone;
  const std::string t = UCase(declared);
  auto has = [&](const char* s) { return t.find(s) != std::string::npos; };
  if (has("DATE") || has("TIME")) return ColumnKind::kDate;
  if (has("SMALLINT") || has("INT2") || t == "SHORT") return ColumnKind::kInteger;
  if (has("INT")) return ColumnKind::kLong;
  if (has("CHAR") || has("TEXT") || has("CLOB")) return ColumnKind::kText;
  if (t == "REAL" || has("FLOAT4") || has("SINGLE")) return ColumnKind::kSingle;
  if (has("DOUB") || has("FLOA") || has("NUMERIC") || has("DECIMAL")) return ColumnKind::kDouble;
  return ColumnKind::kNone;
}

// A prepared statement with what is known about its columns; shared between
// the cache and a cursor that is walking it.
struct Prepared {
  sqlite3_stmt* stmt = nullptr;
  bool busy = false;
  std::vector<std::string> names;
  std::vector<ColumnKind> kinds;
  ~Prepared() { sqlite3_finalize(stmt); }
  void Describe() {
    const int n = sqlite3_column_count(stmt);
    names.resize(n);
    kinds.resize(n);
    for (int i = 0; i < n; ++i) {
      const char* name = sqlite3_column_name(stmt, i);
      names[i] = name ? name : "";
      kinds[i] = KindOfDeclared(sqlite3_column_decltype(stmt, i));
    }
  }
};
using PreparedPtr = std::shared_ptr<Prepared>;

Variant IntegerValue(sqlite3_int64 v, ColumnKind kind) {
  switch (kind) {
    case ColumnKind::kInteger:
      if (v >= std::numeric_limits<std::int16_t>::min() &&
          v <= std::numeric_limits<std::int16_t>::max()) {
        return Variant(static_cast<std::int16_t>(v));
      }
      break;
    case ColumnKind::kSingle:
      return Variant(static_cast<float>(v));
    case ColumnKind::kDouble:
      return Variant(static_cast<double>(v));
    case ColumnKind::kDate:
      return Variant(Date(static_cast<double>(v)));
    default:
      break;
  }
  if (v >= std::numeric_limits<std::int32_t>::min() &&
      v <= std::numeric_limits<std::int32_t>::max()) {
    return Variant(static_cast<std::int32_t>(v));
  }
  return Variant(static_cast<double>(v));
}

Variant ColumnValue(sqlite3_stmt* stmt, int i, ColumnKind kind) {
  switch (sqlite3_column_type(stmt, i)) {
    case SQLITE_NULL:
      return Variant(kNull);
    case SQLITE_INTEGER:
      return IntegerValue(sqlite3_column_int64(stmt, i), kind);
    case SQLITE_FLOAT: {
      const double v = sqlite3_column_double(stmt, i);
      if (kind == ColumnKind::kSingle) return Variant(static_cast<float>(v));
      if (kind == ColumnKind::kDate) return Variant(Date(v));
      return Variant(v);
    }
    default: {
      const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt, i));
      const int n = sqlite3_column_bytes(stmt, i);
      std::string_view text(p ? p : "", static_cast<size_t>(n));
      if (kind == ColumnKind::kDate) {
        Date d;
        if (ParseStoredDateTime(text, &d)) return Variant(d);
      }
      return Variant(std::string(text));
    }
  }
}

// The open database, shared by the engine and any cursor still walking it,
// so that a cursor outliving its connection stays safe.
struct DbHandle {
  sqlite3* db = nullptr;
  ~DbHandle() { sqlite3_close_v2(db); }
};
using DbHandlePtr = std::shared_ptr<DbHandle>;

class SqliteCursor : public Cursor {
 public:
  SqliteCursor(DbHandlePtr db, PreparedPtr prepared)
      : handle_(std::move(db)), db_(handle_->db), prepared_(std::move(prepared)) {}
  ~SqliteCursor() override { Finish(); }
  const std::vector<std::string>& Names() const override { return prepared_->names; }
  bool Next(std::vector<Variant>* row) override {
    if (done_) return false;
    sqlite3_stmt* stmt = prepared_->stmt;
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
      const size_t n = prepared_->kinds.size();
      row->resize(n);
      for (size_t i = 0; i < n; ++i) {
        (*row)[i] = ColumnValue(stmt, static_cast<int>(i), prepared_->kinds[i]);
      }
      return true;
    }
    return Stopped(rc);
  }
  bool NextInto(RowStore* rows) override {
    if (done_) return false;
    sqlite3_stmt* stmt = prepared_->stmt;
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
      const size_t n = prepared_->kinds.size();
      rows->BeginRow(n);
      for (size_t i = 0; i < n; ++i) {
        const int at = static_cast<int>(i);
        const ColumnKind kind = prepared_->kinds[i];
        // Text that stays text goes in as it is; everything else as Next maps it.
        if (sqlite3_column_type(stmt, at) == SQLITE_TEXT && kind != ColumnKind::kDate) {
          const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt, at));
          rows->AddText(
              std::string_view(p ? p : "", static_cast<size_t>(sqlite3_column_bytes(stmt, at))));
        } else {
          rows->Add(ColumnValue(stmt, at, kind));
        }
      }
      rows->EndRow();
      return true;
    }
    return Stopped(rc);
  }

 private:
  // After a step that gave no row: false at the end, else the engine's error.
  bool Stopped(int rc) {
    if (rc == SQLITE_DONE) {
      Finish();
      return false;
    }
    const long code = sqlite3_errcode(db_) & 0xff;
    std::string text = sqlite3_errmsg(db_);
    Finish();
    Raise(code ? code : rc & 0xff, text);
  }
  void Finish() {
    if (done_) return;
    done_ = true;
    sqlite3_reset(prepared_->stmt);
    sqlite3_clear_bindings(prepared_->stmt);
    prepared_->busy = false;
  }
  DbHandlePtr handle_;
  sqlite3* db_;
  PreparedPtr prepared_;
  bool done_ = false;
};

// A statement of the caller's, prepared once and re-bound for each run.
class SqlitePrepared : public PreparedQuery {
 public:
  SqlitePrepared(DbHandlePtr handle, sqlite3_stmt* stmt)
      : handle_(std::move(handle)), stmt_(stmt) {}
  ~SqlitePrepared() override { sqlite3_finalize(stmt_); }
  std::optional<bool> HasRow(std::span<const std::string_view> values) override {
    if (static_cast<int>(values.size()) != sqlite3_bind_parameter_count(stmt_)) return {};
    for (size_t i = 0; i < values.size(); ++i) {
      if (sqlite3_bind_text(stmt_, static_cast<int>(i) + 1, values[i].data(),
                            static_cast<int>(values[i].size()), SQLITE_STATIC) != SQLITE_OK) {
        sqlite3_clear_bindings(stmt_);
        return {};
      }
    }
    // Every run binds every parameter, so the bindings need no clearing.
    const int rc = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    return {};
  }

 private:
  DbHandlePtr handle_;
  sqlite3_stmt* stmt_;
};

// A read of the schema table left open at its first row: while it stays
// open the connection keeps its read transaction (and the file locks that
// go with it), so the statements run meanwhile do not take them again.
// Shared by the backend, which lets it go before any other statement runs,
// and the ReadHold handed out.
struct HoldState {
  DbHandlePtr handle;
  sqlite3_stmt* stmt = nullptr;
  bool taken = false;
  ~HoldState() { sqlite3_finalize(stmt); }
  void LetGo() {
    if (!taken) return;
    sqlite3_reset(stmt);
    taken = false;
  }
};

class SqliteReadHold : public ReadHold {
 public:
  explicit SqliteReadHold(std::shared_ptr<HoldState> state) : state_(std::move(state)) {}
  ~SqliteReadHold() override { state_->LetGo(); }
  void Take() override {
    if (state_->taken || !sqlite3_get_autocommit(state_->handle->db)) return;
    if (sqlite3_step(state_->stmt) == SQLITE_ROW) {
      state_->taken = true;
    } else {
      sqlite3_reset(state_->stmt);
    }
  }
  void LetGo() override { state_->LetGo(); }

 private:
  std::shared_ptr<HoldState> state_;
};

class SqliteBackend : public Backend {
 public:
  explicit SqliteBackend(DbHandlePtr handle)
      : handle_(std::move(handle)),
        db_(handle_->db),
        cache_(128, [](PreparedPtr& p) { p.reset(); }) {}
  ~SqliteBackend() override { cache_.Clear(); }

  std::string EngineName() const override { return "sqlite"; }

  long Execute(std::string_view sql) override {
    if (hold_) hold_->LetGo();  // Schema changes and writes go as without it.
    const std::string text = RewriteSql(sql, Dialect::kSqlite);
    if (PreparedPtr p = FromShape(text)) {
      SqliteCursor cursor(handle_, p);
      std::vector<Variant> row;
      while (cursor.Next(&row)) {
      }
      return static_cast<long>(sqlite3_changes(db_));
    }
    // Plain path: every statement of the text in turn.
    const char* tail = text.c_str();
    const char* end = tail + text.size();
    long changed = 0;
    while (tail < end) {
      sqlite3_stmt* stmt = nullptr;
      const char* next = nullptr;
      int rc = sqlite3_prepare_v2(db_, tail, static_cast<int>(end - tail), &stmt, &next);
      if (rc != SQLITE_OK) Fail(rc);
      if (!stmt) break;  // Only blanks or comments were left.
      while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      }
      if (rc != SQLITE_DONE) {
        const long code = sqlite3_errcode(db_) & 0xff;
        std::string message = sqlite3_errmsg(db_);
        sqlite3_finalize(stmt);
        Raise(code, message);
      }
      changed = sqlite3_changes(db_);
      sqlite3_finalize(stmt);
      tail = next;
    }
    return changed;
  }

  long Run(std::string_view sql, std::span<const BoundValue> values, TextRows* rows) override {
    if (hold_) hold_->LetGo();
    // Kept apart from the shapes: a shape is cached under its own text.
    bound_key_.assign(1, '\x01');
    bound_key_.append(sql);
    PreparedPtr p = Statement(bound_key_, sql);
    if (!p) {
      const int rc = sqlite3_errcode(db_);
      if (rc != SQLITE_OK) Fail(rc);
      Raise(SQLITE_MISUSE, "The statement text holds no statement.");
    }
    sqlite3_stmt* stmt = p->stmt;
    if (sqlite3_bind_parameter_count(stmt) != static_cast<int>(values.size())) {
      Raise(err::kDbBadArguments,
            "The statement has " + std::to_string(sqlite3_bind_parameter_count(stmt)) +
                " placeholders for " + std::to_string(values.size()) + " values.");
    }
    p->busy = true;
    // The values outlive the run, so SQLite need not copy them.
    int rc = SQLITE_OK;
    for (size_t i = 0; i < values.size() && rc == SQLITE_OK; ++i) {
      const int at = static_cast<int>(i) + 1;
      rc = values[i] ? sqlite3_bind_text(stmt, at, values[i]->data(),
                                         static_cast<int>(values[i]->size()), SQLITE_STATIC)
                     : sqlite3_bind_null(stmt, at);
    }
    if (rc == SQLITE_OK) {
      while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        if (!rows) continue;
        std::vector<std::string>& row = rows->emplace_back(sqlite3_column_count(stmt));
        for (size_t i = 0; i < row.size(); ++i) {
          const int at = static_cast<int>(i);
          const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, at));
          if (text) row[i].assign(text, static_cast<size_t>(sqlite3_column_bytes(stmt, at)));
        }
      }
    }
    const long code = sqlite3_errcode(db_) & 0xff;
    const std::string message = rc == SQLITE_DONE ? std::string() : sqlite3_errmsg(db_);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    p->busy = false;
    if (rc != SQLITE_DONE) Raise(code ? code : rc & 0xff, message);
    return static_cast<long>(sqlite3_changes(db_));
  }

  std::unique_ptr<PreparedQuery> Prepare(std::string_view sql) override {
    sqlite3_stmt* stmt = nullptr;
    const char* tail = nullptr;
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &stmt, &tail) != SQLITE_OK ||
        !stmt) {
      sqlite3_finalize(stmt);
      return nullptr;
    }
    return std::make_unique<SqlitePrepared>(handle_, stmt);
  }

  std::unique_ptr<ReadHold> HoldRead() override {
    if (!hold_) {
      auto state = std::make_shared<HoldState>();
      state->handle = handle_;
      if (sqlite3_prepare_v3(db_, "SELECT 1 FROM sqlite_master", -1, SQLITE_PREPARE_PERSISTENT,
                             &state->stmt, nullptr) != SQLITE_OK) {
        return nullptr;
      }
      hold_ = std::move(state);
    }
    return std::make_unique<SqliteReadHold>(hold_);
  }

  std::unique_ptr<Cursor> Query(std::string_view sql, bool /*stream*/) override {
    if (hold_) hold_->LetGo();  // Every other statement sees the database as it is.
    const std::string text = RewriteSql(sql, Dialect::kSqlite);
    PreparedPtr p = FromShape(text);
    if (!p) {
      p = std::make_shared<Prepared>();
      const char* next = nullptr;
      const int rc =
          sqlite3_prepare_v2(db_, text.c_str(), static_cast<int>(text.size()), &p->stmt, &next);
      if (rc != SQLITE_OK) Fail(rc);
      if (!p->stmt) Raise(SQLITE_MISUSE, "The query text holds no statement.");
      p->Describe();
      p->busy = true;
    }
    return std::make_unique<SqliteCursor>(handle_, std::move(p));
  }

 private:
  [[noreturn]] void Fail(int rc) {
    const long code = sqlite3_errcode(db_) & 0xff;
    Raise(code ? code : rc & 0xff, sqlite3_errmsg(db_));
  }

  // The statement cached under `key`, prepared from `sql` (and kept) when
  // there is none; a fresh one, not kept, while the cached one is being
  // walked by a cursor. Null when the engine takes no statement from `sql`
  // (its error, if any, stays on the connection).
  PreparedPtr Statement(const std::string& key, std::string_view sql) {
    PreparedPtr* cached = cache_.Find(key);
    if (cached && !(*cached)->busy) return *cached;
    auto p = std::make_shared<Prepared>();
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &p->stmt, nullptr) != SQLITE_OK ||
        !p->stmt) {
      return nullptr;
    }
    p->Describe();
    if (!cached) cache_.Insert(key, p);
    return p;
  }

  // The cached prepared statement for the shape of `text`, bound to its
  // values and marked busy; null when the text has no usable shape.
  PreparedPtr FromShape(const std::string& text) {
    if (!ExtractShape(text, Dialect::kSqlite, &shape_)) return nullptr;
    PreparedPtr p = Statement(shape_.text, shape_.text);
    if (!p || sqlite3_bind_parameter_count(p->stmt) != static_cast<int>(shape_.params.size())) {
      return nullptr;  // The plain path reports the engine's own error.
    }
    for (size_t i = 0; i < shape_.params.size(); ++i) {
      const ShapeParam& param = shape_.params[i];
      const int at = static_cast<int>(i) + 1;
      int rc;
      switch (param.kind) {
        case ShapeParam::Kind::kInteger:
          rc = sqlite3_bind_int64(p->stmt, at, param.integer);
          break;
        case ShapeParam::Kind::kReal:
          rc = sqlite3_bind_double(p->stmt, at, param.real);
          break;
        default:
          rc = sqlite3_bind_text(p->stmt, at, param.text.data(),
                                 static_cast<int>(param.text.size()), SQLITE_TRANSIENT);
          break;
      }
      if (rc != SQLITE_OK) {
        sqlite3_clear_bindings(p->stmt);
        return nullptr;
      }
    }
    p->busy = true;
    return p;
  }

  DbHandlePtr handle_;
  sqlite3* db_;
  StatementCache<PreparedPtr> cache_;
  Shape shape_;
  std::string bound_key_;            // Run's cache key, reused.
  std::shared_ptr<HoldState> hold_;  // Made by the first HoldRead.
};

}  // namespace

std::unique_ptr<Backend> OpenSqlite(std::string_view target) {
  // PATH[;busy_timeout=MS][;mode=ro]
  std::vector<std::string> parts = Split(target, ";");
  std::string path = parts.empty() ? std::string() : parts[0];
  int busy_ms = 5000;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  for (size_t i = 1; i < parts.size(); ++i) {
    const std::string option = LCase(Trim(parts[i]));
    if (option.rfind("busy_timeout=", 0) == 0) {
      busy_ms = std::atoi(option.c_str() + 13);
    } else if (option == "mode=ro") {
      flags = SQLITE_OPEN_READONLY;
    } else {
      Raise(err::kDbBadArguments, "Unknown SQLite connection option: " + parts[i]);
    }
  }
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    Raise(rc & 0xff, message + " (" + path + ")");
  }
  sqlite3_busy_timeout(db, busy_ms);
  sqlite3_exec(db, "PRAGMA foreign_keys = OFF", nullptr, nullptr, nullptr);
  // Statement journals and the temporary tables of RETURNING and ORDER BY
  // stay in memory: a write of many rows at once otherwise spills them to a
  // file under /var/tmp, a write per page.
  sqlite3_exec(db, "PRAGMA temp_store = MEMORY", nullptr, nullptr, nullptr);
  if (path != ":memory:" && !path.empty() && (flags & SQLITE_OPEN_READWRITE)) {
    sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
  }
  auto handle = std::make_shared<DbHandle>();
  handle->db = db;
  return std::make_unique<SqliteBackend>(std::move(handle));
}

}  // namespace quillo::db
