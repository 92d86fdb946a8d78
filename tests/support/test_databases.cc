// The engines a database test runs on.
#include "support/test_databases.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace quillo::testing_support {
namespace {

std::string PgAdminText() {
  const char* text = std::getenv("QUILLO_TEST_PG");
  return text ? std::string(text) : std::string();
}

// `base` made to open with `schema` first on the search path.
std::string WithSearchPath(const std::string& base, const std::string& schema) {
  if (base.rfind("postgresql://", 0) == 0 || base.rfind("postgres://", 0) == 0) {
    return base + (base.find('?') == std::string::npos ? "?" : "&") + "options=-csearch_path%3D" +
           schema;
  }
  return base + " options='-csearch_path=" + schema + "'";
}

}  // namespace

std::vector<Engine> AvailableEngines() {
  std::vector<Engine> engines = {Engine::kSqlite};
  if (!PgAdminText().empty()) engines.push_back(Engine::kPostgres);
  return engines;
}

std::string EngineName(const ::testing::TestParamInfo<Engine>& info) {
  return info.param == Engine::kSqlite ? "SQLite" : "PostgreSQL";
}

std::unique_ptr<TestDatabase> TestDatabase::Make(Engine engine) {
  static std::atomic<long> counter{0};
  std::unique_ptr<TestDatabase> db(new TestDatabase());
  db->engine_ = engine;
  const long n = ++counter;
  if (engine == Engine::kSqlite) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quillo-db-test.XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary folder");
    db->dir_ = pattern;
    db->path_ = pattern + "/test" + std::to_string(n) + ".db";
    db->connection_text_ = "sqlite:" + db->path_;
  } else {
    db->pg_admin_text_ = PgAdminText();
    db->pg_database_ = "quillo_t" + std::to_string(getpid()) + "_" + std::to_string(n);
    Connection admin;
    admin.Open(db->pg_admin_text_);
    admin.Execute("DROP SCHEMA IF EXISTS " + db->pg_database_ + " CASCADE");
    admin.Execute("CREATE SCHEMA " + db->pg_database_);
    db->connection_text_ = WithSearchPath(db->pg_admin_text_, db->pg_database_);
  }
  return db;
}

TestDatabase::~TestDatabase() {
  try {
    if (engine_ == Engine::kSqlite) {
      std::error_code ignored;
      std::filesystem::remove_all(dir_, ignored);
    } else {
      Connection admin;
      admin.Open(pg_admin_text_);
      admin.Execute("DROP SCHEMA IF EXISTS " + pg_database_ + " CASCADE");
    }
  } catch (...) {
    // Cleaning up must not fail a test that has passed.
  }
}

std::shared_ptr<Connection> TestDatabase::Open() const {
  auto connection = std::make_shared<Connection>();
  connection->Open(connection_text_);
  return connection;
}

}  // namespace quillo::testing_support
