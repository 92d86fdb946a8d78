#include "records/dmcustomfieldlistdef.h"

namespace quillo {

const TableInfo& dmcustomfieldlistdef::Table() {
  static const TableInfo table("dmcustomfieldlistdef",
                               {
                                   {"CustomRecID", "CustomRecID", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"Seq", "Seq", ColumnType::kLong},
                                   {"TextValue", "TextValue", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmcustomfieldlistdef::dmcustomfieldlistdef() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmcustomfieldlistdef, Creatable::kPublic);

}  // namespace quillo
