// Fuzzes the command's CSV reader: it returns records or throws CsvError,
// and the line of each record never goes backwards.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "csv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    auto records =
        quillo::cli::ParseCsv(std::string_view(reinterpret_cast<const char*>(data), size));
    long line = 0;
    for (const auto& r : records) {
      if (r.line < line || r.fields.empty()) std::abort();
      line = r.line;
    }
  } catch (const quillo::cli::CsvError&) {
  }
  return 0;
}
