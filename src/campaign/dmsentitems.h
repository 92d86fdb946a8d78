// dmsentitems: one campaign message sent to one client (table dmsentitems, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMSENTITEMS_H_
#define QUILLO_CAMPAIGN_DMSENTITEMS_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmsentitems.
class dmsentitems : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmsentitems();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Account: text.
  const std::string& Account() const { return TextAt(kAccount); }
  void Account(std::string value) { SetText(kAccount, std::move(value)); }

  // Column CampaignItemRecID: text.
  const std::string& CampaignItemRecID() const { return TextAt(kCampaignItemRecID); }
  void CampaignItemRecID(std::string value) { SetText(kCampaignItemRecID, std::move(value)); }

  // Column CampaignRecID: text.
  const std::string& CampaignRecID() const { return TextAt(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetText(kCampaignRecID, std::move(value)); }

  // Column HistoryRecID: text.
  const std::string& HistoryRecID() const { return TextAt(kHistoryRecID); }
  void HistoryRecID(std::string value) { SetText(kHistoryRecID, std::move(value)); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column SentDate: date-time.
  Date SentDate() const { return DateAt(kSentDate); }
  void SentDate(Date value) { SetDate(kSentDate, value); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccount,
    kCampaignItemRecID,
    kCampaignRecID,
    kHistoryRecID,
    kRecID,
    kSentDate,
  };
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMSENTITEMS_H_
