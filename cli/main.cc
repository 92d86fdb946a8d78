// quillo: the command that runs drip campaigns end to end on the library's
// public classes: create a database, keep campaigns, clients, enrolments and
// accounts, run a campaign for a date, and send what it queued.
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>

#include "commands.h"
#include "mail/composer.h"
#include "manage.h"

namespace {

using namespace quillo::cli;

// Runs one subcommand, turning failures into one-line messages.
int Guard(const std::function<void()>& body) {
  try {
    body();
    return 0;
  } catch (const PartlyDone& e) {
    std::fprintf(stderr, "quillo: %s\n", e.what());
    return kExitNotAllDelivered;
  } catch (const CommandError& e) {
    std::fprintf(stderr, "quillo: error: %s\n", e.what());
  } catch (const quillo::RuntimeError& e) {
    std::fprintf(stderr, "quillo: error %ld: %s\n", e.number, e.description.c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quillo: error: %s\n", e.what());
  }
  return 1;
}

// The options that say how to send, shared by send and tick.
void AddSendOptions(CLI::App* app, SendOptions& o) {
  app->add_option("--smtp", o.smtp,
                  "smtp://[user@]host[:port] or smtps://... (password from QUILLO_SMTP_PASSWORD "
                  "or a prompt)");
  app->add_option("--account", o.account, "Send from this SMTP account (its e-mail)");
  app->add_option("--templates", o.templates, "Folder for relative template names");
  app->add_option("--ca-file", o.ca_file, "Trust this CA certificate for smtps");
  app->add_option("--timeout", o.timeout,
                  "Seconds to wait for each reply (default: the standard SMTP timeouts)");
  app->add_option("--tls", o.tls,
                  "STARTTLS: required, opportunistic (when offered) or none; smtps:// URLs use "
                  "implicit TLS")
      ->capture_default_str()
      ->check(CLI::IsMember({"required", "opportunistic", "none"}));
  app->add_flag(
      "--allow-plaintext-auth", o.allow_plaintext_auth,
      "Allow AUTH on a connection without TLS (the password crosses the network in clear)");
  app->add_option("--helo", o.helo, "Name given in EHLO (default: this host's name)");
  app->add_option("--from", o.from, "Sender address (with --smtp, or instead of the account's)");
  app->add_option("--from-name", o.from_name, "Sender display name");
  app->add_option("--unsubscribe-url", o.unsubscribe_url,
                  "Give every message List-Unsubscribe links under this base URL, where `quillo "
                  "serve` answers (e.g. https://example.com/quillo)");
  app->add_option("--unsubscribe-mailto", o.unsubscribe_mailto,
                  "Also offer unsubscribing by mail to this address");
  app->add_option("--dkim-key", o.dkim_key,
                  "Sign every message with this DKIM private key (PEM, RSA or Ed25519)");
  app->add_option("--dkim-selector", o.dkim_selector, "The DKIM selector of --dkim-key");
  app->add_option("--dkim-domain", o.dkim_domain,
                  "The DKIM signing domain (default: the sender address's domain)");
  app->add_option("--verp", o.verp,
                  "Give every message its own return path under this address "
                  "(bounce@example.com: bounce+TOKEN@example.com), so that returned mail "
                  "names its recipient for `quillo bounces import`");
  app->add_option("--connections", o.connections,
                  "SMTP connections at once, each reused from message to message (1 with "
                  "--compat)")
      ->capture_default_str();
  app->add_option("--rate", o.rate,
                  "At most this many messages for the account: 50/s, 3000/m, 100000/h (0: no "
                  "limit)")
      ->capture_default_str();
  app->add_option("--domain-rate", o.domain_rate,
                  "At most this many messages to each recipient domain: 10/s, 600/m, ... (0: no "
                  "limit)")
      ->capture_default_str();
  app->add_option("--per-connection", o.per_connection,
                  "Open a new connection after this many messages (0: no cap)")
      ->capture_default_str();
  app->add_option("--retry-for", o.retry_for,
                  "Try deferred (4xx) messages and cut-off connections again, with growing waits, "
                  "for this long: 90s, 30m, 4h (0: no retry in this run)")
      ->capture_default_str();
  app->add_flag("--resend-in-doubt", o.resend_in_doubt,
                "Send again the messages a stopped sender had claimed: each may then arrive twice");
  app->add_flag("--compat", o.compat,
                "Send through the library's documented classes (dmMessage, ardESMTP), unchanged: "
                "no dot-stuffing, no header encoding; for trusted content only");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"quillo: timed, sequential (drip) e-mail campaigns"};
  app.require_subcommand(0, 1);
  bool show_version = false;
  app.add_flag("--version", show_version,
               "Print the version, the schema version and that of the --db database");
  GlobalOptions g;
  app.add_option("--db", g.db, "Database: sqlite:PATH, sqlite::memory: or a PostgreSQL URI")
      ->capture_default_str();
  app.add_flag("-v,--verbose", g.verbose, "Log each step");

  std::function<void()> action;

  auto* init = app.add_subcommand("init", "Create the quillo tables in a database");
  init->callback([&] { action = [&] { CmdInit(g); }; });

  // campaign
  auto* campaign = app.add_subcommand(
      "campaign", "Add, list, edit, delete, disable and enable campaigns and their items");
  campaign->require_subcommand(1);
  CampaignAdd ca;
  auto* c_add = campaign->add_subcommand("add", "Add a campaign");
  c_add->add_option("--name", ca.name, "Campaign name")->required();
  c_add->add_option("--type", ca.type,
                    "Campaign kind or schedule code: 1 sequential offset (each item N days after "
                    "enrolment), 2 incremental (one item per run), 0 standard list, 100-106 "
                    "weekly, 200-203 day of month, 3xx weekday of month, 400-406 every N days; "
                    "`quillo codes` lists them all");
  c_add->add_option("--interval", ca.interval,
                    "For code 203, the day of the month; for code 406, the days between runs");
  c_add->add_option("--effective", ca.effective, "Start of the every-N-days cycle, YYYY-MM-DD");
  c_add->add_option("--description", ca.description, "Free description");
  c_add->callback([&] { action = [&] { CmdCampaignAdd(g, ca); }; });
  campaign->add_subcommand("list", "List campaigns")->callback([&] {
    action = [&] { CmdCampaignList(g); };
  });
  AddManageCommands(campaign, "campaign", g, action);
  ItemAdd ia;
  auto* i_add = campaign->add_subcommand("item", "Add a message (template) to a campaign");
  i_add->add_option("--campaign", ia.campaign, "Campaign name or id")->required();
  i_add->add_option("--file", ia.file, "Template file")->required();
  i_add->add_option("--interval", ia.interval, "Days after enrolment; also the items' order");
  i_add->add_option("--description", ia.description, "Description (used as the subject)");
  i_add->callback([&] { action = [&] { CmdItemAdd(g, ia); }; });
  std::string items_campaign;
  auto* i_list = campaign->add_subcommand("items", "List a campaign's items");
  i_list->add_option("--campaign", items_campaign, "Campaign name or id")->required();
  i_list->callback([&] { action = [&] { CmdItemList(g, items_campaign); }; });

  // client
  auto* client =
      app.add_subcommand("client", "Add, list, import, edit, delete, disable and enable clients");
  client->require_subcommand(1);
  ClientAdd cl;
  auto* cl_add = client->add_subcommand("add", "Add a client");
  cl_add->add_option("--email", cl.email, "E-mail address")->required();
  cl_add->add_option("--first", cl.first);
  cl_add->add_option("--last", cl.last);
  cl_add->add_option("--middle", cl.middle);
  cl_add->add_option("--company", cl.company);
  cl_add->add_option("--address", cl.address);
  cl_add->add_option("--po", cl.po, "Second address line");
  cl_add->add_option("--city", cl.city);
  cl_add->add_option("--state", cl.state);
  cl_add->add_option("--zip", cl.zip);
  cl_add->add_option("--country", cl.country);
  cl_add->callback([&] { action = [&] { CmdClientAdd(g, cl); }; });
  client->add_subcommand("list", "List clients")->callback([&] {
    action = [&] { CmdClientList(g); };
  });
  AddManageCommands(client, "client", g, action);
  std::string client_csv;
  auto* cl_import = client->add_subcommand(
      "import", "Import clients from CSV (header: email,first,last,company,address,city,...)");
  cl_import->add_option("file", client_csv, "CSV file")->required();
  cl_import->callback([&] { action = [&] { CmdClientImport(g, client_csv); }; });

  // enrol
  auto* enrol = app.add_subcommand(
      "enrol", "Enrol clients in a campaign; edit, delete, disable and enable enrolments");
  EnrolAdd ea;
  std::string enrol_list_campaign, enrol_csv;
  auto* e_add = enrol->add_subcommand("add", "Enrol one client");
  e_add->add_option("--campaign", ea.campaign, "Campaign name or id")->required();
  e_add->add_option("--client", ea.client, "Client account or e-mail")->required();
  e_add->add_option("--date", ea.date, "Enrolment date YYYY-MM-DD (default today)");
  e_add->callback([&] { action = [&] { CmdEnrolAdd(g, ea); }; });
  auto* e_list = enrol->add_subcommand("list", "List a campaign's enrolments");
  e_list->add_option("--campaign", enrol_list_campaign, "Campaign name or id")->required();
  e_list->callback([&] { action = [&] { CmdEnrolList(g, enrol_list_campaign); }; });
  auto* e_import = enrol->add_subcommand("import", "Enrol clients from CSV (email,date)");
  e_import->add_option("--campaign", enrol_list_campaign, "Campaign name or id")->required();
  e_import->add_option("file", enrol_csv, "CSV file")->required();
  e_import->callback([&] { action = [&] { CmdEnrolImport(g, enrol_list_campaign, enrol_csv); }; });
  AddManageCommands(enrol, "enrolment", g, action);
  enrol->require_subcommand(1);

  // item
  auto* item = app.add_subcommand("item", "Edit, delete, disable and enable campaign items");
  item->require_subcommand(1);
  AddManageCommands(item, "item", g, action);

  // account
  auto* account =
      app.add_subcommand("account", "Add, list, edit, delete, disable and enable SMTP accounts");
  account->require_subcommand(1);
  AccountAdd aa;
  auto* a_add = account->add_subcommand("add", "Add an SMTP account");
  a_add->add_option("--email", aa.email, "Sender address")->required();
  a_add->add_option("--server", aa.server, "Mail server host")->required();
  a_add->add_option("--port", aa.port, "Port")->capture_default_str();
  a_add->add_option("--user", aa.name, "AUTH LOGIN user name");
  a_add->add_option("--password-env", aa.password_env,
                    "Name of the environment variable that holds the password at send time "
                    "(the name is stored, never the password)");
  a_add->add_option("--password-file", aa.password_file,
                    "File whose first line is the password at send time (its path is stored)");
  a_add->add_option("--friendly", aa.friendly, "Display name");
  a_add->add_option("--domain", aa.domain);
  a_add->add_flag("--auth", aa.auth, "Use AUTH LOGIN");
  a_add->add_flag("--default", aa.make_default, "Send from this account by default");
  a_add->callback([&] { action = [&] { CmdAccountAdd(g, aa); }; });
  account->add_subcommand("list", "List SMTP accounts")->callback([&] {
    action = [&] { CmdAccountList(g); };
  });
  std::string default_account;
  auto* a_default = account->add_subcommand("default", "Make one account the default");
  a_default->add_option("email", default_account, "The account's e-mail address")->required();
  a_default->callback([&] { action = [&] { CmdAccountDefault(g, default_account); }; });
  AddManageCommands(account, "account", g, action);

  // run
  RunOptions ro;
  auto* run = app.add_subcommand("run", "Process a campaign for a date");
  run->add_option("--campaign", ro.campaign, "Campaign name or id")->required();
  run->add_option("--date", ro.date, "Run date YYYY-MM-DD (default today)");
  run->add_option("--queue", ro.queue, "Queue file to write the messages to");
  run->add_flag("-q,--quiet", ro.quiet, "No progress bar");
  run->callback([&] { action = [&] { CmdRun(g, ro); }; });

  // send
  SendOptions so;
  auto* send = app.add_subcommand("send", "Send queued messages (or run a campaign and send)");
  send->add_option("--queue", so.queue, "Queue file to send");
  send->add_option("--campaign", so.campaign, "Run this campaign first (with --date)");
  send->add_option("--date", so.date, "Run date YYYY-MM-DD for --campaign (default today)");
  AddSendOptions(send, so);
  send->add_flag("-q,--quiet", so.quiet, "No progress bar");
  send->add_flag("--timings", so.timings, "Print the time spent in each stage of sending");
  send->add_flag("--worker", so.worker,
                 "Send the queues `quillo tick` keeps in the database, with other senders on "
                 "other machines, until none has anything left");
  send->add_option("--wait", so.wait, "With --worker: seconds to wait for a first queue")
      ->capture_default_str();
  send->callback([&] { action = [&] { CmdSend(g, so); }; });

  // tick
  TickOptions to;
  SendOptions tick_send;
  auto* tick = app.add_subcommand(
      "tick", "Run and send every campaign that is due (the daily job for cron or a timer)");
  tick->add_option("--date", to.date, "The day to tick for, YYYY-MM-DD (default today)");
  tick->add_flag("--dry-run", to.dry_run,
                 "Print what would run and how many messages each would make; write nothing");
  tick->add_option("--catch-up", to.catch_up,
                   "Run missed due dates this many days back (older ones are reported)")
      ->capture_default_str();
  AddSendOptions(tick, tick_send);
  tick->callback([&] { action = [&] { CmdTick(g, to, tick_send); }; });

  // serve
  ServeOptions sv;
  auto* serve = app.add_subcommand(
      "serve", "Answer the unsubscribe links (one-click POST, a confirmation page) and /health");
  serve->add_option("--listen", sv.listen, "HOST:PORT to listen on (port 0: any free port)")
      ->capture_default_str();
  serve->add_option("--seconds", sv.seconds, "Stop after this many seconds (default: never)");
  serve->callback([&] { action = [&] { CmdServe(g, sv); }; });

  // dkim
  auto* dkim = app.add_subcommand("dkim", "DKIM keys for signing what send and tick deliver");
  dkim->require_subcommand(1);
  DkimKeygen dk;
  auto* keygen = dkim->add_subcommand("keygen", "Make a key pair and print its DNS record");
  keygen->add_option("--key", dk.key, "File for the private key (made 0600; must not exist)")
      ->required();
  keygen->add_option("--selector", dk.selector, "The selector")->required();
  keygen->add_option("--domain", dk.domain, "The signing domain")->required();
  keygen->add_option("--algorithm", dk.algorithm, "rsa (2048 bits) or ed25519")
      ->capture_default_str()
      ->check(CLI::IsMember({"rsa", "ed25519"}));
  keygen->callback([&] { action = [&] { CmdDkimKeygen(dk); }; });
  DkimKeyEntry de;
  auto* d_add = dkim->add_subcommand(
      "add", "Sign all mail from a domain (or one account's address) with a key");
  d_add->add_option("--sender", de.sender, "The sending domain, or an account's address")
      ->required();
  d_add->add_option("--selector", de.selector, "The selector its TXT record is published under")
      ->required();
  d_add->add_option("--key", de.key, "The private key file (PEM, readable by its owner only)")
      ->required();
  d_add->add_option("--domain", de.domain, "The signing domain d= (default: the sender's)");
  d_add->callback([&] { action = [&] { CmdDkimAdd(g, de); }; });
  std::string dkim_sender;
  auto* d_remove = dkim->add_subcommand("remove", "Stop signing mail from a domain or address");
  d_remove->add_option("--sender", dkim_sender, "The domain or address")->required();
  d_remove->callback([&] { action = [&] { CmdDkimRemove(g, dkim_sender); }; });
  dkim->add_subcommand("list", "List the signing keys kept in the database")->callback([&] {
    action = [&] { CmdDkimList(g); };
  });

  // suppress
  auto* suppress = app.add_subcommand(
      "suppress", "The suppression list: addresses that are never sent anything");
  suppress->require_subcommand(1);
  SuppressAdd sa;
  auto* s_add = suppress->add_subcommand("add", "Put an address on the suppression list");
  s_add->add_option("email", sa.email, "The address")->required();
  s_add->add_option("--reason", sa.reason, "unsubscribed, bounced, complained or manual")
      ->capture_default_str();
  s_add->add_option("--campaign", sa.campaign, "The campaign it came from (for reports)");
  s_add->add_option("--note", sa.note, "Free text");
  s_add->callback([&] { action = [&] { CmdSuppressAdd(g, sa); }; });
  std::string unsuppressed;
  auto* s_remove = suppress->add_subcommand("remove", "Take an address off the suppression list");
  s_remove->add_option("email", unsuppressed, "The address")->required();
  s_remove->callback([&] { action = [&] { CmdSuppressRemove(g, unsuppressed); }; });
  suppress->add_subcommand("list", "List the suppression list")->callback([&] {
    action = [&] { CmdSuppressList(g); };
  });

  // bounces
  auto* bounces = app.add_subcommand("bounces", "Returned mail: bounces and complaints");
  bounces->require_subcommand(1);
  std::string bounce_path;
  auto* b_import = bounces->add_subcommand(
      "import",
      "Read delivery status notifications and complaints from a Maildir, an mbox, a "
      "folder of messages or one message, and suppress what they call for");
  b_import->add_option("path", bounce_path, "The Maildir, mbox, folder or file")->required();
  b_import->callback([&] { action = [&] { CmdBouncesImport(g, bounce_path); }; });
  auto* b_show = bounces->add_subcommand(
      "show",
      "Print what each message at PATH reports (format, recipients, kinds), without "
      "recording anything");
  b_show->add_option("path", bounce_path, "The Maildir, mbox, folder or file")->required();
  b_show->callback([&] { action = [&] { CmdBouncesShow(bounce_path); }; });

  // report
  ReportOptions ro_report;
  auto* report = app.add_subcommand(
      "report", "A campaign's messages by day and outcome, and how far its clients got");
  report->add_option("--campaign", ro_report.campaign, "Campaign name or id")->required();
  report->add_option("--days", ro_report.days, "Days to cover, ending on --date")
      ->capture_default_str();
  report->add_option("--date", ro_report.date, "The last day, YYYY-MM-DD (default today)");
  report->add_option("--html", ro_report.html,
                     "Also write the report to this file as HTML with charts (no script, "
                     "nothing fetched)");
  report->callback([&] { action = [&] { CmdReport(g, ro_report); }; });

  // status
  std::string status_campaign;
  auto* status = app.add_subcommand("status", "Show where a campaign's messages stand");
  status->add_option("--campaign", status_campaign, "Campaign name or id (default: all)");
  status->callback([&] { action = [&] { CmdStatus(g, status_campaign); }; });

  // codes
  app.add_subcommand("codes", "List every campaign kind and schedule code")->callback([&] {
    action = [] { CmdCodes(); };
  });

  // schedule
  std::string sched_campaign, sched_date;
  auto* schedule = app.add_subcommand("schedule", "Show a campaign's next and previous run dates");
  schedule->add_option("--campaign", sched_campaign, "Campaign name or id")->required();
  schedule->add_option("--date", sched_date, "Reference date YYYY-MM-DD (default today)");
  schedule->callback([&] { action = [&] { CmdSchedule(g, sched_campaign, sched_date); }; });

  // queue
  auto* queue = app.add_subcommand("queue", "Look into a queue file");
  queue->require_subcommand(1);
  std::string queue_file;
  auto* q_count = queue->add_subcommand("count", "Number of queued messages");
  q_count->add_option("file", queue_file, "Queue file")->required();
  q_count->callback([&] { action = [&] { CmdQueueCount(queue_file); }; });
  auto* q_show = queue->add_subcommand("show", "List queued messages");
  q_show->add_option("file", queue_file, "Queue file")->required();
  q_show->callback([&] { action = [&] { CmdQueueShow(queue_file); }; });

  // record
  auto* record = app.add_subcommand("record", "Export and import single rows as XML");
  record->require_subcommand(1);
  std::string table, key, xml_file;
  auto* r_export = record->add_subcommand("export", "Print a row as XML");
  r_export->add_option("table", table, "Table (dmclients, dmmrktcmp, ...)")->required();
  r_export
      ->add_option("key", key,
                   "Key (RecID; for dmclients the Account or the client's e-mail address)")
      ->required();
  bool with_secrets = false;
  r_export->add_flag("--with-secrets", with_secrets,
                     "Include secret columns (an account's password) instead of masking them");
  r_export->callback([&] { action = [&] { CmdRecordExport(g, table, key, with_secrets); }; });
  auto* r_import = record->add_subcommand("import", "Save a row from an XML file");
  r_import->add_option("table", table, "Table")->required();
  r_import->add_option("file", xml_file, "XML file")->required();
  r_import->callback([&] { action = [&] { CmdRecordImport(g, table, xml_file); }; });

  // preview
  std::string templ, preview_client, subject;
  auto* preview = app.add_subcommand("preview", "Show the raw message a template gives a client");
  preview->add_option("--template", templ, "Template file")->required();
  preview->add_option("--client", preview_client, "Client account or e-mail")->required();
  preview->add_option("--subject", subject, "Subject");
  bool preview_compat = false;
  preview->add_flag("--compat", preview_compat,
                    "Show what the library's documented classes build instead");
  preview->callback(
      [&] { action = [&] { CmdPreview(g, templ, preview_client, subject, preview_compat); }; });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here with 0; a usage error is 2, as for most commands.
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (show_version) return Guard([&] { CmdVersion(g); });
  if (!action) {
    std::fprintf(stderr, "%s\nquillo: a subcommand is required (--help lists them)\n",
                 app.help().c_str());
    return 2;
  }
  auto logger = spdlog::stderr_color_mt("quillo");
  spdlog::set_default_logger(logger);
  spdlog::set_level(g.verbose ? spdlog::level::debug : spdlog::level::warn);
  spdlog::debug("database {}", RedactConnectionText(g.db));
  return Guard(action);
}
