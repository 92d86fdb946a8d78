// quillo init / campaign / client / enrol / account / record: keeping the
// tables through the record classes, so a user never writes SQL by hand.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "campaign/constants.h"
#include "commands.h"
#include "csv.h"
#include "delivery/bounces.h"
#include "delivery/ledger.h"
#include "mail/address.h"
#include "mail/composer.h"
#include "mail/template_draft.h"
#include "manage.h"
#include "platform/format.h"
#include "records/dmclients.h"

namespace quillo::cli {

Date ParseDateOption(const std::string& text) {
  static const std::regex kIso(R"((\d{4})-(\d{2})-(\d{2}))");
  std::smatch m;
  if (!std::regex_match(text, m, kIso)) {
    throw CommandError("bad date '" + text + "': expected YYYY-MM-DD");
  }
  int y = std::stoi(m[1]), mo = std::stoi(m[2]), d = std::stoi(m[3]);
  if (y < 100 || mo < 1 || mo > 12 || d < 1 || d > 31) {
    throw CommandError("bad date '" + text + "': no such day");
  }
  Date date = DateSerial(y, mo, d);
  if (Year(date) != y || Month(date) != mo || Day(date) != d) {
    throw CommandError("bad date '" + text + "': no such day");
  }
  return date;
}

std::string DateText(Date d) {
  if (d.value == 0) return "-";
  return FormatDate(d, "yyyy-mm-dd");
}

Date DateOrToday(const std::string& text) { return text.empty() ? Today() : ParseDateOption(text); }

void PrintTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width(header.size());
  for (size_t i = 0; i < header.size(); ++i) width[i] = header[i].size();
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size() && i < width.size(); ++i) {
      width[i] = std::max(width[i], row[i].size());
    }
  }
  auto print_row = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(width[i] - row[i].size() + 2, ' ');
    }
    std::printf("%s\n", RTrim(line).c_str());
  };
  print_row(header);
  for (const auto& row : rows) print_row(row);
  if (rows.empty()) std::printf("(none)\n");
}

namespace {

// One data row of a CSV file with a header row: its line and its fields by
// the lower-case header name.
struct CsvRow {
  long line;
  std::map<std::string, std::string> fields;
};

// Reads a CSV file with a header row.
std::vector<CsvRow> ReadCsv(const std::string& path) {
  std::string text;
  try {
    text = ReadFileBytes(path);
  } catch (const RuntimeError& e) {
    throw CommandError("cannot read '" + path + "': " + e.description);
  }
  std::vector<CsvRecord> records;
  try {
    records = ParseCsv(text);
  } catch (const CsvError& e) {
    throw CommandError("'" + path + "' " + e.what() + "; nothing was imported");
  }
  if (records.empty()) throw CommandError("'" + path + "' has no header row");
  std::vector<std::string> header;
  for (auto& f : records[0].fields) header.push_back(LCase(Trim(f)));
  std::vector<CsvRow> rows;
  for (size_t r = 1; r < records.size(); ++r) {
    CsvRow row{records[r].line, {}};
    for (size_t i = 0; i < header.size() && i < records[r].fields.size(); ++i) {
      row.fields[header[i]] = records[r].fields[i];
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// Ends an import: the summary, and status 3 when rows were rejected.
void ImportSummary(const char* verb, int done, size_t rows, const char* what) {
  std::printf("%s %d of %zu %s\n", verb, done, rows, what);
  if (static_cast<size_t>(done) < rows) {
    throw PartlyDone(std::to_string(rows - static_cast<size_t>(done)) + " of " +
                     std::to_string(rows) + " rows were rejected");
  }
}

}  // namespace

void CheckQueueField(const char* what, const std::string& value) {
  if (value.find_first_of("\"\r\n") != std::string::npos) {
    throw CommandError(std::string(what) + " may not hold a double quote or a line break");
  }
}

void CheckAddress(const std::string& address) {
  if (auto problem = mail::MailboxProblem(address)) {
    throw CommandError("'" + address + "' is not a valid e-mail address: " + *problem);
  }
}

void CheckCampaignType(std::int32_t type) {
  if (type != 0 && type != kSequentialOffsetKind && type != kIncrementalKind &&
      ScheduleCodeDescription(type).empty()) {
    throw CommandError(
        "--type " + std::to_string(type) +
        " is neither a campaign kind nor a schedule code: `quillo codes` lists them");
  }
  if (type == 105) {
    std::fprintf(stderr,
                 "quillo: warning: code 105 has no weekday by design, so no run date can be "
                 "computed for it (`quillo schedule` will say so)\n");
  }
}

std::string CheckedTemplatePath(const std::string& file, const std::string& subject) {
  std::string path = std::filesystem::absolute(NativePath(file)).lexically_normal().string();
  CheckQueueField("a template file name", path);
  if (!FileExists(path)) throw CommandError("no template file '" + file + "'");
  try {
    dmclients nobody;
    nobody.Email("nobody@example.test");
    mail::DraftFromTemplate(path, nobody, subject, {"", "nobody@example.test"});
  } catch (const std::exception& e) {
    throw CommandError(std::string("the template cannot be used: ") + e.what());
  }
  return path;
}

void CmdInit(const GlobalOptions& g) {
  Store store(g.db, /*allow_empty=*/true);
  store.CreateSchema();
  auto connection = store.database();
  delivery::CreateLedgerSchema(*connection);
  CreatePasswordReferenceTable(store);
  CreateDisabledTable(store);
  CreateTickClaimTable(store);
  delivery::CreateSuppressionSchema(*connection);
  delivery::CreateBounceSchema(*connection);
  try {
    // One client per address whatever its case, even under concurrent imports.
    connection->Execute(
        "CREATE UNIQUE INDEX IF NOT EXISTS quillo_clients_email_key ON dmclients (LOWER(EMail))");
  } catch (const RuntimeError& e) {
    std::fprintf(stderr,
                 "quillo: warning: clients share an e-mail address, so it is not kept unique: "
                 "%s\n",
                 e.description.c_str());
  }
  connection->Execute(
      "CREATE TABLE IF NOT EXISTS quillo_meta (Name VARCHAR(64) NOT NULL PRIMARY KEY, Value "
      "TEXT)");
  connection->Execute("DELETE FROM quillo_meta WHERE Name = 'schema_version'");
  connection->Execute("INSERT INTO quillo_meta (Name, Value) VALUES ('schema_version', '" +
                      std::to_string(kSchemaVersion) + "')");
  std::printf("initialised %s (schema %d)\n", RedactConnectionText(g.db).c_str(), kSchemaVersion);
}

int DatabaseSchemaVersion(const Store& store) {
  try {
    return static_cast<int>(
        store.Scalar("SELECT Value FROM quillo_meta WHERE Name = 'schema_version';", "Value")
            .ToLong());
  } catch (const RuntimeError&) {
    return 1;  // The tables, from before the command recorded a version.
  }
}

void CmdVersion(const GlobalOptions& g) {
  std::printf("quillo %s\n", mail::Version());
  std::printf("schema %d (what `quillo init` makes)\n", kSchemaVersion);
  try {
    Store store(g.db);
    int found = DatabaseSchemaVersion(store);
    std::printf("database %s: schema %d%s\n", RedactConnectionText(g.db).c_str(), found,
                found < kSchemaVersion ? " (`quillo init` brings it up to date)" : "");
  } catch (const RuntimeError& e) {
    std::printf("database %s: %s\n", RedactConnectionText(g.db).c_str(), e.description.c_str());
  } catch (const std::exception& e) {
    std::printf("database %s: %s\n", RedactConnectionText(g.db).c_str(), e.what());
  }
}

void CmdCampaignAdd(const GlobalOptions& g, const CampaignAdd& a) {
  Store store(g.db);
  if (Trim(a.name).empty()) throw CommandError("a campaign needs a --name");
  CheckQueueField("a campaign name", a.name);
  CheckCampaignType(a.type);
  Variant existing = store.Scalar(
      "SELECT RecID FROM dmmrktcmp WHERE CampaignName = '" + SqlQuote(a.name) + "';", "RecID");
  if (!existing.IsEmpty()) throw CommandError("a campaign named '" + a.name + "' exists already");
  Dispatch c = store.NewRecord("dmmrktcmp");
  c.Put("CampaignName", a.name);
  c.Put("CampaignDescription", a.description);
  c.Put("CampaignType", a.type);
  c.Put("Interval", a.interval);
  c.Put("CampaignEffectiveDate", DateOrToday(a.effective));
  Store::Save(c, "the campaign");
  std::printf("%s\n", c.Text("RecID").c_str());
}

void CmdCampaignList(const GlobalOptions& g) {
  Store store(g.db);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM dmmrktcmp ORDER BY CampaignName;", [&](const Row& r) {
    rows.push_back({r.Text("RecID"), r.Text("CampaignName"), r.Text("CampaignType"),
                    r.Text("Interval"), DateText(r.Value("CampaignEffectiveDate").ToDate()),
                    r.Text("CampaignDescription")});
  });
  PrintTable({"ID", "NAME", "TYPE", "INTERVAL", "EFFECTIVE", "DESCRIPTION"}, rows);
}

void CmdItemAdd(const GlobalOptions& g, const ItemAdd& a) {
  Store store(g.db);
  std::string campaign = store.FindCampaign(a.campaign);
  std::string file = CheckedTemplatePath(a.file, a.description);
  Dispatch item = store.NewRecord("dmmrktcmpitems");
  item.Put("CampaignRecID", campaign);
  item.Put("MessageFileName", file);
  item.Put("Interval", a.interval);
  item.Put("Description", a.description);
  Store::Save(item, "the campaign item");
  std::printf("%s\n", item.Text("RecID").c_str());
}

void CmdItemList(const GlobalOptions& g, const std::string& campaign_name) {
  Store store(g.db);
  std::string campaign = store.FindCampaign(campaign_name);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM dmmrktcmpitems WHERE CampaignRecID = '" + SqlQuote(campaign) +
                  "' ORDER BY Interval;",
              [&](const Row& r) {
                rows.push_back({r.Text("RecID"), r.Text("Interval"), r.Text("MessageFileName"),
                                r.Text("Description")});
              });
  PrintTable({"ID", "INTERVAL", "TEMPLATE", "DESCRIPTION"}, rows);
}

namespace {

void FillClient(const Dispatch& c, const std::map<std::string, std::string>& fields) {
  // Property names by lower-case CSV heading.
  static const std::map<std::string, std::string> kProperty = {{"email", "Email"},
                                                               {"first", "First"},
                                                               {"last", "Last"},
                                                               {"middle", "Middle"},
                                                               {"company", "Company"},
                                                               {"address", "Address"},
                                                               {"po", "PO"},
                                                               {"city", "city"},
                                                               {"state", "state"},
                                                               {"zip", "zip"},
                                                               {"country", "Country"},
                                                               {"title", "Title"},
                                                               {"workphone", "WorkPhone"},
                                                               {"homephone", "HomePhone"},
                                                               {"cellphone", "CellPhone"},
                                                               {"notes", "Notes"}};
  for (const auto& [heading, value] : fields) {
    auto it = kProperty.find(heading);
    if (it != kProperty.end()) c.Put(it->second, value);
  }
}

std::string AddClient(const Store& store, const std::map<std::string, std::string>& fields) {
  auto email = fields.find("email");
  if (email == fields.end() || Trim(email->second).empty()) {
    throw CommandError("a client needs an e-mail address");
  }
  std::string address = Trim(email->second);
  CheckAddress(address);
  // Addresses differ in case only by accident: one client per address.
  Variant existing = store.Scalar("SELECT Account FROM dmclients WHERE LOWER(EMail) = '" +
                                      SqlQuote(mail::MailboxKey(address)) + "';",
                                  "Account");
  if (!existing.IsEmpty()) {
    throw CommandError("a client with e-mail '" + address + "' exists already");
  }
  Dispatch c = store.NewRecord("dmclients");
  std::map<std::string, std::string> cleaned = fields;
  cleaned["email"] = address;
  FillClient(c, cleaned);
  c.Put("RecordAddedDate", Now());
  c.Put("RecordAddedBy", "quillo");
  Store::Save(c, "the client");
  return c.Text("Account");
}

}  // namespace

void CmdClientAdd(const GlobalOptions& g, const ClientAdd& a) {
  Store store(g.db);
  std::string account = AddClient(store, {{"email", a.email},
                                          {"first", a.first},
                                          {"last", a.last},
                                          {"middle", a.middle},
                                          {"company", a.company},
                                          {"address", a.address},
                                          {"po", a.po},
                                          {"city", a.city},
                                          {"state", a.state},
                                          {"zip", a.zip},
                                          {"country", a.country}});
  std::printf("%s\n", account.c_str());
}

void CmdClientList(const GlobalOptions& g) {
  Store store(g.db);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM dmclients ORDER BY EMail;", [&](const Row& r) {
    rows.push_back({r.Text("Account"), r.Text("EMail"),
                    Trim(r.Text("First") + " " + r.Text("Last")), r.Text("Company")});
  });
  PrintTable({"ACCOUNT", "EMAIL", "NAME", "COMPANY"}, rows);
}

void CmdClientImport(const GlobalOptions& g, const std::string& csv_file) {
  Store store(g.db);
  auto rows = ReadCsv(csv_file);
  int added = 0;
  for (const auto& row : rows) {
    try {
      AddClient(store, row.fields);
      ++added;
    } catch (const CommandError& e) {
      std::fprintf(stderr, "quillo: %s line %ld skipped: %s\n", csv_file.c_str(), row.line,
                   e.what());
    }
  }
  ImportSummary("imported", added, rows.size(), "clients");
}

namespace {

void Enrol(const Store& store, const std::string& campaign, const std::string& client, Date date) {
  Variant existing =
      store.Scalar("SELECT RecID FROM dmclientsmrktcmp WHERE CampaignRecID = '" +
                       SqlQuote(campaign) + "' AND Account = '" + SqlQuote(client) + "';",
                   "RecID");
  if (!existing.IsEmpty()) throw CommandError("client is enrolled already");
  Dispatch e = store.NewRecord("dmclientsmrktcmp");
  e.Put("Account", client);
  e.Put("CampaignRecID", campaign);
  e.Put("EffectiveDate", date);
  Store::Save(e, "the enrolment");
}

}  // namespace

void CmdEnrolAdd(const GlobalOptions& g, const EnrolAdd& a) {
  Store store(g.db);
  Enrol(store, store.FindCampaign(a.campaign), store.FindClient(a.client), DateOrToday(a.date));
  std::printf("enrolled %s from %s\n", a.client.c_str(), DateText(DateOrToday(a.date)).c_str());
}

void CmdEnrolList(const GlobalOptions& g, const std::string& campaign_name) {
  Store store(g.db);
  std::string campaign = store.FindCampaign(campaign_name);
  std::vector<std::vector<std::string>> rows;
  store.Query(
      "SELECT dmclientsmrktcmp.*, dmclients.email FROM dmclientsmrktcmp INNER JOIN dmclients ON "
      "dmclientsmrktcmp.Account = dmclients.account WHERE dmclientsmrktcmp.CampaignRecID = '" +
          SqlQuote(campaign) + "' ORDER BY dmclients.email;",
      [&](const Row& r) {
        rows.push_back(
            {r.Text("Account"), r.Text("Email"), DateText(r.Value("EffectiveDate").ToDate())});
      });
  PrintTable({"ACCOUNT", "EMAIL", "SINCE"}, rows);
}

void CmdEnrolImport(const GlobalOptions& g, const std::string& campaign_name,
                    const std::string& csv) {
  Store store(g.db);
  std::string campaign = store.FindCampaign(campaign_name);
  auto rows = ReadCsv(csv);
  int added = 0;
  for (const auto& csv_row : rows) {
    const auto& row = csv_row.fields;
    try {
      auto who = row.count("email")     ? row.at("email")
                 : row.count("account") ? row.at("account")
                                        : std::string();
      auto date = row.count("date") ? row.at("date") : std::string();
      Enrol(store, campaign, store.FindClient(who), DateOrToday(date));
      ++added;
    } catch (const CommandError& e) {
      std::fprintf(stderr, "quillo: %s line %ld skipped: %s\n", csv.c_str(), csv_row.line,
                   e.what());
    }
  }
  ImportSummary("enrolled", added, rows.size(), "clients");
}

void CreatePasswordReferenceTable(const Store& store) {
  auto connection = store.database();
  connection->Execute(
      "CREATE TABLE IF NOT EXISTS quillo_account_secrets (Email VARCHAR(255) NOT NULL PRIMARY "
      "KEY, Source VARCHAR(8) NOT NULL, Ref VARCHAR(1000) NOT NULL)");
}

std::optional<std::string> ReferencedPassword(const Store& store, const std::string& email) {
  std::string source, ref;
  try {
    store.Query(
        "SELECT Source, Ref FROM quillo_account_secrets WHERE Email = '" + SqlQuote(email) + "';",
        [&](const Row& r) {
          source = r.Text("Source");
          ref = r.Text("Ref");
        });
  } catch (const RuntimeError&) {
    return std::nullopt;  // A database made before password references existed.
  }
  if (source == "env") {
    const char* value = std::getenv(ref.c_str());
    if (value == nullptr) {
      throw CommandError("the password of account '" + email + "' comes from $" + ref +
                         ", which is not set");
    }
    return std::string(value);
  }
  if (source == "file") {
    std::string bytes;
    try {
      bytes = ReadFileBytes(ref);
    } catch (const RuntimeError& e) {
      throw CommandError("the password of account '" + email + "' comes from '" + ref +
                         "', which cannot be read: " + e.description);
    }
    return bytes.substr(0, bytes.find_first_of("\r\n"));
  }
  return std::nullopt;
}

void CmdAccountAdd(const GlobalOptions& g, const AccountAdd& a) {
  Store store(g.db);
  if (Trim(a.email).empty() || Trim(a.server).empty()) {
    throw CommandError("an account needs --email and --server");
  }
  if (!a.password_env.empty() && !a.password_file.empty()) {
    throw CommandError("give --password-env or --password-file, not both");
  }
  CheckAddress(Trim(a.email));
  if (!store
           .Scalar("SELECT RecID FROM dmsmtpaccounts WHERE Email = '" + SqlQuote(a.email) + "';",
                   "RecID")
           .IsEmpty()) {
    throw CommandError("an account '" + a.email + "' exists already");
  }
  CreatePasswordReferenceTable(store);
  auto connection = store.database();
  connection->Execute("BEGIN");
  try {
    if (a.make_default) connection->Execute("UPDATE dmsmtpaccounts SET Default = 0;");
    Dispatch acct = store.NewRecord("dmsmtpaccounts");
    acct.Put("Email", a.email);
    acct.Put("MailServer", a.server);
    acct.Put("Port", a.port);
    acct.Put("AccountName", a.name);
    // The password itself is never stored: only where to find it at send time.
    acct.Put("AccountPassword", "");
    acct.Put("EmailFriendly", a.friendly);
    acct.Put("Domain", a.domain);
    acct.Put("UseAuthentication", std::int32_t{a.auth ? 1 : 0});
    acct.Put("Default", std::int32_t{a.make_default ? 1 : 0});
    Store::Save(acct, "the account");
    std::string source, ref;
    if (!a.password_env.empty()) {
      source = "env";
      ref = a.password_env;
    } else if (!a.password_file.empty()) {
      source = "file";
      ref = std::filesystem::absolute(a.password_file).lexically_normal().string();
    }
    if (!source.empty()) {
      connection->Execute("INSERT INTO quillo_account_secrets (Email, Source, Ref) VALUES ('" +
                          SqlQuote(a.email) + "', '" + source + "', '" + SqlQuote(ref) + "')");
    }
    connection->Execute("COMMIT");
    std::printf("%s\n", acct.Text("RecID").c_str());
  } catch (...) {
    connection->Execute("ROLLBACK");
    throw;
  }
}

void CmdAccountDefault(const GlobalOptions& g, const std::string& email) {
  Store store(g.db);
  auto connection = store.database();
  if (store
          .Scalar("SELECT RecID FROM dmsmtpaccounts WHERE Email = '" + SqlQuote(email) + "';",
                  "RecID")
          .IsEmpty()) {
    throw CommandError("no SMTP account '" + email + "'");
  }
  connection->Execute("BEGIN");
  connection->Execute("UPDATE dmsmtpaccounts SET Default = 0;");
  connection->Execute("UPDATE dmsmtpaccounts SET Default = 1 WHERE Email = '" + SqlQuote(email) +
                      "';");
  connection->Execute("COMMIT");
  std::printf("default account: %s\n", email.c_str());
}

void CmdAccountList(const GlobalOptions& g) {
  Store store(g.db);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM dmsmtpaccounts ORDER BY Email;", [&](const Row& r) {
    rows.push_back({r.Text("RecID"), r.Text("Email"), r.Text("MailServer") + ":" + r.Text("Port"),
                    r.Text("AccountName"), r.Value("UseAuthentication").ToLong() ? "yes" : "no",
                    r.Value("Default").ToLong() ? "yes" : ""});
  });
  PrintTable({"ID", "EMAIL", "SERVER", "USER", "AUTH", "DEFAULT"}, rows);
}

void CmdRecordExport(const GlobalOptions& g, const std::string& table, const std::string& key,
                     bool with_secrets) {
  Store store(g.db);
  // A client is known by its address; its key is accepted too.
  std::string row_key = EqualsIgnoreCase(table, "dmclients") && key.find('@') != std::string::npos
                            ? store.FindClient(key)
                            : key;
  Dispatch record = store.LoadRecord(table, row_key);
  if (!with_secrets && EqualsIgnoreCase(table, "dmsmtpaccounts") &&
      !record.Text("AccountPassword").empty()) {
    record.Put("AccountPassword", "********");
  }
  std::string xml = record.Text("XML");
  if (record.Get("Error").ToBool()) throw CommandError(record.Text("ErrorMessage"));
  std::printf("%s%s", xml.c_str(), (!xml.empty() && xml.back() == '\n') ? "" : "\n");
}

void CmdRecordImport(const GlobalOptions& g, const std::string& table, const std::string& file) {
  Store store(g.db);
  std::string xml;
  try {
    xml = ReadFileBytes(file);
  } catch (const RuntimeError& e) {
    throw CommandError("cannot read '" + file + "': " + e.description);
  }
  Dispatch record = store.NewRecord(table);
  record.Put("XML", xml);
  if (record.Get("Error").ToBool()) throw CommandError(record.Text("ErrorMessage"));
  if (EqualsIgnoreCase(table, "dmclients")) CheckAddress(Trim(record.Text("Email")));
  // Rows that name a client (enrolments, sent items) may name it by address.
  if (!EqualsIgnoreCase(table, "dmclients")) {
    try {
      std::string client = record.Text("Account");
      if (client.find('@') != std::string::npos) record.Put("Account", store.FindClient(client));
    } catch (const RuntimeError&) {
      // The table has no Account column.
    }
  }
  Store::Save(record, table);
  std::printf("%s\n", record.Text(KeyColumn(table)).c_str());
}

bool CampaignDisabled(const Store& store, const std::string& campaign_id) {
  return store
             .Scalar(
                 "SELECT Disabled FROM dmmrktcmp WHERE RecID = '" + SqlQuote(campaign_id) + "';",
                 "Disabled")
             .ToLong() != 0;
}

}  // namespace quillo::cli
