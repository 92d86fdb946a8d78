#include "records/dmcontrolparameters.h"

namespace quillo {

const TableInfo& dmcontrolparameters::Table() {
  static const TableInfo table("dmcontrolparameters",
                               {
                                   {"Increment", "Increment", ColumnType::kLong},
                                   {"RecID", "RecID", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmcontrolparameters::dmcontrolparameters() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmcontrolparameters, Creatable::kPublic);

}  // namespace quillo
