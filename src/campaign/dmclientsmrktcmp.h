// dmclientsmrktcmp: one client's enrolment in one campaign (table dmclientsmrktcmp, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMCLIENTSMRKTCMP_H_
#define QUILLO_CAMPAIGN_DMCLIENTSMRKTCMP_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmclientsmrktcmp.
class dmclientsmrktcmp : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmclientsmrktcmp();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Account: text.
  const std::string& Account() const { return TextAt(kAccount); }
  void Account(std::string value) { SetText(kAccount, std::move(value)); }

  // Column CampaignRecID: text.
  const std::string& CampaignRecID() const { return TextAt(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetText(kCampaignRecID, std::move(value)); }

  // Column EffectiveDate: date-time.
  Date EffectiveDate() const { return DateAt(kEffectiveDate); }
  void EffectiveDate(Date value) { SetDate(kEffectiveDate, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccount,
    kCampaignRecID,
    kEffectiveDate,
    kRecID,
  };
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMCLIENTSMRKTCMP_H_
