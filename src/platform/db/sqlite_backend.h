// The SQLite engine (libsqlite3): the embedded default.
// Thread-safety: none.
#ifndef QUILLO_PLATFORM_DB_SQLITE_BACKEND_H_
#define QUILLO_PLATFORM_DB_SQLITE_BACKEND_H_

#include <memory>
#include <string_view>

#include "platform/db/backend.h"

namespace quillo::db {

// Opens `target`: a file path, or ":memory:"; an optional suffix
// ";busy_timeout=MS" sets how long a write waits for a lock (default 5000).
// File databases use WAL journaling; foreign keys are off.
std::unique_ptr<Backend> OpenSqlite(std::string_view target);

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_SQLITE_BACKEND_H_
