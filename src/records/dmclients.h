// dmclients: one client, keyed by its Account (table dmclients, key Account).
//
// A table class of the shared record protocol (records/record.h): one typed
// property per column, in table order, then the shared members.
// Where a property and its SQL column differ in letter case (city/City,
// Email/EMail, state/State, zip/Zip) the SQL texts use the column name.
// Thread-safety: none; a record belongs to one thread.
#ifndef QUILLO_RECORDS_DMCLIENTS_H_
#define QUILLO_RECORDS_DMCLIENTS_H_

#include <cstdint>
#include <string>

#include "platform/date.h"
#include "records/record.h"

namespace quillo {

// A row of table dmclients.
class dmclients : public Record {
 public:
  // An empty record: empty texts, zero numbers, the zero date.
  dmclients();

  // The table, its key and its columns in order.
  static const TableInfo& Table();

  // Column Account: text, the key.
  const std::string& Account() const { return TextAt(kAccount); }
  void Account(std::string value) { SetText(kAccount, std::move(value)); }

  // Column Address: text.
  const std::string& Address() const { return TextAt(kAddress); }
  void Address(std::string value) { SetText(kAddress, std::move(value)); }

  // Column AgentID: text.
  const std::string& AgentID() const { return TextAt(kAgentID); }
  void AgentID(std::string value) { SetText(kAgentID, std::move(value)); }

  // Column CalledDate: date-time.
  Date CalledDate() const { return DateAt(kCalledDate); }
  void CalledDate(Date value) { SetDate(kCalledDate, value); }

  // Column CellPhone: text.
  const std::string& CellPhone() const { return TextAt(kCellPhone); }
  void CellPhone(std::string value) { SetText(kCellPhone, std::move(value)); }

  // Column city: text (SQL column City).
  const std::string& city() const { return TextAt(kCity); }
  void city(std::string value) { SetText(kCity, std::move(value)); }

  // Column Company: text.
  const std::string& Company() const { return TextAt(kCompany); }
  void Company(std::string value) { SetText(kCompany, std::move(value)); }

  // Column ContactDate: date-time.
  Date ContactDate() const { return DateAt(kContactDate); }
  void ContactDate(Date value) { SetDate(kContactDate, value); }

  // Column Country: text.
  const std::string& Country() const { return TextAt(kCountry); }
  void Country(std::string value) { SetText(kCountry, std::move(value)); }

  // Column Email: text (SQL column EMail).
  const std::string& Email() const { return TextAt(kEmail); }
  void Email(std::string value) { SetText(kEmail, std::move(value)); }

  // Column EMailList: 16-bit integer.
  std::int16_t EMailList() const { return IntegerAt(kEMailList); }
  void EMailList(std::int16_t value) { SetInteger(kEMailList, value); }

  // Column FaxPhone: text.
  const std::string& FaxPhone() const { return TextAt(kFaxPhone); }
  void FaxPhone(std::string value) { SetText(kFaxPhone, std::move(value)); }

  // Column First: text.
  const std::string& First() const { return TextAt(kFirst); }
  void First(std::string value) { SetText(kFirst, std::move(value)); }

  // Column HomePhone: text.
  const std::string& HomePhone() const { return TextAt(kHomePhone); }
  void HomePhone(std::string value) { SetText(kHomePhone, std::move(value)); }

  // Column HotSheetList: 16-bit integer.
  std::int16_t HotSheetList() const { return IntegerAt(kHotSheetList); }
  void HotSheetList(std::int16_t value) { SetInteger(kHotSheetList, value); }

  // Column Last: text.
  const std::string& Last() const { return TextAt(kLast); }
  void Last(std::string value) { SetText(kLast, std::move(value)); }

  // Column LastMinuteList: 16-bit integer.
  std::int16_t LastMinuteList() const { return IntegerAt(kLastMinuteList); }
  void LastMinuteList(std::int16_t value) { SetInteger(kLastMinuteList, value); }

  // Column LoginID: text.
  const std::string& LoginID() const { return TextAt(kLoginID); }
  void LoginID(std::string value) { SetText(kLoginID, std::move(value)); }

  // Column LoginPassword: text.
  const std::string& LoginPassword() const { return TextAt(kLoginPassword); }
  void LoginPassword(std::string value) { SetText(kLoginPassword, std::move(value)); }

  // Column MailingList: 16-bit integer.
  std::int16_t MailingList() const { return IntegerAt(kMailingList); }
  void MailingList(std::int16_t value) { SetInteger(kMailingList, value); }

  // Column Middle: text.
  const std::string& Middle() const { return TextAt(kMiddle); }
  void Middle(std::string value) { SetText(kMiddle, std::move(value)); }

  // Column ModifiedRemote: 16-bit integer.
  std::int16_t ModifiedRemote() const { return IntegerAt(kModifiedRemote); }
  void ModifiedRemote(std::int16_t value) { SetInteger(kModifiedRemote, value); }

  // Column Notes: text.
  const std::string& Notes() const { return TextAt(kNotes); }
  void Notes(std::string value) { SetText(kNotes, std::move(value)); }

  // Column PO: text.
  const std::string& PO() const { return TextAt(kPO); }
  void PO(std::string value) { SetText(kPO, std::move(value)); }

  // Column RecordAddedBy: text.
  const std::string& RecordAddedBy() const { return TextAt(kRecordAddedBy); }
  void RecordAddedBy(std::string value) { SetText(kRecordAddedBy, std::move(value)); }

  // Column RecordAddedDate: date-time.
  Date RecordAddedDate() const { return DateAt(kRecordAddedDate); }
  void RecordAddedDate(Date value) { SetDate(kRecordAddedDate, value); }

  // Column RecordEditedBy: text.
  const std::string& RecordEditedBy() const { return TextAt(kRecordEditedBy); }
  void RecordEditedBy(std::string value) { SetText(kRecordEditedBy, std::move(value)); }

  // Column RecordEditedDate: date-time.
  Date RecordEditedDate() const { return DateAt(kRecordEditedDate); }
  void RecordEditedDate(Date value) { SetDate(kRecordEditedDate, value); }

  // Column SiteID: text.
  const std::string& SiteID() const { return TextAt(kSiteID); }
  void SiteID(std::string value) { SetText(kSiteID, std::move(value)); }

  // Column state: text (SQL column State).
  const std::string& state() const { return TextAt(kState); }
  void state(std::string value) { SetText(kState, std::move(value)); }

  // Column Title: text.
  const std::string& Title() const { return TextAt(kTitle); }
  void Title(std::string value) { SetText(kTitle, std::move(value)); }

  // Column WorkPhone: text.
  const std::string& WorkPhone() const { return TextAt(kWorkPhone); }
  void WorkPhone(std::string value) { SetText(kWorkPhone, std::move(value)); }

  // Column zip: text (SQL column Zip).
  const std::string& zip() const { return TextAt(kZip); }
  void zip(std::string value) { SetText(kZip, std::move(value)); }

 private:
  // Column positions, in table order.
  enum Columns : size_t {
    kAccount,
    kAddress,
    kAgentID,
    kCalledDate,
    kCellPhone,
    kCity,
    kCompany,
    kContactDate,
    kCountry,
    kEmail,
    kEMailList,
    kFaxPhone,
    kFirst,
    kHomePhone,
    kHotSheetList,
    kLast,
    kLastMinuteList,
    kLoginID,
    kLoginPassword,
    kMailingList,
    kMiddle,
    kModifiedRemote,
    kNotes,
    kPO,
    kRecordAddedBy,
    kRecordAddedDate,
    kRecordEditedBy,
    kRecordEditedDate,
    kSiteID,
    kState,
    kTitle,
    kWorkPhone,
    kZip,
  };
};

}  // namespace quillo

#endif  // QUILLO_RECORDS_DMCLIENTS_H_
