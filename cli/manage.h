// Managing what the database holds: editing, deleting, disabling and
// enabling clients, enrolments, campaigns, items and accounts, all through
// one description of each kind of row (its table, how the user names a row,
// the columns an edit may set, and the rows that go with it on delete).
//
// Disabled rows are kept in quillo_disabled (Kind, Ref), a table of the
// command's own, except a campaign's, which has its own Disabled column.
// Nothing is sent for a disabled campaign, client, enrolment or item, or
// through a disabled account; enabling it again lets what is due go out.
#ifndef QUILLO_CLI_MANAGE_H_
#define QUILLO_CLI_MANAGE_H_

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "commands.h"

namespace CLI {
class App;
}

namespace quillo::cli {

// Adds `edit`, `delete`, `disable` and `enable` under `parent` for the rows
// of `kind` ("client", "enrolment", "campaign", "item" or "account"). The
// chosen subcommand's work is stored in `action`.
void AddManageCommands(CLI::App* parent, const std::string& kind, GlobalOptions& g,
                       std::function<void()>& action);

// Creates quillo_disabled when missing.
void CreateDisabledTable(const Store& store);

// What is disabled in a database, read once.
class DisabledSet {
 public:
  explicit DisabledSet(const Store& store);
  // Why nothing may be sent for `m` ("campaign disabled", ...), or nullopt.
  std::optional<std::string> Reason(const QueuedMessage& m) const;
  bool CampaignDisabled(const std::string& campaign_id) const {
    return campaigns_.count(campaign_id) != 0;
  }
  // Whether the account whose address is `email` is disabled.
  bool AccountDisabled(const std::string& email) const { return accounts_.count(email) != 0; }

 private:
  std::set<std::string> campaigns_, clients_, items_, accounts_;
  std::set<std::pair<std::string, std::string>> enrolments_;  // (campaign, client).
};

}  // namespace quillo::cli

#endif  // QUILLO_CLI_MANAGE_H_
