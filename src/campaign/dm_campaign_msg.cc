#include "campaign/dm_campaign_msg.h"

#include <new>

#include "platform/db/bulk_arena.h"

namespace quillo {

SharedText::Rep* SharedText::Make(std::string text, bool bulk) {
  void* memory =
      bulk ? db::BulkArena::Allocate(sizeof(Rep), alignof(Rep)) : ::operator new(sizeof(Rep));
  return new (memory) Rep{{1}, bulk, std::move(text)};
}

void SharedText::Destroy(Rep* rep) noexcept {
  const bool bulk = rep->bulk;
  rep->~Rep();
  if (bulk) {
    db::BulkArena::Deallocate(rep);
  } else {
    ::operator delete(rep);
  }
}

const std::string& SharedText::Empty() {
  static const std::string empty;
  return empty;
}

dmCampaignMsg::~dmCampaignMsg() { ReleaseCommon(); }

const SharedText& dmCampaignMsg::SharedCommon(CommonField field) const {
  static const SharedText none;
  return common_ ? common_->text[field] : none;
}

void dmCampaignMsg::SetCommon(CommonField field, SharedText value) {
  if (!common_) {
    common_ = new Common();
  } else if (common_->refs.load(std::memory_order_acquire) != 1) {
    // Shared with other messages: this one gets its own block first.
    auto* own = new Common();
    for (int i = 0; i < kCommonFields; ++i) own->text[i] = common_->text[i];
    ReleaseCommon();
    common_ = own;
  }
  common_->text[field] = std::move(value);
}

// Each property is published setter first, then getter, in the message's
// interface order.
#define QUILLO_MSG_PROPERTY(b, Name)                 \
  b.Put(#Name, [](dmCampaignMsg& m, std::string v) { \
     m.Name(std::move(v));                           \
   }).Get(#Name, [](dmCampaignMsg& m) { return m.Name(); })

const MemberTable& dmCampaignMsg::Members() const {
  static const MemberTable table = [] {
    MemberTable::Builder<dmCampaignMsg> b("dmCampaignMsg");
    QUILLO_MSG_PROPERTY(b, CampaignType);
    QUILLO_MSG_PROPERTY(b, HistoryRecID);
    QUILLO_MSG_PROPERTY(b, Email);
    QUILLO_MSG_PROPERTY(b, Account);
    QUILLO_MSG_PROPERTY(b, CampaignRecID);
    QUILLO_MSG_PROPERTY(b, CampaignItemRecID);
    QUILLO_MSG_PROPERTY(b, MessageFileName);
    QUILLO_MSG_PROPERTY(b, SendDate);
    QUILLO_MSG_PROPERTY(b, CampaignName);
    return b.Build();
  }();
  return table;
}

#undef QUILLO_MSG_PROPERTY

QUILLO_REGISTER_CLASS(dmCampaignMsg, Creatable::kPublic);

}  // namespace quillo
