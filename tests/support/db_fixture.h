// Database test fixture: every suite derived from DatabaseTest runs once per
// backend, on two fresh, empty databases (media and photo).
//
//   class MySuite : public orvo::test::DatabaseTest {};
//   TEST_P(MySuite, ...) { ... }
//   INSTANTIATE_TEST_SUITE_P(Backends, MySuite,
//                            ::testing::ValuesIn(orvo::test::DatabaseBackends()));
//
// PostgreSQL runs when ORVO_TEST_PG_URI names a server (a libpq URI) where the
// test may CREATE DATABASE; with ORVO_TEST_REQUIRE_PG=1 a missing or
// unreachable server fails the tests instead of leaving them to SQLite alone.
// The server's databases are made ENCODING 'SQL_ASCII': paths that are not
// UTF-8 can only be stored in such a database.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/orvodb.h"

struct pg_conn;

namespace orvo::test {

// Backends to run database suites on: "sqlite" and "postgresql". The
// PostgreSQL cases run when ORVO_TEST_PG_URI is set and are skipped (with a
// message) when it is not, or fail when ORVO_TEST_REQUIRE_PG=1; they are
// always listed so that ctest's discovery does not depend on the environment
// of the build.
std::vector<std::string> DatabaseBackends();

// SetUp points ORVO_MEDIA_DB and ORVO_PHOTO_DB at two empty databases of the
// backend GetParam() names, closing any open connections first; TearDown
// flushes, closes and empties or removes them.
//
// SQLite: fresh files in a temporary folder. PostgreSQL: a pair of databases
// orvo_test_pool_<n>_{media,photo}, created once with ENCODING 'SQL_ASCII'
// LOCALE 'C' TEMPLATE template0 and kept on the server, because creating and
// dropping a database costs seconds per case. A test claims a pair with a
// session advisory lock (so parallel test processes never share one) and
// finds it emptied: the public schema is dropped and made again before and
// after each test.
class DatabaseTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool IsPostgres() const { return GetParam() == "postgresql"; }
  // The location (ORVO_MEDIA_DB / ORVO_PHOTO_DB value) of each database.
  const std::string& Location(OrvoDatabase which) const {
    return which == OrvoDatabase::kMedia ? media_ : photo_;
  }
  // A scratch folder for the test's own files, removed in TearDown.
  const std::string& TempDir() const { return tempDir_; }

  // Runs `sql` on a connection of its own (not the platform's), so a test
  // sees what another program would see. Returns the first column of the
  // first row ("" when there is none), or "ERROR: ..." on failure.
  std::string QueryElsewhere(OrvoDatabase which, const std::string& sql) const;

 private:
  std::string tempDir_;
  std::string media_, photo_;
  ::pg_conn* claim_ = nullptr;  // holds the advisory lock on the pair
  std::string savedMedia_, savedPhoto_;
  bool hadMedia_ = false, hadPhoto_ = false;
};

// The whole of a query's result on the platform connection, rows joined by
// '\n' and fields by '|' (booleans as the platform returns them). "ERROR"
// when the statement failed.
std::string QueryAll(OrvoDatabase which, const std::string& sql);

}  // namespace orvo::test
