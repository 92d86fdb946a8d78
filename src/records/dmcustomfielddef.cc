#include "records/dmcustomfielddef.h"

namespace quillo {

const TableInfo& dmcustomfielddef::Table() {
  static const TableInfo table("dmcustomfielddef",
                               {
                                   {"Caption", "Caption", ColumnType::kText},
                                   {"FieldListType", "FieldListType", ColumnType::kLong},
                                   {"FieldType", "FieldType", ColumnType::kLong},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"Seq", "Seq", ColumnType::kLong},
                               },
                               "RecID");
  return table;
}

dmcustomfielddef::dmcustomfielddef() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmcustomfielddef, Creatable::kPublic);

}  // namespace quillo
