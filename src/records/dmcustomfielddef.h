// dmcustomfielddef: the definition of a custom client field (table dmcustomfielddef, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCUSTOMFIELDDEF_H_
#define QUILLO_RECORDS_DMCUSTOMFIELDDEF_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmcustomfielddef.
class dmcustomfielddef : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmcustomfielddef();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Caption: text.
  const std::string& Caption() const { return TextAt(kCaption); }
  void Caption(std::string value) { SetText(kCaption, std::move(value)); }

  // Column FieldListType: 32-bit integer.
  std::int32_t FieldListType() const { return LongAt(kFieldListType); }
  void FieldListType(std::int32_t value) { SetLong(kFieldListType, value); }

  // Column FieldType: 32-bit integer.
  std::int32_t FieldType() const { return LongAt(kFieldType); }
  void FieldType(std::int32_t value) { SetLong(kFieldType, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column Seq: 32-bit integer.
  std::int32_t Seq() const { return LongAt(kSeq); }
  void Seq(std::int32_t value) { SetLong(kSeq, value); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kCaption,
    kFieldListType,
    kFieldType,
    kRecID,
    kSeq,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCUSTOMFIELDDEF_H_
