// A readable plain-text form of an HTML body, for the text part of a
// multipart/alternative message, and HTML escaping for values put into one.
//
//   std::string text = quillo::mail::HtmlToText("<p>Hi &amp; welcome</p>");  // "Hi & welcome\n"
//
// Block elements (p, div, br, h1-h6, li, tr, table, ...) end lines, a list
// item starts with "- ", a link becomes "label (URL)" unless the label is
// the URL, an image its alt text in brackets; script, style and comments
// are dropped; entities are decoded; runs of blanks become one space and
// more than one empty line becomes one.
#ifndef QUILLO_MAIL_HTML_TEXT_H_
#define QUILLO_MAIL_HTML_TEXT_H_

#include <string>
#include <string_view>

namespace quillo::mail {

std::string HtmlToText(std::string_view html);

// `text` with &, <, >, " and ' as entities.
std::string HtmlEscape(std::string_view text);

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_HTML_TEXT_H_
