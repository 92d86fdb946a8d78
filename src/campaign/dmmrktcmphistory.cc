#include "campaign/dmmrktcmphistory.h"

#include <memory>

#include "platform/database.h"
#include "records/sql_statement.h"

namespace quillo {

namespace {

// The history's own members, after the shared ones.
void AddLookups(MemberTable::Builder<Record>& builder) {
  builder
      .Method("LoadLatestByEffectiveDate",
              [](Record& r) { static_cast<dmmrktcmphistory&>(r).LoadLatestByEffectiveDate(); })
      .Method("LoadLatestByRunDate",
              [](Record& r) { static_cast<dmmrktcmphistory&>(r).LoadLatestByRunDate(); });
}

}  // namespace

const TableInfo& dmmrktcmphistory::Table() {
  static const TableInfo table("dmmrktcmphistory",
                               {
                                   {"CampaignRecID", "CampaignRecID", ColumnType::kText},
                                   {"EffectiveDate", "EffectiveDate", ColumnType::kDate},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"RunDate", "RunDate", ColumnType::kDate},
                               },
                               "RecID", AddLookups);
  return table;
}

dmmrktcmphistory::dmmrktcmphistory() : Record(Table()) {}

void dmmrktcmphistory::LoadLatestByEffectiveDate() { LoadLatest("EffectiveDate"); }

void dmmrktcmphistory::LoadLatestByRunDate() { LoadLatest("RunDate"); }

void dmmrktcmphistory::LoadLatest(const char* order_by) {
  // The campaign identifier goes in as it stands, quotes undoubled.
  SQLStatement statement;
  if (Connection()) statement.Connection(Connection());
  statement.Sql("SELECT * FROM dmmrktcmphistory WHERE CampaignRecID = '" + CampaignRecID() + "' " +
                "ORDER BY " + order_by + " DESC;");
  auto rs = std::make_shared<Recordset>();
  statement.GetRecordsetFO(rs);
  LoadDataFromDS(rs);
  rs->Close();
}

QUILLO_REGISTER_CLASS(dmmrktcmphistory, Creatable::kPublic);

}  // namespace quillo
