#include "records/dmsinglemessageconfig.h"

namespace quillo {

const TableInfo& dmsinglemessageconfig::Table() {
  static const TableInfo table("dmsinglemessageconfig",
                               {
                                   {"CampaignRecID", "CampaignRecID", ColumnType::kText},
                                   {"MessageFileName", "MessageFileName", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmsinglemessageconfig::dmsinglemessageconfig() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmsinglemessageconfig, Creatable::kPublic);

}  // namespace quillo
