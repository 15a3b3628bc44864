#include "support/db_fixture.h"

#include <libpq-fe.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>

#include "platform/db_backend.h"

namespace orvo::test {

namespace {

const char* PgUri() {
  const char* uri = getenv("ORVO_TEST_PG_URI");
  return uri != nullptr && *uri != '\0' ? uri : nullptr;
}

bool RequirePg() {
  const char* require = getenv("ORVO_TEST_REQUIRE_PG");
  return require != nullptr && std::string(require) == "1";
}

// The URI with its database name replaced by `name`.
std::string WithDatabase(const std::string& uri, const std::string& name) {
  size_t scheme = uri.find("://");
  size_t start = uri.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  size_t query = uri.find('?');
  if (start == std::string::npos || (query != std::string::npos && start > query)) {
    // No path part: insert one before the query.
    size_t at = query == std::string::npos ? uri.size() : query;
    return uri.substr(0, at) + "/" + name + uri.substr(at);
  }
  size_t end = query == std::string::npos ? uri.size() : query;
  return uri.substr(0, start + 1) + name + uri.substr(end);
}

void IgnoreNotice(void*, const char*) {}

std::string PgAdmin(const std::string& sql) {
  PGconn* conn = PQconnectdb(PgUri());
  PQsetNoticeProcessor(conn, IgnoreNotice, nullptr);
  std::string error;
  if (PQstatus(conn) != CONNECTION_OK) {
    error = PQerrorMessage(conn);
  } else {
    PGresult* r = PQexec(conn, sql.c_str());
    if (PQresultStatus(r) != PGRES_COMMAND_OK) error = PQresultErrorMessage(r);
    PQclear(r);
  }
  PQfinish(conn);
  return error;
}

void SetOrRestore(const char* name, bool had, const std::string& value) {
  if (had) setenv(name, value.c_str(), 1);
  else unsetenv(name);
}

}  // namespace

std::vector<std::string> DatabaseBackends() {
  // PostgreSQL is always listed, so that test discovery at build time does
  // not depend on the build's environment; SetUp skips it without a server.
  return {"sqlite", "postgresql"};
}

void DatabaseTest::SetUp() {
  ORVODBCloseAll();
  static std::atomic<int> counter{0};
  const int n = counter++;
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
      if (RequirePg()) FAIL() << "ORVO_TEST_REQUIRE_PG=1 but ORVO_TEST_PG_URI is not set";
      GTEST_SKIP() << "set ORVO_TEST_PG_URI to a PostgreSQL server to run this case there";
    }
    for (const char* kind : {"media", "photo"}) {
      std::string name = "orvo_test_" + std::to_string(getpid()) + "_" + std::to_string(n) + "_" + kind;
      PgAdmin("drop database if exists " + name);
      std::string error = PgAdmin("create database " + name +
                                  " encoding 'SQL_ASCII' locale 'C' template template0");
      ASSERT_EQ(error, "") << "cannot create a test database on ORVO_TEST_PG_URI";
      pgDatabases_.push_back(name);
      (std::string(kind) == "media" ? media_ : photo_) = WithDatabase(PgUri(), name);
    }
  }
  setenv("ORVO_MEDIA_DB", media_.c_str(), 1);
  setenv("ORVO_PHOTO_DB", photo_.c_str(), 1);
}

void DatabaseTest::TearDown() {
  ORVODBFlush();
  ORVODBCloseAll();
  for (const auto& name : pgDatabases_) PgAdmin("drop database if exists " + name + " with (force)");
  pgDatabases_.clear();
  SetOrRestore("ORVO_MEDIA_DB", hadMedia_, savedMedia_);
  SetOrRestore("ORVO_PHOTO_DB", hadPhoto_, savedPhoto_);
  if (!tempDir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(tempDir_, ignored);
  }
}

std::string DatabaseTest::QueryElsewhere(OrvoDatabase which, const std::string& sql) const {
  const std::string& location = Location(which);
  std::string out;
  if (!IsPostgres()) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(location.c_str() + 7, &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      sqlite3_close(db);
      return "ERROR: open";
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      out = std::string("ERROR: ") + sqlite3_errmsg(db);
    } else if (sqlite3_step(stmt) == SQLITE_ROW) {
      auto text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
      out = text ? text : "";
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return out;
  }
  PGconn* conn = PQconnectdb(location.c_str());
  PGresult* r = PQexec(conn, sql.c_str());
  if (PQresultStatus(r) != PGRES_TUPLES_OK) out = std::string("ERROR: ") + PQerrorMessage(conn);
  else if (PQntuples(r) > 0) out = PQgetvalue(r, 0, 0);
  PQclear(r);
  PQfinish(conn);
  return out;
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
