#include "manage.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

#include "mail/address.h"
#include "platform/format.h"

namespace quillo::cli {
namespace {

// Rows of another table that belong to a row and go with it on delete.
struct Dependent {
  const char* table;
  const char* column;  // Holds the row's key.
  const char* what;    // Plural noun for the confirmation ("sent items").
};

enum class FieldType { kText, kInteger, kDate, kYesNo };

// A column an edit may set.
struct Field {
  const char* option;  // "--first"
  const char* column;  // "First"
  FieldType type;
  const char* help;
  // Checks a new value for the row keyed `key` and returns the value to
  // store; null for none beyond the type.
  std::function<std::string(const Store&, const std::string& key, const std::string& value)> check;
};

// One kind of row.
struct Kind {
  std::string name;     // "client"
  std::string table;    // "dmclients"
  std::string key;      // "Account"
  std::string naming;   // Help for the positional argument.
  bool needs_campaign;  // Named by CLIENT and --campaign (enrolments).
  // The key of the row the user named (with --campaign when needs_campaign).
  std::function<std::string(const Store&, const std::string& name, const std::string& campaign)>
      find;
  std::vector<Dependent> dependents;
  std::vector<Field> fields;
};

std::string ByEqual(const Store& store, const std::string& table, const std::string& key_column,
                    const std::string& column, const std::string& value, const char* noun) {
  std::vector<std::string> keys;
  store.Query("SELECT " + key_column + " FROM " + table + " WHERE " + key_column + " = '" +
                  SqlQuote(value) + "' OR " + column + " = '" + SqlQuote(value) + "';",
              [&](const Row& r) { keys.push_back(r.Text(key_column)); });
  if (keys.empty()) throw CommandError(std::string("unknown ") + noun + " '" + value + "'");
  if (keys.size() > 1) {
    throw CommandError(std::string(noun) + " '" + value + "' is ambiguous: use its id");
  }
  return keys.front();
}

std::string UniqueCampaignName(const Store& store, const std::string& key,
                               const std::string& name) {
  if (Trim(name).empty()) throw CommandError("a campaign needs a name");
  CheckQueueField("a campaign name", name);
  Variant other = store.Scalar("SELECT RecID FROM dmmrktcmp WHERE CampaignName = '" +
                                   SqlQuote(name) + "' AND RecID <> '" + SqlQuote(key) + "';",
                               "RecID");
  if (!other.IsEmpty()) throw CommandError("a campaign named '" + name + "' exists already");
  return name;
}

std::string UniqueClientAddress(const Store& store, const std::string& key,
                                const std::string& email) {
  std::string address = Trim(email);
  CheckAddress(address);
  Variant other = store.Scalar("SELECT Account FROM dmclients WHERE LOWER(EMail) = '" +
                                   SqlQuote(mail::MailboxKey(address)) + "' AND Account <> '" +
                                   SqlQuote(key) + "';",
                               "Account");
  if (!other.IsEmpty()) throw CommandError("a client with e-mail '" + address + "' exists already");
  return address;
}

std::string CampaignType(const Store&, const std::string&, const std::string& value) {
  CheckCampaignType(static_cast<std::int32_t>(std::stol(value)));
  return value;
}

std::string TemplatePath(const Store&, const std::string&, const std::string& value) {
  return CheckedTemplatePath(value, "");
}

std::string NotEmpty(const Store&, const std::string&, const std::string& value) {
  if (Trim(value).empty()) throw CommandError("the value may not be empty");
  return Trim(value);
}

const std::vector<Kind>& Kinds() {
  static const std::vector<Kind> kinds = {
      {"client",
       "dmclients",
       "Account",
       "Client e-mail or account",
       false,
       [](const Store& s, const std::string& name, const std::string&) {
         return s.FindClient(name);
       },
       {{"dmclientsmrktcmp", "Account", "enrolments"},
        {"dmsentitems", "Account", "sent items"},
        {"dmclientscustom", "Account", "custom field values"},
        {"dmolxref", "Account", "message cross-references"}},
       {{"--email", "EMail", FieldType::kText, "E-mail address", UniqueClientAddress},
        {"--first", "First", FieldType::kText, "First name", nullptr},
        {"--last", "Last", FieldType::kText, "Last name", nullptr},
        {"--middle", "Middle", FieldType::kText, "Middle name", nullptr},
        {"--title", "Title", FieldType::kText, "Title", nullptr},
        {"--company", "Company", FieldType::kText, "Company", nullptr},
        {"--address", "Address", FieldType::kText, "Address", nullptr},
        {"--po", "PO", FieldType::kText, "Second address line", nullptr},
        {"--city", "City", FieldType::kText, "City", nullptr},
        {"--state", "State", FieldType::kText, "State", nullptr},
        {"--zip", "Zip", FieldType::kText, "Postal code", nullptr},
        {"--country", "Country", FieldType::kText, "Country", nullptr},
        {"--notes", "Notes", FieldType::kText, "Notes", nullptr}}},
      {"enrolment",
       "dmclientsmrktcmp",
       "RecID",
       "Client e-mail or account",
       true,
       [](const Store& s, const std::string& name, const std::string& campaign) {
         std::string client = s.FindClient(name);
         std::string campaign_id = s.FindCampaign(campaign);
         Variant id =
             s.Scalar("SELECT RecID FROM dmclientsmrktcmp WHERE CampaignRecID = '" +
                          SqlQuote(campaign_id) + "' AND Account = '" + SqlQuote(client) + "';",
                      "RecID");
         if (id.IsEmpty()) {
           throw CommandError("client '" + name + "' is not enrolled in campaign '" + campaign +
                              "'");
         }
         return id.ToString();
       },
       {},
       {{"--date", "EffectiveDate", FieldType::kDate, "Enrolment date YYYY-MM-DD", nullptr}}},
      {"campaign",
       "dmmrktcmp",
       "RecID",
       "Campaign name or id",
       false,
       [](const Store& s, const std::string& name, const std::string&) {
         return s.FindCampaign(name);
       },
       {{"dmmrktcmpitems", "CampaignRecID", "items"},
        {"dmclientsmrktcmp", "CampaignRecID", "enrolments"},
        {"dmmrktcmphistory", "CampaignRecID", "runs"},
        {"dmsentitems", "CampaignRecID", "sent items"},
        {"dmsinglemessageconfig", "CampaignRecID", "single-message settings"}},
       {{"--name", "CampaignName", FieldType::kText, "Campaign name", UniqueCampaignName},
        {"--type", "CampaignType", FieldType::kInteger,
         "Campaign kind or schedule code (`quillo codes`)", CampaignType},
        {"--interval", "Interval", FieldType::kInteger,
         "For code 203 the day of the month; for 406 the days between runs", nullptr},
        {"--effective", "CampaignEffectiveDate", FieldType::kDate,
         "Start of the every-N-days cycle, YYYY-MM-DD", nullptr},
        {"--description", "CampaignDescription", FieldType::kText, "Description", nullptr}}},
      {"item",
       "dmmrktcmpitems",
       "RecID",
       "Item id (`quillo campaign items` lists them)",
       false,
       [](const Store& s, const std::string& name, const std::string&) {
         return ByEqual(s, "dmmrktcmpitems", "RecID", "RecID", name, "item");
       },
       {{"dmsentitems", "CampaignItemRecID", "sent items"}},
       {{"--file", "MessageFileName", FieldType::kText, "Template file", TemplatePath},
        {"--interval", "Interval", FieldType::kInteger, "Days after enrolment; also the order",
         nullptr},
        {"--description", "Description", FieldType::kText, "Description (used as the subject)",
         nullptr}}},
      {"account",
       "dmsmtpaccounts",
       "RecID",
       "Account e-mail or id",
       false,
       [](const Store& s, const std::string& name, const std::string&) {
         return ByEqual(s, "dmsmtpaccounts", "RecID", "Email", name, "SMTP account");
       },
       {},
       {{"--server", "MailServer", FieldType::kText, "Mail server host", NotEmpty},
        {"--port", "Port", FieldType::kInteger, "Port", nullptr},
        {"--user", "AccountName", FieldType::kText, "AUTH user name", nullptr},
        {"--friendly", "EmailFriendly", FieldType::kText, "Display name", nullptr},
        {"--domain", "Domain", FieldType::kText, "Name given in EHLO", nullptr},
        {"--auth", "UseAuthentication", FieldType::kYesNo, "Authenticate: yes or no", nullptr}}},
  };
  return kinds;
}

const Kind& KindNamed(const std::string& name) {
  for (const auto& k : Kinds())
    if (k.name == name) return k;
  throw std::logic_error("no kind " + name);
}

long Count(const Store& store, const std::string& table, const std::string& column,
           const std::string& value) {
  try {
    return store
        .Scalar("SELECT COUNT(*) AS n FROM " + table + " WHERE " + column + " = '" +
                    SqlQuote(value) + "';",
                "n")
        .ToLong();
  } catch (const RuntimeError&) {
    return 0;  // A table this database does not have.
  }
}

// What the user asked of one row.
struct Request {
  std::string name;                                       // As typed.
  std::string campaign;                                   // For enrolments.
  std::map<std::string, std::optional<std::string>> set;  // By column.
  bool yes = false;
};

Variant Typed(const Field& f, const std::string& value) {
  switch (f.type) {
    case FieldType::kText:
      return Variant(value);
    case FieldType::kInteger: {
      size_t used = 0;
      long n = 0;
      try {
        n = std::stol(value, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used == 0 || used != value.size() || n < INT32_MIN || n > INT32_MAX) {
        throw CommandError(std::string(f.option) + " wants a whole number, not '" + value + "'");
      }
      return Variant(static_cast<std::int32_t>(n));
    }
    case FieldType::kDate:
      return Variant(ParseDateOption(value));
    case FieldType::kYesNo:
      if (value == "yes") return Variant(std::int32_t{1});
      if (value == "no") return Variant(std::int32_t{0});
      throw CommandError(std::string(f.option) + " wants yes or no, not '" + value + "'");
  }
  return Variant();
}

void Edit(const GlobalOptions& g, const Kind& kind, const Request& r) {
  Store store(g.db);
  std::string key = kind.find(store, r.name, r.campaign);
  Dispatch record = store.LoadRecord(kind.table, key);
  int changed = 0;
  for (const Field& f : kind.fields) {
    auto given = r.set.find(f.column);
    if (given == r.set.end() || !given->second) continue;
    const std::string& value = *given->second;
    Variant typed = Typed(f, value);
    if (f.check) typed = Typed(f, f.check(store, key, value));
    record.Put(f.column, typed);
    ++changed;
  }
  if (changed == 0) throw CommandError("nothing to change: give at least one option");
  Store::Save(record, "the " + kind.name);
  std::printf("%s %s changed (%d field%s)\n", kind.name.c_str(), r.name.c_str(), changed,
              changed == 1 ? "" : "s");
}

// Asks on the terminal whether to go on; true for "y" or "yes".
bool Confirm(const std::string& question) {
  std::fprintf(stderr, "%s [y/N] ", question.c_str());
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  answer = Trim(answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

void Delete(const GlobalOptions& g, const Kind& kind, const Request& r) {
  Store store(g.db);
  std::string key = kind.find(store, r.name, r.campaign);
  std::string also;
  std::vector<const Dependent*> with_rows;  // Only these: a table may not exist.
  for (const auto& d : kind.dependents) {
    long n = Count(store, d.table, d.column, key);
    if (n == 0) continue;
    with_rows.push_back(&d);
    also += (also.empty() ? "" : ", ") + std::to_string(n) + " " + d.what;
  }
  if (!also.empty() && !r.yes &&
      !Confirm("deleting " + kind.name + " " + r.name + " also deletes " + also + ". Delete?")) {
    throw CommandError("nothing deleted (pass --yes to delete without asking)");
  }
  auto connection = store.database();
  std::string email;
  if (kind.name == "account") {
    email = store
                .Scalar("SELECT Email FROM dmsmtpaccounts WHERE RecID = '" + SqlQuote(key) + "';",
                        "Email")
                .ToString();
  }
  CreateDisabledTable(store);
  if (kind.name == "account") CreatePasswordReferenceTable(store);
  connection->Execute("BEGIN");
  try {
    for (const Dependent* d : with_rows) {
      connection->Execute("DELETE FROM " + std::string(d->table) + " WHERE " + d->column + " = '" +
                          SqlQuote(key) + "';");
    }
    connection->Execute("DELETE FROM quillo_disabled WHERE Kind = '" + kind.name + "' AND Ref = '" +
                        SqlQuote(key) + "';");
    if (!email.empty()) {
      connection->Execute("DELETE FROM quillo_account_secrets WHERE Email = '" + SqlQuote(email) +
                          "';");
    }
    connection->Execute("DELETE FROM " + kind.table + " WHERE " + kind.key + " = '" +
                        SqlQuote(key) + "';");
    connection->Execute("COMMIT");
  } catch (...) {
    connection->Execute("ROLLBACK");
    throw;
  }
  std::printf("deleted %s %s%s\n", kind.name.c_str(), r.name.c_str(),
              also.empty() ? "" : (" and its " + also).c_str());
}

void Switch(const GlobalOptions& g, const Kind& kind, const Request& r, bool enable) {
  Store store(g.db);
  std::string key = kind.find(store, r.name, r.campaign);
  auto connection = store.database();
  if (kind.name == "campaign") {
    // A campaign has a column of its own for it.
    connection->Execute("UPDATE dmmrktcmp SET Disabled = " + std::string(enable ? "0" : "1") +
                        " WHERE RecID = '" + SqlQuote(key) + "';");
  } else {
    CreateDisabledTable(store);
    connection->Execute("DELETE FROM quillo_disabled WHERE Kind = '" + kind.name + "' AND Ref = '" +
                        SqlQuote(key) + "';");
    if (!enable) {
      connection->Execute("INSERT INTO quillo_disabled (Kind, Ref) VALUES ('" + kind.name + "', '" +
                          SqlQuote(key) + "');");
    }
  }
  std::printf("%s %s %s\n", kind.name.c_str(), r.name.c_str(), enable ? "enabled" : "disabled");
}

}  // namespace

void CreateDisabledTable(const Store& store) {
  auto connection = store.database();
  connection->Execute(
      "CREATE TABLE IF NOT EXISTS quillo_disabled (Kind VARCHAR(16) NOT NULL, Ref VARCHAR(32) "
      "NOT NULL, PRIMARY KEY (Kind, Ref))");
  // Databases from before every kind could be disabled kept clients apart.
  try {
    connection->Execute(
        "INSERT INTO quillo_disabled (Kind, Ref) SELECT 'client', Account FROM "
        "quillo_disabled_clients WHERE Account NOT IN (SELECT Ref FROM quillo_disabled WHERE "
        "Kind = 'client')");
    connection->Execute("DROP TABLE quillo_disabled_clients");
  } catch (const RuntimeError&) {
  }
}

DisabledSet::DisabledSet(const Store& store) {
  store.Query("SELECT RecID FROM dmmrktcmp WHERE Disabled <> 0;",
              [&](const Row& r) { campaigns_.insert(r.Text("RecID")); });
  try {
    store.Query("SELECT Kind, Ref FROM quillo_disabled;", [&](const Row& r) {
      std::string kind = r.Text("Kind");
      if (kind == "client") clients_.insert(r.Text("Ref"));
      if (kind == "item") items_.insert(r.Text("Ref"));
    });
    store.Query(
        "SELECT e.CampaignRecID AS c, e.Account AS a FROM dmclientsmrktcmp e, quillo_disabled d "
        "WHERE d.Kind = 'enrolment' AND d.Ref = e.RecID;",
        [&](const Row& r) { enrolments_.emplace(r.Text("c"), r.Text("a")); });
    store.Query(
        "SELECT a.Email AS e FROM dmsmtpaccounts a, quillo_disabled d WHERE d.Kind = 'account' "
        "AND d.Ref = a.RecID;",
        [&](const Row& r) { accounts_.insert(r.Text("e")); });
  } catch (const RuntimeError&) {
    // A database in which nothing was ever disabled has no quillo_disabled.
  }
}

std::optional<std::string> DisabledSet::Reason(const QueuedMessage& m) const {
  if (campaigns_.count(m.campaign_id)) return "campaign disabled";
  if (clients_.count(m.account)) return "client disabled";
  if (enrolments_.count({m.campaign_id, m.account})) return "enrolment disabled";
  if (items_.count(m.item_id)) return "item disabled";
  return std::nullopt;
}

void AddManageCommands(CLI::App* parent, const std::string& kind_name, GlobalOptions& g,
                       std::function<void()>& action) {
  const Kind& kind = KindNamed(kind_name);
  auto request = std::make_shared<Request>();
  auto name_option = [&kind, request](CLI::App* sub) {
    sub->add_option("target", request->name, kind.naming)->required();
    if (kind.needs_campaign) {
      sub->add_option("--campaign", request->campaign, "Campaign name or id")->required();
    }
  };

  auto* edit = parent->add_subcommand("edit", "Change a " + kind.name + "'s fields");
  name_option(edit);
  for (const Field& f : kind.fields) edit->add_option(f.option, request->set[f.column], f.help);
  edit->callback([&g, &kind, request, &action] {
    action = [&g, &kind, request] { Edit(g, kind, *request); };
  });

  std::string cascade;
  for (const auto& d : kind.dependents)
    cascade += (cascade.empty() ? "" : ", ") + std::string(d.what);
  auto* del = parent->add_subcommand(
      "delete",
      "Delete a " + kind.name + (cascade.empty() ? "" : " with its " + cascade + " (asks first)"));
  name_option(del);
  del->add_flag("--yes", request->yes, "Delete without asking");
  del->callback([&g, &kind, request, &action] {
    action = [&g, &kind, request] { Delete(g, kind, *request); };
  });

  for (bool enable : {false, true}) {
    auto* sub = parent->add_subcommand(
        enable ? "enable" : "disable",
        enable ? "Enable a " + kind.name + " again"
               : "Disable a " + kind.name + ": nothing is sent for it until it is enabled");
    name_option(sub);
    sub->callback([&g, &kind, request, &action, enable] {
      action = [&g, &kind, request, enable] { Switch(g, kind, *request, enable); };
    });
  }
}

}  // namespace quillo::cli
