// Tests of the Base64 codec: the documented edge cases, the RFC 4648 vectors,
// agreement with OpenSSL's encoder, round trips, and bad input to the decoder.
#include "codec/base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <random>
#include <string>

namespace quillo {
namespace {

std::string RandomBytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

std::string OpenSslEncode(const std::string& in) {
  std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(in.data()),
                                static_cast<int>(in.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

// A plain, character-at-a-time model of the decoding rules, used to check the
// decoder's fast path on inputs full of junk and padding.
std::string ModelDecode(const std::string& s) {
  static const std::string kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  if (s.size() < 4) return out;
  int q[4];
  bool pad[4];
  int count = 0;
  for (char ch : s) {
    const size_t pos = kAlphabet.find(ch);
    if (ch == '=') {
      q[count] = 0;
      pad[count++] = true;
    } else if (pos != std::string::npos && ch != '\0') {
      q[count] = static_cast<int>(pos);
      pad[count++] = false;
    } else {
      continue;
    }
    if (count == 4) {
      const int bits = (q[0] << 18) | (q[1] << 12) | (q[2] << 6) | q[3];
      out += static_cast<char>((bits >> 16) & 0xFF);
      if (!pad[2]) {
        out += static_cast<char>((bits >> 8) & 0xFF);
        if (!pad[3]) out += static_cast<char>(bits & 0xFF);
      }
      count = 0;
    }
  }
  return out;
}

TEST(Base64, EncodesEmptyTextAsEmptyText) { EXPECT_EQ(qoBase64().EncodeStr64(""), ""); }

TEST(Base64, EncodesOneByteAsTwoCharactersAndTwoPads) {
  EXPECT_EQ(qoBase64().EncodeStr64("a"), "YQ==");
}

TEST(Base64, EncodesTwoBytesAsThreeCharactersAndOnePad) {
  EXPECT_EQ(qoBase64().EncodeStr64("ab"), "YWI=");
}

TEST(Base64, EncodesThreeBytesWithoutPadding) { EXPECT_EQ(qoBase64().EncodeStr64("abc"), "YWJj"); }

TEST(Base64, EncodesRfc4648Vectors) {
  qoBase64 codec;
  EXPECT_EQ(codec.EncodeStr64(""), "");
  EXPECT_EQ(codec.EncodeStr64("f"), "Zg==");
  EXPECT_EQ(codec.EncodeStr64("fo"), "Zm8=");
  EXPECT_EQ(codec.EncodeStr64("foo"), "Zm9v");
  EXPECT_EQ(codec.EncodeStr64("foob"), "Zm9vYg==");
  EXPECT_EQ(codec.EncodeStr64("fooba"), "Zm9vYmE=");
  EXPECT_EQ(codec.EncodeStr64("foobar"), "Zm9vYmFy");
}

TEST(Base64, DecodesRfc4648Vectors) {
  qoBase64 codec;
  EXPECT_EQ(codec.DecodeStr64("Zm9vYg=="), "foob");
  EXPECT_EQ(codec.DecodeStr64("Zm9vYmE="), "fooba");
  EXPECT_EQ(codec.DecodeStr64("Zm9vYmFy"), "foobar");
  EXPECT_EQ(codec.DecodeStr64("Zm9v"), "foo");
  EXPECT_EQ(codec.DecodeStr64("Zm8="), "fo");
  EXPECT_EQ(codec.DecodeStr64("Zg=="), "f");
}

TEST(Base64, Encodes76BytesAs104CharactersOnOneLine) {
  const std::string input(76, 'x');
  const std::string out = qoBase64().EncodeStr64(input);
  EXPECT_EQ(out.size(), 104u);
  EXPECT_EQ(out.find_first_of("\r\n"), std::string::npos);
}

TEST(Base64, InsertsNoLineBreaksInLongOutput) {
  const std::string out = Base64Encode(std::string(100000, '\x7F'));
  EXPECT_EQ(out.size(), 133336u);
  EXPECT_EQ(out.find_first_of("\r\n"), std::string::npos);
}

TEST(Base64, EncodesEveryByteValueLikeOpenSsl) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  EXPECT_EQ(Base64Encode(all), OpenSslEncode(all));
  EXPECT_EQ(Base64Decode(Base64Encode(all)), all);
}

TEST(Base64, EncodesHighAndZeroBytes) {
  EXPECT_EQ(Base64Encode(std::string("\0\0\0", 3)), "AAAA");
  EXPECT_EQ(Base64Encode("\xFF\xFF\xFF"), "////");
  EXPECT_EQ(Base64Encode("\xFB\xFF"), "+/8=");
  EXPECT_EQ(Base64Encode(std::string("\0", 1)), "AA==");
}

TEST(Base64, SkipsLineBreakInsideEncodedText) {
  EXPECT_EQ(qoBase64().DecodeStr64("YW\r\nJj"), "abc");
}

TEST(Base64, DecodesTextShorterThanFourCharactersAsEmpty) {
  qoBase64 codec;
  EXPECT_EQ(codec.DecodeStr64(""), "");
  EXPECT_EQ(codec.DecodeStr64("Y"), "");
  EXPECT_EQ(codec.DecodeStr64("YQ"), "");
  EXPECT_EQ(codec.DecodeStr64("YQ="), "");
  EXPECT_EQ(codec.DecodeStr64("YWJ"), "");
}

TEST(Base64, CountsLengthBeforeSkippingCharacters) {
  // Four characters long, two of them skipped: no whole group, no bytes.
  EXPECT_EQ(Base64Decode("YQ\r\n"), "");
  // Long enough, and the skipped blanks leave one whole padded group.
  EXPECT_EQ(Base64Decode(" Y Q = = "), "a");
}

TEST(Base64, SkipsJunkCharacters) {
  EXPECT_EQ(Base64Decode("!!!!"), "");
  EXPECT_EQ(Base64Decode("*Y#W.J-j~"), "abc");
  EXPECT_EQ(Base64Decode("\t\tYWJj\t"), "abc");
}

TEST(Base64, SkipsZeroAndHighBytes) {
  const std::string text = std::string("Y\0W\xFFJ\x80j", 7);
  EXPECT_EQ(Base64Decode(text), "abc");
  EXPECT_EQ(Base64Decode(std::string(16, '\0')), "");
  EXPECT_EQ(Base64Decode(std::string(16, '\xFF')), "");
}

TEST(Base64, DropsTrailingIncompleteGroup) {
  EXPECT_EQ(Base64Decode("YWJjY"), "abc");
  EXPECT_EQ(Base64Decode("YWJjYQ"), "abc");
  EXPECT_EQ(Base64Decode("YWJjYWJ"), "abc");
}

TEST(Base64, PaddingInFourthPlaceDropsThirdByte) { EXPECT_EQ(Base64Decode("YWI="), "ab"); }

TEST(Base64, PaddingInThirdPlaceDropsSecondAndThirdBytes) {
  EXPECT_EQ(Base64Decode("YQ=="), "a");
  // The fourth place does not bring the third byte back.
  EXPECT_EQ(Base64Decode("YQ=j"), "a");
}

TEST(Base64, PaddingInFirstOrSecondPlaceCountsAsZeroBits) {
  EXPECT_EQ(Base64Decode("=WJj"), std::string("\x01\x62\x63", 3));
  EXPECT_EQ(Base64Decode("Y=Jj"), std::string("\x60\x02\x63", 3));
  EXPECT_EQ(Base64Decode("===="), std::string("\0", 1));
}

TEST(Base64, KeepsDecodingAfterPaddedGroup) { EXPECT_EQ(Base64Decode("YQ==YWI=YWJj"), "aababc"); }

TEST(Base64, DecodesLinesCutAt74Characters) {
  std::mt19937_64 rng(74);
  const std::string data = RandomBytes(rng, 1000);
  const std::string encoded = Base64Encode(data);
  std::string lines;
  for (size_t i = 0; i < encoded.size(); i += 74) lines += encoded.substr(i, 74) + "\r\n";
  EXPECT_EQ(Base64Decode(lines), data);
}

TEST(Base64, RoundTripsEveryLengthUpTo1000) {
  std::mt19937_64 rng(1000);
  for (size_t n = 0; n <= 1000; ++n) {
    const std::string data = RandomBytes(rng, n);
    const std::string encoded = Base64Encode(data);
    ASSERT_EQ(encoded, OpenSslEncode(data)) << "length " << n;
    ASSERT_EQ(Base64Decode(encoded), data) << "length " << n;
  }
}

TEST(Base64, RoundTripsRandomInputsUpToOneMegabyte) {
  std::mt19937_64 rng(20);
  qoBase64 codec;
  for (int round = 0; round < 12; ++round) {
    const size_t n = round == 0 ? (1u << 20) : rng() % ((1u << 20) + 1);
    const std::string data = RandomBytes(rng, n);
    const std::string encoded = codec.EncodeStr64(data);
    ASSERT_EQ(encoded, OpenSslEncode(data)) << "length " << n;
    ASSERT_EQ(codec.DecodeStr64(encoded), data) << "length " << n;
  }
}

TEST(Base64, DecodesJunkLikeTheCharacterRules) {
  // Valid text with junk, padding and high bytes sprinkled in at random.
  std::mt19937_64 rng(4648);
  const std::string noise = std::string("=\r\n \t!*\0\xFF\x80-_.", 13);
  for (int round = 0; round < 2000; ++round) {
    std::string text = Base64Encode(RandomBytes(rng, rng() % 200));
    const size_t inserts = rng() % 12;
    for (size_t k = 0; k < inserts; ++k) {
      const size_t at = text.empty() ? 0 : rng() % (text.size() + 1);
      text.insert(at, 1, noise[rng() % noise.size()]);
    }
    ASSERT_EQ(Base64Decode(text), ModelDecode(text)) << "round " << round;
  }
}

TEST(Base64, DecodesRandomBytesWithoutFailing) {
  std::mt19937_64 rng(255);
  for (int round = 0; round < 2000; ++round) {
    const std::string text = RandomBytes(rng, rng() % 300);
    const std::string out = Base64Decode(text);
    ASSERT_LE(out.size(), text.size() / 4 * 3);
    ASSERT_EQ(out, ModelDecode(text)) << "round " << round;
  }
}

TEST(Base64, EncodeToAndDecodeToReplaceEarlierContents) {
  std::string out = "left over from before";
  Base64EncodeTo("abc", &out);
  EXPECT_EQ(out, "YWJj");
  Base64DecodeTo("YWI=", &out);
  EXPECT_EQ(out, "ab");
  Base64DecodeTo("YQ=", &out);
  EXPECT_EQ(out, "");
  Base64EncodeTo("", &out);
  EXPECT_EQ(out, "");
}

TEST(Base64, EncodeSetsOutputFromInput) {
  qoBase64 codec;
  EXPECT_EQ(codec.OutputValue(), "");
  codec.InputValue("user@example.com");
  codec.Encode();
  EXPECT_EQ(codec.OutputValue(), "dXNlckBleGFtcGxlLmNvbQ==");
}

TEST(Base64, DecodeSetsOutputFromInput) {
  qoBase64 codec;
  codec.InputValue("c2VjcmV0");
  codec.Decode();
  EXPECT_EQ(codec.OutputValue(), "secret");
}

}  // namespace
}  // namespace quillo
