// dmmrktcmpitems: one message of a campaign, due Interval days after enrolment (table
// dmmrktcmpitems, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMMRKTCMPITEMS_H_
#define QUILLO_CAMPAIGN_DMMRKTCMPITEMS_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmmrktcmpitems.
class dmmrktcmpitems : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmmrktcmpitems();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column CampaignRecID: text.
  const std::string& CampaignRecID() const { return TextAt(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetText(kCampaignRecID, std::move(value)); }

  // Column Description: text.
  const std::string& Description() const { return TextAt(kDescription); }
  void Description(std::string value) { SetText(kDescription, std::move(value)); }

  // Column Interval: 32-bit integer.
  std::int32_t Interval() const { return LongAt(kInterval); }
  void Interval(std::int32_t value) { SetLong(kInterval, value); }

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
    kDescription,
    kInterval,
    kMessageFileName,
    kRecID,
  };
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMMRKTCMPITEMS_H_
