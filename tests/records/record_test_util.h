// Helpers shared by the record suites: test databases on every engine, row
// queries, and host objects that stand where the records call by name.
#ifndef QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_
#define QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/database.h"
#include "platform/object.h"
#include "platform/schema.h"
#include "platform/variant.h"
#include "support/test_databases.h"

namespace quillo::records_test {

// The engines every database test runs on: "SQLite", and "PostgreSQL" when
// the test environment provides a server.
inline std::vector<std::string> Engines() {
  std::vector<std::string> names;
  for (testing_support::Engine e : testing_support::AvailableEngines()) {
    names.push_back(e == testing_support::Engine::kSqlite ? "SQLite" : "PostgreSQL");
  }
  return names;
}

// A fresh database of `engine` with every table created and empty, open. The
// database lives until the next call (one per test).
inline std::shared_ptr<Connection> OpenDatabase(const std::string& engine) {
  static std::unique_ptr<testing_support::TestDatabase> current;
  current.reset();
  current = testing_support::TestDatabase::Make(
      engine == "SQLite" ? testing_support::Engine::kSqlite : testing_support::Engine::kPostgres);
  auto connection = current->Open();
  schema::Create(*connection);
  return connection;
}

// Runs `sql` as a command.
inline void Exec(const std::shared_ptr<Connection>& connection, const std::string& sql) {
  connection->Execute(sql);
}

// An open forward-only recordset on `sql`.
inline std::shared_ptr<Recordset> OpenRecordset(const std::shared_ptr<Connection>& connection,
                                                const std::string& sql) {
  auto rs = std::make_shared<Recordset>();
  rs->Open(sql, connection, kAdOpenForwardOnly, kAdLockOptimistic, kAdCmdText);
  return rs;
}

// The number of rows `sql` (a SELECT) returns.
inline long CountRows(const std::shared_ptr<Connection>& connection, const std::string& sql) {
  auto rs = OpenRecordset(connection, sql);
  long n = 0;
  for (; !rs->Eof(); rs->MoveNext()) ++n;
  rs->Close();
  return n;
}

// Field `field` of the first row of `sql`; Empty when there is no row.
inline Variant FirstValue(const std::shared_ptr<Connection>& connection, const std::string& sql,
                          const std::string& field) {
  auto rs = OpenRecordset(connection, sql);
  Variant v = rs->Eof() ? Variant() : rs->FieldValue(field);
  rs->Close();
  return v;
}

// A host identifier generator: returns the queued keys in order, then
// "KEY<n>". Reached by the records only by name (GetNextRecordID).
class FixedIdGenerator : public Object {
 public:
  explicit FixedIdGenerator(std::deque<std::string> keys = {}) : keys_(std::move(keys)) {}
  const MemberTable& Members() const override {
    static const MemberTable table =
        MemberTable::Builder<FixedIdGenerator>("FixedIdGenerator")
            .Method("GetNextRecordID", [](FixedIdGenerator& g) { return g.Next(); })
            .Build();
    return table;
  }
  std::string Next() {
    ++calls_;
    if (keys_.empty()) return "KEY" + std::to_string(calls_);
    std::string key = keys_.front();
    keys_.pop_front();
    return key;
  }
  int calls() const { return calls_; }

 private:
  std::deque<std::string> keys_;
  int calls_ = 0;
};

// A host object with fixed named read-only properties (a record from elsewhere).
class PropertyBag : public Object {
 public:
  explicit PropertyBag(std::vector<std::pair<std::string, Variant>> properties) {
    std::vector<Member> members;
    for (auto& [name, value] : properties) {
      members.push_back(Member{name, CallKind::kGet, 0, 0,
                               [value](Object&, std::span<const Variant>) { return value; }});
    }
    table_ = std::make_unique<MemberTable>("PropertyBag", std::move(members));
  }
  const MemberTable& Members() const override { return *table_; }

 private:
  std::unique_ptr<MemberTable> table_;
};

}  // namespace quillo::records_test

#endif  // QUILLO_TESTS_RECORDS_RECORD_TEST_UTIL_H_
