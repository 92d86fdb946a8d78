#include "campaign/dm_campaign_processor.h"

#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/db/backend.h"
#include "platform/db/bulk_arena.h"
#include "platform/error.h"
#include "platform/format.h"
#include "platform/text.h"
#include "platform/variant.h"
#include "records/general_utilities.h"
#include "records/sql_statement.h"

namespace quillo {

namespace {

// True for placeholder addresses: the first four characters are "~tmp" in any case.
bool IsPlaceholderAddress(const std::string& email) {
  return EqualsIgnoreCase(Left(email, 4), "~tmp");
}

// `slot`, renewed first when its text is no longer `source`.
const SharedText& Current(SharedText& slot, const std::string& source) {
  if (!slot.Equals(source)) slot = SharedText::Bulk(source);
  return slot;
}

// True when `text` goes into a quoted SQL literal unchanged, so that binding
// it as a parameter asks exactly what the literal text asks.
bool PlainLiteral(std::string_view text) {
  for (const char c : text) {
    if (c == '\'' || c == '\\' || c == '\0') return false;
  }
  return true;
}

// Enrolment rows between renewals of the read snapshot of the sent-item
// queries: the engine's locks are taken once per batch instead of once per
// query.
constexpr std::int32_t kRowsPerReadHold = 64;

}  // namespace

dmCampaignProcessor::dmCampaignProcessor() : current_date_(Today()) {}

dmCampaignProcessor::~dmCampaignProcessor() = default;

void dmCampaignProcessor::Connection(std::shared_ptr<quillo::Connection> connection) {
  connection_ = std::move(connection);
}

Date dmCampaignProcessor::LastRunEffectiveDate() const {
  return last_run_ ? last_run_->EffectiveDate() : kZeroDate;
}

Date dmCampaignProcessor::LastRunDate() const {
  return last_run_ ? last_run_->RunDate() : kZeroDate;
}

std::shared_ptr<dmCampaignMsg> dmCampaignProcessor::Message(std::int32_t n) {
  return Messages()->Item(n);
}

std::shared_ptr<dmCampaignProcessor::MessageList> dmCampaignProcessor::Messages() {
  EnsureCollection(messages_);
  return messages_;
}

std::shared_ptr<dmmrktcmpitems> dmCampaignProcessor::CampaignItem(std::int32_t n) {
  return CampaignItems()->Item(n);
}

std::shared_ptr<dmCampaignProcessor::ItemList> dmCampaignProcessor::CampaignItems() {
  EnsureCollection(items_);
  return items_;
}

SQLStatement& dmCampaignProcessor::Statement() {
  if (!statement_) statement_ = std::make_unique<SQLStatement>();
  return *statement_;
}

// --- Loading ------------------------------------------------------------------

void dmCampaignProcessor::LoadCampaign() {
  auto campaign = std::make_shared<dmmrktcmp>();
  campaign_ = campaign;
  campaign->Connection(connection_);
  campaign->IDGenerator(id_generator_);
  campaign->RecID(campaign_rec_id_);
  campaign->LoadData();
}

void dmCampaignProcessor::LoadCampaignItems() {
  SQLStatement& st = Statement();
  st.Connection(connection_);
  st.Sql("SELECT * FROM dmmrktcmpitems WHERE CampaignRecID = '" + campaign_rec_id_ + "' " +
         "ORDER BY Interval;");
  auto rs = std::make_shared<Recordset>();
  st.GetRecordsetFO(rs);
  ItemList& items = *CampaignItems();
  // Deliberately not cleared: a second call appends the items again.
  while (!rs->Eof()) {
    auto item = std::make_shared<dmmrktcmpitems>();
    item->Connection(connection_);
    item->LoadDataFromDS(rs);
    items.Add(std::move(item));
    rs->MoveNext();
  }
  rs->Close();
}

void dmCampaignProcessor::LoadData() {
  LoadCampaign();
  LoadCampaignItems();
  Messages()->Clear();
}

// --- Running ------------------------------------------------------------------

void dmCampaignProcessor::Process() {
  Messages()->Clear();
  history_ = std::make_shared<dmmrktcmphistory>();
  history_->Connection(connection_);
  history_->IDGenerator(id_generator_);
  if (!campaign_) Raise(err::kObjectNotSet, "The campaign is not loaded (call LoadData first)");
  history_->CampaignRecID(campaign_->RecID());
  history_->EffectiveDate(current_date_);
  history_->RunDate(Now());
  history_->SaveData();
  send_date_ = FormatDate(current_date_, "yyyy-mm-dd");
  switch (campaign_->CampaignType()) {
    case 1:
      ProcessSequentialOffset();
      break;
    case 2:
      ProcessIncremental();
      break;
    default:
      ProcessStandardList();
      break;
  }
}

void dmCampaignProcessor::Delete() {
  if (history_) history_->Delete();
}

std::shared_ptr<Recordset> dmCampaignProcessor::OpenEnrolments() {
  SQLStatement& st = Statement();
  st.Connection(connection_);
  st.Sql(
      "SELECT dmclientsmrktcmp.*, dmclients.email "
      "FROM dmclientsmrktcmp INNER JOIN dmclients ON dmclientsmrktcmp.Account = "
      "dmclients.account " +
      std::string("WHERE dmclientsmrktcmp.CampaignRecID = '") + campaign_->RecID() + "' " +
      "AND dmclientsmrktcmp.EffectiveDate <= " +
      DateToODBCLiteral(Variant(current_date_)).ToString() + " ORDER BY dmclients.email;");
  // A keyset cursor, so that the record count (the total of StatusChange) is known.
  auto rs = std::make_shared<Recordset>();
  st.GetRecordset(rs);
  return rs;
}

void dmCampaignProcessor::BeginSentItemQueries() {
  EndSentItemQueries();
  if (!connection_ || connection_->State() != kAdStateOpen) return;
  db::Backend& backend = connection_->Backend();
  sent_query_ = backend.Prepare(
      "SELECT RecID FROM dmsentitems WHERE CampaignRecID = ? AND CampaignItemRecID = ? AND "
      "Account = ?;");
  if (sent_query_) read_hold_ = backend.HoldRead();
  sent_query_backend_ = backend.Serial();
}

void dmCampaignProcessor::EndSentItemQueries() {
  read_hold_.reset();
  sent_query_.reset();
  rows_since_hold_ = 0;
}

void dmCampaignProcessor::NextEnrolmentRow() {
  // The snapshot is let go every few rows, so that sent items logged by
  // other connections during a long run are seen within milliseconds. (Any
  // other statement on the connection, such as one from a StatusChange
  // handler, lets it go as well.)
  if (read_hold_ && ++rows_since_hold_ >= kRowsPerReadHold) {
    read_hold_->LetGo();
    rows_since_hold_ = 0;
  }
}

bool dmCampaignProcessor::AlreadySent(const dmmrktcmpitems& item, const std::string& account,
                                      bool plain_row) {
  // The prepared query answers what the text below asks whenever the values
  // stand in its quotes unchanged; anything else (a value with a quote, a
  // closed or replaced connection, an engine failure) takes the text path,
  // which gives the engine's own answer.
  const std::string& campaign_id = campaign_->RecID();
  if (sent_query_ && plain_row && PlainLiteral(item.RecID()) &&
      connection_->State() == kAdStateOpen &&
      connection_->Backend().Serial() == sent_query_backend_) {
    if (read_hold_) read_hold_->Take();
    const std::string_view values[3] = {campaign_id, item.RecID(), account};
    if (std::optional<bool> found = sent_query_->HasRow(values)) return *found;
    EndSentItemQueries();
  }
  SQLStatement& st = Statement();
  st.Connection(connection_);
  st.Sql("SELECT RecID FROM dmsentitems WHERE CampaignRecID = '" + campaign_->RecID() + "' " +
         "AND CampaignItemRecID = '" + item.RecID() + "' " + "AND Account = '" + account + "';");
  auto rs = std::make_shared<Recordset>();
  st.GetRecordsetFO(rs);
  return !rs->Eof();
}

bool dmCampaignProcessor::PlainRow(const dmclientsmrktcmp& enrolment) const {
  return PlainLiteral(campaign_->RecID()) && PlainLiteral(enrolment.Account());
}

const dmclientsmrktcmp& dmCampaignProcessor::LoadEnrolment(const std::shared_ptr<Recordset>& rs,
                                                           std::string* email) {
  // Loading from a row sets every column, so one record serves every row.
  if (!enrolment_) enrolment_ = std::make_shared<dmclientsmrktcmp>();
  enrolment_->LoadDataFromDS(rs);
  // The address as NullToText gives it, into the caller's string.
  rs->FieldValue("Email", &email_value_);
  if (email_value_.IsNull()) {
    email->clear();
  } else if (email_value_.IsString()) {
    email->assign(email_value_.StringRef());
  } else {
    *email = email_value_.ToString();
  }
  return *enrolment_;
}

void dmCampaignProcessor::HandOver(const dmclientsmrktcmp& enrolment, const std::string& email,
                                   const dmmrktcmpitems& item, size_t index) {
  // A prototype per item holds the texts common to its messages; it is
  // brought up to date (a copy of its own when messages share the old texts)
  // whenever a source has changed.
  if (item_texts_.size() <= index) item_texts_.resize(index + 1);
  ItemTexts& it = item_texts_[index];
  if (!it.prototype) it.prototype = std::make_unique<dmCampaignMsg>();
  dmCampaignMsg& proto = *it.prototype;
  if (texts_.campaign_type.str().empty() ||
      texts_.campaign_type_value != campaign_->CampaignType()) {
    texts_.campaign_type_value = campaign_->CampaignType();
    texts_.campaign_type = SharedText(std::to_string(texts_.campaign_type_value));
  }
  auto common = [&proto](dmCampaignMsg::CommonField field, const SharedText& text) {
    if (&proto.SharedCommon(field).str() != &text.str()) proto.SetCommon(field, text);
  };
  common(dmCampaignMsg::kCampaignName, Current(texts_.campaign_name, campaign_->CampaignName()));
  common(dmCampaignMsg::kCampaignType, texts_.campaign_type);
  common(dmCampaignMsg::kCampaignRecID, Current(it.campaign_rec_id, item.CampaignRecID()));
  common(dmCampaignMsg::kCampaignItemRecID, Current(it.rec_id, item.RecID()));
  common(dmCampaignMsg::kMessageFileName, Current(it.message_file_name, item.MessageFileName()));
  common(dmCampaignMsg::kHistoryRecID, Current(texts_.history_rec_id, history_->RecID()));
  common(dmCampaignMsg::kSendDate, Current(texts_.send_date, send_date_));
  // The run's messages are made and released together: from the bulk arena.
  auto msg = std::allocate_shared<dmCampaignMsg>(db::BulkAllocator<dmCampaignMsg>());
  msg->Account(Current(texts_.account, enrolment.Account()));
  msg->ShareCommonTexts(proto);
  msg->Email(Current(texts_.email, email));
  // Listed first, then queued: a failing queue write leaves it listed.
  const dmCampaignMsg& listed = *msg;
  EnsureCollection(messages_).Add(std::move(msg));
  if (use_message_queue_) {
    if (!message_queue_) message_queue_ = std::make_shared<dmmsgqueue>();
    message_queue_->WriteMessage(listed);
  }
}

void dmCampaignProcessor::RaiseStatusChange(std::string& message, std::int32_t& cnt,
                                            std::int32_t& total) {
  if (on_status_change_) on_status_change_(message, cnt, total);
  if (!HasSinks()) return;
  std::vector<Variant> args = {Variant(message), Variant(cnt), Variant(total)};
  FireEvent("StatusChange", args);
  // The arguments are passed by reference: a sink may change them.
  message = args[0].ToString();
  cnt = args[1].ToLong();
  total = args[2].ToLong();
}

// Prepares the sent-item query for the length of one procedure.
class dmCampaignProcessor::SentItemQueries {
 public:
  explicit SentItemQueries(dmCampaignProcessor& p) : p_(p) { p_.BeginSentItemQueries(); }
  ~SentItemQueries() { p_.EndSentItemQueries(); }
  SentItemQueries(const SentItemQueries&) = delete;
  SentItemQueries& operator=(const SentItemQueries&) = delete;

 private:
  dmCampaignProcessor& p_;
};

template <class PerRow>
void dmCampaignProcessor::ForEachCountedEnrolment(PerRow per_row) {
  auto rs = OpenEnrolments();
  std::int32_t total = static_cast<std::int32_t>(rs->RecordCount());
  std::int32_t cnt = 0;
  ItemList& items = *CampaignItems();
  SentItemQueries queries(*this);
  std::string email;
  while (!rs->Eof()) {
    // Every row is counted and reported, placeholder addresses included.
    ++cnt;
    NextEnrolmentRow();
    const dmclientsmrktcmp& enrolment = LoadEnrolment(rs, &email);
    RaiseStatusChange(email, cnt, total);
    if (!IsPlaceholderAddress(email)) per_row(enrolment, email, items, PlainRow(enrolment));
    rs->MoveNext();
  }
}

void dmCampaignProcessor::ProcessSequentialOffset() {
  ForEachCountedEnrolment([this](const dmclientsmrktcmp& enrolment, const std::string& email,
                                 ItemList& items, bool plain_row) {
    std::int16_t days = 0;
    bool have_days = false;
    for (std::int32_t i = 1; i <= items.Count(); ++i) {
      const dmmrktcmpitems& item = *items.Item(i);
      if (AlreadySent(item, enrolment.Account(), plain_row)) continue;
      // Both sides of the date test are 16-bit numbers, as the schedule was
      // designed; the day count is the same for every item of the row.
      if (!have_days) {
        days = RoundToInteger(
            static_cast<double>(DateDiff("d", enrolment.EffectiveDate(), current_date_)));
        have_days = true;
      }
      std::int16_t interval = RoundToInteger(item.Interval());
      if (days >= interval) HandOver(enrolment, email, item, static_cast<size_t>(i - 1));
    }
  });
}

void dmCampaignProcessor::ProcessIncremental() {
  ForEachCountedEnrolment([this](const dmclientsmrktcmp& enrolment, const std::string& email,
                                 ItemList& items, bool plain_row) {
    for (std::int32_t i = 1; i <= items.Count(); ++i) {
      const dmmrktcmpitems& item = *items.Item(i);
      if (!AlreadySent(item, enrolment.Account(), plain_row)) {
        HandOver(enrolment, email, item, static_cast<size_t>(i - 1));
        break;
      }
    }
  });
}

void dmCampaignProcessor::ProcessStandardList() {
  auto rs = OpenEnrolments();
  ItemList& items = *CampaignItems();
  std::string email;
  while (!rs->Eof()) {
    const dmclientsmrktcmp& enrolment = LoadEnrolment(rs, &email);
    if (!IsPlaceholderAddress(email)) {
      for (std::int32_t i = 1; i <= items.Count(); ++i) {
        HandOver(enrolment, email, *items.Item(i), static_cast<size_t>(i - 1));
      }
    }
    rs->MoveNext();
  }
}

// --- By name --------------------------------------------------------------------

const MemberTable& dmCampaignProcessor::Members() const {
  using P = dmCampaignProcessor;
  static const MemberTable table =
      MemberTable::Builder<P>("dmCampaignProcessor")
          .Put("UseMessageQueue", [](P& p, bool v) { p.UseMessageQueue(v); })
          .Put("MessageQueue",
               [](P& p, std::shared_ptr<dmmsgqueue> q) { p.MessageQueue(std::move(q)); })
          .Get("LastRunEffectiveDate", [](P& p) { return p.LastRunEffectiveDate(); })
          .Get("LastRunDate", [](P& p) { return p.LastRunDate(); })
          .Put("Connection",
               [](P& p, std::shared_ptr<quillo::Connection> c) { p.Connection(std::move(c)); })
          .Put("IDGenerator", [](P& p, ObjectPtr g) { p.IDGenerator(std::move(g)); })
          .Put("CampaignRecID", [](P& p, std::string id) { p.CampaignRecID(std::move(id)); })
          .Put("CurrentDate", [](P& p, Date d) { p.CurrentDate(d); })
          .Method("Message", [](P& p, std::int32_t n) { return p.Message(n); })
          .Method("Messages", [](P& p) { return p.Messages(); })
          .Method("CampaignItem", [](P& p, std::int32_t n) { return p.CampaignItem(n); })
          .Method("CampaignItems", [](P& p) { return p.CampaignItems(); })
          .Get("NoPrompt", [](P& p) { return p.NoPrompt(); })
          .Put("NoPrompt", [](P& p, bool v) { p.NoPrompt(v); })
          .Method("Campaign", [](P& p) { return p.Campaign(); })
          .Get("History", [](P& p) { return p.History(); })
          .Method("LoadCampaign", [](P& p) { p.LoadCampaign(); })
          .Method("LoadCampaignItems", [](P& p) { p.LoadCampaignItems(); })
          .Method("LoadData", [](P& p) { p.LoadData(); })
          .Method("Process", [](P& p) { p.Process(); })
          .Method("Delete", [](P& p) { p.Delete(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(dmCampaignProcessor, Creatable::kPublic);

}  // namespace quillo
