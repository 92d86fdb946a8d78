// The PostgreSQL engine. Statements are prepared on the server once per shape
// (literal values taken out as parameters) and executed with the values
// bound; any failure of that path is retried as the plain text so that the
// caller sees exactly the engine's answer to the text it sent.
#include "platform/db/postgres_backend.h"

#include <libpq-fe.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/db/sql_text.h"
#include "platform/db/statement_cache.h"
#include "platform/db/value_parse.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo::db {
namespace {

// Type OIDs of the built-in types the library maps.
constexpr Oid kBoolOid = 16;
constexpr Oid kInt8Oid = 20;
constexpr Oid kInt2Oid = 21;
constexpr Oid kInt4Oid = 23;
constexpr Oid kFloat4Oid = 700;
constexpr Oid kFloat8Oid = 701;
constexpr Oid kDateOid = 1082;
constexpr Oid kTimeOid = 1083;
constexpr Oid kTimestampOid = 1114;
constexpr Oid kTimestampTzOid = 1184;
constexpr Oid kNumericOid = 1700;

struct ResultDeleter {
  void operator()(PGresult* r) const { PQclear(r); }
};
using ResultPtr = std::unique_ptr<PGresult, ResultDeleter>;

Variant PgValue(const char* text, int length, Oid type) {
  std::string_view s(text, static_cast<size_t>(length));
  switch (type) {
    case kInt2Oid:
      return Variant(static_cast<std::int16_t>(std::strtol(text, nullptr, 10)));
    case kInt4Oid:
      return Variant(static_cast<std::int32_t>(std::strtol(text, nullptr, 10)));
    case kInt8Oid: {
      const long long v = std::strtoll(text, nullptr, 10);
      if (v >= std::numeric_limits<std::int32_t>::min() &&
          v <= std::numeric_limits<std::int32_t>::max()) {
        return Variant(static_cast<std::int32_t>(v));
      }
      return Variant(static_cast<double>(v));
    }
    case kFloat4Oid:
      return Variant(std::strtof(text, nullptr));
    case kFloat8Oid:
    case kNumericOid:
      return Variant(std::strtod(text, nullptr));
    case kBoolOid:
      return Variant(s == "t");
    case kDateOid:
    case kTimeOid:
    case kTimestampOid:
    case kTimestampTzOid: {
      Date d;
      if (ParseStoredDateTime(s, &d)) return Variant(d);
      return Variant(std::string(s));
    }
    default:
      return Variant(std::string(s));
  }
}

class PgCursor : public Cursor {
 public:
  explicit PgCursor(ResultPtr result) : result_(std::move(result)) {
    const int n = PQnfields(result_.get());
    names_.resize(n);
    types_.resize(n);
    for (int i = 0; i < n; ++i) {
      names_[i] = PQfname(result_.get(), i);
      types_[i] = PQftype(result_.get(), i);
    }
    rows_ = PQntuples(result_.get());
  }
  const std::vector<std::string>& Names() const override { return names_; }
  bool Next(std::vector<Variant>* row) override {
    if (at_ >= rows_) return false;
    PGresult* r = result_.get();
    row->resize(names_.size());
    for (int i = 0; i < static_cast<int>(names_.size()); ++i) {
      if (PQgetisnull(r, at_, i)) {
        (*row)[i] = Variant(kNull);
      } else {
        (*row)[i] = PgValue(PQgetvalue(r, at_, i), PQgetlength(r, at_, i), types_[i]);
      }
    }
    ++at_;
    return true;
  }

 private:
  ResultPtr result_;
  std::vector<std::string> names_;
  std::vector<Oid> types_;
  int rows_ = 0;
  int at_ = 0;
};

void IgnoreNotice(void*, const char*) {}

std::string TrimMessage(const char* message) {
  std::string text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

class PgBackend : public Backend {
 public:
  explicit PgBackend(PGconn* conn)
      : conn_(conn), cache_(128, [this](std::string& name) { Deallocate(name); }) {}
  ~PgBackend() override {
    closing_ = true;
    cache_.Clear();
    PQfinish(conn_);
  }

  std::string EngineName() const override { return "postgresql"; }

  long Execute(std::string_view sql) override {
    ResultPtr r = Run(sql);
    const char* tuples = PQcmdTuples(r.get());
    return tuples && *tuples ? std::atol(tuples) : 0;
  }

  std::unique_ptr<Cursor> Query(std::string_view sql, bool /*stream*/) override {
    return std::make_unique<PgCursor>(Run(sql));
  }

  void Setup() {
    PQsetNoticeProcessor(conn_, IgnoreNotice, nullptr);
    ResultPtr r(PQexec(conn_, "SET DateStyle = ISO, MDY; SET client_min_messages = warning"));
  }

 private:
  static bool Ok(const PGresult* r) {
    if (!r) return false;
    const ExecStatusType s = PQresultStatus(r);
    return s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK || s == PGRES_EMPTY_QUERY;
  }

  // Reconnects a connection the server has dropped; the prepared statements
  // went with it.
  void EnsureConnected() {
    if (PQstatus(conn_) == CONNECTION_OK) return;
    closing_ = true;
    cache_.Clear();
    closing_ = false;
    PQreset(conn_);
    if (PQstatus(conn_) != CONNECTION_OK) {
      Raise(PgErrorNumber("08006"), TrimMessage(PQerrorMessage(conn_)));
    }
    Setup();
  }

  [[noreturn]] void Fail(const PGresult* r) {
    const char* state = r ? PQresultErrorField(r, PG_DIAG_SQLSTATE) : nullptr;
    std::string code = state ? state : "";
    if (code.empty()) code = PQstatus(conn_) == CONNECTION_OK ? "XX000" : "08006";
    std::string message = TrimMessage(r ? PQresultErrorMessage(r) : nullptr);
    if (message.empty()) message = TrimMessage(PQerrorMessage(conn_));
    Raise(PgErrorNumber(code), "[SQLSTATE " + code + "] " + message);
  }

  ResultPtr Run(std::string_view sql) {
    EnsureConnected();
    const std::string text = RewriteSql(sql, Dialect::kPostgres);
    // Inside an explicit transaction a failed attempt would abort it, so the
    // text goes as it is.
    if (PQtransactionStatus(conn_) == PQTRANS_IDLE &&
        ExtractShape(text, Dialect::kPostgres, &shape_)) {
      if (ResultPtr r = RunPrepared(); r) return r;
    }
    ResultPtr r(PQexec(conn_, text.c_str()));
    if (!Ok(r.get())) Fail(r.get());
    return r;
  }

  // Runs the current shape as a prepared statement; null when that path
  // fails for any reason (the caller then runs the plain text).
  ResultPtr RunPrepared() {
    std::string* name = cache_.Find(shape_.text);
    if (!name) {
      std::string fresh = "quillo_s" + std::to_string(++counter_);
      types_.clear();
      for (const ShapeParam& p : shape_.params) {
        if (p.kind == ShapeParam::Kind::kInteger) {
          types_.push_back(p.integer >= std::numeric_limits<std::int32_t>::min() &&
                                   p.integer <= std::numeric_limits<std::int32_t>::max()
                               ? kInt4Oid
                               : kInt8Oid);
        } else if (p.kind == ShapeParam::Kind::kReal) {
          types_.push_back(kNumericOid);
        } else {
          types_.push_back(0);  // Unknown, as a quoted literal is.
        }
      }
      ResultPtr prep(PQprepare(conn_, fresh.c_str(), shape_.text.c_str(),
                               static_cast<int>(types_.size()), types_.data()));
      if (!Ok(prep.get())) return nullptr;
      name = cache_.Insert(shape_.text, fresh);
      kinds_[fresh] = KindsOf(shape_);
    } else if (kinds_[*name] != KindsOf(shape_)) {
      return nullptr;  // Same text, different literal types: not the same statement.
    }
    values_.clear();
    for (const ShapeParam& p : shape_.params) values_.push_back(p.text.c_str());
    ResultPtr r(PQexecPrepared(conn_, name->c_str(), static_cast<int>(values_.size()),
                               values_.data(), nullptr, nullptr, 0));
    if (Ok(r.get())) return r;
    // Drop the statement (its plan may no longer fit the tables); the plain
    // text will give the engine's own answer.
    std::string dead = *name;
    kinds_.erase(dead);
    Forget(dead);
    return nullptr;
  }

  static std::string KindsOf(const Shape& shape) {
    std::string k;
    for (const ShapeParam& p : shape.params) {
      if (p.kind == ShapeParam::Kind::kInteger) {
        k.push_back(p.integer >= std::numeric_limits<std::int32_t>::min() &&
                            p.integer <= std::numeric_limits<std::int32_t>::max()
                        ? 'i'
                        : 'I');
      } else {
        k.push_back(p.kind == ShapeParam::Kind::kReal ? 'r' : 't');
      }
    }
    return k;
  }

  void Forget(const std::string& name) {
    // Rebuild the cache without the one entry: simplest is to clear it.
    closing_ = PQstatus(conn_) != CONNECTION_OK;
    cache_.Clear();
    kinds_.clear();
    closing_ = false;
    static_cast<void>(name);
  }

  void Deallocate(const std::string& name) {
    if (closing_ || PQstatus(conn_) != CONNECTION_OK) return;
    if (PQtransactionStatus(conn_) == PQTRANS_INERROR) return;
    ResultPtr r(PQexec(conn_, ("DEALLOCATE " + name).c_str()));
  }

  PGconn* conn_;
  StatementCache<std::string> cache_;
  std::unordered_map<std::string, std::string> kinds_;
  Shape shape_;
  std::vector<Oid> types_;
  std::vector<const char*> values_;
  long counter_ = 0;
  bool closing_ = false;
};

}  // namespace

std::unique_ptr<Backend> OpenPostgres(std::string_view connection_text) {
  PGconn* conn = PQconnectdb(std::string(connection_text).c_str());
  if (!conn) Raise(PgErrorNumber("08001"), "[SQLSTATE 08001] out of memory");
  if (PQstatus(conn) != CONNECTION_OK) {
    std::string message = TrimMessage(PQerrorMessage(conn));
    PQfinish(conn);
    Raise(PgErrorNumber("08001"), "[SQLSTATE 08001] " + message);
  }
  auto backend = std::make_unique<PgBackend>(conn);
  backend->Setup();
  return backend;
}

}  // namespace quillo::db
