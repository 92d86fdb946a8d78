#include "records/dmclientscustom.h"

namespace quillo {

const TableInfo& dmclientscustom::Table() {
  static const TableInfo table("dmclientscustom",
                               {
                                   {"Account", "Account", ColumnType::kText},
                                   {"BoolValue", "BoolValue", ColumnType::kLong},
                                   {"CustomRecID", "CustomRecID", ColumnType::kText},
                                   {"DateValue", "DateValue", ColumnType::kDate},
                                   {"NumericValue", "NumericValue", ColumnType::kSingle},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"TextValue", "TextValue", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmclientscustom::dmclientscustom() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmclientscustom, Creatable::kPublic);

}  // namespace quillo
