// dmsinglemessageconfig: the template of a single (non-campaign) message (table
// dmsinglemessageconfig, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMSINGLEMESSAGECONFIG_H_
#define QUILLO_RECORDS_DMSINGLEMESSAGECONFIG_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmsinglemessageconfig.
class dmsinglemessageconfig : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmsinglemessageconfig();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column CampaignRecID: text.
  const std::string& CampaignRecID() const { return TextAt(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetText(kCampaignRecID, std::move(value)); }

  // Column MessageFileName: text.
  const std::string& MessageFileName() const { return TextAt(kMessageFileName); }
  void MessageFileName(std::string value) { SetText(kMessageFileName, std::move(value)); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kCampaignRecID,
    kMessageFileName,
    kRecID,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMSINGLEMESSAGECONFIG_H_
