#include "campaign/dmsentitems.h"

namespace quillo {

const TableInfo& dmsentitems::Table() {
  static const TableInfo table("dmsentitems",
                               {
                                   {"Account", "Account", ColumnType::kText},
                                   {"CampaignItemRecID", "CampaignItemRecID", ColumnType::kText},
                                   {"CampaignRecID", "CampaignRecID", ColumnType::kText},
                                   {"HistoryRecID", "HistoryRecID", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"SentDate", "SentDate", ColumnType::kDate},
                               },
                               "RecID");
  return table;
}

dmsentitems::dmsentitems() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmsentitems, Creatable::kPublic);

}  // namespace quillo
