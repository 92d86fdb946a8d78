// The campaign engine's constant texts, kept for hosts that show them.
//
// The names of the campaign kinds, the inactive marker, the system list names,
// the heading of the schedule choices, the import sources and the description
// of every schedule code. No operation of the library displays them; a host
// that lists campaigns or schedules uses them so that every host shows the same
// words. Thread-safety: constants only.
#ifndef QUILLO_CAMPAIGN_CONSTANTS_H_
#define QUILLO_CAMPAIGN_CONSTANTS_H_

#include <array>
#include <cstdint>
#include <string_view>

namespace quillo {

// --- Campaign kinds (CampaignType as read by the processor) -----------------

// Kind 1: each item falls due a fixed number of days after enrolment.
inline constexpr std::int32_t kSequentialOffsetKind = 1;
// Kind 2: each run gives each client the next item not yet received.
inline constexpr std::int32_t kIncrementalKind = 2;

// Name of the standard list kind (any code other than 1 and 2).
inline constexpr std::string_view kStandardListName = "Standard List";
// Name of the sequential offset kind (code 1); also heads the day-count schedules.
inline constexpr std::string_view kSequentialOffsetCampaignName = "Sequential Offset Campaign";
// Name of the incremental kind (code 2); also heads the weekly schedules.
inline constexpr std::string_view kIncrementalCampaignName = "Incremental Campaign";
// Shown beside a campaign that is switched off.
inline constexpr std::string_view kCampaignIsInactive = "Campaign Is INACTIVE";

// --- System list names ------------------------------------------------------

inline constexpr std::string_view kAllClientsListName = "Quillo System - All Clients";
inline constexpr std::string_view kEmailListName = "Quillo System - Email List";
inline constexpr std::string_view kMailingListName = "Quillo System - Mailing List";
inline constexpr std::string_view kAgentsListName = "Quillo System - Agents List";
inline constexpr std::string_view kVendorsListName = "Quillo System - Vendors List";
inline constexpr std::string_view kLastMinuteListName = "Quillo System - Last Minute List";
inline constexpr std::string_view kHotSheetListName = "Quillo System - HotSheet List";

// The system list names, in the order above.
inline constexpr std::array<std::string_view, 7> kSystemListNames = {
    kAllClientsListName, kEmailListName,      kMailingListName,  kAgentsListName,
    kVendorsListName,    kLastMinuteListName, kHotSheetListName,
};

// Heading of the choice of mail kinds.
inline constexpr std::string_view kSequentialMailTypeHeading = "Sequential Mail Type";

// --- Import sources ---------------------------------------------------------

inline constexpr std::string_view kImportEmailAddressesOnly =
    "Email Addresses Only (Comma Delimited)";
inline constexpr std::string_view kImportAccessDatabase = "Microsoft Access Database";
inline constexpr std::string_view kImportOutlookFolders = "Outlook Mail And Contact Folders";
inline constexpr std::string_view kImportQuickbooks =
    "Quickbooks Customers, Vendors, Employees, etc.";
inline constexpr std::string_view kImportCommaDelimited = "Comma Delimited File";
inline constexpr std::string_view kImportTabDelimited = "Tab Delimited File";
inline constexpr std::string_view kImportTextOrHtml =
    "Text or HTML Files Containing Email Addresses";
inline constexpr std::string_view kImportOutlookExpress = "Outlook Express Message Files";
inline constexpr std::string_view kImportExcel = "Excel Spreadsheet Files";
inline constexpr std::string_view kImportCustom = "Custom Developed Import Feature";

// The import sources, in the order above.
inline constexpr std::array<std::string_view, 10> kImportSources = {
    kImportEmailAddressesOnly,
    kImportAccessDatabase,
    kImportOutlookFolders,
    kImportQuickbooks,
    kImportCommaDelimited,
    kImportTabDelimited,
    kImportTextOrHtml,
    kImportOutlookExpress,
    kImportExcel,
    kImportCustom,
};

// --- Schedule codes (CampaignType as read by dmdatecomputation) -------------

// One schedule code and its description.
struct ScheduleCodeText {
  std::int32_t code;             // The CampaignType value.
  std::string_view description;  // The text shown for it.
};

// Weekly schedules, codes 100-106.
inline constexpr std::array<ScheduleCodeText, 7> kWeeklyScheduleTexts = {{
    {100, "Send Every Monday"},
    {101, "Send Every Tuesday"},
    {102, "Send Every Wednesday"},
    {103, "Send Every Thursday"},
    {104, "Send Every Friday"},
    {105, "Send Every Saturday"},
    {106, "Send Every Sunday"},
}};

// Day-of-month schedules, codes 200-203.
inline constexpr std::array<ScheduleCodeText, 4> kDayOfMonthScheduleTexts = {{
    {200, "Send On The 1st Of Every Month"},
    {201, "Send On The 15th Of Every Month"},
    {202, "Send On the 30th of Every Month"},
    {203, "Send On the ??? of Every Month (See Interval)"},
}};

// Weekday-of-month schedules, codes 300-334.
inline constexpr std::array<ScheduleCodeText, 35> kWeekdayOfMonthScheduleTexts = {{
    {300, "Send Every First Monday Of The Month"},
    {301, "Send Every First Tuesday Of The Month"},
    {302, "Send Every First Wednesday Of The Month"},
    {303, "Send Every First Thursday Of The Month"},
    {304, "Send Every First Friday Of The Month"},
    {305, "Send Every First Saturday Of The Month"},
    {306, "Send Every First Sunday Of The Month"},
    {307, "Send Every Second Monday Of The Month"},
    {308, "Send Every Second Tuesday Of The Month"},
    {309, "Send Every Second Wednesday Of The Month"},
    {310, "Send Every Second Thursday Of The Month"},
    {311, "Send Every Second Friday Of The Month"},
    {312, "Send Every Second Saturday Of The Month"},
    {313, "Send Every Second Sunday Of The Month"},
    {314, "Send Every Third Monday Of The Month"},
    {315, "Send Every Third Tuesday Of The Month"},
    {316, "Send Every Third Wednesday Of The Month"},
    {317, "Send Every Third Thursday Of The Month"},
    {318, "Send Every Third Friday Of The Month"},
    {319, "Send Every Third Saturday Of The Month"},
    {320, "Send Every Third Sunday Of The Month"},
    {321, "Send Every Fourth Monday Of The Month"},
    {322, "Send Every Fourth Tuesday Of The Month"},
    {323, "Send Every Fourth Wednesday Of The Month"},
    {324, "Send Every Fourth Thursday Of The Month"},
    {325, "Send Every Fourth Friday Of The Month"},
    {326, "Send Every Fourth Saturday Of The Month"},
    {327, "Send Every Fourth Sunday Of The Month"},
    {328, "Send Every Last Monday Of The Month"},
    {329, "Send Every Last Tuesday Of The Month"},
    {330, "Send Every Last Wednesday Of The Month"},
    {331, "Send Every Last Thursday Of The Month"},
    {332, "Send Every Last Friday Of The Month"},
    {333, "Send Every Last Saturday Of The Month"},
    {334, "Send Every Last Sunday Of The Month"},
}};

// Every-N-days schedules, codes 400-406.
inline constexpr std::array<ScheduleCodeText, 7> kEveryNDaysScheduleTexts = {{
    {400, "Send Every Day"},
    {401, "Send Every Two Days"},
    {402, "Send Every Three (3) Days"},
    {403, "Send Every Seven (7) Days"},
    {404, "Send Every Ten (10) Days"},
    {405, "Send Every Fourteen (14) Days"},
    {406, "Send Every ??? Days (See Interval)"},
}};

// The description of schedule code `code`, or "" for a code without one
// (0 and every code outside the tables above).
std::string_view ScheduleCodeDescription(std::int32_t code);

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_CONSTANTS_H_
