// Fuzzes the reader of returned mail: any bytes give a result without
// throwing; a recipient always has an address with an "@" and no blank or
// angle bracket; an unknown message names no one and says why; a problem
// never carries a control character.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mail/returned_mail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using quillo::mail::ReturnFormat;
  quillo::mail::ReturnedMail r =
      quillo::mail::ParseReturnedMail(std::string_view(reinterpret_cast<const char*>(data), size));
  if (r.format == ReturnFormat::kUnknown && (!r.recipients.empty() || r.problem.empty()))
    std::abort();
  for (const auto& who : r.recipients) {
    if (who.address.find('@') == std::string::npos ||
        who.address.find_first_of(" \t<>\r\n") != std::string::npos)
      std::abort();
  }
  for (char c : r.problem)
    if (static_cast<unsigned char>(c) < 0x20) std::abort();
  return 0;
}
