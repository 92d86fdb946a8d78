// Campaign reports: how a campaign's messages ended, day by day, and how far
// its clients got through its items, read from the delivery ledger
// (quillo_deliveries) and the sent-item log (dmsentitems).
//
//   auto report = quillo::delivery::BuildCampaignReport(connection, campaign_id,
//                                                       "2026-03-31", 30);
//   std::string html = quillo::delivery::CampaignReportHtml(report);
//
// A message counts on the campaign date it was made for (the ledger's
// RunDate; for rows from before it was kept, the day of its last update, in
// UTC), in the state it is in now: "claimed" is queued, not yet finished.
// Unsubscribes and bounces count on the day the address went on the
// suppression list (quillo_suppressions) for the campaign.
// The HTML form is one self-contained file: inline SVG charts, no script,
// nothing fetched, so it can be mailed or archived.
//
// Thread-safety: the functions keep no state; the connection is used from
// the calling thread only.
#ifndef QUILLO_DELIVERY_REPORT_H_
#define QUILLO_DELIVERY_REPORT_H_

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "delivery/ledger.h"

namespace quillo {

class Connection;

namespace delivery {

inline constexpr std::size_t kLedgerStates = kLedgerStateCount;

// The messages of one campaign date by ledger state (LedgerState order).
struct DayOutcomes {
  std::string day;  // "yyyy-mm-dd".
  std::array<long, kLedgerStates> counts{};
  long unsubscribed = 0;  // Addresses put on the suppression list that day for the
  long bounced = 0;       // campaign, as unsubscribed or as bounced (or complained).
};

// How many clients got one item.
struct ItemReach {
  std::string item_id;
  std::string description;
  long interval = 0;
  long clients = 0;  // Distinct clients in the sent-item log for the item.
};

struct CampaignReport {
  std::string campaign_id;
  std::string campaign_name;
  std::string first_day, last_day;           // The range, "yyyy-mm-dd", both included.
  std::vector<DayOutcomes> days;             // Every day of the range, in order.
  std::array<long, kLedgerStates> totals{};  // Over the range.
  long enrolled = 0;                         // Clients enrolled in the campaign now.
  std::vector<ItemReach> funnel;             // The items in their order (Interval).
};

// The report of campaign `campaign_id` for the `days` days that end on
// `last_day` ("yyyy-mm-dd"). Throws RuntimeError for an unknown campaign,
// a bad day or `days` < 1.
CampaignReport BuildCampaignReport(const std::shared_ptr<Connection>& connection,
                                   const std::string& campaign_id, const std::string& last_day,
                                   int days);

// The report as one HTML document with inline SVG charts.
std::string CampaignReportHtml(const CampaignReport& report);

}  // namespace delivery
}  // namespace quillo

#endif  // QUILLO_DELIVERY_REPORT_H_
