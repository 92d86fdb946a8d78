// Base64 codec over byte text.
//
// qoBase64 is the library's own Base64 encoder and decoder: the SMTP client
// encodes its AUTH LOGIN credentials with it and the attachment builder
// encodes file contents. Text is a std::string holding bytes, one byte per
// character. The free functions Base64Encode and Base64Decode do the same work
// without an object and are what the rest of the library calls.
//
//   quillo::qoBase64 codec;
//   codec.InputValue("abc");
//   codec.Encode();
//   codec.OutputValue();  // "YWJj"
//
// Thread-safety: the free functions are safe to call from any thread; a
// qoBase64 object is not, like every other library object.
#ifndef QUILLO_CODEC_BASE64_H_
#define QUILLO_CODEC_BASE64_H_

#include <string>
#include <string_view>

#include "platform/object.h"

namespace quillo {

// Base64 of `input` with the standard alphabet ("A"-"Z", "a"-"z", "0"-"9",
// "+", "/") and "=" padding, on one line whatever its length.
std::string Base64Encode(std::string_view input);

// The bytes encoded in `encoded`. Text shorter than four characters gives an
// empty result; characters outside the alphabet (line breaks, blanks, junk)
// are skipped; "=" is a padding value. Every four accepted characters give
// three bytes, less one for padding in the fourth place and less two for
// padding in the third; a trailing group of fewer than four accepted
// characters gives nothing. Never fails.
std::string Base64Decode(std::string_view encoded);

// Base64Encode into `*out`, replacing its contents and reusing its storage,
// for callers that encode many texts or very large ones.
// REQUIRES: `input` does not view the contents of `*out`.
void Base64EncodeTo(std::string_view input, std::string* out);

// Base64Decode into `*out`, replacing its contents and reusing its storage.
// REQUIRES: `encoded` does not view the contents of `*out`.
void Base64DecodeTo(std::string_view encoded, std::string* out);

// Base64 encoder and decoder with an input and an output text.
class qoBase64 : public Object {
 public:
  // The members in interface order, for hosts and tests that call by name.
  const MemberTable& Members() const override;

  // Sets OutputValue to EncodeStr64(InputValue).
  void Encode();
  // Sets OutputValue to DecodeStr64(InputValue).
  void Decode();
  // Sets the text that Encode and Decode work on.
  void InputValue(std::string value);
  // The result of the last Encode or Decode; empty before the first.
  std::string OutputValue() const;
  // Base64 of `input` (see Base64Encode).
  std::string EncodeStr64(std::string_view input) const;
  // The bytes encoded in `encoded` (see Base64Decode).
  std::string DecodeStr64(std::string_view encoded) const;

 private:
  std::string input_value_;   // Text given through InputValue.
  std::string output_value_;  // Result of the last Encode or Decode.
};

}  // namespace quillo

#endif  // QUILLO_CODEC_BASE64_H_
