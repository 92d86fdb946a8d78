// MD5 message digest (RFC 1321) yielding upper-case hexadecimal text.
//
// qoMD5 is the library's own MD5: the MIME builder seeds its multipart
// boundary with it and the identifier generator digests a time stamp with
// it. Text is a std::string holding bytes, one byte per character. The digest
// is returned as 32 upper-case hexadecimal digits. The free function Md5Hex
// does the same for a text without an object.
//
//   quillo::qoMD5 md5;
//   md5.DigestStrToHexStr("abc");  // "900150983CD24FB0D6963F7D28E17F72"
//
// Thread-safety: the free functions are safe to call from any thread; a qoMD5
// object is not, like every other library object.
#ifndef QUILLO_CODEC_MD5_H_
#define QUILLO_CODEC_MD5_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"

namespace quillo {

// The 16-byte MD5 digest of `data`.
std::array<uint8_t, 16> Md5Digest(std::string_view data);

// The MD5 digest of `data` as 32 upper-case hexadecimal digits.
std::string Md5Hex(std::string_view data);

// MD5 digest with the RFC 1321 steps exposed (MD5Init, MD5Update, MD5Final)
// and the state words readable between them.
class qoMD5 : public Object {
 public:
  // The members in interface order, for hosts and tests that call by name.
  const MemberTable& Members() const override;

  // Starts with the initial state of MD5Init.
  qoMD5();

  // Sets OutputValue to DigestStrToHexStr(InputValue).
  void Hash();
  // Sets the text that Hash digests.
  void InputValue(std::string value);
  // The result of the last Hash; empty before the first.
  std::string OutputValue() const;
  // State word A as decimal text of its signed 32-bit value.
  std::string RegisterA() const;
  // State word B as decimal text of its signed 32-bit value.
  std::string RegisterB() const;
  // State word C as decimal text of its signed 32-bit value.
  std::string RegisterC() const;
  // State word D as decimal text of its signed 32-bit value.
  std::string RegisterD() const;

  // The digest of the bytes of the file `file_name`, read in blocks of 64
  // bytes. The block that reaches the end of the file stays in the buffer and
  // only the file length modulo 64 is counted for it, so for a non-empty file
  // whose length is a whole multiple of 64 the result is the digest of the
  // file without its last 64 bytes. That is the intended behaviour of this
  // member; callers that need the plain digest of a file use DigestStrToHexStr.
  // Throws RuntimeError 53 when the file does not exist, 75 when it cannot be
  // opened or read.
  std::string DigestFileToHexStr(const std::string& file_name);
  // The digest of the bytes of `source_string` as 32 upper-case hex digits.
  std::string DigestStrToHexStr(std::string_view source_string);
  // The state words A, B, C, D in that order, each as its four bytes from
  // least to most significant in two upper-case hex digits; after MD5Final,
  // the digest.
  std::string GetValues() const;

  // Resets the state words, the byte count and the block buffer.
  void MD5Init();
  // Adds the first `input_len` bytes of `input_buffer`. Throws RuntimeError 5
  // for a negative length and 9 for a length beyond the buffer.
  void MD5Update(long input_len, const std::vector<uint8_t>& input_buffer);
  // Adds the first `input_len` bytes of `input_buffer` (one byte a character).
  void MD5Update(long input_len, std::string_view input_buffer);
  // Pads with 0x80, zeros and the 64-bit bit length, and transforms the last
  // block(s); the state words then hold the digest.
  void MD5Final();

  // `value` rotated left by `bits` (taken modulo 32) as a 32-bit word.
  static int32_t LongLeftRotate(int32_t value, int32_t bits);

 private:
  // Adds `len` bytes at `data` to the digest.
  void Update(const uint8_t* data, size_t len);

  std::string input_value_;         // Text given through InputValue.
  std::string output_value_;        // Result of the last Hash.
  std::array<uint32_t, 4> state_;   // State words A, B, C, D.
  uint64_t byte_count_ = 0;         // Bytes added since MD5Init.
  std::array<uint8_t, 64> buffer_;  // Bytes of the block not yet transformed.
};

}  // namespace quillo

#endif  // QUILLO_CODEC_MD5_H_
