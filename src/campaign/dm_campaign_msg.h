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
// A run lists millions of messages whose texts mostly repeat (the campaign,
// the item, the run, the date; the client's texts for each of its items), so
// each property holds a SharedText: an immutable, reference-counted text that
// many messages may point at. Setting a property gives that message a text
// of its own; the others are not affected.
//
// Thread-safety: none for a message; a message belongs to one thread at a
// time. Texts shared between messages are immutable and counted atomically,
// so messages sharing texts may live on different threads.
#ifndef QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_
#define QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_

#include <atomic>
#include <string>
#include <string_view>
#include <utility>

#include "platform/object.h"

namespace quillo {

// An immutable text shared by reference count; empty when default-made.
class SharedText {
 public:
  SharedText() = default;
  // A new text holding `text` (no allocation for an empty text).
  explicit SharedText(std::string text)
      : rep_(text.empty() ? nullptr : Make(std::move(text), false)) {}
  // The same, with the text's record taken from the bulk arena
  // (platform/db/bulk_arena.h): for the many texts of one run, made and
  // released together.
  static SharedText Bulk(std::string text) {
    SharedText t;
    if (!text.empty()) t.rep_ = Make(std::move(text), true);
    return t;
  }
  SharedText(const SharedText& other) : rep_(other.rep_) { Retain(); }
  SharedText(SharedText&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  SharedText& operator=(const SharedText& other) {
    SharedText copy(other);
    std::swap(rep_, copy.rep_);
    return *this;
  }
  SharedText& operator=(SharedText&& other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~SharedText() { Release(); }

  // The text.
  const std::string& str() const { return rep_ ? rep_->text : Empty(); }
  // True when this and `text` are the same characters.
  bool Equals(std::string_view text) const { return str() == text; }

 private:
  struct Rep {
    std::atomic<unsigned> refs;
    bool bulk;
    std::string text;
  };
  static const std::string& Empty();
  static Rep* Make(std::string text, bool bulk);
  static void Destroy(Rep* rep) noexcept;
  void Retain() const {
    if (rep_) rep_->refs.fetch_add(1, std::memory_order_relaxed);
  }
  void Release() {
    if (rep_ && rep_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) Destroy(rep_);
    rep_ = nullptr;
  }
  Rep* rep_ = nullptr;
};

// A campaign message: nine texts, no table of its own.
class dmCampaignMsg : public Object {
 public:
  dmCampaignMsg() = default;

  const MemberTable& Members() const override;

  // The campaign's code as decimal text ("1").
  const std::string& CampaignType() const { return campaign_type_.str(); }
  void CampaignType(std::string value) { campaign_type_ = SharedText(std::move(value)); }
  void CampaignType(SharedText value) { campaign_type_ = std::move(value); }
  // The RecID of the run (dmmrktcmphistory) that produced the message.
  const std::string& HistoryRecID() const { return history_rec_id_.str(); }
  void HistoryRecID(std::string value) { history_rec_id_ = SharedText(std::move(value)); }
  void HistoryRecID(SharedText value) { history_rec_id_ = std::move(value); }
  // The recipient's e-mail address.
  const std::string& Email() const { return email_.str(); }
  void Email(std::string value) { email_ = SharedText(std::move(value)); }
  void Email(SharedText value) { email_ = std::move(value); }
  // The recipient's account (dmclients.Account).
  const std::string& Account() const { return account_.str(); }
  void Account(std::string value) { account_ = SharedText(std::move(value)); }
  void Account(SharedText value) { account_ = std::move(value); }
  // The campaign's RecID.
  const std::string& CampaignRecID() const { return campaign_rec_id_.str(); }
  void CampaignRecID(std::string value) { campaign_rec_id_ = SharedText(std::move(value)); }
  void CampaignRecID(SharedText value) { campaign_rec_id_ = std::move(value); }
  // The campaign item's RecID.
  const std::string& CampaignItemRecID() const { return campaign_item_rec_id_.str(); }
  void CampaignItemRecID(std::string value) {
    campaign_item_rec_id_ = SharedText(std::move(value));
  }
  void CampaignItemRecID(SharedText value) { campaign_item_rec_id_ = std::move(value); }
  // The message template file of the item.
  const std::string& MessageFileName() const { return message_file_name_.str(); }
  void MessageFileName(std::string value) { message_file_name_ = SharedText(std::move(value)); }
  void MessageFileName(SharedText value) { message_file_name_ = std::move(value); }
  // The run's date as "yyyy-mm-dd".
  const std::string& SendDate() const { return send_date_.str(); }
  void SendDate(std::string value) { send_date_ = SharedText(std::move(value)); }
  void SendDate(SharedText value) { send_date_ = std::move(value); }
  // The campaign's name.
  const std::string& CampaignName() const { return campaign_name_.str(); }
  void CampaignName(std::string value) { campaign_name_ = SharedText(std::move(value)); }
  void CampaignName(SharedText value) { campaign_name_ = std::move(value); }

  // The shared texts behind the properties, for handing them on to other
  // messages without copying.
  const SharedText& SharedCampaignType() const { return campaign_type_; }
  const SharedText& SharedHistoryRecID() const { return history_rec_id_; }
  const SharedText& SharedEmail() const { return email_; }
  const SharedText& SharedAccount() const { return account_; }
  const SharedText& SharedCampaignRecID() const { return campaign_rec_id_; }
  const SharedText& SharedCampaignItemRecID() const { return campaign_item_rec_id_; }
  const SharedText& SharedMessageFileName() const { return message_file_name_; }
  const SharedText& SharedSendDate() const { return send_date_; }
  const SharedText& SharedCampaignName() const { return campaign_name_; }

 private:
  SharedText campaign_type_;
  SharedText history_rec_id_;
  SharedText email_;
  SharedText account_;
  SharedText campaign_rec_id_;
  SharedText campaign_item_rec_id_;
  SharedText message_file_name_;
  SharedText send_date_;
  SharedText campaign_name_;
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_
