// Helpers shared by the record suites: test databases on both engines, row
// queries, and host objects that stand where the records call by name.
#ifndef QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_
#define QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo::records_test {

// The engines every database test runs on ("sqlite", "postgresql").
std::vector<std::string> Engines();

// A fresh database of `engine` with every table created and empty.
std::shared_ptr<Connection> OpenDatabase(const std::string& engine);

// Runs `sql` as a command; fails the test on a database error.
void Exec(const std::shared_ptr<Connection>& connection, const std::string& sql);

// The number of rows `sql` (a SELECT) returns.
long CountRows(const std::shared_ptr<Connection>& connection, const std::string& sql);

// Field `field` of the first row of `sql`; Empty when there is no row.
Variant FirstValue(const std::shared_ptr<Connection>& connection, const std::string& sql,
                   const std::string& field);

// An open forward-only recordset on `sql`.
std::shared_ptr<Recordset> OpenRecordset(const std::shared_ptr<Connection>& connection,
                                         const std::string& sql);

// A host identifier generator: returns the queued keys in order, then
// "KEY<n>" keys. Reachable by name only through GetNextRecordID.
class FixedIdGenerator : public Object {
 public:
  explicit FixedIdGenerator(std::deque<std::string> keys = {}) : keys_(std::move(keys)) {}
  const MemberTable& Members() const override;
  std::string Next();
  int calls() const { return calls_; }

 private:
  std::deque<std::string> keys_;
  int calls_ = 0;
};

// A host object with arbitrary named properties (a "record" from elsewhere).
class PropertyBag : public Object {
 public:
  explicit PropertyBag(std::vector<std::pair<std::string, Variant>> properties);
  const MemberTable& Members() const override { return *table_; }

 private:
  std::vector<std::pair<std::string, Variant>> properties_;
  std::unique_ptr<MemberTable> table_;
};

}  // namespace quillo::records_test

#endif  // QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_
