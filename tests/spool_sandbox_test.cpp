// The spool through the real daemon: what is not a regular file, a database that is locked during a run, a
// writer that keeps the queue open across a take-over, and the order of sync, delete and SIGHUP.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <map>

#include "support/db_fixture.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;

// The spool entries moved aside from `path` (named "<path>.not-a-file.<time>").
std::vector<fs::path> MovedAside(const std::string& path) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator("/var/spool"))
    if (entry.path().string().starts_with(path + ".not-a-file.")) found.push_back(entry.path());
  return found;
}

// Lines the daemon itself logged.
int DaemonLogCount() { return SandboxLogCount("orvoindexd"); }

class SpoolEntries : public DaemonSandboxTest {
 protected:
  // With something that is not a regular file at `path`, the daemon is signalled: it is moved aside with one log
  // line, and the queue runs (at the batch path: in the same run), and so does a line queued afterwards.
  void ExpectMovedAsideAndLaterLinesRun(const std::string& path, const char* kind) {
    const bool atBatch = path == kBatchFile;
    if (atBatch) {
      ASSERT_TRUE(AppendQueueLine("x:queued with it"));
    }
    ASSERT_TRUE(SignalDaemon());
    ASSERT_TRUE(WaitForLog(std::string(kind) + ", not a regular file: moved it aside"));
    if (atBatch) {
      ASSERT_TRUE(WaitForHups(2));
    }
    ASSERT_TRUE(AppendQueueLine("x:after it"));
    ASSERT_TRUE(SignalDaemon());
    ASSERT_TRUE(WaitForLog("Bad format [x:after it]."));
    ASSERT_TRUE(WaitForHups(atBatch ? 3 : 2));
    EXPECT_EQ(MovedAside(path).size(), 1u);
    EXPECT_EQ(SandboxLogCount("not a regular file"), 1);
    EXPECT_EQ(DaemonLogCount(), atBatch ? 3 : 2) << "the one line, and the lines queued";
    EXPECT_FALSE(fs::exists(kBatchFile) || fs::exists(kQueueFile));
    EXPECT_TRUE(ProcessAlive(pid_));
  }
};

// A FIFO would block the run for ever: the daemon would not even see SIGTERM.
TEST_F(SpoolEntries, FifoQueueIsMovedAsideAndLaterLinesRun) {
  StartIdle();
  ASSERT_EQ(mkfifo(kQueueFile, 0644), 0);
  ExpectMovedAsideAndLaterLinesRun(kQueueFile, "a FIFO");
  EXPECT_TRUE(fs::is_fifo(MovedAside(kQueueFile).at(0)));
}

// A queue linked to /dev/zero never ended its run and flooded the log with "Bad format" lines.
TEST_F(SpoolEntries, QueueLinkedToDevZeroIsMovedAsideAndLaterLinesRun) {
  StartIdle();
  fs::create_symlink("/dev/zero", kQueueFile);
  ExpectMovedAsideAndLaterLinesRun(kQueueFile, "a symbolic link");
  EXPECT_EQ(fs::read_symlink(MovedAside(kQueueFile).at(0)), "/dev/zero");
}

// A directory at the batch path held up every later run: it was never deleted, and it went first.
TEST_F(SpoolEntries, DirectoryAtTheBatchPathIsMovedAsideWithWhatItHoldsAndLaterLinesRun) {
  StartIdle();
  fs::create_directory(kBatchFile);
  std::ofstream(std::string(kBatchFile) + "/kept") << "someone's file\n";
  ExpectMovedAsideAndLaterLinesRun(kBatchFile, "a directory");
  EXPECT_EQ(ReadFile(MovedAside(kBatchFile).at(0) / "kept"), "someone's file\n");
}

// A socket cannot be opened at all, and must not be mistaken for a batch that cannot be read and removed.
TEST_F(SpoolEntries, SocketAtTheBatchPathIsMovedAsideNotRemoved) {
  StartIdle();
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", kBatchFile);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ExpectMovedAsideAndLaterLinesRun(kBatchFile, "a socket");
  close(listener);
}

// A program that keeps the queue open while a run takes it over writes on into the batch; what it writes must run.
class QueueWriters : public DaemonSandboxTest {
 protected:
  // A child opens the queue, writes `before` lines, waits for the take-over, writes `after` lines with
  // `pause` before the last one, then closes. Returns once the daemon told the music server of every line.
  void RunWithAWriterHoldingTheQueue(int before, int after, std::chrono::milliseconds pause) {
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    pid_t child = fork();
    if (child == 0) {
      int fd = open(kQueueFile, O_WRONLY | O_APPEND | O_CREAT, 0644);
      auto put = [&](const std::string& text) { return write(fd, text.data(), text.size()) == ssize_t(text.size()); };
      bool ok = fd >= 0;
      for (int i = 0; i < before; ++i) ok = ok && put("x:held before " + std::to_string(i) + "\n");
      char c = ok ? 'y' : 'n';
      ok = write(ready[1], &c, 1) == 1 && read(go[0], &c, 1) == 1 && ok;
      for (int i = 0; i < after; ++i) {
        if (i == after - 1) std::this_thread::sleep_for(pause);
        // The last line comes in two writes: half a line must wait for its other half.
        std::string line = "x:held after " + std::to_string(i) + "\n";
        ok = ok && put(line.substr(0, 5)) && put(line.substr(5));
      }
      close(fd);
      _exit(ok ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    ASSERT_TRUE(SignalDaemon());
    for (int t = 0; t < 30000 && fs::exists(kQueueFile); ++t) std::this_thread::sleep_for(1ms);
    EXPECT_FALSE(fs::exists(kQueueFile)) << "not taken over";  // the child now writes into the batch
    ASSERT_EQ(write(go[1], "g", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);
    ASSERT_TRUE(WaitForLog("Bad format [x:held after " + std::to_string(after - 1) + "]."));
    for (int t = 0; t < 100 && fs::exists(kBatchFile); ++t) std::this_thread::sleep_for(100ms);
    for (int i = 0; i < before; ++i) EXPECT_EQ(SandboxLogCount("[x:held before " + std::to_string(i) + "]"), 1) << i;
    for (int i = 0; i < after; ++i) EXPECT_EQ(SandboxLogCount("[x:held after " + std::to_string(i) + "]"), 1) << i;
    EXPECT_EQ(SandboxLogCount("[x:hel]"), 0) << "half a line ran";
    EXPECT_FALSE(fs::exists(kBatchFile));
  }
};

TEST_F(QueueWriters, WriterThatKeepsTheQueueOpenAcrossTheTakeOverLosesNoLine) {
  StartIdle();
  RunWithAWriterHoldingTheQueue(20, 20, 20ms);
}

// Past the wait (5 s of the daemon's clock, half a second here) the batch is kept and read on at later ticks.
TEST_F(QueueWriters, WriterStillWritingPastTheWaitIsFollowedAtLaterTicks) {
  StartIdle();
  RunWithAWriterHoldingTheQueue(5, 5, 2500ms);
  EXPECT_GE(SandboxLogCount("is still open in another program: kept"), 1);
}

// A database locked by another program for longer than the daemon waits for a lock, on both backends.
using DatabaseOutage = SandboxDatabaseTest;

// Rows of a batch failed while the database was locked, and the batch was deleted anyway.
TEST_P(DatabaseOutage, LockedDatabaseLosesNoLineAndEachRetryLogsOneLine) {
  ASSERT_GT(pid_ = StartOnQueue(), 0);
  for (int i = 0; i < 40; ++i) {
    fs::create_directories("/volume1/music/d" + std::to_string(i));
    ASSERT_TRUE(AppendQueueLine("a:/volume1/music/d" + std::to_string(i)));
  }
  LockMediaTables("directory, music");
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForLog("database is not available", 60s));
  EXPECT_TRUE(fs::exists(kBatchFile)) << "kept until its writes are done";
  // Lines queued meanwhile wait in the queue; each retry says so in one line.
  fs::create_directories("/volume1/music/late");
  ASSERT_TRUE(AppendQueueLine("a:/volume1/music/late"));
  ASSERT_TRUE(SignalDaemon());
  for (int t = 0; t < 600 && SandboxLogCount("database is") < 3; ++t) std::this_thread::sleep_for(100ms);
  EXPECT_GE(SandboxLogCount("database is"), 3);
  EXPECT_TRUE(fs::exists(kBatchFile) && fs::exists(kQueueFile));
  EXPECT_EQ(SandboxHupCount(), 1) << "nothing finished, nothing to tell the music server";
  UnlockMediaTables();
  ASSERT_TRUE(WaitForHups(3, 120s)) << "the batch, then the queue that waited";
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from directory"), "41");
  EXPECT_FALSE(fs::exists(kBatchFile) || fs::exists(kQueueFile));
  const int retries = SandboxLogCount("database is");
  EXPECT_EQ(DaemonLogCount(), retries) << "one line per run that could not finish, none per row";
  EXPECT_EQ(SandboxLogCount("Failed"), 0);
}

INSTANTIATE_TEST_SUITE_P(Backends, DatabaseOutage, ::testing::ValuesIn(DatabaseBackends()));

// Traces the daemon's system calls while a run writes 1200 rows (two groups), and checks their order: each
// write-ahead log synced once, after its last write, then the batch deleted, then the music server signalled.
using SpoolDurability = DaemonSandboxTest;

TEST_F(SpoolDurability, LogSyncedOnceAfterTheLastWriteBeforeTheBatchGoesAndTheSighup) {
  if (system("command -v strace >/dev/null") != 0) GTEST_SKIP() << "strace is missing (scripts/install-deps)";
  StartIdle();
  const std::string trace = "/var/tmp/orvoindexd.strace";
  const std::string pid = std::to_string(pid_);
  pid_t tracer = fork();
  if (tracer == 0) {
    execlp("strace", "strace", "-qq", "-y", "-e", "trace=pwrite64,write,fsync,fdatasync,unlink,unlinkat,kill", "-o",
           trace.c_str(), "-p", pid.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(tracer, 0);
  auto traced = [&] {
    std::ifstream status("/proc/" + pid + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.rfind("TracerPid:", 0) == 0) return atoi(line.c_str() + 10) != 0;
    return false;
  };
  for (int t = 0; t < 500 && !traced(); ++t) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(traced());
  {
    std::ofstream queue(kQueueFile);
    for (int i = 0; i < 1200; ++i) {
      fs::create_directories("/volume1/music/f" + std::to_string(i));
      queue << "a:/volume1/music/f" << i << "\n";
    }
  }
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForHups(2));
  kill(tracer, SIGINT);
  ASSERT_EQ(waitpid(tracer, nullptr, 0), tracer);
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from directory").at(0).at(0), "1200");

  std::vector<std::string> calls;
  std::ifstream in(trace);
  for (std::string line; std::getline(in, line);) calls.push_back(line);
  auto first = [&](auto match) {
    return std::find_if(calls.begin(), calls.end(), match) - calls.begin();
  };
  const long unlinked = first([](const std::string& c) {
    return c.find("unlink") != c.npos && c.find("\"/var/spool/orvo_indexing_queue.tmp\"") != c.npos;
  });
  const long told = first([](const std::string& c) { return c.starts_with("kill(") && c.find("SIGHUP") != c.npos; });
  ASSERT_LT(unlinked, static_cast<long>(calls.size())) << "the batch was never deleted";
  EXPECT_LT(unlinked, told) << "the music server was told before the batch went";
  std::map<std::string, long> lastWrite, syncs, lastSync;
  for (long i = 0; i < unlinked; ++i) {
    const std::string& c = calls[i];
    size_t open = c.find('<'), close = c.find(">)");
    if (open == c.npos) continue;
    std::string file = c.substr(open + 1, c.find('>', open) - open - 1);
    if (!file.ends_with("-wal")) continue;
    if (c.starts_with("pwrite64(") || c.starts_with("write(")) lastWrite[file] = i;
    if ((c.starts_with("fdatasync(") || c.starts_with("fsync(")) && close != c.npos) ++syncs[file], lastSync[file] = i;
  }
  ASSERT_EQ(lastWrite.count(std::string(kMediaDbFile) + "-wal"), 1u) << "no write of the media database traced";
  for (const auto& [file, at] : lastWrite) {
    EXPECT_EQ(syncs[file], 1) << file << ": one sync per run, not one per commit";
    EXPECT_GT(lastSync[file], at) << file << ": synced before its last write";
  }
}

}  // namespace
