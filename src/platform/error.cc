#include "platform/error.h"

#include <utility>

namespace quillo {

RuntimeError::RuntimeError(long number, std::string description)
    : std::runtime_error(description.empty() ? DefaultErrorDescription(number) : description),
      number(number),
      description(description.empty() ? DefaultErrorDescription(number) : std::move(description)) {}

RuntimeError::RuntimeError(long number) : RuntimeError(number, std::string()) {}

std::string DefaultErrorDescription(long number) {
  switch (number) {
    case err::kInvalidProcedureCall:
      return "Invalid procedure call or argument";
    case err::kOverflow:
      return "Overflow";
    case err::kSubscriptOutOfRange:
      return "Subscript out of range";
    case err::kDivisionByZero:
      return "Division by zero";
    case err::kTypeMismatch:
      return "Type mismatch";
    case err::kBadFileNameOrNumber:
      return "Bad file name or number";
    case err::kFileNotFound:
      return "File not found";
    case err::kPathFileAccessError:
      return "Path/File access error";
    case err::kObjectNotSet:
      return "Object variable or With block variable not set";
    case err::kInvalidUseOfNull:
      return "Invalid use of Null";
    case err::kCantCreateObject:
      return "ActiveX component can't create object";
    case err::kMemberNotFound:
      return "Object doesn't support this property or method";
    case err::kWrongArgumentCount:
      return "Wrong number of arguments or invalid property assignment";
    default:
      return "Application-defined or object-defined error";
  }
}

void Raise(long number, std::string description) {
  throw RuntimeError(number, std::move(description));
}

}  // namespace quillo
