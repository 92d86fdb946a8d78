// dmMessageParm: one "Name: Value" line of a message template's header block.
//
// The template parser (dmMessage) fills its four lists with these; the
// personalisation and dispatch steps read Name and Value. A host may also
// build one itself, set FullString and call Parse to split the line.
//
// Example:
//   auto parm = std::make_shared<quillo::dmMessageParm>();
//   parm->FullString(" Subject :  Hi there ");
//   parm->Parse();  // true; Name() == "Subject", Value() == "Hi there"
//
// Text is bytes; only the space character is trimmed (tabs stay).
// Thread-safety: none; an object belongs to one thread.
#ifndef QUILLO_MESSAGE_DM_MESSAGE_PARM_H_
#define QUILLO_MESSAGE_DM_MESSAGE_PARM_H_

#include <string>

#include "platform/object.h"

namespace quillo {

// A name/value pair standing for one header line.
class dmMessageParm : public Object {
 public:
  dmMessageParm() = default;

  const MemberTable& Members() const override;

  // The part of the line before the first colon, trimmed of spaces.
  const std::string& Name() const { return name_; }
  // Stores the name as given.
  void Name(std::string value) { name_ = std::move(value); }

  // The part of the line after the first colon, trimmed of spaces.
  const std::string& Value() const { return value_; }
  // Stores the value as given.
  void Value(std::string value) { value_ = std::move(value); }

  // The whole line (name, colon, value) as input to Parse.
  const std::string& FullString() const { return full_string_; }
  // Stores the line as given; does not split it.
  void FullString(std::string value) { full_string_ = std::move(value); }

  // Splits FullString at its first ":" into Name and Value (each trimmed of
  // spaces) and returns true; with no colon clears both and returns false.
  // Never raises.
  bool Parse();

 private:
  std::string name_;         // Before the first colon, trimmed.
  std::string value_;        // After the first colon, trimmed.
  std::string full_string_;  // The line to split.
};

}  // namespace quillo

#endif  // QUILLO_MESSAGE_DM_MESSAGE_PARM_H_
