#include "csv.h"

namespace quillo::cli {

std::vector<CsvRecord> ParseCsv(std::string_view text) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  std::vector<CsvRecord> records;
  CsvRecord current;
  std::string field;
  long line = 1;
  bool any = false;  // The record has something in it (a blank line has not).
  size_t i = 0;
  auto end_field = [&] {
    current.fields.push_back(std::move(field));
    field.clear();
  };
  auto end_record = [&] {
    end_field();
    if (any) records.push_back(std::move(current));
    current = CsvRecord();
    any = false;
  };
  auto line_break = [&](size_t at) {  // Length of the line break at `at`, 0 if none.
    if (text[at] == '\r') return at + 1 < text.size() && text[at + 1] == '\n' ? 2 : 1;
    return text[at] == '\n' ? 1 : 0;
  };
  while (i < text.size()) {
    if (current.fields.empty() && field.empty()) current.line = line;
    char c = text[i];
    if (c == '"' && field.empty()) {
      long opened = line;
      any = true;
      ++i;
      while (true) {
        if (i >= text.size()) throw CsvError(opened, "a quoted field is not closed");
        if (text[i] == '"') {
          if (i + 1 < text.size() && text[i + 1] == '"') {
            field += '"';
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        if (int n = line_break(i)) {
          field.append(text.substr(i, static_cast<size_t>(n)));
          i += static_cast<size_t>(n);
          ++line;
          continue;
        }
        field += text[i++];
      }
      if (i < text.size() && text[i] != ',' && !line_break(i)) {
        throw CsvError(line, "text follows a closing quote");
      }
      continue;
    }
    if (c == ',') {
      any = true;
      end_field();
      ++i;
      continue;
    }
    if (int n = line_break(i)) {
      end_record();
      i += static_cast<size_t>(n);
      ++line;
      continue;
    }
    any = true;
    field += c;
    ++i;
  }
  end_record();
  return records;
}

}  // namespace quillo::cli
