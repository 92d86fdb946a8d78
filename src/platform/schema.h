// The library's database schema: the fourteen dm* tables with their keys and
// the indexes the campaign and record queries use.
//
// Create works on either engine and is idempotent (CREATE ... IF NOT EXISTS);
// docs/schema.md shows the tables. Thread-safety: none.
#ifndef QUILLO_PLATFORM_SCHEMA_H_
#define QUILLO_PLATFORM_SCHEMA_H_

#include <string>
#include <vector>

#include "platform/database.h"

namespace quillo::schema {

// Creates every table and index that is missing on the open `connection`.
// Raises the engine's error on failure, 3709 when the connection is not open.
void Create(Connection& connection);

// The names of the tables Create makes, in creation order.
std::vector<std::string> TableNames();

}  // namespace quillo::schema

#endif  // QUILLO_PLATFORM_SCHEMA_H_
