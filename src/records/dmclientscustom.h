// dmclientscustom: one client's value of one custom field (table dmclientscustom, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCLIENTSCUSTOM_H_
#define QUILLO_RECORDS_DMCLIENTSCUSTOM_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmclientscustom.
class dmclientscustom : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmclientscustom();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Account: text.
  const std::string& Account() const { return TextAt(kAccount); }
  void Account(std::string value) { SetText(kAccount, std::move(value)); }

  // Column BoolValue: 32-bit integer.
  std::int32_t BoolValue() const { return LongAt(kBoolValue); }
  void BoolValue(std::int32_t value) { SetLong(kBoolValue, value); }

  // Column CustomRecID: text.
  const std::string& CustomRecID() const { return TextAt(kCustomRecID); }
  void CustomRecID(std::string value) { SetText(kCustomRecID, std::move(value)); }

  // Column DateValue: date-time.
  Date DateValue() const { return DateAt(kDateValue); }
  void DateValue(Date value) { SetDate(kDateValue, value); }

  // Column NumericValue: single.
  float NumericValue() const { return SingleAt(kNumericValue); }
  void NumericValue(float value) { SetSingle(kNumericValue, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column TextValue: text.
  const std::string& TextValue() const { return TextAt(kTextValue); }
  void TextValue(std::string value) { SetText(kTextValue, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccount,
    kBoolValue,
    kCustomRecID,
    kDateValue,
    kNumericValue,
    kRecID,
    kTextValue,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCLIENTSCUSTOM_H_
