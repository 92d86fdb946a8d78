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
// each property holds a SharedText, an immutable, reference-counted text that
// many messages may point at, and the seven texts common to a run's item are
// kept in one block that its messages share. Setting a property gives that
// message a text of its own (and its own block); the others are not affected.
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
  // A new text holding a copy of `text`.
  static SharedText Copy(std::string_view text) {
    SharedText t;
    if (!text.empty()) t.rep_ = Make(std::string(text), false);
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
  // The empty text.
  static const std::string& Empty();
  // True when this and `text` are the same characters.
  bool Equals(std::string_view text) const { return str() == text; }

 private:
  struct Rep {
    std::atomic<unsigned> refs;
    bool bulk;
    std::string text;
  };
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
  ~dmCampaignMsg() override;

  const MemberTable& Members() const override;

  // The campaign's code as decimal text ("1").
  const std::string& CampaignType() const { return CommonText(kCampaignType); }
  void CampaignType(std::string value) { SetCommon(kCampaignType, SharedText(std::move(value))); }
  void CampaignType(SharedText value) { SetCommon(kCampaignType, std::move(value)); }
  // The RecID of the run (dmmrktcmphistory) that produced the message.
  const std::string& HistoryRecID() const { return CommonText(kHistoryRecID); }
  void HistoryRecID(std::string value) { SetCommon(kHistoryRecID, SharedText(std::move(value))); }
  void HistoryRecID(SharedText value) { SetCommon(kHistoryRecID, std::move(value)); }
  // The recipient's e-mail address.
  const std::string& Email() const { return email_.str(); }
  void Email(std::string value) { email_ = SharedText(std::move(value)); }
  void Email(SharedText value) { email_ = std::move(value); }
  // The recipient's account (dmclients.Account).
  const std::string& Account() const { return account_.str(); }
  void Account(std::string value) { account_ = SharedText(std::move(value)); }
  void Account(SharedText value) { account_ = std::move(value); }
  // The campaign's RecID.
  const std::string& CampaignRecID() const { return CommonText(kCampaignRecID); }
  void CampaignRecID(std::string value) { SetCommon(kCampaignRecID, SharedText(std::move(value))); }
  void CampaignRecID(SharedText value) { SetCommon(kCampaignRecID, std::move(value)); }
  // The campaign item's RecID.
  const std::string& CampaignItemRecID() const { return CommonText(kCampaignItemRecID); }
  void CampaignItemRecID(std::string value) {
    SetCommon(kCampaignItemRecID, SharedText(std::move(value)));
  }
  void CampaignItemRecID(SharedText value) { SetCommon(kCampaignItemRecID, std::move(value)); }
  // The message template file of the item.
  const std::string& MessageFileName() const { return CommonText(kMessageFileName); }
  void MessageFileName(std::string value) {
    SetCommon(kMessageFileName, SharedText(std::move(value)));
  }
  void MessageFileName(SharedText value) { SetCommon(kMessageFileName, std::move(value)); }
  // The run's date as "yyyy-mm-dd".
  const std::string& SendDate() const { return CommonText(kSendDate); }
  void SendDate(std::string value) { SetCommon(kSendDate, SharedText(std::move(value))); }
  void SendDate(SharedText value) { SetCommon(kSendDate, std::move(value)); }
  // The campaign's name.
  const std::string& CampaignName() const { return CommonText(kCampaignName); }
  void CampaignName(std::string value) { SetCommon(kCampaignName, SharedText(std::move(value))); }
  void CampaignName(SharedText value) { SetCommon(kCampaignName, std::move(value)); }

  // The seven texts that all messages of one run and item have in common
  // (all but Email and Account), in this order.
  enum CommonField {
    kCampaignType,
    kHistoryRecID,
    kCampaignRecID,
    kCampaignItemRecID,
    kMessageFileName,
    kSendDate,
    kCampaignName,
    kCommonFields
  };
  // Gives this message the seven common texts of `other` by sharing them;
  // setting any of them later gives this message its own copy first.
  void ShareCommonTexts(const dmCampaignMsg& other) {
    if (other.common_ == common_) return;
    if (other.common_) other.common_->refs.fetch_add(1, std::memory_order_relaxed);
    ReleaseCommon();
    common_ = other.common_;
  }
  // The shared texts behind the properties.
  const SharedText& SharedCommon(CommonField field) const;
  // Sets common text `field`, as its property setter does: a message that
  // shares its block with others gets a block of its own first.
  void SetCommon(CommonField field, SharedText value);
  const SharedText& SharedEmail() const { return email_; }
  const SharedText& SharedAccount() const { return account_; }

 private:
  // The common texts, counted so that messages can share one block.
  struct Common {
    std::atomic<unsigned> refs{1};
    SharedText text[kCommonFields];
  };
  const std::string& CommonText(CommonField field) const {
    return common_ ? common_->text[field].str() : SharedText::Empty();
  }
  // Drops this message's hold on its common block.
  void ReleaseCommon() {
    if (common_ && common_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete common_;
  }

  Common* common_ = nullptr;  // None until a common text is set or shared.
  SharedText email_;
  SharedText account_;
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DM_CAMPAIGN_MSG_H_
