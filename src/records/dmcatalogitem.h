// dmcatalogitem: one catalogue item (a file offered to clients) (table dmcatalogitem, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCATALOGITEM_H_
#define QUILLO_RECORDS_DMCATALOGITEM_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmcatalogitem.
class dmcatalogitem : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmcatalogitem();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column BaseFileName: text.
  const std::string& BaseFileName() const { return TextAt(kBaseFileName); }
  void BaseFileName(std::string value) { SetText(kBaseFileName, std::move(value)); }

  // Column Category: text.
  const std::string& Category() const { return TextAt(kCategory); }
  void Category(std::string value) { SetText(kCategory, std::move(value)); }

  // Column Description: text.
  const std::string& Description() const { return TextAt(kDescription); }
  void Description(std::string value) { SetText(kDescription, std::move(value)); }

  // Column FileName: text.
  const std::string& FileName() const { return TextAt(kFileName); }
  void FileName(std::string value) { SetText(kFileName, std::move(value)); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kBaseFileName,
    kCategory,
    kDescription,
    kFileName,
    kRecID,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCATALOGITEM_H_
