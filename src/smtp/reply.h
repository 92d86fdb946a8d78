// SMTP replies: an incremental parser of the server's reply lines (RFC 5321
// section 4.2) with the enhanced status code of RFC 3463.
//
//   quillo::smtp::ReplyParser parser;
//   parser.Feed("250-mail.example.test\r\n250 PIPELINING\r\n");
//   while (auto reply = parser.Next()) use(reply->code, reply->lines);
//
// A reply is one or more lines "ddd-text" ending with a line "ddd text" (or
// "ddd" alone) of the same code. A line that does not start with three
// digits, or whose code differs from the lines before it, makes the reply
// malformed: Next() then returns it with `malformed` set and the parser
// starts afresh after that line. Nothing the server sends can make the
// parser fail otherwise or grow without bound: a line longer than
// kMaxLineLength is cut there and marks the reply malformed.
//
// Thread-safety: a parser belongs to one thread.
#ifndef QUILLO_SMTP_REPLY_H_
#define QUILLO_SMTP_REPLY_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillo::smtp {

// One complete reply.
struct Reply {
  int code = 0;                    // 200..599 when well formed.
  std::vector<std::string> lines;  // The text after "ddd-" / "ddd ", one per line.
  std::string enhanced;            // "5.1.1" when the first line starts with one, else "".
  bool malformed = false;          // The server broke the reply syntax.

  // The reply as the server sent it, lines joined with " / ", for messages.
  std::string Text() const;
  // 2, 3, 4 or 5; 0 when malformed.
  int Class() const { return malformed ? 0 : code / 100; }
};

// The enhanced status code at the start of `text` ("5.1.1 User unknown"),
// when its class matches `code`'s first digit; "" otherwise.
std::string EnhancedStatusCode(std::string_view text, int code);

class ReplyParser {
 public:
  static constexpr std::size_t kMaxLineLength = 4096;

  // Adds bytes received from the server.
  void Feed(std::string_view bytes);
  // The next complete reply, or nullopt until more bytes arrive.
  std::optional<Reply> Next();
  // Forgets everything buffered.
  void Reset();
  // Bytes buffered and not yet part of a returned reply.
  std::size_t Buffered() const { return buffer_.size() - consumed_; }

 private:
  std::string buffer_;        // Bytes received.
  std::size_t consumed_ = 0;  // Bytes of buffer_ already parsed.
  Reply pending_;             // Lines so far of the reply being read.
};

}  // namespace quillo::smtp

#endif  // QUILLO_SMTP_REPLY_H_
