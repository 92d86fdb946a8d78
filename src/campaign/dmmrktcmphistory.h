// dmmrktcmphistory: one run of a campaign (table dmmrktcmphistory, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members, then the two
// lookups of a campaign's latest run, LoadLatestByEffectiveDate and
// LoadLatestByRunDate. Before either, set Connection and CampaignRecID.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMMRKTCMPHISTORY_H_
#define QUILLO_CAMPAIGN_DMMRKTCMPHISTORY_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmmrktcmphistory.
class dmmrktcmphistory : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmmrktcmphistory();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column CampaignRecID: text.
  const std::string& CampaignRecID() const { return TextAt(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetText(kCampaignRecID, std::move(value)); }

  // Column EffectiveDate: date-time.
  Date EffectiveDate() const { return DateAt(kEffectiveDate); }
  void EffectiveDate(Date value) { SetDate(kEffectiveDate, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column RunDate: date-time.
  Date RunDate() const { return DateAt(kRunDate); }
  void RunDate(Date value) { SetDate(kRunDate, value); }

  // Loads the campaign's run with the latest EffectiveDate (ties: whichever
  // row the database returns first). With no run the record is left as it
  // was. Failures reach the caller (a failed open shows when the recordset is
  // read).
  void LoadLatestByEffectiveDate();
  // The same, by the latest RunDate.
  void LoadLatestByRunDate();

 private:
  // Loads the first row of the campaign's runs ordered by `order_by`.
  void LoadLatest(const char* order_by);

  // Column positions, in table order.
  enum Columns : size_t {
    kCampaignRecID,
    kEffectiveDate,
    kRecID,
    kRunDate,
  };
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMMRKTCMPHISTORY_H_
