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

// The four bytes of `text` from `pos` on, folded and packed; 0 past the end.
inline uint32_t PackKey(std::string_view text, size_t pos) {
  uint32_t key = 0;
  for (size_t i = 0; i < 4 && pos + i < text.size(); ++i) {
    key |= static_cast<uint32_t>(static_cast<unsigned char>(Fold(text[pos + i]))) << (8 * i);
  }
  return key;
}

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
  // Names are 3 to 16 letters and digits: fold once, then compare bytes.
  constexpr size_t kLongestName = 16;
  if (name.size() < 3 || name.size() > kLongestName) return std::nullopt;
  char upper[kLongestName];
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    upper[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
  }
  const std::string_view folded(upper, name.size());
  for (size_t i = 0; i < kVariables.size(); ++i) {
    const std::string_view candidate = kVariables[i].name;
    if (candidate.size() == folded.size() && candidate[0] == folded[0] && candidate == folded) {
      return static_cast<ReplacementVariable>(i);
    }
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
    case V::kFirst:
      out.append(c.First);
      break;
    case V::kLast:
      out.append(c.Last);
      break;
    case V::kMiddle:
      out.append(c.Middle);
      break;
    case V::kAddress1:
      out.append(c.Address);
      break;
    case V::kAddress2:
      out.append(c.PO);
      break;
    case V::kCity:
      out.append(c.city);
      break;
    case V::kState:
      out.append(c.state);
      break;
    case V::kCountry:
      out.append(c.Country);
      break;
    case V::kPostal:
      out.append(c.zip);
      break;
    case V::kCompany:
      out.append(c.Company);
      break;
    case V::kEmail:
      out.append(c.Email);
      break;
    case V::kFullName:
      AppendNameLine(c, out);
      break;
    case V::kCsz:
      AppendL(c.city, out);
      AppendL(c.state, out);
      AppendT(c.zip, out);
      break;
    case V::kCsz1:
      AppendCsz1(c, out);
      break;
    case V::kFullNameAddrBr:
      AppendAddressBlock(c, "<BR>", out);
      break;
    case V::kFullNameAddrCrLf:
      AppendAddressBlock(c, "\r\n", out);
      break;
    default:
      break;
  }
}

void AppendDateValue(ReplacementVariable variable, Date now, std::string& out) {
  using V = ReplacementVariable;
  std::string_view format;
  switch (variable) {
    case V::kShortDate:
      format = "Short Date";
      break;
    case V::kLongDate:
      format = "Long Date";
      break;
    case V::kShortTime:
      format = "Short Time";
      break;
    case V::kLongTime:
      format = "Long Time";
      break;
    case V::kDateTime:
      format = "General Date";
      break;
    default:
      return;
  }
  constexpr int kSunday = 1;     // First day of the week.
  constexpr int kFirstJan1 = 1;  // The week of 1 January is the first week.
  out.append(FormatDate(now, format, kSunday, kFirstJan1));
}

// ---------------------------------------------------------------------------
// TagReplacer

namespace {

// Appends the position and key of every "<!--" in `text`. Looks for the "!"
// first: in HTML "<" is everywhere and "!" is rare, so this visits far fewer
// candidates than a search for "<".
template <class Marker>
void FindMarkers(std::string_view text, std::vector<Marker>& out) {
  const char* const data = text.data();
  const size_t n = text.size();
  size_t from = 1;
  while (from + 2 < n) {
    const void* hit = std::memchr(data + from, '!', n - 2 - from);
    if (hit == nullptr) break;
    const size_t bang = static_cast<size_t>(static_cast<const char*>(hit) - data);
    if (data[bang - 1] == '<' && data[bang + 1] == '-' && data[bang + 2] == '-') {
      out.push_back({bang - 1, PackKey(text, bang + 3)});
    }
    from = bang + 1;
  }
}

}  // namespace

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

uint32_t TagReplacer::KeyAt(size_t pos) const {
  uint32_t key = 0;
  for (size_t i = 0; i < 4; ++i) {
    const size_t at = pos + kMarker.size() + i;
    const unsigned char c = at < total_ ? static_cast<unsigned char>(Fold(CharAt(at))) : 0;
    key |= static_cast<uint32_t>(c) << (8 * i);
  }
  return key;
}

void TagReplacer::AddStraddlingMarkers(size_t junction, std::vector<Marker>& out) const {
  // A marker straddles the junction when it starts in the three positions
  // before it; both bytes around the junction then belong to the marker.
  if (junction == 0 || junction >= total_) return;
  const char before = CharAt(junction - 1);
  const char after = CharAt(junction);
  if ((before != '<' && before != '!' && before != '-') || (after != '!' && after != '-')) return;
  for (size_t back = 3; back >= 1; --back) {
    if (junction < back) continue;
    if (MatchAt(junction - back, kMarker)) out.push_back({junction - back, KeyAt(junction - back)});
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

size_t TagReplacer::AppendValue(ReplacementVariable variable, const ValueFunction& value) {
  const size_t offset = values_.size();
  try {
    value(variable, values_);
  } catch (const std::exception&) {
    // A value that cannot be computed is empty for this occurrence.
    values_.resize(offset);
  }
  return values_.size() - offset;
}

void TagReplacer::ApplyCuts() {
  next_pieces_.clear();
  next_markers_.clear();
  junctions_.clear();
  size_t new_length = 0;   // Length of the next text so far.
  size_t piece_index = 0;  // Piece of the current text being copied.
  size_t marker_index = 0;
  auto copy_range = [&](size_t from, size_t to) {
    while (marker_index < markers_.size() && markers_[marker_index].pos < to) {
      const Marker& marker = markers_[marker_index];
      if (marker.pos >= from) next_markers_.push_back({marker.pos - from + new_length, marker.key});
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
  bool new_markers = false;  // Whether a value holds "<!--".
  for (const Cut& cut : cuts_) {
    copy_range(copied_to, cut.pos);
    copied_to = cut.pos + cut.length;
    junctions_.push_back(new_length);
    if (cut.value_length == 0) continue;
    const std::string_view inserted(values_.data() + cut.value_offset, cut.value_length);
    for (size_t at = inserted.find(kMarker); at != std::string_view::npos;
         at = inserted.find(kMarker, at + 1)) {
      next_markers_.push_back({new_length + at, 0});  // Keyed below.
      new_markers = true;
    }
    next_pieces_.push_back({true, cut.value_offset, cut.value_length});
    new_length += cut.value_length;
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
  if (markers_.size() != before) {
    std::sort(markers_.begin(), markers_.end(),
              [](const Marker& a, const Marker& b) { return a.pos < b.pos; });
    markers_.erase(std::unique(markers_.begin(), markers_.end(),
                               [](const Marker& a, const Marker& b) { return a.pos == b.pos; }),
                   markers_.end());
    new_markers = true;
  }
  // Refresh the keys that the joins may have changed: those of markers whose
  // four key bytes reach a junction, and every new one.
  if (new_markers) {
    for (Marker& marker : markers_) marker.key = KeyAt(marker.pos);
  } else {
    size_t k = 0;
    for (size_t junction : junctions_) {
      while (k < markers_.size() && markers_[k].pos + 8 <= junction) ++k;
      for (size_t j = k; j < markers_.size() && markers_[j].pos < junction; ++j) {
        markers_[j].key = KeyAt(markers_[j].pos);
      }
    }
  }
}

size_t TagReplacer::ReplaceInOnePass(std::span<const ReplacementVariable> variables,
                                     const ValueFunction& value, bool* finished) {
  *finished = false;
  const size_t count = variables.size();
  // The first listed variable whose tag stands at each marker of the input.
  owners_.assign(markers_.size(), kNoOwner);
  bool any = false;
  for (size_t i = 0; i < markers_.size(); ++i) {
    for (size_t v = 0; v < count; ++v) {
      if (markers_[i].key == tags_[v].key && MatchAt(markers_[i].pos, tags_[v].lower)) {
        owners_[i] = static_cast<uint32_t>(v);
        any = true;
        break;
      }
    }
  }
  if (!any) {
    *finished = true;
    return count;
  }
  // Replacing a tag could complete another one behind an earlier marker
  // ("<!--<!--FIRST-->LAST-->"): leave such texts to the step-by-step way.
  size_t last_unowned = std::string_view::npos;
  for (size_t i = 0; i < markers_.size(); ++i) {
    if (owners_[i] == kNoOwner) {
      last_unowned = markers_[i].pos;
    } else if (last_unowned != std::string_view::npos &&
               markers_[i].pos < last_unowned + kLongestTag) {
      return 0;
    }
  }

  // Variable by variable, left to right, a fresh value per occurrence. The
  // result equals the step-by-step one as long as no value can form a new
  // marker; the first step that inserts such a value ends this pass.
  cuts_.clear();
  size_t step = 0;
  bool risky = false;
  for (; step < count && !risky; ++step) {
    const size_t m = tags_[step].lower.size();
    for (size_t i = 0; i < markers_.size(); ++i) {
      if (owners_[i] != step) continue;
      const size_t pos = markers_[i].pos;
      const size_t offset = values_.size();
      const size_t length = AppendValue(variables[step], value);
      cuts_.push_back({pos, m, offset, length});
      if (length == 0) {
        // The text on both sides meets: risky when what follows could
        // continue a marker or is itself a tag about to be replaced.
        const size_t after = pos + m;
        if (after < total_) {
          const char c = text_[after];
          if (c == '!' || c == '-' ||
              (c == '<' && i + 1 < markers_.size() && markers_[i + 1].pos == after)) {
            risky = true;
          }
        }
      } else {
        const std::string_view inserted(values_.data() + offset, length);
        const char first = inserted.front();
        const char last = inserted.back();
        if (first == '!' || first == '-' || last == '<' || last == '!' || last == '-' ||
            inserted.find(kMarker) != std::string_view::npos) {
          risky = true;
        }
      }
    }
  }
  if (!risky) {
    *finished = true;
    return count;
  }
  std::sort(cuts_.begin(), cuts_.end(), [](const Cut& a, const Cut& b) { return a.pos < b.pos; });
  ApplyCuts();
  return step;
}

std::string TagReplacer::Replace(std::string_view text,
                                 std::span<const ReplacementVariable> variables,
                                 const ValueFunction& value) {
  text_ = text;
  values_.clear();
  cuts_.clear();
  pieces_.clear();
  if (!text.empty()) pieces_.push_back({false, 0, text.size()});
  IndexPieces();
  markers_.clear();
  FindMarkers(text, markers_);
  if (markers_.empty() || variables.empty()) return std::string(text);

  tags_.resize(variables.size());
  for (size_t v = 0; v < variables.size(); ++v) {
    tags_[v].lower.assign(ReplacementTag(variables[v]));
    for (char& ch : tags_[v].lower) ch = Fold(ch);
    tags_[v].key = PackKey(tags_[v].lower, kMarker.size());
  }

  bool finished = false;
  const size_t done = ReplaceInOnePass(variables, value, &finished);
  if (finished) {
    // Every cut is in the input: write the result out in one go.
    std::sort(cuts_.begin(), cuts_.end(), [](const Cut& a, const Cut& b) { return a.pos < b.pos; });
    std::string result;
    size_t size = text.size();
    for (const Cut& cut : cuts_) size = size - cut.length + cut.value_length;
    result.reserve(size);
    size_t from = 0;
    for (const Cut& cut : cuts_) {
      result.append(text, from, cut.pos - from);
      result.append(values_, cut.value_offset, cut.value_length);
      from = cut.pos + cut.length;
    }
    result.append(text, from, std::string_view::npos);
    return result;
  }

  // The step-by-step way for the variables still to do.
  for (size_t step = done; step < variables.size(); ++step) {
    if (markers_.empty()) break;
    const std::string& lower_tag = tags_[step].lower;
    const size_t m = lower_tag.size();
    // Occurrences, left to right; each search resumes after the previous
    // occurrence, which is where the inserted value ends.
    cuts_.clear();
    size_t resume = 0;
    for (const Marker& marker : markers_) {
      if (marker.key != tags_[step].key || marker.pos < resume) continue;
      if (MatchAt(marker.pos, lower_tag)) {
        cuts_.push_back({marker.pos, m, 0, 0});
        resume = marker.pos + m;
      }
    }
    if (cuts_.empty()) continue;
    for (Cut& cut : cuts_) {
      cut.value_offset = values_.size();
      cut.value_length = AppendValue(variables[step], value);
    }
    ApplyCuts();
  }

  std::string result;
  result.reserve(total_);
  for (const Piece& piece : pieces_) result.append(PieceData(piece), piece.length);
  return result;
}

}  // namespace quillo
