#include "records/dmsmtpaccounts.h"

namespace quillo {

const TableInfo& dmsmtpaccounts::Table() {
  static const TableInfo table("dmsmtpaccounts",
                               {
                                   {"AccountName", "AccountName", ColumnType::kText},
                                   {"AccountPassword", "AccountPassword", ColumnType::kText},
                                   {"Default", "Default", ColumnType::kLong},
                                   {"Domain", "Domain", ColumnType::kText},
                                   {"Email", "Email", ColumnType::kText},
                                   {"EmailFriendly", "EmailFriendly", ColumnType::kText},
                                   {"MailServer", "MailServer", ColumnType::kText},
                                   {"Port", "Port", ColumnType::kLong},
                                   {"RecID", "RecID", ColumnType::kText},
                                   {"UseAuthentication", "UseAuthentication", ColumnType::kLong},
                               },
                               "RecID");
  return table;
}

dmsmtpaccounts::dmsmtpaccounts() : Record(Table()) {}

QUILLO_REGISTER_CLASS(dmsmtpaccounts, Creatable::kPublic);

}  // namespace quillo
