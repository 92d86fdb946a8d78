// Run-time errors of the platform layer.
//
// A failure that a class does not handle itself is thrown as
// quillo::RuntimeError carrying a classic error number and its description.
// Classes that report through Error / ErrorMessage / rc catch inside instead.
// Thread-safety: value types, safe to copy between threads.
#ifndef QUILLO_PLATFORM_ERROR_H_
#define QUILLO_PLATFORM_ERROR_H_

#include <stdexcept>
#include <string>

namespace quillo {

// The classic run-time error numbers the library raises.
namespace err {
inline constexpr long kInvalidProcedureCall = 5;
inline constexpr long kOverflow = 6;
inline constexpr long kSubscriptOutOfRange = 9;
inline constexpr long kDivisionByZero = 11;
inline constexpr long kTypeMismatch = 13;
inline constexpr long kBadFileNameOrNumber = 52;
inline constexpr long kFileNotFound = 53;
inline constexpr long kPathFileAccessError = 75;
inline constexpr long kObjectNotSet = 91;
inline constexpr long kInvalidUseOfNull = 94;
inline constexpr long kCantCreateObject = 429;
inline constexpr long kMemberNotFound = 438;
inline constexpr long kWrongArgumentCount = 450;
}  // namespace err

// A run-time error: `number` is the classic error number (see err::), and
// `description` a human-readable text. Database and socket layers use their
// own numbers (documented in docs/errors.md).
class RuntimeError : public std::runtime_error {
 public:
  RuntimeError(long number, std::string description);
  explicit RuntimeError(long number);

  long number;              // The error number.
  std::string description;  // What went wrong, in words.
};

// The standard description of a classic error number ("Overflow" for 6).
std::string DefaultErrorDescription(long number);

// Throws RuntimeError(number, description); an empty description takes the
// standard one.
[[noreturn]] void Raise(long number, std::string description = {});

}  // namespace quillo

#endif  // QUILLO_PLATFORM_ERROR_H_
