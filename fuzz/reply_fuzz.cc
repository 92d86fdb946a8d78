// Fuzzes the SMTP reply parser of our session: any bytes, fed in pieces.
// Every reply it returns is either well formed (a code 200 to 599, one line
// at least) or marked malformed, and the buffer never grows past a line.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "smtp/reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  quillo::smtp::ReplyParser parser;
  size_t step = size > 0 ? (data[0] % 7) + 1 : 1;
  for (size_t i = 0; i < input.size(); i += step) {
    parser.Feed(input.substr(i, step));
    while (auto reply = parser.Next()) {
      if (!reply->malformed && (reply->code < 200 || reply->code > 599)) std::abort();
      if (reply->lines.empty()) std::abort();
    }
    if (parser.Buffered() > quillo::smtp::ReplyParser::kMaxLineLength + step + 2) std::abort();
  }
  return 0;
}
