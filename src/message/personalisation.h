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
// visited, and the result is written out once at the end.
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
void AppendClientValue(ReplacementVariable variable, const ClientFields& client,
                       std::string& out);

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
  struct Piece {
    bool in_values;  // Whether the bytes are in values_ (else in the input text).
    size_t offset;   // Offset of the first byte in its source.
    size_t length;   // Number of bytes.
  };

  const char* PieceData(const Piece& piece) const;
  // Index of the piece that holds position `pos`. REQUIRES: pos < total_.
  size_t PieceAt(size_t pos) const;
  char CharAt(size_t pos) const;
  // True when the current text holds `lower_tag` at `pos`, ignoring case.
  // REQUIRES: `lower_tag` is in lower case.
  bool MatchAt(size_t pos, std::string_view lower_tag) const;
  // Adds the positions of "<!--" that straddle position `junction`.
  void AddStraddlingMarkers(size_t junction, std::vector<size_t>& out) const;
  // Rebuilds starts_ and total_ from pieces_.
  void IndexPieces();

  std::string_view text_;            // The input of the current Replace.
  std::string values_;               // Every value inserted so far, back to back.
  std::vector<Piece> pieces_;        // The current text, in order.
  std::vector<size_t> starts_;       // Position of each piece in the current text.
  size_t total_ = 0;                 // Length of the current text.
  std::vector<size_t> markers_;      // Sorted positions of "<!--" in the current text.
  std::vector<size_t> matches_;      // Positions of the current tag's occurrences.
  std::vector<Piece> next_pieces_;   // Scratch for the next text.
  std::vector<size_t> next_markers_; // Scratch for the next marker list.
  std::vector<size_t> junctions_;    // Edges of the values inserted in this step.
};

}  // namespace quillo

#endif  // QUILLO_MESSAGE_PERSONALISATION_H_
