// Choosing the engine from the connection text, and the PostgreSQL error numbers.
#include "platform/db/backend.h"

#include <atomic>

#include "platform/database.h"
#include "platform/db/postgres_backend.h"
#include "platform/db/row_store.h"
#include "platform/db/sqlite_backend.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo::db {

Backend::Backend() {
  static std::atomic<std::uint64_t> next{0};
  serial_ = ++next;
}

bool Cursor::NextInto(RowStore* rows) {
  if (!Next(&scratch_)) return false;
  rows->Append(scratch_);
  return true;
}

std::unique_ptr<PreparedQuery> Backend::Prepare(std::string_view) { return nullptr; }

std::unique_ptr<ReadHold> Backend::HoldRead() { return nullptr; }

std::unique_ptr<Backend> OpenBackend(std::string_view connection_text) {
  std::string_view text = connection_text;
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (StartsWithIgnoreCase(text, "sqlite:")) return OpenSqlite(text.substr(7));
  if (StartsWithIgnoreCase(text, "postgresql://") || StartsWithIgnoreCase(text, "postgres://") ||
      text.find('=') != std::string_view::npos) {
    return OpenPostgres(text);
  }
  Raise(err::kDbBadArguments,
        "The connection text names no database engine: \"" + std::string(connection_text) +
            "\" (use sqlite:PATH, sqlite::memory:, postgresql://... or key=value text).");
}

namespace {
int Base36(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  return 0;
}
}  // namespace

long PgErrorNumber(std::string_view sqlstate) {
  bool digits = sqlstate.size() == 5;
  for (char c : sqlstate) digits = digits && c >= '0' && c <= '9';
  long value = 0;
  if (digits) {
    for (char c : sqlstate) value = value * 10 + (c - '0');
    return -value;
  }
  for (char c : sqlstate.substr(0, 5)) value = value * 36 + Base36(c);
  return -(100000 + value);
}

std::string PgSqlStateFromNumber(long number) {
  if (number >= 0) return {};
  long value = -number;
  if (value < 100000) {
    std::string s = std::to_string(value);
    return std::string(5 - s.size(), '0') + s;
  }
  value -= 100000;
  std::string s(5, '0');
  for (int i = 4; i >= 0; --i) {
    const int d = static_cast<int>(value % 36);
    s[i] = static_cast<char>(d < 10 ? '0' + d : 'A' + d - 10);
    value /= 36;
  }
  return s;
}

}  // namespace quillo::db
