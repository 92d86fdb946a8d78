// The library's tables and indexes, for SQLite and PostgreSQL.
//
// Column types: text -> TEXT, 32-bit -> INTEGER, 16-bit -> SMALLINT, single ->
// REAL, date-time -> TIMESTAMP. Both engines accept the same type names, and
// both backends map them back to the Variant kinds. Names are written bare,
// so PostgreSQL folds them to lower case as it folds the statements' names;
// the reserved word Default is quoted in the engine's form.
#include "platform/schema.h"

#include "platform/db/backend.h"

namespace quillo::schema {
namespace {

struct Column {
  const char* name;
  const char* type;
};

struct Table {
  const char* name;
  const char* key;
  std::vector<Column> columns;
};

const std::vector<Table>& Tables() {
  static const std::vector<Table> tables = {
      {"dmmrktcmp",
       "RecID",
       {{"CampaignDescription", "TEXT"},
        {"CampaignEffectiveDate", "TIMESTAMP"},
        {"CampaignName", "TEXT"},
        {"CampaignType", "INTEGER"},
        {"Disabled", "INTEGER"},
        {"Interval", "INTEGER"},
        {"RecID", "TEXT"},
        {"Reminder", "INTEGER"}}},
      {"dmmrktcmpitems",
       "RecID",
       {{"CampaignRecID", "TEXT"},
        {"Description", "TEXT"},
        {"Interval", "INTEGER"},
        {"MessageFileName", "TEXT"},
        {"RecID", "TEXT"}}},
      {"dmmrktcmphistory",
       "RecID",
       {{"CampaignRecID", "TEXT"},
        {"EffectiveDate", "TIMESTAMP"},
        {"RecID", "TEXT"},
        {"RunDate", "TIMESTAMP"}}},
      {"dmclientsmrktcmp",
       "RecID",
       {{"Account", "TEXT"},
        {"CampaignRecID", "TEXT"},
        {"EffectiveDate", "TIMESTAMP"},
        {"RecID", "TEXT"}}},
      {"dmsentitems",
       "RecID",
       {{"Account", "TEXT"},
        {"CampaignItemRecID", "TEXT"},
        {"CampaignRecID", "TEXT"},
        {"HistoryRecID", "TEXT"},
        {"RecID", "TEXT"},
        {"SentDate", "TIMESTAMP"}}},
      {"dmcatalogitem",
       "RecID",
       {{"BaseFileName", "TEXT"},
        {"Category", "TEXT"},
        {"Description", "TEXT"},
        {"FileName", "TEXT"},
        {"RecID", "TEXT"}}},
      {"dmclients",
       "Account",
       {{"Account", "TEXT"},
        {"Address", "TEXT"},
        {"AgentID", "TEXT"},
        {"CalledDate", "TIMESTAMP"},
        {"CellPhone", "TEXT"},
        {"City", "TEXT"},
        {"Company", "TEXT"},
        {"ContactDate", "TIMESTAMP"},
        {"Country", "TEXT"},
        {"EMail", "TEXT"},
        {"EMailList", "SMALLINT"},
        {"FaxPhone", "TEXT"},
        {"First", "TEXT"},
        {"HomePhone", "TEXT"},
        {"HotSheetList", "SMALLINT"},
        {"Last", "TEXT"},
        {"LastMinuteList", "SMALLINT"},
        {"LoginID", "TEXT"},
        {"LoginPassword", "TEXT"},
        {"MailingList", "SMALLINT"},
        {"Middle", "TEXT"},
        {"ModifiedRemote", "SMALLINT"},
        {"Notes", "TEXT"},
        {"PO", "TEXT"},
        {"RecordAddedBy", "TEXT"},
        {"RecordAddedDate", "TIMESTAMP"},
        {"RecordEditedBy", "TEXT"},
        {"RecordEditedDate", "TIMESTAMP"},
        {"SiteID", "TEXT"},
        {"State", "TEXT"},
        {"Title", "TEXT"},
        {"WorkPhone", "TEXT"},
        {"Zip", "TEXT"}}},
      {"dmclientscustom",
       "RecID",
       {{"Account", "TEXT"},
        {"BoolValue", "INTEGER"},
        {"CustomRecID", "TEXT"},
        {"DateValue", "TIMESTAMP"},
        {"NumericValue", "REAL"},
        {"RecID", "TEXT"},
        {"TextValue", "TEXT"}}},
      {"dmcontrolparameters", "RecID", {{"Increment", "INTEGER"}, {"RecID", "TEXT"}}},
      {"dmcustomfielddef",
       "RecID",
       {{"Caption", "TEXT"},
        {"FieldListType", "INTEGER"},
        {"FieldType", "INTEGER"},
        {"RecID", "TEXT"},
        {"Seq", "INTEGER"}}},
      {"dmcustomfieldlistdef",
       "RecID",
       {{"CustomRecID", "TEXT"}, {"RecID", "TEXT"}, {"Seq", "INTEGER"}, {"TextValue", "TEXT"}}},
      {"dmolxref",
       "RecID",
       {{"Account", "TEXT"},
        {"EntryID", "TEXT"},
        {"RecID", "TEXT"},
        {"SentReceived", "INTEGER"},
        {"SentReceivedDate", "TIMESTAMP"}}},
      {"dmsinglemessageconfig",
       "RecID",
       {{"CampaignRecID", "TEXT"}, {"MessageFileName", "TEXT"}, {"RecID", "TEXT"}}},
      {"dmsmtpaccounts",
       "RecID",
       {{"AccountName", "TEXT"},
        {"AccountPassword", "TEXT"},
        {"Default", "INTEGER"},
        {"Domain", "TEXT"},
        {"Email", "TEXT"},
        {"EmailFriendly", "TEXT"},
        {"MailServer", "TEXT"},
        {"Port", "INTEGER"},
        {"RecID", "TEXT"},
        {"UseAuthentication", "INTEGER"}}},
  };
  return tables;
}

struct Index {
  const char* name;
  const char* table;
  const char* columns;
};

const std::vector<Index>& Indexes() {
  static const std::vector<Index> indexes = {
      {"ix_dmsentitems_campaign_item_account", "dmsentitems",
       "CampaignRecID, CampaignItemRecID, Account"},
      {"ix_dmsentitems_account", "dmsentitems", "Account"},
      {"ix_dmclientsmrktcmp_campaign_date", "dmclientsmrktcmp", "CampaignRecID, EffectiveDate"},
      {"ix_dmclientsmrktcmp_account", "dmclientsmrktcmp", "Account"},
      {"ix_dmmrktcmpitems_campaign_interval", "dmmrktcmpitems", "CampaignRecID, Interval"},
      {"ix_dmmrktcmphistory_campaign_effective", "dmmrktcmphistory",
       "CampaignRecID, EffectiveDate"},
      {"ix_dmmrktcmphistory_campaign_run", "dmmrktcmphistory", "CampaignRecID, RunDate"},
      {"ix_dmsmtpaccounts_email", "dmsmtpaccounts", "Email"},
      {"ix_dmclients_email", "dmclients", "EMail"},
  };
  return indexes;
}

std::string ColumnName(const char* name, bool postgres) {
  if (std::string_view(name) == "Default") return postgres ? "\"default\"" : "\"Default\"";
  return name;
}

}  // namespace

std::vector<std::string> TableNames() {
  std::vector<std::string> names;
  for (const Table& t : Tables()) names.emplace_back(t.name);
  return names;
}

void Create(Connection& connection) {
  db::Backend& backend = connection.Backend();
  const bool postgres = backend.EngineName() == "postgresql";
  for (const Table& t : Tables()) {
    std::string sql = std::string("CREATE TABLE IF NOT EXISTS ") + t.name + " (";
    bool first = true;
    for (const Column& c : t.columns) {
      if (!first) sql += ", ";
      first = false;
      sql += ColumnName(c.name, postgres) + " " + c.type;
      if (std::string_view(c.name) == t.key) sql += " NOT NULL PRIMARY KEY";
    }
    sql += ")";
    backend.Execute(sql);
  }
  for (const Index& ix : Indexes()) {
    backend.Execute(std::string("CREATE INDEX IF NOT EXISTS ") + ix.name + " ON " + ix.table +
                    " (" + ix.columns + ")");
  }
}

}  // namespace quillo::schema
