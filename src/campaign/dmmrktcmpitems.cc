#include "campaign/dmmrktcmpitems.h"

namespace quillo {

const TableInfo& dmmrktcmpitems::Table() {
  static const TableInfo table("dmmrktcmpitems",
                               {
                                   {"CampaignRecID", "CampaignRecID", ColumnType::kText},
                                   {"Description", "Description", ColumnType::kText},
                                   {"Interval", "Interval", ColumnType::kLong},
                                   {"MessageFileName", "MessageFileName", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmmrktcmpitems::dmmrktcmpitems() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmmrktcmpitems, Creatable::kPublic);

}  // namespace quillo
