#include "campaign/dmmrktcmp.h"

namespace quillo {

const TableInfo& dmmrktcmp::Table() {
  static const TableInfo table(
      "dmmrktcmp",
      {
          {"CampaignDescription", "CampaignDescription", ColumnType::kText},
          {"CampaignEffectiveDate", "CampaignEffectiveDate", ColumnType::kDate},
          {"CampaignName", "CampaignName", ColumnType::kText},
          {"CampaignType", "CampaignType", ColumnType::kLong},
          {"Disabled", "Disabled", ColumnType::kLong},
          {"Interval", "Interval", ColumnType::kLong},
          {"RecID", "RecID", ColumnType::kText},
          {"Reminder", "Reminder", ColumnType::kLong},
      },
      "RecID");
  return table;
}

dmmrktcmp::dmmrktcmp() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmmrktcmp, Creatable::kPublic);

}  // namespace quillo
