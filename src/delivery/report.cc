#include "delivery/report.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include "mail/html_text.h"
#include "platform/database.h"
#include "platform/date.h"
#include "platform/error.h"
#include "platform/format.h"

namespace quillo::delivery {

namespace {

// The day number of "yyyy-mm-dd" (anything after it ignored), or nullopt.
std::optional<long> DayNumber(std::string_view text) {
  Date d;
  if (text.size() < 10 || !TryParseDate(text.substr(0, 10), &d)) return std::nullopt;
  return static_cast<long>(std::floor(d.value));
}

std::string DayName(long day) { return FormatDate(Date(static_cast<double>(day)), "yyyy-mm-dd"); }

// The states as the report names them, and their colours.
constexpr const char* kReportNames[kLedgerStates] = {"queued", "accepted", "deferred",  "refused",
                                                     "failed", "in doubt", "suppressed"};
constexpr const char* kColours[kLedgerStates] = {"#9aa5b1", "#2f9e44", "#f08c00", "#c92a2a",
                                                 "#862e9c", "#495057", "#e8590c"};

std::string Number(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f", v);
  return buffer;
}

}  // namespace

CampaignReport BuildCampaignReport(const std::shared_ptr<Connection>& connection,
                                   const std::string& campaign_id, const std::string& last_day,
                                   int days) {
  if (days < 1) Raise(5, "A report covers one day or more");
  CampaignReport r;
  r.campaign_id = campaign_id;
  const std::optional<long> last_number = DayNumber(last_day);
  if (last_day.size() != 10 || !last_number) Raise(5, "Not a date: '" + last_day + "'");
  const long last = *last_number;
  const long first = last - days + 1;
  r.first_day = DayName(first);
  r.last_day = DayName(last);
  const std::string campaign = SqlLiteral(campaign_id);

  Recordset rs;
  rs.Open("SELECT CampaignName FROM dmmrktcmp WHERE RecID = " + campaign, connection,
          kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  if (rs.Eof()) Raise(5, "No campaign '" + campaign_id + "'");
  r.campaign_name = FieldText(rs, "CampaignName");
  rs.Close();

  for (long day = first; day <= last; ++day) r.days.push_back({DayName(day), {}});
  // The row of `text`'s day in the range, or null outside it.
  auto row_of = [&](std::string_view text) -> DayOutcomes* {
    std::optional<long> n = DayNumber(text);
    if (!n || *n < first || *n > last) return nullptr;
    return &r.days[static_cast<std::size_t>(*n - first)];
  };
  CreateLedgerSchema(*connection);
  rs.Open("SELECT RunDate, Updated, State FROM quillo_deliveries WHERE CampaignRecID = " + campaign,
          connection, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    std::string day = FieldText(rs, "RunDate");
    if (day.empty()) day = FieldText(rs, "Updated");
    auto state = ParseLedgerState(FieldText(rs, "State"));
    DayOutcomes* row = row_of(day);
    if (!state || !row) continue;
    auto s = static_cast<std::size_t>(*state);
    ++row->counts[s];
    ++r.totals[s];
  }
  rs.Close();

  CreateSuppressionSchema(*connection);
  rs.Open("SELECT Reason, Added FROM quillo_suppressions WHERE CampaignRecID = " + campaign,
          connection, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    DayOutcomes* row = row_of(FieldText(rs, "Added"));
    if (!row) continue;
    std::string reason = FieldText(rs, "Reason");
    if (reason == "unsubscribed") ++row->unsubscribed;
    if (reason == "bounced" || reason == "complained") ++row->bounced;
  }
  rs.Close();

  rs.Open("SELECT COUNT(*) AS N FROM dmclientsmrktcmp WHERE CampaignRecID = " + campaign,
          connection, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  r.enrolled = rs.FieldValue("N").ToLong();
  rs.Close();

  rs.Open(
      "SELECT i.RecID AS ItemID, i.Description AS Description, i.Interval AS Days, "
      "COUNT(DISTINCT s.Account) AS N FROM dmmrktcmpitems i LEFT JOIN dmsentitems s ON "
      "s.CampaignItemRecID = i.RecID AND s.CampaignRecID = i.CampaignRecID WHERE "
      "i.CampaignRecID = " +
          campaign + " GROUP BY i.RecID, i.Description, i.Interval ORDER BY i.Interval, i.RecID",
      connection, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    r.funnel.push_back({FieldText(rs, "ItemID"), FieldText(rs, "Description"),
                        rs.FieldValue("Days").ToLong(), rs.FieldValue("N").ToLong()});
  }
  rs.Close();
  return r;
}

std::string CampaignReportHtml(const CampaignReport& r) {
  std::string out;
  out += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  out += "<title>quillo report: " + mail::HtmlEscape(r.campaign_name) + "</title>\n";
  out +=
      "<style>body{font-family:sans-serif;margin:2em;color:#212529}"
      "table{border-collapse:collapse}td,th{padding:2px 10px;text-align:right}"
      "th:first-child,td:first-child{text-align:left}svg text{font-size:11px}"
      ".key span{display:inline-block;width:10px;height:10px;margin:0 4px 0 12px}</style>\n";
  out += "</head>\n<body>\n";
  out += "<h1>Campaign " + mail::HtmlEscape(r.campaign_name) + "</h1>\n";
  out += "<p>" + r.first_day + " to " + r.last_day + ", " + std::to_string(r.days.size()) +
         " days, messages counted on the campaign date they were made for.</p>\n";

  // Messages per day, stacked by outcome.
  long tallest = 1;
  for (const auto& d : r.days) {
    long sum = 0;
    for (long c : d.counts) sum += c;
    tallest = std::max(tallest, sum);
  }
  const double chart_h = 200, left = 40, top = 10, bar_w = 14, gap = 4;
  const double width = left + static_cast<double>(r.days.size()) * (bar_w + gap) + 10;
  out += "<h2>Messages per day by outcome</h2>\n";
  out += "<svg id=\"per-day\" width=\"" + Number(width) + "\" height=\"" +
         Number(chart_h + top + 60) + "\" role=\"img\">\n";
  out += "<line x1=\"" + Number(left) + "\" y1=\"" + Number(top + chart_h) + "\" x2=\"" +
         Number(width) + "\" y2=\"" + Number(top + chart_h) + "\" stroke=\"#868e96\"/>\n";
  out += "<text x=\"2\" y=\"" + Number(top + 10) + "\">" + std::to_string(tallest) + "</text>\n";
  out += "<text x=\"2\" y=\"" + Number(top + chart_h) + "\">0</text>\n";
  for (std::size_t i = 0; i < r.days.size(); ++i) {
    const auto& d = r.days[i];
    double x = left + static_cast<double>(i) * (bar_w + gap);
    double y = top + chart_h;
    for (std::size_t s = 0; s < kLedgerStates; ++s) {
      if (d.counts[s] == 0) continue;
      double h = chart_h * static_cast<double>(d.counts[s]) / static_cast<double>(tallest);
      y -= h;
      out += "<rect class=\"bar\" data-day=\"" + d.day + "\" data-state=\"" + kReportNames[s] +
             "\" data-count=\"" + std::to_string(d.counts[s]) + "\" x=\"" + Number(x) + "\" y=\"" +
             Number(y) + "\" width=\"" + Number(bar_w) + "\" height=\"" + Number(h) + "\" fill=\"" +
             kColours[s] + "\"><title>" + d.day + ": " + std::to_string(d.counts[s]) + " " +
             kReportNames[s] + "</title></rect>\n";
    }
    if (i % 7 == 0 || i + 1 == r.days.size()) {
      out += "<text x=\"" + Number(x) + "\" y=\"" + Number(top + chart_h + 14) +
             "\" transform=\"rotate(45 " + Number(x) + " " + Number(top + chart_h + 14) + ")\">" +
             d.day.substr(5) + "</text>\n";
    }
  }
  out += "</svg>\n<p class=\"key\">";
  for (std::size_t s = 0; s < kLedgerStates; ++s) {
    out += "<span style=\"background:" + std::string(kColours[s]) + "\"></span>" + kReportNames[s];
  }
  out += "</p>\n";

  out += "<table id=\"totals\">\n<tr><th>outcome</th><th>messages</th></tr>\n";
  for (std::size_t s = 0; s < kLedgerStates; ++s) {
    out += "<tr><td>" + std::string(kReportNames[s]) + "</td><td data-state=\"" + kReportNames[s] +
           "\">" + std::to_string(r.totals[s]) + "</td></tr>\n";
  }
  out += "</table>\n";

  // Unsubscribes and bounces per day.
  long most = 1;
  for (const auto& d : r.days) most = std::max({most, d.unsubscribed, d.bounced});
  const double small_h = 100;
  out += "<h2>Unsubscribes and bounces per day</h2>\n";
  out += "<svg id=\"lost\" width=\"" + Number(width) + "\" height=\"" + Number(small_h + top + 20) +
         "\" role=\"img\">\n";
  out += "<line x1=\"" + Number(left) + "\" y1=\"" + Number(top + small_h) + "\" x2=\"" +
         Number(width) + "\" y2=\"" + Number(top + small_h) + "\" stroke=\"#868e96\"/>\n";
  out += "<text x=\"2\" y=\"" + Number(top + 10) + "\">" + std::to_string(most) + "</text>\n";
  for (std::size_t i = 0; i < r.days.size(); ++i) {
    const auto& d = r.days[i];
    double x = left + static_cast<double>(i) * (bar_w + gap);
    const std::pair<const char*, long> kinds[] = {{"unsubscribed", d.unsubscribed},
                                                  {"bounced", d.bounced}};
    for (int k = 0; k < 2; ++k) {
      if (kinds[k].second == 0) continue;
      double h = small_h * static_cast<double>(kinds[k].second) / static_cast<double>(most);
      out += "<rect class=\"lost\" data-day=\"" + d.day + "\" data-kind=\"" + kinds[k].first +
             "\" data-count=\"" + std::to_string(kinds[k].second) + "\" x=\"" +
             Number(x + k * bar_w / 2) + "\" y=\"" + Number(top + small_h - h) + "\" width=\"" +
             Number(bar_w / 2) + "\" height=\"" + Number(h) + "\" fill=\"" +
             (k == 0 ? "#f59f00" : "#c92a2a") + "\"><title>" + d.day + ": " +
             std::to_string(kinds[k].second) + " " + kinds[k].first + "</title></rect>\n";
    }
  }
  out += "</svg>\n";

  // The funnel: enrolled clients, then each item.
  out += "<h2>How far clients got</h2>\n";
  const double row_h = 22, label_w = 220, bar_max = 400;
  const long widest = std::max<long>(1, r.enrolled);
  out += "<svg id=\"funnel\" width=\"" + Number(label_w + bar_max + 60) + "\" height=\"" +
         Number(row_h * static_cast<double>(r.funnel.size() + 1) + 10) + "\" role=\"img\">\n";
  auto row = [&](std::size_t i, const std::string& label, long n, const std::string& item) {
    double y = 5 + row_h * static_cast<double>(i);
    double w = bar_max * static_cast<double>(std::min(n, widest)) / static_cast<double>(widest);
    out += "<text x=\"0\" y=\"" + Number(y + 14) + "\">" + mail::HtmlEscape(label) + "</text>\n";
    out += "<rect class=\"reach\" data-item=\"" + mail::HtmlEscape(item) + "\" data-count=\"" +
           std::to_string(n) + "\" x=\"" + Number(label_w) + "\" y=\"" + Number(y) + "\" width=\"" +
           Number(w) + "\" height=\"" + Number(row_h - 6) + "\" fill=\"#1c7ed6\"><title>" +
           mail::HtmlEscape(label) + ": " + std::to_string(n) + "</title></rect>\n";
    out += "<text x=\"" + Number(label_w + w + 6) + "\" y=\"" + Number(y + 14) + "\">" +
           std::to_string(n) + "</text>\n";
  };
  row(0, "enrolled", r.enrolled, "");
  for (std::size_t i = 0; i < r.funnel.size(); ++i) {
    const auto& item = r.funnel[i];
    row(i + 1, "day " + std::to_string(item.interval) + ": " + item.description, item.clients,
        item.item_id);
  }
  out += "</svg>\n</body>\n</html>\n";
  return out;
}

}  // namespace quillo::delivery
