#include "records/dmolxref.h"

namespace quillo {

const TableInfo& dmolxref::Table() {
  static const TableInfo table("dmolxref",
                               {
                                   {"Account", "Account", ColumnType::kText},
                                   {"EntryID", "EntryID", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"SentReceived", "SentReceived", ColumnType::kLong},
                                   {"SentReceivedDate", "SentReceivedDate", ColumnType::kDate},
                               },
                               "RecID");
  return table;
}

dmolxref::dmolxref() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmolxref, Creatable::kPublic);

}  // namespace quillo
