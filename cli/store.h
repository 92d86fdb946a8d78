// The command's view of a quillo database: opening it, running queries
// through Recordset, and finding rows by name or key.
#ifndef QUILLO_CLI_STORE_H_
#define QUILLO_CLI_STORE_H_

#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dispatch.h"

namespace quillo::cli {

// A failure the command reports in one line and exits non-zero on.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// `connection_text` fit to print: a password in it (a URI's user:PASSWORD@,
// or password=...) replaced by "***".
std::string RedactConnectionText(std::string_view connection_text);

// `text` as an SQL literal body: single quotes doubled.
std::string SqlQuote(std::string_view text);

// One row of a forward-only recordset, read by field name.
class Row {
 public:
  explicit Row(const Dispatch& rs) : rs_(rs) {}
  Variant Value(std::string_view field) const;
  std::string Text(std::string_view field) const;

 private:
  const Dispatch& rs_;
};

class Store {
 public:
  // Opens the database named by `connection_text` ("sqlite:quillo.db", a
  // PostgreSQL URI, ...). REQUIRES the tables to exist unless `allow_empty`.
  Store(const std::string& connection_text, bool allow_empty = false);

  const Dispatch& connection() const { return connection_; }
  const ObjectPtr& connection_object() const { return connection_.object(); }
  // The connection as the library's class, for statements of the command's own.
  std::shared_ptr<Connection> database() const {
    return std::dynamic_pointer_cast<Connection>(connection_.object());
  }
  // The identifier generator lent to every record and run.
  const ObjectPtr& id_generator() const { return id_generator_.object(); }

  // Creates the tables and indexes (idempotent).
  void CreateSchema();

  // Runs `sql` and calls `row` for every row, in order.
  void Query(const std::string& sql, const std::function<void(const Row&)>& row) const;

  // Field `field` of the first row, or Empty when there is no row.
  Variant Scalar(const std::string& sql, std::string_view field) const;

  // A new record object of `table` bound to this database and an idgen.
  Dispatch NewRecord(std::string_view table) const;

  // Loads the record of `table` whose key is `key`; CommandError when none.
  Dispatch LoadRecord(std::string_view table, const std::string& key) const;

  // The records of `table` whose keys are among `keys`, read in a few
  // statements, by key as read (trimmed). A key with no row is absent.
  std::unordered_map<std::string, Dispatch> LoadRecords(std::string_view table,
                                                        std::span<const std::string> keys) const;

  // The RecID of the campaign named or keyed `name_or_id`.
  std::string FindCampaign(const std::string& name_or_id) const;

  // The Account of the client keyed or addressed `account_or_email`.
  std::string FindClient(const std::string& account_or_email) const;

  // Saves `record`; CommandError with the record's message on failure.
  static void Save(const Dispatch& record, std::string_view what);

 private:
  Dispatch connection_;
  Dispatch id_generator_;
};

// The key column of a table ("Account" for dmclients, "RecID" otherwise).
std::string KeyColumn(std::string_view table);

}  // namespace quillo::cli

#endif  // QUILLO_CLI_STORE_H_
