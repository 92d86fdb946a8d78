#include "campaign/dm_campaign_msg.h"

namespace quillo {

const std::string& SharedText::Empty() {
  static const std::string empty;
  return empty;
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
