// dmcontrolparameters: the control parameters (table dmcontrolparameters, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCONTROLPARAMETERS_H_
#define QUILLO_RECORDS_DMCONTROLPARAMETERS_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmcontrolparameters.
class dmcontrolparameters : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmcontrolparameters();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Increment: 32-bit integer.
  std::int32_t Increment() const { return LongAt(kIncrement); }
  void Increment(std::int32_t value) { SetLong(kIncrement, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kIncrement,
    kRecID,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCONTROLPARAMETERS_H_
