#include "records/dmclients.h"

namespace quillo {

const TableInfo& dmclients::Table() {
  static const TableInfo table("dmclients",
                               {
                                   {"Account", "Account", ColumnType::kText},
                                   {"Address", "Address", ColumnType::kText},
                                   {"AgentID", "AgentID", ColumnType::kText},
                                   {"CalledDate", "CalledDate", ColumnType::kDate},
                                   {"CellPhone", "CellPhone", ColumnType::kText},
                                   {"city", "City", ColumnType::kText},
                                   {"Company", "Company", ColumnType::kText},
                                   {"ContactDate", "ContactDate", ColumnType::kDate},
                                   {"Country", "Country", ColumnType::kText},
                                   {"Email", "EMail", ColumnType::kText},
                                   {"EMailList", "EMailList", ColumnType::kInteger},
                                   {"FaxPhone", "FaxPhone", ColumnType::kText},
                                   {"First", "First", ColumnType::kText},
                                   {"HomePhone", "HomePhone", ColumnType::kText},
                                   {"HotSheetList", "HotSheetList", ColumnType::kInteger},
                                   {"Last", "Last", ColumnType::kText},
                                   {"LastMinuteList", "LastMinuteList", ColumnType::kInteger},
                                   {"LoginID", "LoginID", ColumnType::kText},
                                   {"LoginPassword", "LoginPassword", ColumnType::kText},
                                   {"MailingList", "MailingList", ColumnType::kInteger},
                                   {"Middle", "Middle", ColumnType::kText},
                                   {"ModifiedRemote", "ModifiedRemote", ColumnType::kInteger},
                                   {"Notes", "Notes", ColumnType::kText},
                                   {"PO", "PO", ColumnType::kText},
                                   {"RecordAddedBy", "RecordAddedBy", ColumnType::kText},
                                   {"RecordAddedDate", "RecordAddedDate", ColumnType::kDate},
                                   {"RecordEditedBy", "RecordEditedBy", ColumnType::kText},
                                   {"RecordEditedDate", "RecordEditedDate", ColumnType::kDate},
                                   {"SiteID", "SiteID", ColumnType::kText},
                                   {"state", "State", ColumnType::kText},
                                   {"Title", "Title", ColumnType::kText},
                                   {"WorkPhone", "WorkPhone", ColumnType::kText},
                                   {"zip", "Zip", ColumnType::kText},
                               },
                               "Account");
  return table;
}

dmclients::dmclients() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmclients, Creatable::kPublic);

}  // namespace quillo
