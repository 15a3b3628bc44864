// Database test fixture: every suite derived from DatabaseTest runs once per
// backend on two fresh, empty databases (media and photo):
//   INSTANTIATE_TEST_SUITE_P(Backends, MySuite, ::testing::ValuesIn(orvo::test::DatabaseBackends()));
// PostgreSQL runs when ORVO_TEST_PG_URI names a server (a libpq URI) where the
// test may CREATE DATABASE, and is skipped otherwise; ORVO_TEST_REQUIRE_PG=1
// makes a missing or unreachable server a failure. Its databases are made
// ENCODING 'SQL_ASCII': only such a database stores paths that are not UTF-8.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/orvodb.h"

struct pg_conn;

namespace orvo::test {

// Always both, so that ctest's discovery does not depend on the build's environment.
std::vector<std::string> DatabaseBackends();

// SetUp points ORVO_MEDIA_DB and ORVO_PHOTO_DB at two empty databases of the
// backend GetParam() names, closing any open connections first; TearDown
// flushes, closes and empties or removes them. SQLite: files in a temporary
// folder. PostgreSQL: a pooled pair orvo_test_pool_<n>_{media,photo}, kept on
// the server because creating a database costs seconds; a session advisory
// lock claims a pair, and its public schema is made again for each test.
class DatabaseTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool IsPostgres() const { return GetParam() == "postgresql"; }
  // The location (ORVO_MEDIA_DB / ORVO_PHOTO_DB value) of each database.
  const std::string& Location(OrvoDatabase which) const { return which == OrvoDatabase::kMedia ? media_ : photo_; }
  // A scratch folder for the test's own files, removed in TearDown.
  const std::string& TempDir() const { return tempDir_; }

  // Runs `sql` on a connection of its own, as another program would. Returns
  // the first field of the first row ("" when none), or "ERROR: ..." on failure.
  std::string QueryElsewhere(OrvoDatabase which, const std::string& sql) const;

 private:
  std::string tempDir_, media_, photo_, savedMedia_, savedPhoto_;
  ::pg_conn* claim_ = nullptr;  // holds the advisory lock on the pair
  bool hadMedia_ = false, hadPhoto_ = false;
};

// The whole of a query's result on the platform connection, rows joined by
// '\n' and fields by '|'. "ERROR" when the statement failed.
std::string QueryAll(OrvoDatabase which, const std::string& sql);

}  // namespace orvo::test
