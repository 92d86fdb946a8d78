// An RFC 4180 reader for the command's imports.
//
// A small reader of our own rather than a library: the imports need three
// things a line splitter lacks and nothing more (quoted fields that hold
// line breaks and doubled quotes, the line each record starts on for
// messages, and a clear error for an unterminated quote), and it reads from
// a buffer, so a fuzz target can drive it directly.
//
//   for (const CsvRecord& r : ParseCsv(text)) use(r.line, r.fields);
//
// Thread-safety: the functions are thread-safe.
#ifndef QUILLO_CLI_CSV_H_
#define QUILLO_CLI_CSV_H_

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillo::cli {

// One record and the line of the file it starts on (from 1).
struct CsvRecord {
  long line = 0;
  std::vector<std::string> fields;
};

// Text that is not CSV; what() names the line.
class CsvError : public std::runtime_error {
 public:
  CsvError(long line, const std::string& why)
      : std::runtime_error("line " + std::to_string(line) + ": " + why), line_(line) {}
  long line() const { return line_; }

 private:
  long line_;
};

// The records of `text`: fields separated by commas, records by CR LF, LF or
// CR; a field in double quotes may hold commas, line breaks and doubled
// quotes. A UTF-8 byte-order mark at the start is skipped; blank lines are
// skipped. Throws CsvError for an unterminated quote or text after a closing
// quote.
std::vector<CsvRecord> ParseCsv(std::string_view text);

}  // namespace quillo::cli

#endif  // QUILLO_CLI_CSV_H_
