// Personalisation: variable table, values and the tag replacer.
#include "message/personalisation.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>

#include "platform/format.h"
#include "platform/text.h"

namespace quillo {

namespace {

// ---------------------------------------------------------------------------
// The variable table.

struct VariableInfo {
  std::string_view name;  // As written on a "Replace" line, upper case.
  std::string_view tag;   // "<!--" + name + "-->".
};

constexpr std::array<VariableInfo, 21> kVariables = {{
    {"FIRST", "<!--FIRST-->"},
    {"LAST", "<!--LAST-->"},
    {"MIDDLE", "<!--MIDDLE-->"},
    {"ADDRESS1", "<!--ADDRESS1-->"},
    {"ADDRESS2", "<!--ADDRESS2-->"},
    {"CITY", "<!--CITY-->"},
    {"STATE", "<!--STATE-->"},
    {"COUNTRY", "<!--COUNTRY-->"},
    {"POSTAL", "<!--POSTAL-->"},
    {"COMPANY", "<!--COMPANY-->"},
    {"EMAIL", "<!--EMAIL-->"},
    {"FULLNAME", "<!--FULLNAME-->"},
    {"CSZ", "<!--CSZ-->"},
    {"CSZ1", "<!--CSZ1-->"},
    {"FULLNAMEADDRBR", "<!--FULLNAMEADDRBR-->"},
    {"FULLNAMEADDRCRLF", "<!--FULLNAMEADDRCRLF-->"},
    {"SHORTDATE", "<!--SHORTDATE-->"},
    {"LONGDATE", "<!--LONGDATE-->"},
    {"SHORTTIME", "<!--SHORTTIME-->"},
    {"LONGTIME", "<!--LONGTIME-->"},
    {"DATETIME", "<!--DATETIME-->"},
}};

// Every tag opens with this marker; it holds no letter, so it matches itself
// whatever the case of the tag.
constexpr std::string_view kMarker = "<!--";

inline char Fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// Appends L(x): x and one space, with leading spaces removed.
void AppendL(std::string_view x, std::string& out) {
  const size_t first = x.find_first_not_of(' ');
  if (first == std::string_view::npos) return;
  out.append(x.substr(first));
  out.push_back(' ');
}

// Appends T(x): x with leading spaces removed.
void AppendT(std::string_view x, std::string& out) {
  const size_t first = x.find_first_not_of(' ');
  if (first == std::string_view::npos) return;
  out.append(x.substr(first));
}

void AppendNameLine(const ClientFields& c, std::string& out) {
  AppendL(c.First, out);
  AppendL(c.Middle, out);
  AppendT(c.Last, out);
}

void AppendCsz1(const ClientFields& c, std::string& out) {
  AppendL(c.city, out);
  AppendL(c.state, out);
  AppendL(c.Country, out);
  AppendT(c.zip, out);
}

bool IsBlank(std::string_view x) { return x.find_first_not_of(' ') == std::string_view::npos; }

void AppendAddressBlock(const ClientFields& c, std::string_view separator, std::string& out) {
  std::string name_line;
  AppendNameLine(c, name_line);
  std::string csz1;
  AppendCsz1(c, csz1);
  const std::string_view parts[] = {name_line, c.Address, c.PO, csz1};
  bool first = true;
  for (std::string_view part : parts) {
    if (IsBlank(part)) continue;
    if (!first) out.append(separator);
    out.append(part);
    first = false;
  }
}

}  // namespace

std::optional<ReplacementVariable> FindReplacementVariable(std::string_view name) {
  for (size_t i = 0; i < kVariables.size(); ++i) {
    if (EqualsIgnoreCase(name, kVariables[i].name)) return static_cast<ReplacementVariable>(i);
  }
  return std::nullopt;
}

std::string_view ReplacementTag(ReplacementVariable variable) {
  return kVariables[static_cast<size_t>(variable)].tag;
}

bool IsDateVariable(ReplacementVariable variable) {
  return variable >= ReplacementVariable::kShortDate;
}

std::string NameLine(const ClientFields& client) {
  std::string out;
  AppendNameLine(client, out);
  return out;
}

std::string CszLine(const ClientFields& client) {
  std::string out;
  AppendClientValue(ReplacementVariable::kCsz, client, out);
  return out;
}

std::string Csz1Line(const ClientFields& client) {
  std::string out;
  AppendCsz1(client, out);
  return out;
}

std::string AddressBlock(const ClientFields& client, std::string_view separator) {
  std::string out;
  AppendAddressBlock(client, separator, out);
  return out;
}

void AppendClientValue(ReplacementVariable variable, const ClientFields& c, std::string& out) {
  using V = ReplacementVariable;
  switch (variable) {
    case V::kFirst: out.append(c.First); break;
    case V::kLast: out.append(c.Last); break;
    case V::kMiddle: out.append(c.Middle); break;
    case V::kAddress1: out.append(c.Address); break;
    case V::kAddress2: out.append(c.PO); break;
    case V::kCity: out.append(c.city); break;
    case V::kState: out.append(c.state); break;
    case V::kCountry: out.append(c.Country); break;
    case V::kPostal: out.append(c.zip); break;
    case V::kCompany: out.append(c.Company); break;
    case V::kEmail: out.append(c.Email); break;
    case V::kFullName: AppendNameLine(c, out); break;
    case V::kCsz:
      AppendL(c.city, out);
      AppendL(c.state, out);
      AppendT(c.zip, out);
      break;
    case V::kCsz1: AppendCsz1(c, out); break;
    case V::kFullNameAddrBr: AppendAddressBlock(c, "<BR>", out); break;
    case V::kFullNameAddrCrLf: AppendAddressBlock(c, "\r\n", out); break;
    default: break;
  }
}

void AppendDateValue(ReplacementVariable variable, Date now, std::string& out) {
  using V = ReplacementVariable;
  std::string_view format;
  switch (variable) {
    case V::kShortDate: format = "Short Date"; break;
    case V::kLongDate: format = "Long Date"; break;
    case V::kShortTime: format = "Short Time"; break;
    case V::kLongTime: format = "Long Time"; break;
    case V::kDateTime: format = "General Date"; break;
    default: return;
  }
  constexpr int kSunday = 1;      // First day of the week.
  constexpr int kFirstJan1 = 1;   // The week of 1 January is the first week.
  out.append(FormatDate(now, format, kSunday, kFirstJan1));
}

// ---------------------------------------------------------------------------
// TagReplacer

const char* TagReplacer::PieceData(const Piece& piece) const {
  return (piece.in_values ? values_.data() : text_.data()) + piece.offset;
}

size_t TagReplacer::PieceAt(size_t pos) const {
  auto it = std::upper_bound(starts_.begin(), starts_.end(), pos);
  return static_cast<size_t>(it - starts_.begin()) - 1;
}

char TagReplacer::CharAt(size_t pos) const {
  const size_t k = PieceAt(pos);
  return PieceData(pieces_[k])[pos - starts_[k]];
}

bool TagReplacer::MatchAt(size_t pos, std::string_view lower_tag) const {
  const size_t m = lower_tag.size();
  if (pos + m > total_) return false;
  size_t k = PieceAt(pos);
  size_t in_piece = pos - starts_[k];
  size_t i = 0;
  while (i < m) {
    const Piece& piece = pieces_[k];
    const char* data = PieceData(piece);
    const size_t take = std::min(m - i, piece.length - in_piece);
    for (size_t j = 0; j < take; ++j) {
      if (Fold(data[in_piece + j]) != lower_tag[i + j]) return false;
    }
    i += take;
    ++k;
    in_piece = 0;
  }
  return true;
}

void TagReplacer::AddStraddlingMarkers(size_t junction, std::vector<size_t>& out) const {
  // A marker straddles the junction when it starts in the three positions
  // before it; both bytes around the junction then belong to the marker.
  if (junction == 0 || junction >= total_) return;
  const char before = CharAt(junction - 1);
  const char after = CharAt(junction);
  if ((before != '<' && before != '!' && before != '-') || (after != '!' && after != '-')) return;
  for (size_t back = 3; back >= 1; --back) {
    if (junction < back) continue;
    if (MatchAt(junction - back, kMarker)) out.push_back(junction - back);
  }
}

void TagReplacer::IndexPieces() {
  starts_.resize(pieces_.size());
  size_t pos = 0;
  for (size_t i = 0; i < pieces_.size(); ++i) {
    starts_[i] = pos;
    pos += pieces_[i].length;
  }
  total_ = pos;
}

std::string TagReplacer::Replace(std::string_view text,
                                 std::span<const ReplacementVariable> variables,
                                 const ValueFunction& value) {
  text_ = text;
  values_.clear();
  pieces_.clear();
  if (!text.empty()) pieces_.push_back({false, 0, text.size()});
  IndexPieces();
  markers_.clear();
  for (size_t pos = text.find(kMarker); pos != std::string_view::npos;
       pos = text.find(kMarker, pos + 1)) {
    markers_.push_back(pos);
  }

  std::string lower_tag;
  for (ReplacementVariable variable : variables) {
    if (markers_.empty()) break;
    const std::string_view tag = ReplacementTag(variable);
    lower_tag.assign(tag);
    for (char& ch : lower_tag) ch = Fold(ch);
    const size_t m = lower_tag.size();

    // Occurrences, left to right; each search resumes after the previous
    // occurrence, which is where the inserted value ends.
    matches_.clear();
    size_t resume = 0;
    for (size_t pos : markers_) {
      if (pos < resume) continue;
      if (MatchAt(pos, lower_tag)) {
        matches_.push_back(pos);
        resume = pos + m;
      }
    }
    if (matches_.empty()) continue;

    // The next text: the current one with each occurrence cut out and a fresh
    // value put in its place, and the markers moved along with their text.
    next_pieces_.clear();
    next_markers_.clear();
    junctions_.clear();
    size_t new_length = 0;   // Length of the next text so far.
    size_t piece_index = 0;  // Piece of the current text being copied.
    size_t marker_index = 0;
    auto copy_range = [&](size_t from, size_t to) {
      while (marker_index < markers_.size() && markers_[marker_index] < to) {
        if (markers_[marker_index] >= from) {
          next_markers_.push_back(markers_[marker_index] - from + new_length);
        }
        ++marker_index;
      }
      while (from < to) {
        while (starts_[piece_index] + pieces_[piece_index].length <= from) ++piece_index;
        const Piece& piece = pieces_[piece_index];
        const size_t in_piece = from - starts_[piece_index];
        const size_t take = std::min(to - from, piece.length - in_piece);
        next_pieces_.push_back({piece.in_values, piece.offset + in_piece, take});
        from += take;
        new_length += take;
      }
    };
    size_t copied_to = 0;
    for (size_t pos : matches_) {
      copy_range(copied_to, pos);
      copied_to = pos + m;
      junctions_.push_back(new_length);
      const size_t offset = values_.size();
      try {
        value(variable, values_);
      } catch (const std::exception&) {
        // A value that cannot be computed is empty for this occurrence.
        values_.resize(offset);
      }
      const size_t length = values_.size() - offset;
      if (length == 0) continue;
      const std::string_view inserted(values_.data() + offset, length);
      for (size_t at = inserted.find(kMarker); at != std::string_view::npos;
           at = inserted.find(kMarker, at + 1)) {
        next_markers_.push_back(new_length + at);
      }
      next_pieces_.push_back({true, offset, length});
      new_length += length;
      junctions_.push_back(new_length);
    }
    copy_range(copied_to, total_);

    pieces_.swap(next_pieces_);
    markers_.swap(next_markers_);
    IndexPieces();

    // Markers that the joins made: text on either side of a value (or of an
    // empty one) may now spell "<!--" across the join.
    const size_t before = markers_.size();
    for (size_t junction : junctions_) AddStraddlingMarkers(junction, markers_);
    if (markers_.size() != before || !std::is_sorted(markers_.begin(), markers_.end())) {
      std::sort(markers_.begin(), markers_.end());
      markers_.erase(std::unique(markers_.begin(), markers_.end()), markers_.end());
    }
  }

  std::string result;
  result.reserve(total_);
  for (const Piece& piece : pieces_) result.append(PieceData(piece), piece.length);
  return result;
}

}  // namespace quillo
