// Personalisation: the replacement variables of message templates, their
// values, and the tag replacer that dmMessage uses.
//
// A template tag is "<!--" + variable name + "-->" ("<!--FIRST-->"), matched
// without regard to case. The values come from a client's fields (First, Last,
// city, ...) or from the clock, formatted through the Regional() named
// formats. Composed values use two shorthands: L(x) is x and one space with
// leading spaces removed, T(x) is x with leading spaces removed; so an empty
// field contributes nothing and a filled one itself and one space.
//
// TagReplacer applies a list of variables to a text in list order. For each
// variable it replaces every occurrence of its tag from left to right, asks
// for a fresh value per occurrence, and resumes the search just after the
// inserted value, so a value that contains its own tag does not loop while a
// later variable still sees tags that earlier values brought in. It does so
// without rebuilding the text per occurrence: the text is held as pieces of
// the input and of the inserted values, only the positions of "<!--" are
// visited (each tagged with the four bytes after it, so most are rejected
// with one comparison), and the result is written out once at the end.
//
// Example:
//   quillo::TagReplacer replacer;
//   const quillo::ReplacementVariable list[] = {quillo::ReplacementVariable::kFirst};
//   std::string out = replacer.Replace("Dear <!--first-->,", list,
//       [](quillo::ReplacementVariable, std::string& value) { value += "Ann"; });
//   // "Dear Ann,"
//
// Thread-safety: the free functions are thread-safe (the date values read the
// clock and Regional()); a TagReplacer belongs to one thread.
#ifndef QUILLO_MESSAGE_PERSONALISATION_H_
#define QUILLO_MESSAGE_PERSONALISATION_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/date.h"

namespace quillo {

// The variables a "Replace" header line can name, in table order.
enum class ReplacementVariable {
  kFirst,             // FIRST: First.
  kLast,              // LAST: Last.
  kMiddle,            // MIDDLE: Middle.
  kAddress1,          // ADDRESS1: Address.
  kAddress2,          // ADDRESS2: PO.
  kCity,              // CITY: city.
  kState,             // STATE: state.
  kCountry,           // COUNTRY: Country.
  kPostal,            // POSTAL: zip.
  kCompany,           // COMPANY: Company.
  kEmail,             // EMAIL: Email.
  kFullName,          // FULLNAME: the name line.
  kCsz,               // CSZ: L(city) L(state) T(zip).
  kCsz1,              // CSZ1: L(city) L(state) L(Country) T(zip).
  kFullNameAddrBr,    // FULLNAMEADDRBR: the address block joined with "<BR>".
  kFullNameAddrCrLf,  // FULLNAMEADDRCRLF: the address block joined with CR LF.
  kShortDate,         // SHORTDATE: now, "Short Date".
  kLongDate,          // LONGDATE: now, "Long Date".
  kShortTime,         // SHORTTIME: now, "Short Time".
  kLongTime,          // LONGTIME: now, "Long Time".
  kDateTime,          // DATETIME: now, "General Date".
};

// The variable named `name` (ignoring case; no trimming), or nullopt.
std::optional<ReplacementVariable> FindReplacementVariable(std::string_view name);

// The variable's tag in upper case, "<!--FIRST-->".
std::string_view ReplacementTag(ReplacementVariable variable);

// True for the five variables whose value comes from the clock.
bool IsDateVariable(ReplacementVariable variable);

// The client fields the values are made of; views into the caller's record.
struct ClientFields {
  std::string_view First;
  std::string_view Last;
  std::string_view Middle;
  std::string_view Address;
  std::string_view PO;
  std::string_view city;
  std::string_view state;
  std::string_view Country;
  std::string_view zip;
  std::string_view Company;
  std::string_view Email;
};

// The name line: L(First) L(Middle) T(Last).
std::string NameLine(const ClientFields& client);
// L(city) L(state) T(zip).
std::string CszLine(const ClientFields& client);
// L(city) L(state) L(Country) T(zip).
std::string Csz1Line(const ClientFields& client);
// The name line, Address, PO and the CSZ1 line, each only when not blank,
// as they are, joined by `separator`.
std::string AddressBlock(const ClientFields& client, std::string_view separator);

// Appends the value of a client-based variable to `out`.
// REQUIRES: !IsDateVariable(variable).
void AppendClientValue(ReplacementVariable variable, const ClientFields& client, std::string& out);

// Appends `now` in the variable's named format (Sunday the first day of the
// week, the week of 1 January the first week). REQUIRES: IsDateVariable(variable).
void AppendDateValue(ReplacementVariable variable, Date now, std::string& out);

// Replaces the tags of a list of variables in a text (see the file comment).
// Keeps its working buffers between calls, so one replacer reused for many
// messages allocates little.
class TagReplacer {
 public:
  // Appends the value of one occurrence of `variable` to `out`.
  using ValueFunction = std::function<void(ReplacementVariable variable, std::string& out)>;

  // `text` with the tags of `variables` replaced, the variables taken in
  // order; `value` is called once per replaced occurrence, variable by
  // variable and left to right within each.
  std::string Replace(std::string_view text, std::span<const ReplacementVariable> variables,
                      const ValueFunction& value);

 private:
  struct Marker {
    size_t pos;    // Position of "<!--" in the current text.
    uint32_t key;  // The four bytes after it, folded to lower case (0 past the end).
  };
  struct Piece {
    bool in_values;  // Whether the bytes are in values_ (else in the input text).
    size_t offset;   // Offset of the first byte in its source.
    size_t length;   // Number of bytes.
  };
  struct Cut {
    size_t pos;           // Where the tag starts in the current text.
    size_t length;        // The tag's length.
    size_t value_offset;  // The value that replaces it, in values_.
    size_t value_length;
  };
  struct Tag {
    std::string lower;  // The tag folded to lower case.
    uint32_t key;       // Its four bytes after "<!--".
  };
  static constexpr uint32_t kNoOwner = 0xffffffffu;
  static constexpr size_t kLongestTag = 23;  // "<!--FULLNAMEADDRCRLF-->".

  // Replaces as many variables as it can in one pass over the input's
  // markers and returns how many it did; sets *finished when all are done
  // and cuts_ then holds every replacement, else the pieces and markers hold
  // the text so far.
  size_t ReplaceInOnePass(std::span<const ReplacementVariable> variables,
                          const ValueFunction& value, bool* finished);
  // Applies cuts_ (sorted, in current positions) to the pieces and markers.
  void ApplyCuts();
  // Appends one value to values_ and returns its length (0 when it failed).
  size_t AppendValue(ReplacementVariable variable, const ValueFunction& value);
  const char* PieceData(const Piece& piece) const;
  // Index of the piece that holds position `pos`. REQUIRES: pos < total_.
  size_t PieceAt(size_t pos) const;
  char CharAt(size_t pos) const;
  // True when the current text holds `lower_tag` at `pos`, ignoring case.
  // REQUIRES: `lower_tag` is in lower case.
  bool MatchAt(size_t pos, std::string_view lower_tag) const;
  // The key of a marker at `pos`: the four bytes after "<!--", folded.
  uint32_t KeyAt(size_t pos) const;
  // Adds the markers "<!--" that straddle position `junction`.
  void AddStraddlingMarkers(size_t junction, std::vector<Marker>& out) const;
  // Rebuilds starts_ and total_ from pieces_.
  void IndexPieces();

  std::string_view text_;             // The input of the current Replace.
  std::string values_;                // Every value inserted so far, back to back.
  std::vector<Piece> pieces_;         // The current text, in order.
  std::vector<size_t> starts_;        // Position of each piece in the current text.
  size_t total_ = 0;                  // Length of the current text.
  std::vector<Marker> markers_;       // Every "<!--" in the current text, in order.
  std::vector<Tag> tags_;             // The listed variables' tags, in list order.
  std::vector<uint32_t> owners_;      // Per input marker: the variable replacing it.
  std::vector<Cut> cuts_;             // Replacements to apply.
  std::vector<Piece> next_pieces_;    // Scratch for the next text.
  std::vector<Marker> next_markers_;  // Scratch for the next marker list.
  std::vector<size_t> junctions_;     // Edges of the values inserted in this step.
};

}  // namespace quillo

#endif  // QUILLO_MESSAGE_PERSONALISATION_H_
