// dmcustomfieldlistdef: one choice of a custom field list (table dmcustomfieldlistdef, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCUSTOMFIELDLISTDEF_H_
#define QUILLO_RECORDS_DMCUSTOMFIELDLISTDEF_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmcustomfieldlistdef.
class dmcustomfieldlistdef : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmcustomfieldlistdef();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column CustomRecID: text.
  const std::string& CustomRecID() const { return TextAt(kCustomRecID); }
  void CustomRecID(std::string value) { SetText(kCustomRecID, std::move(value)); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column Seq: 32-bit integer.
  std::int32_t Seq() const { return LongAt(kSeq); }
  void Seq(std::int32_t value) { SetLong(kSeq, value); }

  // Column TextValue: text.
  const std::string& TextValue() const { return TextAt(kTextValue); }
  void TextValue(std::string value) { SetText(kTextValue, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kCustomRecID,
    kRecID,
    kSeq,
    kTextValue,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCUSTOMFIELDLISTDEF_H_
