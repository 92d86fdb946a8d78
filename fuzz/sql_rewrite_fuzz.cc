// Fuzzes the ODBC escape rewriter and the statement shapes of both engines:
// any text is rewritten or refused with RuntimeError 3001, never more.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/db/sql_text.h"
#include "platform/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view sql(reinterpret_cast<const char*>(data), size);
  for (auto dialect : {quillo::db::Dialect::kSqlite, quillo::db::Dialect::kPostgres}) {
    try {
      std::string rewritten = quillo::db::RewriteSql(sql, dialect);
      quillo::db::Shape shape;
      (void)quillo::db::ExtractShape(rewritten, dialect, &shape);
    } catch (const quillo::RuntimeError&) {
    }
  }
  return 0;
}
