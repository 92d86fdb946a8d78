// dmCampaignProcessor: runs one campaign for one date.
//
// The processor loads a campaign (dmmrktcmp) and its items (dmmrktcmpitems,
// ordered by Interval), records the run in dmmrktcmphistory, selects the
// clients enrolled on or before CurrentDate (dmclientsmrktcmp joined with
// dmclients, in order of e-mail address) and, by the campaign's kind, produces
// one dmCampaignMsg per client and due item:
//   CampaignType 1, sequential offset: every item whose Interval (days after
//     the enrolment's EffectiveDate) has come and that was not yet sent;
//   CampaignType 2, incremental: the first item not yet sent;
//   any other value, standard list: every item, every run.
// "Sent" means a dmsentitems row for (campaign, item, account), which the
// host's sender writes; the processor only reads them. Messages are kept in
// Messages() and, with UseMessageQueue on, written to the MessageQueue.
// Addresses beginning with "~tmp" (any case) are placeholders and get nothing.
//
//   auto p = std::make_shared<quillo::dmCampaignProcessor>();
//   p->Connection(connection);
//   p->IDGenerator(quillo::CreateObject("idgen"));
//   p->CampaignRecID(campaign_id);
//   p->OnStatusChange([](std::string& email, std::int32_t& cnt, std::int32_t& total) {...});
//   p->LoadData();
//   p->Process();
//   for (auto& m : *p->Messages()) Send(*m);
//
// Progress: StatusChange(Message, cnt, total) is raised once per enrolment
// row in kinds 1 and 2, before the row's items are considered, to the C++
// handler and then to every by-name sink; total is the number of enrolment
// rows. The processor handles no errors: a database failure, a missing
// campaign or a failing queue write ends the call with that error, and what
// was done before stays done (the history row, the messages listed and
// queued). Thread-safety: none; everything runs on the caller's thread.
#ifndef QUILLO_CAMPAIGN_DM_CAMPAIGN_PROCESSOR_H_
#define QUILLO_CAMPAIGN_DM_CAMPAIGN_PROCESSOR_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dm_campaign_msg.h"
#include "campaign/dmclientsmrktcmp.h"
#include "campaign/dmmrktcmp.h"
#include "campaign/dmmrktcmphistory.h"
#include "campaign/dmmrktcmpitems.h"
#include "campaign/dmmsgqueue.h"
#include "platform/collection.h"
#include "platform/database.h"
#include "platform/date.h"
#include "platform/object.h"

namespace quillo {

namespace db {
class PreparedQuery;
class ReadHold;
}  // namespace db

class SQLStatement;

// The campaign processor.
class dmCampaignProcessor : public Object {
 public:
  // The C++ receiver of StatusChange(Message, cnt, total); all by reference.
  using StatusChangeHandler = std::function<void(std::string&, std::int32_t&, std::int32_t&)>;
  using MessageList = Collection<std::shared_ptr<dmCampaignMsg>>;
  using ItemList = Collection<std::shared_ptr<dmmrktcmpitems>>;

  // CurrentDate is today (quillo::Today()) at creation; queueing is off.
  dmCampaignProcessor();
  ~dmCampaignProcessor() override;

  const MemberTable& Members() const override;

  // Whether produced messages are also written to MessageQueue.
  void UseMessageQueue(bool value) { use_message_queue_ = value; }
  bool UseMessageQueue() const { return use_message_queue_; }
  // The queue, opened for writing by the host; created (unopened) on first
  // use when queueing is on and none was set.
  void MessageQueue(std::shared_ptr<dmmsgqueue> queue) { message_queue_ = std::move(queue); }
  const std::shared_ptr<dmmsgqueue>& MessageQueue() const { return message_queue_; }
  // Always the zero date: the getters consult a run record that is never set
  // (hosts read the history instead).
  Date LastRunEffectiveDate() const;
  Date LastRunDate() const;
  // The host's open connection (shared).
  void Connection(std::shared_ptr<quillo::Connection> connection);
  const std::shared_ptr<quillo::Connection>& Connection() const { return connection_; }
  // The identifier generator handed to the records the processor saves.
  void IDGenerator(ObjectPtr generator) { id_generator_ = std::move(generator); }
  const ObjectPtr& IDGenerator() const { return id_generator_; }
  // The RecID of the campaign to run.
  void CampaignRecID(std::string id) { campaign_rec_id_ = std::move(id); }
  const std::string& CampaignRecID() const { return campaign_rec_id_; }
  // The date the run is for.
  void CurrentDate(Date date) { current_date_ = date; }
  Date CurrentDate() const { return current_date_; }
  // Message n (1-based) of the last run; error 9 out of range.
  std::shared_ptr<dmCampaignMsg> Message(std::int32_t n);
  // The message list itself (created empty on first use).
  std::shared_ptr<MessageList> Messages();
  // Campaign item n (1-based); error 9 out of range.
  std::shared_ptr<dmmrktcmpitems> CampaignItem(std::int32_t n);
  // The campaign item list itself (created empty on first use).
  std::shared_ptr<ItemList> CampaignItems();
  // Kept for the host; nothing reads it.
  bool NoPrompt() const { return no_prompt_; }
  void NoPrompt(bool value) { no_prompt_ = value; }
  // The campaign record, or null before LoadCampaign.
  const std::shared_ptr<dmmrktcmp>& Campaign() const { return campaign_; }
  // The history record of the last Process, or null.
  const std::shared_ptr<dmmrktcmphistory>& History() const { return history_; }

  // Loads the campaign CampaignRecID into a new dmmrktcmp.
  void LoadCampaign();
  // Appends the campaign's items in order of Interval (never clears first).
  void LoadCampaignItems();
  // LoadCampaign, LoadCampaignItems, then empties the message list.
  void LoadData();
  // Empties the message list, saves a history row, then produces the
  // messages of the campaign's kind. REQUIRES: LoadData (else error 91).
  void Process();
  // Deletes the history row of the last Process; nothing before any.
  void Delete();

  // Sets the C++ receiver of StatusChange (replacing any earlier one).
  void OnStatusChange(StatusChangeHandler handler) { on_status_change_ = std::move(handler); }

 private:
  void ProcessSequentialOffset();
  void ProcessIncremental();
  // The enrolment walk of the two procedures that check sent items: every
  // row is counted and raises StatusChange; `per_row(enrolment, email,
  // items, plain_row)` runs for each row whose address is not a placeholder.
  template <class PerRow>
  void ForEachCountedEnrolment(PerRow per_row);
  void ProcessStandardList();
  // Opens the enrolment query of the campaign for CurrentDate.
  std::shared_ptr<Recordset> OpenEnrolments();
  // True when `item` was sent to `account` (a dmsentitems row exists).
  // `plain_row`: the campaign's key and the account go into a quoted SQL
  // literal unchanged (PlainRow, asked once per enrolment row).
  bool AlreadySent(const dmmrktcmpitems& item, const std::string& account, bool plain_row);
  bool PlainRow(const dmclientsmrktcmp& enrolment) const;
  // Loads the enrolment of the current row and its e-mail address.
  const dmclientsmrktcmp& LoadEnrolment(const std::shared_ptr<Recordset>& rs, std::string* email);
  // Builds, lists and (when queueing) queues the message for one enrolment and item.
  // `index` is the item's 0-based place in the item collection.
  void HandOver(const dmclientsmrktcmp& enrolment, const std::string& email,
                const dmmrktcmpitems& item, size_t index);
  void RaiseStatusChange(std::string& message, std::int32_t& cnt, std::int32_t& total);
  SQLStatement& Statement();
  // Prepares the sent-item query on the connection's engine for one run.
  void BeginSentItemQueries();
  // Drops the prepared sent-item query and any read snapshot held for it.
  void EndSentItemQueries();
  // Counts an enrolment row; renews the read snapshot every few rows.
  void NextEnrolmentRow();
  class SentItemQueries;

  bool use_message_queue_ = false;
  std::shared_ptr<dmmsgqueue> message_queue_;       // Lent by the host, or made on first use.
  std::shared_ptr<quillo::Connection> connection_;  // Lent by the host.
  ObjectPtr id_generator_;                          // Lent by the host.
  std::string campaign_rec_id_;
  Date current_date_;  // Today at creation.
  bool no_prompt_ = false;
  std::shared_ptr<dmmrktcmp> campaign_;         // Null until LoadCampaign.
  std::shared_ptr<ItemList> items_;             // Created on first use.
  std::shared_ptr<MessageList> messages_;       // Created on first use.
  std::shared_ptr<dmmrktcmphistory> history_;   // Null until Process.
  std::shared_ptr<dmmrktcmphistory> last_run_;  // Never set: see LastRunDate.
  std::unique_ptr<SQLStatement> statement_;     // Created on first use.
  std::string send_date_;                       // CurrentDate as "yyyy-mm-dd" for this run.
  StatusChangeHandler on_status_change_;

  // The sent-item query prepared once per run (null: every query goes as
  // text), the engine it was prepared on, and the read snapshot taken for
  // the queries (see NextEnrolmentRow).
  std::unique_ptr<db::PreparedQuery> sent_query_;
  std::uint64_t sent_query_backend_ = 0;
  std::unique_ptr<db::ReadHold> read_hold_;
  std::int32_t rows_since_hold_ = 0;  // Enrolment rows since the snapshot was renewed.

  // The texts given to the messages of the run, shared between them; each is
  // compared with its source before use and renewed when that has changed.
  struct MessageTexts {
    SharedText campaign_name, campaign_type, history_rec_id, send_date;
    SharedText email, account;
    std::int32_t campaign_type_value = 0;
  };
  // Per item: the prototype message holding the texts common to the item's
  // messages, and the item's own texts.
  struct ItemTexts {
    std::unique_ptr<dmCampaignMsg> prototype;
    SharedText campaign_rec_id, rec_id, message_file_name;
  };
  MessageTexts texts_;
  std::shared_ptr<dmclientsmrktcmp> enrolment_;  // Reloaded for every enrolment row.
  Variant email_value_;                          // The address column of the row.
  std::vector<ItemTexts> item_texts_;
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DM_CAMPAIGN_PROCESSOR_H_
