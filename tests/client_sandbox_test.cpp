// The orvoindex client driving the real daemon in the appliance sandbox.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "daemon_sandbox_env.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

const std::string kClient = std::string(ORVO_BINARY_DIR) + "/orvoindex";

int ExitCode(const CommandResult& r) { return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1; }

std::string QueueText() {
  std::ifstream in(kQueueFile, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class ClientDrivesDaemon : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }
  pid_t pid_ = -1;
};

TEST_F(ClientDrivesDaemon, QueuedTreeIsIndexedAfterOneCall) {
  std::ofstream(kQueueFile).flush();
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  ASSERT_TRUE(WaitForHups(1));
  fs::create_directories("/volume1/music/a/b");

  CommandResult add = RunCommand({kClient, "add-tree", "/volume1/music/a"});
  EXPECT_EQ(ExitCode(add), 0) << add.output;
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from directory where path like '/volume1/music/a%'"),
            (std::vector<std::vector<std::string>>{{"2"}}));

  CommandResult status = RunCommand({kClient, "status"});
  EXPECT_EQ(ExitCode(status), 0);
  EXPECT_NE(status.output.find("running (pid " + std::to_string(pid_) + ")"), std::string::npos)
      << status.output;
}

TEST_F(ClientDrivesDaemon, WithoutDaemonTheLineWaitsAndTheExitSaysSo) {
  CommandResult add = RunCommand({kClient, "add", "/volume1/music/x.mp3"});
  EXPECT_EQ(ExitCode(add), 3);
  EXPECT_NE(add.output.find("not running"), std::string::npos) << add.output;
  EXPECT_EQ(QueueText(), "a:/volume1/music/x.mp3\n");

  CommandResult status = RunCommand({kClient, "status"});
  EXPECT_EQ(ExitCode(status), 3);
  EXPECT_NE(status.output.find("queue: waiting"), std::string::npos) << status.output;

  CommandResult bad = RunCommand({kClient, "add", "music/x.mp3"});
  EXPECT_EQ(ExitCode(bad), 2);
  EXPECT_EQ(QueueText(), "a:/volume1/music/x.mp3\n");
}

}  // namespace
