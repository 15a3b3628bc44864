#include "support/db_fixture.h"

#include <libpq-fe.h>
#include <sqlite3.h>

#include "platform/db_backend.h"
#include "support/sandbox.h"

namespace orvo::test {

namespace {

const char* PgUri() {
  const char* uri = getenv("ORVO_TEST_PG_URI");
  return uri != nullptr && *uri != '\0' ? uri : nullptr;
}

PGconn* Connect(const std::string& uri) {
  PGconn* conn = PQconnectdb(uri.c_str());
  PQsetNoticeProcessor(conn, [](void*, const char*) {}, nullptr);  // no NOTICE chatter in the test output
  return conn;
}

std::string Scalar(PGconn* conn, const std::string& sql) {
  PGresult* r = PQexec(conn, sql.c_str());
  std::string out;
  if (PQresultStatus(r) != PGRES_COMMAND_OK && PQresultStatus(r) != PGRES_TUPLES_OK)
    out = std::string("ERROR: ") + PQresultErrorMessage(r);
  else if (PQntuples(r) > 0) out = PQgetvalue(r, 0, 0);
  PQclear(r);
  return out;
}

// Leaves the database as a new one: no tables, no triggers, no sequences.
std::string EmptyDatabase(const std::string& uri) {
  PGconn* conn = Connect(uri);
  std::string error = PQstatus(conn) == CONNECTION_OK
                          ? Scalar(conn, "drop schema if exists public cascade; create schema public")
                          : PQerrorMessage(conn);
  PQfinish(conn);
  return error;
}

void SetOrRestore(const char* name, bool had, const std::string& value) {
  had ? setenv(name, value.c_str(), 1) : unsetenv(name);
}

}  // namespace

std::vector<std::string> DatabaseBackends() { return {"sqlite", "postgresql"}; }

void DatabaseTest::SetUp() {
  ORVODBCloseAll();
  char pattern[] = "/tmp/orvo-dbtest-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  tempDir_ = pattern;
  if (const char* v = getenv("ORVO_MEDIA_DB")) hadMedia_ = true, savedMedia_ = v;
  if (const char* v = getenv("ORVO_PHOTO_DB")) hadPhoto_ = true, savedPhoto_ = v;
  if (!IsPostgres()) {
    media_ = "sqlite:" + tempDir_ + "/db/mediaserver.db";
    photo_ = "sqlite:" + tempDir_ + "/db/photo.db";
  } else {
    if (PgUri() == nullptr) {
      if (getenv("ORVO_TEST_REQUIRE_PG") && std::string(getenv("ORVO_TEST_REQUIRE_PG")) == "1")
        FAIL() << "ORVO_TEST_REQUIRE_PG=1 but ORVO_TEST_PG_URI is not set";
      GTEST_SKIP() << "set ORVO_TEST_PG_URI to a PostgreSQL server to run this case there";
    }
    claim_ = Connect(PgUri());
    ASSERT_EQ(PQstatus(claim_), CONNECTION_OK) << "ORVO_TEST_PG_URI is unreachable: " << PQerrorMessage(claim_);
    int slot = -1;
    for (int k = 0; k < 64 && slot < 0; ++k)
      if (Scalar(claim_, "select pg_try_advisory_lock(7340, " + std::to_string(k) + ")") == "t") slot = k;
    ASSERT_GE(slot, 0) << "every pooled test database is in use";
    for (std::string* location : {&media_, &photo_}) {
      std::string name = "orvo_test_pool_" + std::to_string(slot) + (location == &media_ ? "_media" : "_photo");
      std::string encoding = Scalar(claim_, "select pg_encoding_to_char(encoding) from pg_database"
                                            " where datname = '" + name + "'");
      if (encoding != "SQL_ASCII") {
        if (!encoding.empty()) Scalar(claim_, "drop database " + name + " with (force)");
        ASSERT_EQ(Scalar(claim_, "create database " + name + " encoding 'SQL_ASCII' locale 'C' template template0"), "")
            << "cannot create a test database on ORVO_TEST_PG_URI";
      }
      *location = PgUri() + std::string(strchr(PgUri(), '?') ? "&" : "?") + "dbname=" + name;  // the last one wins
      ASSERT_EQ(EmptyDatabase(*location), "") << name;
    }
  }
  setenv("ORVO_MEDIA_DB", media_.c_str(), 1);
  setenv("ORVO_PHOTO_DB", photo_.c_str(), 1);
}

void DatabaseTest::TearDown() {
  UnlockMediaTables();
  ORVODBFlush();
  ORVODBCloseAll();
  if (claim_ != nullptr) {
    EmptyDatabase(media_);
    EmptyDatabase(photo_);
    PQfinish(claim_);  // releases the pair
    claim_ = nullptr;
  }
  SetOrRestore("ORVO_MEDIA_DB", hadMedia_, savedMedia_);
  SetOrRestore("ORVO_PHOTO_DB", hadPhoto_, savedPhoto_);
  std::error_code ignored;
  if (!tempDir_.empty()) std::filesystem::remove_all(tempDir_, ignored);
}

std::string DatabaseTest::QueryElsewhere(OrvoDatabase which, const std::string& sql) const {
  if (!IsPostgres()) {
    auto rows = QuerySqlite(Location(which).substr(7), sql);  // after "sqlite:"
    return rows.empty() || rows[0].empty() ? "" : rows[0][0];
  }
  PGconn* conn = Connect(Location(which));
  std::string out = Scalar(conn, sql);
  PQfinish(conn);
  return out;
}

void DatabaseTest::LockMediaTables(const std::string& tables) {
  if (IsPostgres()) {
    pgLock_ = Connect(media_);
    ASSERT_EQ(Scalar(pgLock_, "begin; lock table " + tables + " in access exclusive mode"), "");
  } else {
    ASSERT_EQ(sqlite3_open(media_.c_str() + 7, &sqliteLock_), SQLITE_OK);  // after "sqlite:"
    ASSERT_EQ(sqlite3_exec(sqliteLock_, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
  }
}

void DatabaseTest::UnlockMediaTables() {
  if (pgLock_ != nullptr) Scalar(pgLock_, "commit"), PQfinish(pgLock_);
  if (sqliteLock_ != nullptr) sqlite3_exec(sqliteLock_, "commit", nullptr, nullptr, nullptr), sqlite3_close(sqliteLock_);
  pgLock_ = nullptr;
  sqliteLock_ = nullptr;
}

std::string QueryAll(OrvoDatabase which, const std::string& sql) {
  ORVODB* db = OrvoDBConnect(which);
  ORVODBResult* result = nullptr;
  if (db == nullptr || ORVODBExecute(db, sql.c_str(), &result) < 0) return "ERROR";
  std::string out;
  ORVODBRow row;
  while (ORVODBFetchRow(result, &row) == 0) {
    if (!out.empty()) out += '\n';
    for (size_t c = 0; c < result->columns.size(); ++c) {
      if (c > 0) out += '|';
      out += ORVODBFetchField(result, row, result->columns[c].c_str());
    }
  }
  ORVODBFreeResult(result);
  return out;
}

}  // namespace orvo::test
