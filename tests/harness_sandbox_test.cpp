// The integration-test helpers, run where they are meant to run: inside the
// appliance sandbox.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sqlite3.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "support/sandbox.h"

using namespace orvo::test;

namespace {

class Harness : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
};

TEST_F(Harness, SyslogMessagesOfThisProcessReachTheLog) {
  openlog("harness", LOG_PID, LOG_DAEMON);
  syslog(LOG_ERR, "%s (%d) first message with 100%% of a %s", "harness.cpp", 12, "path");
  syslog(LOG_ERR, "second message\nwith a line break");
  closelog();
  // Counted at once, without waiting: the helpers see every message sent
  // before the call.
  EXPECT_EQ(SandboxLogCount("harness.cpp (12) first message with 100% of a path"), 1);
  EXPECT_EQ(SandboxLogCount("second message with a line break"), 1);
  EXPECT_EQ(SandboxLogCount("harness"), 2) << "one line per message";
  for (int i = 0; i < 50; ++i) {
    syslog(LOG_ERR, "burst %d", i);
    ASSERT_EQ(SandboxLogCount("burst " + std::to_string(i)), 1) << "message " << i << " not seen yet";
  }
  EXPECT_EQ(SandboxLogCount("orvo-sandbox-sync"), 0) << "the helpers' own markers are not messages";
}

TEST_F(Harness, HangupsAreCountedOnePerSignal) {
  std::ifstream pidFile("/var/run/mt-daapd.pid");
  int pid = 0;
  ASSERT_TRUE(pidFile >> pid);
  EXPECT_EQ(SandboxHupCount(), 0);
  for (int n = 1; n <= 3; ++n) {
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    ASSERT_TRUE(WaitForHups(n, 10s)) << "count stuck at " << SandboxHupCount();
  }
  EXPECT_EQ(SandboxHupCount(), 3);
  EXPECT_FALSE(WaitForHups(4, 100ms));
}

TEST_F(Harness, QueueLinesAreAppendedWhole) {
  ASSERT_TRUE(AppendQueueLine("a /volume1/music/a b.mp3"));
  ASSERT_TRUE(AppendQueueLine("R /volume1/music"));
  std::ifstream queue(kQueueFile);
  std::string all((std::istreambuf_iterator<char>(queue)), std::istreambuf_iterator<char>());
  EXPECT_EQ(all, "a /volume1/music/a b.mp3\nR /volume1/music\n");
  EXPECT_FALSE(SignalDaemon()) << "no daemon runs, yet a signal was sent";
}

TEST_F(Harness, CommandsAreRunWithOutputAndStatus) {
  CommandResult r = RunCommand({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 3);
  EXPECT_NE(r.output.find("out\n"), std::string::npos);
  EXPECT_NE(r.output.find("err\n"), std::string::npos);
  r = RunCommand({"sh", "-c", "echo \"$ORVO_X\""}, {"ORVO_X=given"});
  EXPECT_EQ(r.output, "given\n");
  r = RunCommand({"/no/such/program"});
  EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 127);
}

TEST_F(Harness, FastClockPreloadIsAcceptedBySanitizerBuilds) {
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  CommandResult r = RunCommand({"sh", "-c", "echo \"$ASAN_OPTIONS\""}, kFastClock);
  EXPECT_EQ(r.output, "detect_leaks=0:verify_asan_link_order=0\n");
  r = RunCommand({"sh", "-c", "echo \"$ASAN_OPTIONS\""}, {"LD_PRELOAD=", "ASAN_OPTIONS=mine"});
  EXPECT_EQ(r.output, "mine\n") << "options the test gave are its own";
  unsetenv("ASAN_OPTIONS");
}

TEST_F(Harness, SqliteQueriesReturnRowsAndErrors) {
  std::string file = "/var/lib/orvoindex/harness.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "create table t(path text, n integer);"
                         "insert into t values('/volume1/music/a''b.mp3', 1), (NULL, 2);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  auto rows = QuerySqlite(file, "select path, n from t order by n");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"/volume1/music/a'b.mp3", "1"}));
  EXPECT_EQ(rows[1], (std::vector<std::string>{"", "2"}));
  rows = QuerySqlite(file, "select nothing from t");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][0].rfind("error: ", 0), 0u);
  EXPECT_EQ(QuerySqlite("/var/lib/orvoindex/missing.db", "select 1")[0][0].rfind("error: ", 0), 0u);
}

TEST_F(Harness, StopDaemonCollectsADetachedProcessesStatus) {
  // A stand-in that detaches like a daemon and writes the pid file; the real
  // daemon has its own test. As sub-reaper we inherit the grandchild.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  pid_t child = fork();
  if (child == 0) {
    if (fork() == 0) {
      setsid();
      std::ofstream(kDaemonPidFile) << getpid();
      for (;;) pause();
    }
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  int pid = 0;
  for (int i = 0; i < 500 && pid <= 0; ++i) {
    std::ifstream in(kDaemonPidFile);
    if (!(in >> pid)) usleep(10000);
  }
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(ProcessAlive(pid));
  int status = StopDaemon(pid, 10s);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
  EXPECT_FALSE(ProcessAlive(pid));
}

}  // namespace
