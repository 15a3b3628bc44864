// DatabaseTest suites run on two fresh databases per backend; PostgreSQL (SQL_ASCII, for non-UTF-8 paths)
// needs ORVO_TEST_PG_URI naming a server where it may CREATE DATABASE, else skips (fails with ORVO_TEST_REQUIRE_PG=1).
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/media_info.h"
#include "platform/orvodb.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace fs = std::filesystem;
struct pg_conn;
struct sqlite3;

namespace orvo::test {

// Always both, so that ctest's discovery does not depend on the build's environment.
std::vector<std::string> DatabaseBackends();

// SetUp points ORVO_MEDIA_DB/ORVO_PHOTO_DB at SQLite files or a pooled PostgreSQL pair (creation is slow).
class DatabaseTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool IsPostgres() const { return GetParam() == "postgresql"; }
  const std::string& Location(OrvoDatabase which) const { return which == OrvoDatabase::kMedia ? media_ : photo_; }
  const std::string& TempDir() const { return tempDir_; }  // removed in TearDown

  // The first field of `sql`'s first row ("" if none, the error on failure) on a connection of its own.
  std::string QueryElsewhere(OrvoDatabase which, const std::string& sql) const;

  // Another program's lock on media `tables` ("music, directory"; SQLite: the whole file's write lock),
  // held until UnlockMediaTables or TearDown.
  void LockMediaTables(const std::string& tables);
  void UnlockMediaTables();

 private:
  std::string tempDir_, media_, photo_, savedMedia_, savedPhoto_;
  ::pg_conn* claim_ = nullptr;  // holds the advisory lock on the pair
  ::pg_conn* pgLock_ = nullptr;
  ::sqlite3* sqliteLock_ = nullptr;
  bool hadMedia_ = false, hadPhoto_ = false;
};

// A query's whole result on the platform connection, rows joined by '\n', fields by '|'; else "ERROR".
std::string QueryAll(OrvoDatabase which, const std::string& sql);

inline MediaInfo MediaRecord(const std::string& path) {  // zeroed but for the path
  MediaInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  return info;
}

// A DatabaseTest whose case runs the real daemon in the sandbox (skipped
// outside it) on the fresh databases, which the daemon inherits through the
// environment; the daemon the case started must end on SIGTERM.
class SandboxDatabaseTest : public DatabaseTest {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
    DatabaseTest::SetUp();
  }
  void TearDown() override {
    StopStartedDaemon();
    DatabaseTest::TearDown();
  }
  void StopStartedDaemon() {
    if (pid_ > 0) {
      EXPECT_GE(StopDaemon(pid_), 0) << "the daemon did not end on SIGTERM";
    }
    pid_ = -1;
  }
  pid_t pid_ = -1;
};

}  // namespace orvo::test
