// quillo run / schedule / queue: processing a campaign for a date, showing
// its schedule, and looking into queue files.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "campaign/constants.h"
#include "commands.h"
#include "progress.h"

namespace quillo::cli {

namespace {

std::string AbsolutePath(const std::string& path) {
  return std::filesystem::absolute(NativePath(path)).lexically_normal().string();
}

}  // namespace

namespace {

// Whether the history row `id` is in the database.
bool HistoryStored(const Store& store, const std::string& id) {
  if (id.empty()) return false;
  return !store
              .Scalar("SELECT RecID FROM dmmrktcmphistory WHERE RecID = '" + SqlQuote(id) + "';",
                      "RecID")
              .IsEmpty();
}

// Checks that the queue file holds exactly `expected` well-formed records
// (when `expected` >= 0), each nine quoted fields ending in CR LF, and
// throws CommandError naming the first record that is not: the queue format
// cannot carry a double quote or a line break inside a field, and a record
// cut short by a full disk or a crash must not pass for a shorter queue.
// Whether `line` is one queue record: nine fields in double quotes,
// separated by commas, none holding a quote or a line break.
bool IsQueueRecord(std::string_view line) {
  size_t at = 0;
  for (int field = 0; field < 9; ++field) {
    if (field > 0) {
      if (at >= line.size() || line[at] != ',') return false;
      ++at;
    }
    if (at >= line.size() || line[at] != '"') return false;
    size_t close = line.find_first_of("\"\r\n", at + 1);
    if (close == std::string_view::npos || line[close] != '"') return false;
    at = close + 1;
  }
  return at == line.size();
}

// Checks the file record by record (never holding more than one) and
// returns how many it holds.
long CheckQueueFile(const std::string& file, long expected) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw CommandError("cannot read queue file '" + file + "'");
  long records = 0;
  std::string line;
  while (std::getline(in, line)) {
    // A record ends in CR LF; a last line without its LF was cut short.
    const bool complete = !in.eof() && !line.empty() && line.back() == '\r';
    if (complete) line.pop_back();
    if (!complete || !IsQueueRecord(line)) {
      throw CommandError("queue file '" + file + "': record " + std::to_string(records + 1) +
                         (in.eof() ? " is truncated" : " is malformed") + " (" +
                         std::to_string(records) + " good records before it)");
    }
    ++records;
  }
  if (expected >= 0 && records != expected) {
    throw CommandError("queue file '" + file + "' holds " + std::to_string(records) +
                       " records for " + std::to_string(expected) +
                       " messages: a field holds a double quote or a line break, which the queue "
                       "cannot carry");
  }
  return records;
}

}  // namespace

RunSummary RunCampaign(const Store& store, const std::string& campaign_id, Date date,
                       const std::string& queue_path, bool show_progress) {
  Dispatch processor = Dispatch::Create("dmCampaignProcessor");
  processor.Put("Connection", store.connection_object());
  processor.Put("IDGenerator", store.id_generator());
  processor.Put("CampaignRecID", campaign_id);
  processor.Put("CurrentDate", date);

  Dispatch queue;
  if (!queue_path.empty()) {
    queue = Dispatch::Create("dmmsgqueue");
    queue.Put("MessageQueueFileName", AbsolutePath(queue_path));
    if (!queue.Call("OpenQueueWrite").ToBool()) {
      throw CommandError("cannot write queue file '" + queue_path + "'");
    }
    processor.Put("UseMessageQueue", true);
    processor.Put("MessageQueue", queue.object());
  }

  Progress progress(show_progress);
  processor.object()->Advise("StatusChange", [&](std::vector<Variant>& args) {
    progress.Update(args.at(1).ToLong(), args.at(2).ToLong(), args.at(0).ToString());
  });

  RunSummary summary;
  auto history_id = [&]() -> std::string {
    try {
      Dispatch history = processor.GetObject("History");
      return history ? history.Text("RecID") : std::string();
    } catch (const RuntimeError&) {
      return {};
    }
  };
  try {
    processor.Call("LoadData");
    processor.Call("Process");
  } catch (const RuntimeError& e) {
    progress.Finish();
    if (queue) queue.Call("CloseQueue");
    // The engine stops where the failure happened and keeps what it did:
    // say what that is, so the operator can judge the next run.
    std::string left = history_id();
    std::string what = "the run failed: error " + std::to_string(e.number) + ": " + e.description;
    if (!left.empty() && HistoryStored(store, left)) {
      what += "; it left history row " + left + " in dmmrktcmphistory for " +
              FormatDate(date, "yyyy-mm-dd");
    }
    long queued = processor.GetObject("Messages").Get("Count").ToLong();
    what += "; " + std::to_string(queued) + " messages were produced before it" +
            (queue_path.empty() ? "" : " (queued in " + queue_path + ")");
    throw CommandError(what);
  } catch (...) {
    progress.Finish();
    if (queue) queue.Call("CloseQueue");
    throw;
  }
  progress.Finish();
  if (queue) queue.Call("CloseQueue");

  summary.history_id = history_id();
  if (!HistoryStored(store, summary.history_id)) {
    throw CommandError("the run's history row was not stored (is the database read-only?): " +
                       std::to_string(processor.GetObject("Messages").Get("Count").ToLong()) +
                       " messages were produced but cannot be told apart from a run never made");
  }
  summary.messages = processor.GetObject("Messages").Get("Count").ToLong();
  summary.clients =
      store
          .Scalar(
              "SELECT COUNT(*) AS n FROM dmclientsmrktcmp INNER JOIN dmclients ON "
              "dmclientsmrktcmp.Account = dmclients.account WHERE "
              "dmclientsmrktcmp.CampaignRecID = '" +
                  SqlQuote(campaign_id) + "' AND dmclientsmrktcmp.EffectiveDate <= " + "{d '" +
                  FormatDate(date, "yyyy-mm-dd") + "'};",
              "n")
          .ToLong();
  summary.queue_path = queue ? queue.Text("MessageQueueFileName") : std::string();
  if (queue) CheckQueueFile(summary.queue_path, summary.messages);
  return summary;
}

void CmdRun(const GlobalOptions& g, const RunOptions& r) {
  Store store(g.db);
  std::string campaign = store.FindCampaign(r.campaign);
  Date date = r.date.empty() ? Today() : ParseDateOption(r.date);
  if (CampaignDisabled(store, campaign)) {
    std::printf("campaign %s is disabled: not run\n", r.campaign.c_str());
    return;
  }
  RunSummary s = RunCampaign(store, campaign, date, r.queue, !r.quiet && isatty(STDOUT_FILENO));
  std::printf("run %s for %s: %d clients, %d messages", s.history_id.c_str(),
              FormatDate(date, "yyyy-mm-dd").c_str(), s.clients, s.messages);
  if (!s.queue_path.empty()) std::printf(", queued in %s", s.queue_path.c_str());
  std::printf("\n");
  if (!s.queue_path.empty()) {
    // Suppressed addresses stay in the queue (the run is the library's); send skips them.
    const SuppressionSet suppressions(store);
    int suppressed = 0;
    for (const QueuedMessage& m : ReadQueue(s.queue_path)) {
      if (suppressions.Reason(m.email)) ++suppressed;
    }
    if (suppressed > 0) {
      std::printf("%d of them to suppressed addresses: send will skip those\n", suppressed);
    }
  }
}

void CmdSchedule(const GlobalOptions& g, const std::string& campaign_name,
                 const std::string& date_text) {
  Store store(g.db);
  Dispatch campaign = store.LoadRecord("dmmrktcmp", store.FindCampaign(campaign_name));
  Date date = date_text.empty() ? Today() : ParseDateOption(date_text);
  std::int32_t code = campaign.Get("CampaignType").ToLong();
  Dispatch calc = Dispatch::Create("dmdatecomputation");
  calc.Put("Campaign", campaign.object());
  calc.Put("ReferenceDate", date);
  std::string description(ScheduleCodeDescription(code));
  std::printf("campaign:  %s\n", campaign.Text("CampaignName").c_str());
  std::printf("code:      %d%s%s\n", code, description.empty() ? "" : "  ", description.c_str());
  std::printf("reference: %s\n", FormatDate(date, "yyyy-mm-dd").c_str());
  auto show = [&](const char* label, const char* member) {
    if (code == 105) {
      // The calculator's table gives this code no weekday, deliberately, so
      // every date query fails; say why instead of showing the failure.
      std::printf("%s(none: code 105 has no weekday, so it has no run dates)\n", label);
      return;
    }
    try {
      std::printf("%s%s\n", label, DateText(calc.Call(member).ToDate()).c_str());
    } catch (const RuntimeError& e) {
      std::printf("%s(none: the calculator cannot give one for code %d: error %ld: %s)\n", label,
                  code, e.number, e.description.c_str());
    }
  };
  show("next:      ", "getNextRunDate");
  show("previous:  ", "getPreviousRunDate");
}

namespace {

Dispatch OpenQueueForReading(const std::string& file) {
  Dispatch queue = Dispatch::Create("dmmsgqueue");
  queue.Put("MessageQueueFileName", AbsolutePath(file));
  if (!queue.Call("OpenQueueRead").ToBool()) {
    throw CommandError("cannot read queue file '" + file + "'");
  }
  return queue;
}

}  // namespace

QueueReader::QueueReader(const std::string& file)
    : count_(CheckQueueFile(file, -1)), queue_(OpenQueueForReading(file)) {}

QueueReader::~QueueReader() { queue_.Call("CloseQueue"); }

bool QueueReader::Next(QueuedMessage* message) {
  Dispatch m(queue_.Call("ReadMessage").ToObject());
  if (!m) return false;
  *message = QueuedMessage{m.Text("Email"),        m.Text("MessageFileName"),
                           m.Text("Account"),      m.Text("CampaignItemRecID"),
                           m.Text("CampaignName"), m.Text("CampaignRecID"),
                           m.Text("HistoryRecID"), m.Text("CampaignType"),
                           m.Text("SendDate")};
  return true;
}

std::vector<QueuedMessage> ReadQueue(const std::string& file) {
  QueueReader reader(file);
  std::vector<QueuedMessage> messages;
  QueuedMessage m;
  while (reader.Next(&m)) messages.push_back(std::move(m));
  return messages;
}

void CmdQueueCount(const std::string& file) {
  if (!FileExists(file)) throw CommandError("no queue file '" + file + "'");
  Dispatch queue = Dispatch::Create("dmmsgqueue");
  queue.Put("MessageQueueFileName", AbsolutePath(file));
  std::printf("%d\n", queue.Call("Count").ToLong());
}

void CmdQueueShow(const std::string& file) {
  if (!FileExists(file)) throw CommandError("no queue file '" + file + "'");
  auto messages = ReadQueue(file);
  int n = 0;
  for (const auto& m : messages) {
    std::printf("%d. %s  %s  %s  (campaign %s, item %s, run %s, account %s)\n", ++n,
                m.send_date.c_str(), m.email.c_str(), m.message_file.c_str(),
                m.campaign_name.c_str(), m.item_id.c_str(), m.history_id.c_str(),
                m.account.c_str());
  }
  std::printf("%d messages\n", n);
}

void CmdCodes() {
  std::printf("Campaign kinds (campaign add --type):\n");
  std::printf("  %-5d %s: each item once, its Interval days after the client's enrolment\n",
              kSequentialOffsetKind, std::string(kSequentialOffsetCampaignName).c_str());
  std::printf("  %-5d %s: the items in turn, one per run\n", kIncrementalKind,
              std::string(kIncrementalCampaignName).c_str());
  std::printf(
      "  %-5d %s: every item to every enrolled client at each run; so are the\n"
      "        schedule codes below, which also say when the campaign runs\n",
      0, std::string(kStandardListName).c_str());
  auto table = [](const char* heading, const auto& texts) {
    std::printf("\n%s:\n", heading);
    for (const ScheduleCodeText& entry : texts) {
      std::printf("  %-5d %s%s\n", entry.code, std::string(entry.description).c_str(),
                  entry.code == 105 ? "  (no weekday by design: no run date can be computed)" : "");
    }
  };
  table("Weekly schedules", kWeeklyScheduleTexts);
  table("Day-of-month schedules (203: the day is the campaign's --interval)",
        kDayOfMonthScheduleTexts);
  table("Weekday-of-month schedules", kWeekdayOfMonthScheduleTexts);
  table("Every-N-days schedules (406: N is the campaign's --interval, from --effective)",
        kEveryNDaysScheduleTexts);
}

}  // namespace quillo::cli
