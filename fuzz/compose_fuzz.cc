// Fuzzes our message composer: arbitrary template text (header block, tags,
// attachments' names) and client fields through DraftFromText and Compose.
// Whatever the input, the composer either refuses it with an exception or
// makes a message whose structure no input can change: CR LF line ends
// only, no line over 998 characters, header lines within 78 unless a single
// encoded word needs more, and exactly one blank line before the body.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mail/composer.h"
#include "mail/template_draft.h"
#include "records/dmclients.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  // The first line is the client's first name, the second the subject, the
  // rest the template.
  size_t one = input.find('\n');
  size_t two = one == std::string_view::npos ? one : input.find('\n', one + 1);
  std::string first(input.substr(0, one));
  std::string subject =
      one == std::string_view::npos
          ? std::string()
          : std::string(input.substr(
                one + 1, two == std::string_view::npos ? std::string_view::npos : two - one - 1));
  std::string_view text =
      two == std::string_view::npos ? std::string_view() : input.substr(two + 1);
  quillo::dmclients client;
  client.Email("ada@example.test");
  client.First(first);
  try {
    quillo::mail::TemplateDraft t = quillo::mail::DraftFromText(
        text, "/nonexistent/fuzz.html", client, subject, {"News", "news@example.test"});
    for (bool eight : {false, true}) {
      quillo::mail::ComposedMessage m = quillo::mail::Compose(t.draft, {eight, false});
      const std::string& out = m.data;
      size_t line_start = 0;
      for (size_t i = 0; i < out.size(); ++i) {
        if (out[i] == '\r' && (i + 1 >= out.size() || out[i + 1] != '\n')) std::abort();
        if (out[i] == '\n' && (i == 0 || out[i - 1] != '\r')) std::abort();
        if (out[i] == '\n') {
          if (i - line_start > 999) std::abort();
          line_start = i + 1;
        }
      }
      if (out.find("\r\n\r\n") == std::string::npos) std::abort();
    }
  } catch (const std::exception&) {
    // Refused with a reason: the expected answer to much of the input.
  }
  return 0;
}
