// dmolxref: a cross-reference between a client and a mail-folder entry (table dmolxref, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMOLXREF_H_
#define QUILLO_RECORDS_DMOLXREF_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmolxref.
class dmolxref : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmolxref();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Account: text.
  const std::string& Account() const { return TextAt(kAccount); }
  void Account(std::string value) { SetText(kAccount, std::move(value)); }

  // Column EntryID: text.
  const std::string& EntryID() const { return TextAt(kEntryID); }
  void EntryID(std::string value) { SetText(kEntryID, std::move(value)); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column SentReceived: 32-bit integer.
  std::int32_t SentReceived() const { return LongAt(kSentReceived); }
  void SentReceived(std::int32_t value) { SetLong(kSentReceived, value); }

  // Column SentReceivedDate: date-time.
  Date SentReceivedDate() const { return DateAt(kSentReceivedDate); }
  void SentReceivedDate(Date value) { SetDate(kSentReceivedDate, value); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccount,
    kEntryID,
    kRecID,
    kSentReceived,
    kSentReceivedDate,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMOLXREF_H_
