// Text helpers with the classic string semantics.
//
// Text is std::string holding bytes; a character is a byte. Positions are
// 1-based as in the classic functions; "not found" is 0. Case-insensitive
// means ASCII case folding. Trim removes the space character only (never
// tabs). All functions are pure and thread-safe.
#ifndef QUILLO_PLATFORM_TEXT_H_
#define QUILLO_PLATFORM_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quillo {

// How InStr and Replace compare: byte for byte, or ignoring ASCII case.
enum class Compare { kBinary = 0, kText = 1 };

// Position (1-based) of `find` in `text` at or after `start`; 0 when absent.
// An empty `find` gives `start` (when start <= len + 1). REQUIRES: start >= 1.
size_t InStr(size_t start, std::string_view text, std::string_view find,
             Compare compare = Compare::kBinary);
inline size_t InStr(std::string_view text, std::string_view find,
                    Compare compare = Compare::kBinary) {
  return InStr(1, text, find, compare);
}

// Position (1-based) of the last `find` in `text`; 0 when absent.
size_t InStrRev(std::string_view text, std::string_view find, Compare compare = Compare::kBinary);

// `length` characters of `text` from 1-based `start` (all the rest when npos).
std::string Mid(std::string_view text, size_t start, size_t length = std::string_view::npos);
std::string Left(std::string_view text, size_t length);
std::string Right(std::string_view text, size_t length);

// Removes spaces (only the space character) from both ends / the left / the right.
std::string Trim(std::string_view text);
std::string LTrim(std::string_view text);
std::string RTrim(std::string_view text);

// ASCII case folding.
std::string UCase(std::string_view text);
std::string LCase(std::string_view text);
char LowerAscii(char c);

// True when `a` and `b` are equal ignoring ASCII case.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix);

// Splits at every `delimiter`; an empty text gives one empty piece.
std::vector<std::string> Split(std::string_view text, std::string_view delimiter);

// Replaces every `find` by `with` (an empty `find` changes nothing).
std::string Replace(std::string_view text, std::string_view find, std::string_view with,
                    Compare compare = Compare::kBinary);

// Joins `pieces` with `separator` between them.
std::string Join(const std::vector<std::string>& pieces, std::string_view separator);

// Pads on the left with `pad` until at least `width` long; never shortens.
std::string PadLeft(std::string_view text, char pad, size_t width);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_TEXT_H_
