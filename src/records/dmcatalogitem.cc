#include "records/dmcatalogitem.h"

namespace quillo {

const TableInfo& dmcatalogitem::Table() {
  static const TableInfo table("dmcatalogitem",
                               {
                                   {"BaseFileName", "BaseFileName", ColumnType::kText},
                                   {"Category", "Category", ColumnType::kText},
                                   {"Description", "Description", ColumnType::kText},
                                   {"FileName", "FileName", ColumnType::kText},
                                   {"RecID", "RecID", ColumnType::kText},
                               },
                               "RecID");
  return table;
}

dmcatalogitem::dmcatalogitem() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmcatalogitem, Creatable::kPublic);

}  // namespace quillo
