// The PostgreSQL engine. Statements are prepared on the server once per shape
// (literal values taken out as parameters) and executed with the values
// bound; any failure of that path is retried as the plain text so that the
// caller sees exactly the engine's answer to the text it sent.
#include "platform/db/postgres_backend.h"

#include <libpq-fe.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "platform/database.h"
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

// `sql` with each "?" outside quoted text numbered for the server ($1, $2,
// ...); their count goes to *count.
std::string NumberPlaceholders(std::string_view sql, int* count) {
  std::string text;
  char quote = 0;
  *count = 0;
  for (char c : sql) {
    if (quote) {
      if (c == quote) quote = 0;
      text.push_back(c);
    } else if (c == '\'' || c == '"') {
      quote = c;
      text.push_back(c);
    } else if (c == '?') {
      text.push_back('$');
      text.append(std::to_string(++*count));
    } else {
      text.push_back(c);
    }
  }
  return text;
}

// A statement prepared on the server: its name and the parameter types it
// was prepared with (one letter each).
struct PgPrepared {
  std::string name;
  std::string kinds;
};

std::string TrimMessage(const char* message) {
  std::string text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Whether the backend that made a prepared query still owns its connection.
struct PgLink {
  PGconn* conn = nullptr;
  bool alive = true;
};

// A statement of the caller's, prepared on the server under its own name.
class PgPreparedQuery : public PreparedQuery {
 public:
  PgPreparedQuery(std::shared_ptr<PgLink> link, std::string name, int params)
      : link_(std::move(link)), name_(std::move(name)), params_(params) {}
  ~PgPreparedQuery() override {
    PGconn* conn = link_->conn;
    if (!link_->alive || PQstatus(conn) != CONNECTION_OK ||
        PQtransactionStatus(conn) != PQTRANS_IDLE) {
      return;
    }
    ResultPtr r(PQexec(conn, ("DEALLOCATE " + name_).c_str()));
  }
  std::optional<bool> HasRow(std::span<const std::string_view> values) override {
    PGconn* conn = link_->conn;
    // Inside an explicit transaction a failure would abort it: the caller's
    // plain text goes instead.
    if (!link_->alive || static_cast<int>(values.size()) != params_ ||
        PQstatus(conn) != CONNECTION_OK || PQtransactionStatus(conn) != PQTRANS_IDLE) {
      return {};
    }
    texts_.assign(values.begin(), values.end());
    pointers_.clear();
    for (const std::string& t : texts_) pointers_.push_back(t.c_str());
    ResultPtr r(
        PQexecPrepared(conn, name_.c_str(), params_, pointers_.data(), nullptr, nullptr, 0));
    if (!r || PQresultStatus(r.get()) != PGRES_TUPLES_OK) return {};
    return PQntuples(r.get()) > 0;
  }

 private:
  std::shared_ptr<PgLink> link_;
  std::string name_;
  int params_;
  std::vector<std::string> texts_;
  std::vector<const char*> pointers_;
};

class PgBackend : public Backend {
 public:
  explicit PgBackend(PGconn* conn)
      : conn_(conn),
        link_(std::make_shared<PgLink>(PgLink{conn, true})),
        cache_(128, [this](PgPrepared& p) { Deallocate(p); }) {}
  ~PgBackend() override {
    link_->alive = false;
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

  long Run(std::string_view sql, std::span<const BoundValue> values, TextRows* rows) override {
    EnsureConnected();
    // Kept apart from the shapes: a shape is cached under its own text.
    bound_key_.assign(1, '\x01');
    bound_key_.append(sql);
    PgPrepared* prepared = cache_.Find(bound_key_);
    if (!prepared) {
      int params = 0;
      const std::string text = NumberPlaceholders(sql, &params);
      std::string fresh = "quillo_r" + std::to_string(++counter_);
      ResultPtr prep(PQprepare(conn_, fresh.c_str(), text.c_str(), 0, nullptr));
      if (!Ok(prep.get())) Fail(prep.get());
      prepared = cache_.Insert(bound_key_, PgPrepared{fresh, std::string(params, 't')});
    }
    if (prepared->kinds.size() != values.size()) {
      Raise(err::kDbBadArguments, "The statement has " + std::to_string(prepared->kinds.size()) +
                                      " placeholders for " + std::to_string(values.size()) +
                                      " values.");
    }
    texts_.clear();
    for (const BoundValue& v : values) texts_.emplace_back(v ? *v : std::string_view());
    values_.clear();
    for (size_t i = 0; i < values.size(); ++i)
      values_.push_back(values[i] ? texts_[i].c_str() : nullptr);
    ResultPtr r(PQexecPrepared(conn_, prepared->name.c_str(), static_cast<int>(values_.size()),
                               values_.data(), nullptr, nullptr, 0));
    if (!Ok(r.get())) Fail(r.get());
    if (rows) {
      const int columns = PQnfields(r.get());
      for (int t = 0; t < PQntuples(r.get()); ++t) {
        std::vector<std::string>& row = rows->emplace_back(columns);
        for (int c = 0; c < columns; ++c) {
          if (!PQgetisnull(r.get(), t, c)) row[c] = PQgetvalue(r.get(), t, c);
        }
      }
    }
    const char* tuples = PQcmdTuples(r.get());
    return tuples && *tuples ? std::atol(tuples) : 0;
  }

  std::unique_ptr<PreparedQuery> Prepare(std::string_view sql) override {
    if (PQstatus(conn_) != CONNECTION_OK || PQtransactionStatus(conn_) != PQTRANS_IDLE) {
      return nullptr;
    }
    int params = 0;
    const std::string text = NumberPlaceholders(sql, &params);
    std::string name = "quillo_q" + std::to_string(++counter_);
    ResultPtr prep(PQprepare(conn_, name.c_str(), text.c_str(), 0, nullptr));
    if (!Ok(prep.get())) return nullptr;
    return std::make_unique<PgPreparedQuery>(link_, std::move(name), params);
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
    PgPrepared* prepared = cache_.Find(shape_.text);
    if (!prepared) {
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
      prepared = cache_.Insert(shape_.text, PgPrepared{fresh, KindsOf(shape_)});
    } else if (!SameKinds(prepared->kinds, shape_)) {
      return nullptr;  // Same text, different literal types: not the same statement.
    }
    values_.clear();
    for (const ShapeParam& p : shape_.params) values_.push_back(p.text.c_str());
    ResultPtr r(PQexecPrepared(conn_, prepared->name.c_str(), static_cast<int>(values_.size()),
                               values_.data(), nullptr, nullptr, 0));
    if (Ok(r.get())) return r;
    // Drop the statement (its plan may no longer fit the tables); the plain
    // text will give the engine's own answer.
    Forget();
    return nullptr;
  }

  // One letter per parameter: the type the statement was prepared with.
  static char KindOf(const ShapeParam& p) {
    if (p.kind == ShapeParam::Kind::kInteger) {
      return p.integer >= std::numeric_limits<std::int32_t>::min() &&
                     p.integer <= std::numeric_limits<std::int32_t>::max()
                 ? 'i'
                 : 'I';
    }
    return p.kind == ShapeParam::Kind::kReal ? 'r' : 't';
  }
  static std::string KindsOf(const Shape& shape) {
    std::string k;
    for (const ShapeParam& p : shape.params) k.push_back(KindOf(p));
    return k;
  }
  static bool SameKinds(const std::string& kinds, const Shape& shape) {
    if (kinds.size() != shape.params.size()) return false;
    for (size_t i = 0; i < kinds.size(); ++i) {
      if (kinds[i] != KindOf(shape.params[i])) return false;
    }
    return true;
  }

  // Drops every prepared statement (after one has failed: its plan may no
  // longer fit the tables it reads).
  void Forget() {
    closing_ = PQstatus(conn_) != CONNECTION_OK;
    cache_.Clear();
    closing_ = false;
  }

  void Deallocate(PgPrepared& prepared) {
    if (closing_ || PQstatus(conn_) != CONNECTION_OK) return;
    if (PQtransactionStatus(conn_) == PQTRANS_INERROR) return;
    ResultPtr r(PQexec(conn_, ("DEALLOCATE " + prepared.name).c_str()));
  }

  PGconn* conn_;
  std::shared_ptr<PgLink> link_;
  StatementCache<PgPrepared> cache_;
  Shape shape_;
  std::string bound_key_;           // Run's cache key, reused.
  std::vector<std::string> texts_;  // Run's values, NUL-terminated for libpq.
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
