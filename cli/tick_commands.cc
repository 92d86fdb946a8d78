// quillo tick: runs and sends every campaign that is due, once per date.
//
// A campaign is due on a date when the library's date computation gives that
// date as its next run date from it (the drip kinds 1 and 2 are due every
// day; a schedule code on its own dates). Which dates were handled is read
// from the run history and quillo_tick_claims: the due dates since the last
// one are caught up in order, as far back as --catch-up days, and older ones
// are reported (once: they are then marked "missed"). A campaign that never
// ran starts at its effective date, within the catch-up window. Before
// running a date a tick claims it in quillo_tick_claims, whose key lets only
// one tick, on any machine, have it.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "campaign/constants.h"
#include "commands.h"
#include "delivery/ledger.h"
#include "manage.h"
#include "platform/file.h"
#include "platform/format.h"

namespace quillo::cli {
namespace {

long DayOf(Date d) { return static_cast<long>(std::floor(d.value)); }
Date DateOfDay(long day) { return Date(static_cast<double>(day)); }
std::string DayText(long day) { return FormatDate(DateOfDay(day), "yyyy-mm-dd"); }

}  // namespace

void CreateTickClaimTable(const Store& store) {
  const char* sql =
      "CREATE TABLE IF NOT EXISTS quillo_tick_claims (CampaignRecID VARCHAR(32) NOT NULL, "
      "RunDate VARCHAR(10) NOT NULL, Worker TEXT, ClaimedAt TEXT, PRIMARY KEY (CampaignRecID, "
      "RunDate))";
  const char* queues =
      "CREATE TABLE IF NOT EXISTS quillo_tick_queues (CampaignRecID VARCHAR(32) NOT NULL, "
      "RunDate VARCHAR(10) NOT NULL, Queue TEXT, PRIMARY KEY (CampaignRecID, RunDate))";
  for (const char* statement : {sql, queues}) {
    try {
      store.database()->Execute(statement);
    } catch (const RuntimeError&) {
      // PostgreSQL's IF NOT EXISTS is not safe against another session
      // creating the table at the same moment; by now it exists.
      store.database()->Execute(statement);
    }
  }
}

namespace {

// Claims (campaign, day) for this tick; false when another tick has it.
bool Claim(const Store& store, const std::string& campaign, long day,
           const std::string& note = "") {
  try {
    store.database()->Execute(
        "INSERT INTO quillo_tick_claims (CampaignRecID, RunDate, Worker, ClaimedAt) VALUES ('" +
        SqlQuote(campaign) + "', '" + DayText(day) + "', '" +
        SqlQuote(note.empty() ? delivery::Ledger::ThisWorker() : note) + "', '" +
        FormatDate(Now(), "yyyy-mm-dd hh:nn:ss") + "')");
    return true;
  } catch (const RuntimeError&) {
    return false;
  }
}

using Emit = std::function<void(TickEvent)>;

struct Campaign {
  std::string id, name;
  std::int32_t type = 0;
  bool disabled = false;
  Date effective;
};

// A queue a tick keeps in quillo_tick_queues.
struct Kept {
  std::string id, day, queue;
};

// The kept queues, oldest day first.
std::vector<Kept> KeptQueues(const Store& store) {
  std::vector<Kept> kept;
  store.Query("SELECT CampaignRecID, RunDate, Queue FROM quillo_tick_queues ORDER BY RunDate;",
              [&](const Row& r) {
                kept.push_back({r.Text("CampaignRecID"), r.Text("RunDate"), r.Text("Queue")});
              });
  return kept;
}

// A queue file of its own for one send, so ticks in one folder never share
// one; removed when it goes out of scope.
class ScratchQueue {
 public:
  ScratchQueue() {
    int fd = mkstemp(path_);
    if (fd < 0) throw CommandError("cannot create a queue file in /tmp");
    close(fd);
  }
  ~ScratchQueue() { std::filesystem::remove(path_); }
  const char* path() const { return path_; }

 private:
  char path_[32] = "/tmp/quillo-tick-XXXXXX";
};

// Runs campaign `id` for `day` and sends (or, with `kept` not empty, sends
// that queue again). A queue that did not go out in full is kept in
// quillo_tick_queues for the next tick, so nothing made is lost; one that
// did is dropped from there. False when not all was delivered.
bool SendDate(const GlobalOptions& g, const Store& store, const SendOptions& send,
              const std::string& id, long day, const std::string& kept, TickEvent event,
              const Emit& emit) {
  ScratchQueue queue;
  SendOptions o = send;
  o.queue = queue.path();
  o.quiet = true;
  auto connection = store.database();
  const std::string key =
      "CampaignRecID = '" + SqlQuote(id) + "' AND RunDate = '" + DayText(day) + "'";
  auto keep = [&](const std::string& bytes) {
    connection->Execute("DELETE FROM quillo_tick_queues WHERE " + key);
    connection->Execute("INSERT INTO quillo_tick_queues (CampaignRecID, RunDate, Queue) VALUES ('" +
                        SqlQuote(id) + "', '" + DayText(day) + "', '" + SqlQuote(bytes) + "')");
  };
  if (kept.empty()) {
    o.campaign = id;
    o.date = DayText(day);
    // Kept before anything is sent: `send --worker` on other machines can
    // share it, and a tick that dies midway leaves it for the next one.
    o.on_queued = [&](const std::string& file) { keep(ReadFileBytes(file)); };
  } else {
    WriteFileBytes(queue.path(), kept);
  }
  bool delivered = false;
  bool held = false;  // Some messages were being sent by other senders (send --worker).
  try {
    SendTally r = RunAndSend(g, o);
    if (!kept.empty()) r.made = static_cast<int>(r.queued);
    std::string counts =
        "messages=" + std::to_string(r.made) + " sent=" + std::to_string(r.sent) +
        " refused=" + std::to_string(r.refused) + " failed=" + std::to_string(r.failed) +
        " deferred=" + std::to_string(r.deferred) + " in_doubt=" + std::to_string(r.in_doubt) +
        " skipped=" + std::to_string(r.disabled + r.skipped) +
        " suppressed=" + std::to_string(r.suppressed);
    delivered = r.AllDelivered();
    held = r.busy > 0;
    event.tally = r;
    if (delivered && held) {
      // The rest is in the hands of live senders; the queue stays until a
      // later tick or worker finds it all done.
      event.status = "done";
      event.detail = "done: all delivered or held by other senders " + counts +
                     " held=" + std::to_string(r.busy);
    } else if (delivered) {
      event.status = "done";
      event.detail = "done: all delivered " + counts;
    } else {
      event.level = TickEvent::Level::kWarning;
      event.status = "not delivered";
      event.detail = "done: " + std::to_string(r.NotDelivered() + r.busy) + " not delivered " +
                     counts + "; kept for the next tick";
    }
  } catch (const CommandError& e) {
    event.level = TickEvent::Level::kError;
    event.status = "failed";
    event.detail = std::string("failed: ") + e.what() + "; kept for the next tick";
  } catch (const RuntimeError& e) {
    event.level = TickEvent::Level::kError;
    event.status = "failed";
    event.detail = "failed: error " + std::to_string(e.number) + ": " + e.description +
                   "; kept for the next tick";
  }
  emit(std::move(event));
  connection->Execute("DELETE FROM quillo_tick_queues WHERE " + key);
  std::string bytes = FileExists(queue.path()) ? ReadFileBytes(queue.path()) : std::string();
  if ((!delivered || held) && !bytes.empty()) keep(bytes);
  return delivered;
}

// The days `campaign` is due in [first, last], in order.
std::vector<long> DueDays(const Store& store, const Campaign& c, long first, long last) {
  std::vector<long> due;
  Dispatch record = store.LoadRecord("dmmrktcmp", c.id);
  Dispatch calc = Dispatch::Create("dmdatecomputation");
  calc.Put("Campaign", record.object());
  for (long day = first; day <= last; ++day) {
    calc.Put("ReferenceDate", DateOfDay(day));
    if (DayOf(calc.Call("getNextRunDate").ToDate()) == day) due.push_back(day);
  }
  return due;
}

// The run dates in the history of campaign `id`, with the dates a tick
// claimed or reported as missed.
std::set<long> HandledDays(const Store& store, const std::string& id, bool with_claims) {
  std::set<long> days;
  store.Query(
      "SELECT EffectiveDate FROM dmmrktcmphistory WHERE CampaignRecID = '" + SqlQuote(id) + "';",
      [&](const Row& r) { days.insert(DayOf(r.Value("EffectiveDate").ToDate())); });
  if (!with_claims) return days;
  store.Query(
      "SELECT RunDate FROM quillo_tick_claims WHERE CampaignRecID = '" + SqlQuote(id) + "';",
      [&](const Row& r) { days.insert(DayOf(ParseDateOption(r.Text("RunDate")))); });
  return days;
}

// The number of messages a run of `c` on `day` would make, learnt by running
// it inside a transaction that is then rolled back.
int DryRunCount(const Store& store, const Campaign& c, long day) {
  auto connection = store.database();
  connection->Execute("BEGIN");
  int messages = 0;
  try {
    messages = RunCampaign(store, c.id, DateOfDay(day), "", false).messages;
  } catch (...) {
    connection->Execute("ROLLBACK");
    throw;
  }
  connection->Execute("ROLLBACK");
  return messages;
}

std::shared_ptr<spdlog::logger> TickLog() {
  auto log = spdlog::get("tick");
  if (!log) {
    log = spdlog::stdout_logger_mt("tick");
    log->set_pattern("%Y-%m-%d %H:%M:%S tick %v");
    log->set_level(spdlog::level::info);
  }
  return log;
}

}  // namespace

std::string TickLine(const TickEvent& e) {
  std::string line = "campaign=\"" + e.campaign + "\"";
  if (!e.date.empty()) line += " date=" + e.date;
  if (e.kept_queue) line += " (kept queue)";
  return line + " " + e.detail;
}

TickResult Tick(const GlobalOptions& g, const TickOptions& t, const SendOptions& send,
                const std::function<void(const TickEvent&)>& on_event) {
  if (t.catch_up < 1) throw CommandError("--catch-up wants 1 day or more");
  // Before any day is claimed: a day claimed by a tick that cannot send would be lost.
  CheckSendOptions(send);
  Store store(g.db);
  const long today = DayOf(t.date.empty() ? Today() : ParseDateOption(t.date));
  if (!t.dry_run) CreateTickClaimTable(store);
  TickResult result;
  const Emit emit = [&](TickEvent e) {
    if (on_event) on_event(e);
    result.events.push_back(std::move(e));
  };
  auto about = [](const std::string& campaign, const std::string& date, const char* status,
                  std::string detail, TickEvent::Level level = TickEvent::Level::kInfo) {
    TickEvent e;
    e.level = level;
    e.campaign = campaign;
    e.date = date;
    e.status = status;
    e.detail = std::move(detail);
    return e;
  };

  std::vector<Campaign> campaigns;
  store.Query(
      "SELECT RecID, CampaignName, CampaignType, Disabled, CampaignEffectiveDate FROM "
      "dmmrktcmp ORDER BY CampaignName;",
      [&](const Row& r) {
        campaigns.push_back({r.Text("RecID"), r.Text("CampaignName"),
                             static_cast<std::int32_t>(r.Value("CampaignType").ToLong()),
                             r.Value("Disabled").ToLong() != 0,
                             r.Value("CampaignEffectiveDate").ToDate()});
      });
  if (!t.dry_run) {
    // First what earlier ticks made but could not deliver in full.
    std::vector<Kept> kept = KeptQueues(store);
    for (const Kept& k : kept) {
      TickEvent e = about(k.id, k.day, "", "");
      e.kept_queue = true;
      for (const Campaign& c : campaigns) {
        if (c.id == k.id) e.campaign = c.name;
      }
      ++result.runs;
      if (!SendDate(g, store, send, k.id, DayOf(ParseDateOption(k.day)), k.queue, e, emit)) {
        ++result.not_delivered;
      }
    }
  }
  for (const Campaign& c : campaigns) {
    if (c.disabled) {
      emit(about(c.name, "", "skipped", "skipped: disabled"));
      continue;
    }
    if (c.type == 0) {
      emit(about(c.name, "", "skipped",
                 "skipped: kind 0 has no schedule (run it with `quillo send --campaign`)"));
      continue;
    }
    if (c.type == 105) {
      emit(about(c.name, "", "skipped",
                 "skipped: code 105 has no weekday by design, so it is never due"));
      continue;
    }
    std::set<long> handled = HandledDays(store, c.id, !t.dry_run);
    const long window = today - t.catch_up + 1;
    // After a first run, every day since the last one handled; before it,
    // the days of the catch-up window from the campaign's effective date
    // (a campaign that never ran missed nothing).
    long first;
    if (!handled.empty()) {
      first = *handled.rbegin() + 1;
    } else {
      long effective = DayOf(c.effective);
      first = effective > today ? today : std::max(effective, window);
    }
    std::vector<long> due;
    try {
      due = DueDays(store, c, first, today);
    } catch (const RuntimeError& e) {
      emit(about(c.name, "", "failed",
                 "skipped: no run dates: error " + std::to_string(e.number) + ": " + e.description,
                 TickEvent::Level::kWarning));
      ++result.problems;
      continue;
    }
    std::vector<long> missed, todo;
    for (long day : due) (day < window ? missed : todo).push_back(day);
    if (!missed.empty()) {
      emit(about(c.name, "", "missed",
                 "missed " + std::to_string(missed.size()) + " due date" +
                     (missed.size() == 1 ? "" : "s") + " from " + DayText(missed.front()) + " to " +
                     DayText(missed.back()) + ", past the catch-up of " +
                     std::to_string(t.catch_up) +
                     " days: not run (run one with `quillo send --campaign` and --date, or tick "
                     "with a longer --catch-up)",
                 TickEvent::Level::kWarning));
      ++result.problems;
      // Reported once: a later tick starts after them.
      if (!t.dry_run) {
        for (long day : missed) Claim(store, c.id, day, "missed");
      }
    }
    if (todo.empty()) {
      emit(about(c.name, "", "nothing due", "nothing due"));
      continue;
    }
    for (long day : todo) {
      if (t.dry_run) {
        TickEvent e = about(c.name, DayText(day), "would run", "");
        e.messages = DryRunCount(store, c, day);
        e.detail = "would run: " + std::to_string(e.messages) + " messages";
        emit(std::move(e));
        continue;
      }
      if (!Claim(store, c.id, day)) {
        emit(about(c.name, DayText(day), "skipped", "skipped: claimed by another tick"));
        continue;
      }
      ++result.runs;
      if (!SendDate(g, store, send, c.id, day, "", about(c.name, DayText(day), "", ""), emit)) {
        ++result.not_delivered;
      }
    }
  }
  return result;
}

SendTally SendKeptQueues(const GlobalOptions& g, const SendOptions& send) {
  CheckSendOptions(send);
  Store store(g.db);
  CreateTickClaimTable(store);
  SendOptions o = send;
  o.worker = false;
  o.campaign.clear();
  SendTally total;
  const auto start = std::chrono::steady_clock::now();
  bool found_any = false;
  for (;;) {
    std::vector<Kept> kept = KeptQueues(store);
    if (kept.empty()) {
      if (!found_any &&
          std::chrono::steady_clock::now() - start < std::chrono::seconds(send.wait)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        continue;
      }
      break;
    }
    found_any = true;
    long handled = 0;  // Messages this worker claimed in this pass.
    for (const Kept& k : kept) {
      ScratchQueue queue;
      WriteFileBytes(queue.path(), k.queue);
      o.queue = queue.path();
      SendTally t = RunAndSend(g, o);
      handled += t.sent + t.refused + t.failed + t.deferred + t.suppressed;
      total.queued += t.queued;
      total.sent += t.sent;
      total.refused += t.refused;
      total.failed += t.failed;
      total.deferred += t.deferred;
      total.suppressed += t.suppressed;
      total.disabled += t.disabled;
      total.abandoned += t.abandoned;
      total.refused_before += t.refused_before;
      total.in_doubt = std::max(total.in_doubt, t.in_doubt);
      if (t.AllDelivered() && t.busy == 0) {
        // Nothing of it is left for anyone.
        store.database()->Execute("DELETE FROM quillo_tick_queues WHERE CampaignRecID = '" +
                                  SqlQuote(k.id) + "' AND RunDate = '" + SqlQuote(k.day) + "'");
      }
    }
    // A pass that found nothing to claim: the rest is done, final, in doubt
    // or held by other senders.
    if (handled == 0) break;
  }
  return total;
}

void CmdTick(const GlobalOptions& g, const TickOptions& t, const SendOptions& send) {
  auto log = TickLog();
  TickResult r = Tick(g, t, send, [&](const TickEvent& e) {
    auto level = e.level == TickEvent::Level::kError     ? spdlog::level::err
                 : e.level == TickEvent::Level::kWarning ? spdlog::level::warn
                                                         : spdlog::level::info;
    log->log(level, "{}", TickLine(e));
  });
  log->info("ran {} campaign date{}; {} not all delivered; {} problem{}", r.runs,
            r.runs == 1 ? "" : "s", r.not_delivered, r.problems, r.problems == 1 ? "" : "s");
  if (r.problems > 0) {
    throw CommandError("tick: " + std::to_string(r.problems) + " problem(s), see above");
  }
  if (r.not_delivered > 0) {
    throw PartlyDone(std::to_string(r.not_delivered) + " campaign date(s) were not all delivered");
  }
}

}  // namespace quillo::cli
