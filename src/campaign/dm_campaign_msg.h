// dmCampaignMsg: one message produced by a campaign run.
//
// Nine text properties that say who gets which campaign item from which run:
// the processor fills them, the host reads them (or a sender reads them back
// from the queue file, see dmmsgqueue.h). Every property stores and returns its
// text unchanged (commas, quotes and all); all start empty.
//
//   auto msg = std::make_shared<quillo::dmCampaignMsg>();
//   msg->Email("ann@example.com");
//   msg->SendDate("2026-03-01");
//
// Thread-safety: none; a message belongs to one thread at a time.
#ifndef QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_
#define QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_

#include <string>

#include "platform/object.h"

namespace quillo {

// A campaign message: nine texts, no table of its own.
class dmCampaignMsg : public Object {
 public:
  dmCampaignMsg() = default;

  const MemberTable& Members() const override;

  // The campaign's code as decimal text ("1").
  const std::string& CampaignType() const { return campaign_type_; }
  void CampaignType(std::string value) { campaign_type_ = std::move(value); }
  // The RecID of the run (dmmrktcmphistory) that produced the message.
  const std::string& HistoryRecID() const { return history_rec_id_; }
  void HistoryRecID(std::string value) { history_rec_id_ = std::move(value); }
  // The recipient's e-mail address.
  const std::string& Email() const { return email_; }
  void Email(std::string value) { email_ = std::move(value); }
  // The recipient's account (dmclients.Account).
  const std::string& Account() const { return account_; }
  void Account(std::string value) { account_ = std::move(value); }
  // The campaign's RecID.
  const std::string& CampaignRecID() const { return campaign_rec_id_; }
  void CampaignRecID(std::string value) { campaign_rec_id_ = std::move(value); }
  // The campaign item's RecID.
  const std::string& CampaignItemRecID() const { return campaign_item_rec_id_; }
  void CampaignItemRecID(std::string value) { campaign_item_rec_id_ = std::move(value); }
  // The message template file of the item.
  const std::string& MessageFileName() const { return message_file_name_; }
  void MessageFileName(std::string value) { message_file_name_ = std::move(value); }
  // The run's date as "yyyy-mm-dd".
  const std::string& SendDate() const { return send_date_; }
  void SendDate(std::string value) { send_date_ = std::move(value); }
  // The campaign's name.
  const std::string& CampaignName() const { return campaign_name_; }
  void CampaignName(std::string value) { campaign_name_ = std::move(value); }

 private:
  std::string campaign_type_;
  std::string history_rec_id_;
  std::string email_;
  std::string account_;
  std::string campaign_rec_id_;
  std::string campaign_item_rec_id_;
  std::string message_file_name_;
  std::string send_date_;
  std::string campaign_name_;
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_
