// Base64 codec: table-driven encoder and decoder.
//
// The encoder maps twelve input bits at a time to two output characters
// through one 4096-entry table, so three input bytes cost two lookups; the
// main loop takes twelve bytes per round through two wide loads. The decoder
// looks up four characters at once in four tables that already hold each
// character's bits in their final output position, so a group of four clean
// characters costs four lookups, three ORs and one store; a group holding
// padding, line breaks or junk falls back to the character-by-character rules.
#include "codec/base64.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

namespace quillo {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr bool kLittleEndian = std::endian::native == std::endian::little;

// Decoded value of a character: 0..63 for the alphabet, kPad for "=", kSkip
// for everything else.
constexpr uint8_t kPad = 64;
constexpr uint8_t kSkip = 0xFF;

constexpr std::array<uint8_t, 256> MakeValues() {
  std::array<uint8_t, 256> values{};
  for (auto& v : values) v = kSkip;
  for (int i = 0; i < 64; ++i) values[static_cast<uint8_t>(kAlphabet[i])] = static_cast<uint8_t>(i);
  values['='] = kPad;
  return values;
}
constexpr std::array<uint8_t, 256> kValues = MakeValues();

// Two output characters for every 12-bit value, laid out so that storing the
// entry writes the first character first.
constexpr std::array<uint16_t, 4096> MakePairs() {
  std::array<uint16_t, 4096> pairs{};
  for (int i = 0; i < 4096; ++i) {
    const auto first = static_cast<uint16_t>(static_cast<uint8_t>(kAlphabet[i >> 6]));
    const auto second = static_cast<uint16_t>(static_cast<uint8_t>(kAlphabet[i & 63]));
    pairs[i] = kLittleEndian ? static_cast<uint16_t>(first | (second << 8))
                             : static_cast<uint16_t>((first << 8) | second);
  }
  return pairs;
}
constexpr std::array<uint16_t, 4096> kPairs = MakePairs();

// Decoding tables for the four places of a group: the character's six bits
// moved to where they land in the three output bytes (byte 0 lowest, as a
// little-endian store writes them). Anything that is not an alphabet
// character sets kInvalid, so one test rejects the whole group.
constexpr uint32_t kInvalid = 0x01000000;

constexpr std::array<uint32_t, 256> MakePlace(int place) {
  std::array<uint32_t, 256> table{};
  for (int c = 0; c < 256; ++c) {
    const uint32_t v = kValues[c];
    if (v >= 64) {
      table[c] = kInvalid;
      continue;
    }
    switch (place) {
      case 0:
        table[c] = v << 2;
        break;
      case 1:
        table[c] = (v >> 4) | ((v & 0x0F) << 12);
        break;
      case 2:
        table[c] = ((v >> 2) << 8) | ((v & 0x03) << 22);
        break;
      default:
        table[c] = v << 16;
        break;
    }
  }
  return table;
}
constexpr std::array<uint32_t, 256> kPlace0 = MakePlace(0);
constexpr std::array<uint32_t, 256> kPlace1 = MakePlace(1);
constexpr std::array<uint32_t, 256> kPlace2 = MakePlace(2);
constexpr std::array<uint32_t, 256> kPlace3 = MakePlace(3);

inline uint64_t LoadBigEndian64(const unsigned char* p) {
  uint64_t w;
  std::memcpy(&w, p, sizeof w);
  if constexpr (kLittleEndian) w = __builtin_bswap64(w);
  return w;
}

inline void StorePair(char* out, uint32_t twelve_bits) {
  std::memcpy(out, &kPairs[twelve_bits], 2);
}

// Encodes `groups` whole groups of three bytes; returns the end of the output.
char* EncodeGroups(const unsigned char* in, size_t groups, char* out) {
  // Twelve bytes per round, read as two 64-bit words of which 48 bits are used;
  // the second load reads two bytes past the round, so keep them in range.
  while (groups >= 5) {
    const uint64_t w1 = LoadBigEndian64(in);
    const uint64_t w2 = LoadBigEndian64(in + 6);
    uint64_t o1 = 0;
    uint64_t o2 = 0;
    if constexpr (kLittleEndian) {
      o1 = uint64_t{kPairs[(w1 >> 52) & 0xFFF]} | (uint64_t{kPairs[(w1 >> 40) & 0xFFF]} << 16) |
           (uint64_t{kPairs[(w1 >> 28) & 0xFFF]} << 32) |
           (uint64_t{kPairs[(w1 >> 16) & 0xFFF]} << 48);
      o2 = uint64_t{kPairs[(w2 >> 52) & 0xFFF]} | (uint64_t{kPairs[(w2 >> 40) & 0xFFF]} << 16) |
           (uint64_t{kPairs[(w2 >> 28) & 0xFFF]} << 32) |
           (uint64_t{kPairs[(w2 >> 16) & 0xFFF]} << 48);
    } else {
      o1 = (uint64_t{kPairs[(w1 >> 52) & 0xFFF]} << 48) |
           (uint64_t{kPairs[(w1 >> 40) & 0xFFF]} << 32) |
           (uint64_t{kPairs[(w1 >> 28) & 0xFFF]} << 16) | uint64_t{kPairs[(w1 >> 16) & 0xFFF]};
      o2 = (uint64_t{kPairs[(w2 >> 52) & 0xFFF]} << 48) |
           (uint64_t{kPairs[(w2 >> 40) & 0xFFF]} << 32) |
           (uint64_t{kPairs[(w2 >> 28) & 0xFFF]} << 16) | uint64_t{kPairs[(w2 >> 16) & 0xFFF]};
    }
    std::memcpy(out, &o1, 8);
    std::memcpy(out + 8, &o2, 8);
    in += 12;
    out += 16;
    groups -= 4;
  }
  for (; groups > 0; --groups) {
    const uint32_t v = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | in[2];
    StorePair(out, v >> 12);
    StorePair(out + 2, v & 0xFFF);
    in += 3;
    out += 4;
  }
  return out;
}

// Appends the bytes of one group of four decoded values, the rules for
// padding applied: padding in the third place keeps one byte, in the fourth
// place two. Padding elsewhere counts as zero bits.
inline size_t EmitGroup(const uint8_t (&q)[4], unsigned char* out) {
  const uint32_t v0 = q[0] & 63u;
  const uint32_t v1 = q[1] & 63u;
  const uint32_t v2 = q[2] & 63u;
  const uint32_t v3 = q[3] & 63u;
  out[0] = static_cast<unsigned char>((v0 << 2) | (v1 >> 4));
  if (q[2] == kPad) return 1;
  out[1] = static_cast<unsigned char>(((v1 & 0x0F) << 4) | (v2 >> 2));
  if (q[3] == kPad) return 2;
  out[2] = static_cast<unsigned char>(((v2 & 0x03) << 6) | v3);
  return 3;
}

}  // namespace

std::string Base64Encode(std::string_view input) {
  std::string out;
  Base64EncodeTo(input, &out);
  return out;
}

std::string Base64Decode(std::string_view encoded) {
  std::string out;
  Base64DecodeTo(encoded, &out);
  return out;
}

void Base64EncodeTo(std::string_view input, std::string* out) {
  const size_t groups = input.size() / 3;
  const size_t rest = input.size() % 3;
  out->resize((groups + (rest != 0 ? 1 : 0)) * 4);
  const auto* in = reinterpret_cast<const unsigned char*>(input.data());
  char* end = EncodeGroups(in, groups, out->data());
  in += groups * 3;
  if (rest == 1) {
    const uint32_t v = uint32_t{in[0]} << 4;
    StorePair(end, v);
    end[2] = '=';
    end[3] = '=';
  } else if (rest == 2) {
    const uint32_t v = (uint32_t{in[0]} << 10) | (uint32_t{in[1]} << 2);
    StorePair(end, v >> 6);
    end[2] = kAlphabet[v & 63];
    end[3] = '=';
  }
}

void Base64DecodeTo(std::string_view encoded, std::string* out) {
  const size_t n = encoded.size();
  if (n < 4) {
    out->clear();
    return;
  }
  // Every four accepted characters give at most three bytes; the slack lets
  // the fast path store whole words.
  const size_t capacity = n / 4 * 3 + 8;
  out->resize(capacity);
  unsigned char* const begin = reinterpret_cast<unsigned char*>(out->data());
  const auto* s = reinterpret_cast<const unsigned char*>(encoded.data());
  unsigned char* o = begin;
  unsigned char* const o_limit = o + capacity - 8;
  uint8_t q[4];
  int count = 0;
  size_t i = 0;
  while (i < n) {
    if (count == 0 && kLittleEndian) {
      // Whole groups of four alphabet characters, two groups per round.
      while (i + 8 <= n && o <= o_limit) {
        const uint32_t x1 =
            kPlace0[s[i]] | kPlace1[s[i + 1]] | kPlace2[s[i + 2]] | kPlace3[s[i + 3]];
        const uint32_t x2 =
            kPlace0[s[i + 4]] | kPlace1[s[i + 5]] | kPlace2[s[i + 6]] | kPlace3[s[i + 7]];
        if ((x1 | x2) & kInvalid) break;
        const uint64_t y = uint64_t{x1} | (uint64_t{x2} << 24);
        std::memcpy(o, &y, 8);
        o += 6;
        i += 8;
      }
      if (i + 4 <= n && o <= o_limit) {
        const uint32_t x =
            kPlace0[s[i]] | kPlace1[s[i + 1]] | kPlace2[s[i + 2]] | kPlace3[s[i + 3]];
        if ((x & kInvalid) == 0) {
          std::memcpy(o, &x, 4);
          o += 3;
          i += 4;
          continue;
        }
      }
      if (i >= n) break;
    }
    const uint8_t v = kValues[s[i++]];
    if (v == kSkip) continue;
    q[count++] = v;
    if (count == 4) {
      o += EmitGroup(q, o);
      count = 0;
    }
  }
  out->resize(static_cast<size_t>(o - begin));
}

void qoBase64::Encode() { output_value_ = EncodeStr64(input_value_); }

void qoBase64::Decode() { output_value_ = DecodeStr64(input_value_); }

void qoBase64::InputValue(std::string value) { input_value_ = std::move(value); }

std::string qoBase64::OutputValue() const { return output_value_; }

std::string qoBase64::EncodeStr64(std::string_view input) const { return Base64Encode(input); }

std::string qoBase64::DecodeStr64(std::string_view encoded) const { return Base64Decode(encoded); }

const MemberTable& qoBase64::Members() const {
  using B = qoBase64;
  static const MemberTable table =
      MemberTable::Builder<B>("qoBase64")
          .Method("Encode", [](B& b) { b.Encode(); })
          .Method("Decode", [](B& b) { b.Decode(); })
          .Put("InputValue", [](B& b, std::string v) { b.InputValue(std::move(v)); })
          .Get("OutputValue", [](B& b) { return b.OutputValue(); })
          .Method("EncodeStr64", [](B& b, std::string v) { return b.EncodeStr64(v); })
          .Method("DecodeStr64", [](B& b, std::string v) { return b.DecodeStr64(v); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(qoBase64, Creatable::kPrivate);

}  // namespace quillo
