// dmsmtpaccounts: one outgoing mail account (table dmsmtpaccounts, key RecID).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMSMTPACCOUNTS_H_
#define QUILLO_RECORDS_DMSMTPACCOUNTS_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmsmtpaccounts.
class dmsmtpaccounts : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmsmtpaccounts();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column AccountName: text.
  const std::string& AccountName() const { return TextAt(kAccountName); }
  void AccountName(std::string value) { SetText(kAccountName, std::move(value)); }

  // Column AccountPassword: text.
  const std::string& AccountPassword() const { return TextAt(kAccountPassword); }
  void AccountPassword(std::string value) { SetText(kAccountPassword, std::move(value)); }

  // Column Default: 32-bit integer.
  std::int32_t Default() const { return LongAt(kDefault); }
  void Default(std::int32_t value) { SetLong(kDefault, value); }

  // Column Domain: text.
  const std::string& Domain() const { return TextAt(kDomain); }
  void Domain(std::string value) { SetText(kDomain, std::move(value)); }

  // Column Email: text.
  const std::string& Email() const { return TextAt(kEmail); }
  void Email(std::string value) { SetText(kEmail, std::move(value)); }

  // Column EmailFriendly: text.
  const std::string& EmailFriendly() const { return TextAt(kEmailFriendly); }
  void EmailFriendly(std::string value) { SetText(kEmailFriendly, std::move(value)); }

  // Column MailServer: text.
  const std::string& MailServer() const { return TextAt(kMailServer); }
  void MailServer(std::string value) { SetText(kMailServer, std::move(value)); }

  // Column Port: 32-bit integer.
  std::int32_t Port() const { return LongAt(kPort); }
  void Port(std::int32_t value) { SetLong(kPort, value); }

  // Column RecID: text, the key.
  const std::string& RecID() const { return TextAt(kRecID); }
  void RecID(std::string value) { SetText(kRecID, std::move(value)); }

  // Column UseAuthentication: 32-bit integer.
  std::int32_t UseAuthentication() const { return LongAt(kUseAuthentication); }
  void UseAuthentication(std::int32_t value) { SetLong(kUseAuthentication, value); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccountName,
    kAccountPassword,
    kDefault,
    kDomain,
    kEmail,
    kEmailFriendly,
    kMailServer,
    kPort,
    kRecID,
    kUseAuthentication,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMSMTPACCOUNTS_H_
