#include "campaign/dmclientsmrktcmp.h"

namespace quillo {

const TableInfo& dmclientsmrktcmp::Table() {
  static const TableInfo table("dmclientsmrktcmp",
                               {
                                   {"Account", "Account", ColumnType::kText},
                                   {"CampaignRecID", "CampaignRecID", ColumnType::kText},
                                   {"EffectiveDate", "EffectiveDate", ColumnType::kDate},
                                   {"RecID", "RecID", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmclientsmrktcmp::dmclientsmrktcmp() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmclientsmrktcmp, Creatable::kPublic);

}  // namespace quillo
