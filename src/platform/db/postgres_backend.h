// The PostgreSQL engine (libpq).
// Thread-safety: none.
#ifndef QUILLO_PLATFORM_DB_POSTGRES_BACKEND_H_
#define QUILLO_PLATFORM_DB_POSTGRES_BACKEND_H_

#include <memory>
#include <string_view>

#include "platform/db/backend.h"

namespace quillo::db {

// Connects with a "postgresql://..." URI or libpq key=value text. Raises
// PgErrorNumber("08001") with libpq's message when the server cannot be reached.
std::unique_ptr<Backend> OpenPostgres(std::string_view connection_text);

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_POSTGRES_BACKEND_H_
