#include "smtp/reply.h"

#include <cctype>

namespace quillo::smtp {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads digits at `pos`; returns how many (at most `max`).
std::size_t Digits(std::string_view text, std::size_t pos, std::size_t max) {
  std::size_t n = 0;
  while (pos + n < text.size() && n < max && IsDigit(text[pos + n])) ++n;
  return n;
}

}  // namespace

std::string Reply::Text() const {
  std::string out = std::to_string(code);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    out += i == 0 ? " " : " / ";
    out += lines[i];
  }
  return out;
}

std::string EnhancedStatusCode(std::string_view text, int code) {
  // class "." subject "." detail: 1 digit, 1 to 3 digits, 1 to 3 digits.
  if (text.size() < 5 || !IsDigit(text[0]) || text[1] != '.') return {};
  if (text[0] - '0' != code / 100) return {};
  std::size_t subject = Digits(text, 2, 3);
  if (subject == 0 || 2 + subject >= text.size() || text[2 + subject] != '.') return {};
  std::size_t detail = Digits(text, 3 + subject, 3);
  if (detail == 0) return {};
  std::size_t end = 3 + subject + detail;
  if (end < text.size() && text[end] != ' ' && text[end] != '\t') return {};
  return std::string(text.substr(0, end));
}

void ReplyParser::Feed(std::string_view bytes) {
  if (consumed_ > 0 && consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
  }
  buffer_.append(bytes);
}

void ReplyParser::Reset() {
  buffer_.clear();
  consumed_ = 0;
  pending_ = Reply();
}

std::optional<Reply> ReplyParser::Next() {
  while (true) {
    std::string_view rest(buffer_.data() + consumed_, buffer_.size() - consumed_);
    std::size_t eol = rest.find('\n');
    bool cut = false;
    if (eol == std::string_view::npos) {
      if (rest.size() < kMaxLineLength) return std::nullopt;
      eol = kMaxLineLength;  // Treat an endless line as ended here.
      cut = true;
    }
    std::string_view line = rest.substr(0, eol);
    consumed_ += cut ? eol : eol + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.size() > kMaxLineLength) {
      line = line.substr(0, kMaxLineLength);
      cut = true;
    }

    bool well_formed = line.size() >= 3 && IsDigit(line[0]) && IsDigit(line[1]) &&
                       IsDigit(line[2]) && (line.size() == 3 || line[3] == ' ' || line[3] == '-');
    int code = well_formed ? (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0') : 0;
    if (well_formed && (code < 200 || code > 599)) well_formed = false;
    if (well_formed && !pending_.lines.empty() && code != pending_.code) well_formed = false;
    if (!well_formed || cut) {
      Reply bad = std::move(pending_);
      pending_ = Reply();
      bad.malformed = true;
      if (bad.code == 0) bad.code = code;
      bad.lines.emplace_back(line);
      return bad;
    }
    pending_.code = code;
    std::string_view text = line.size() > 4 ? line.substr(4) : std::string_view();
    if (pending_.lines.empty()) pending_.enhanced = EnhancedStatusCode(text, code);
    pending_.lines.emplace_back(text);
    bool last = line.size() == 3 || line[3] == ' ';
    if (last) {
      Reply done = std::move(pending_);
      pending_ = Reply();
      return done;
    }
  }
}

}  // namespace quillo::smtp
