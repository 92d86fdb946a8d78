// The engines a database test runs on: a fresh SQLite file in a temporary
// folder, and PostgreSQL when the environment variable QUILLO_TEST_PG holds a
// connection URI (each test then gets its own fresh database).
//
//   class MyTest : public ::testing::TestWithParam<quillo::testing_support::Engine> {};
//   TEST_P(MyTest, Works) { auto db = quillo::testing_support::TestDatabase::Make(GetParam()); }
//   INSTANTIATE_TEST_SUITE_P(Engines, MyTest, quillo::testing_support::TestEngines(),
//                            quillo::testing_support::EngineName);
#ifndef QUILLO_TESTS_SUPPORT_TEST_DATABASES_H_
#define QUILLO_TESTS_SUPPORT_TEST_DATABASES_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/database.h"

namespace quillo::testing_support {

enum class Engine { kSqlite, kPostgres };

// SQLite always; PostgreSQL too when QUILLO_TEST_PG is set.
std::vector<Engine> AvailableEngines();
// For INSTANTIATE_TEST_SUITE_P.
inline auto TestEngines() { return ::testing::ValuesIn(AvailableEngines()); }
// "SQLite" or "PostgreSQL", for test names.
std::string EngineName(const ::testing::TestParamInfo<Engine>& info);

// A fresh, empty database on one engine; removed when destroyed.
class TestDatabase {
 public:
  static std::unique_ptr<TestDatabase> Make(Engine engine);
  ~TestDatabase();
  TestDatabase(const TestDatabase&) = delete;
  TestDatabase& operator=(const TestDatabase&) = delete;

  Engine engine() const { return engine_; }
  // The connection text that opens this database.
  const std::string& ConnectionText() const { return connection_text_; }
  // A new open connection to it.
  std::shared_ptr<Connection> Open() const;
  // The SQLite file path (empty for PostgreSQL).
  const std::string& Path() const { return path_; }

 private:
  TestDatabase() = default;
  Engine engine_ = Engine::kSqlite;
  std::string connection_text_;
  std::string dir_;
  std::string path_;
  std::string pg_admin_text_;
  std::string pg_database_;
};

}  // namespace quillo::testing_support

#endif  // QUILLO_TESTS_SUPPORT_TEST_DATABASES_H_
