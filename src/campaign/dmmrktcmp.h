// dmmrktcmp: one campaign: its name, kind and schedule code (table dmmrktcmp, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMMRKTCMP_H_
#define QUILLO_CAMPAIGN_DMMRKTCMP_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmmrktcmp.
class dmmrktcmp : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmmrktcmp();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column CampaignDescription: text.
  const std::string& CampaignDescription() const { return TextAt(kCampaignDescription); }
  void CampaignDescription(std::string value) { SetText(kCampaignDescription, std::move(value)); }

  // Column CampaignEffectiveDate: date-time.
  Date CampaignEffectiveDate() const { return DateAt(kCampaignEffectiveDate); }
  void CampaignEffectiveDate(Date value) { SetDate(kCampaignEffectiveDate, value); }

  // Column CampaignName: text.
  const std::string& CampaignName() const { return TextAt(kCampaignName); }
  void CampaignName(std::string value) { SetText(kCampaignName, std::move(value)); }

  // Column CampaignType: 32-bit integer.
  std::int32_t CampaignType() const { return LongAt(kCampaignType); }
  void CampaignType(std::int32_t value) { SetLong(kCampaignType, value); }

  // Column Disabled: 32-bit integer.
  std::int32_t Disabled() const { return LongAt(kDisabled); }
  void Disabled(std::int32_t value) { SetLong(kDisabled, value); }

  // Column Interval: 32-bit integer.
  std::int32_t Interval() const { return LongAt(kInterval); }
  void Interval(std::int32_t value) { SetLong(kInterval, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column Reminder: 32-bit integer.
  std::int32_t Reminder() const { return LongAt(kReminder); }
  void Reminder(std::int32_t value) { SetLong(kReminder, value); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kCampaignDescription,
    kCampaignEffectiveDate,
    kCampaignName,
    kCampaignType,
    kDisabled,
    kInterval,
    kRecID,
    kReminder,
  };
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMMRKTCMP_H_
