// The orvoindex client driving the real daemon in the appliance sandbox.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>

#include "daemon_sandbox_env.h"

namespace {

using namespace orvo::test;

const std::string kClient = std::string(ORVO_BINARY_DIR) + "/orvoindex";

int ExitCode(const CommandResult& r) { return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1; }

class ClientDrivesDaemon : public DaemonSandboxTest {};

TEST_F(ClientDrivesDaemon, QueuedTreeIsIndexedAfterOneCall) {
  StartIdle();
  std::filesystem::create_directories("/volume1/music/a/b");
  CommandResult add = RunCommand({kClient, "add-tree", "/volume1/music/a"});
  EXPECT_EQ(ExitCode(add), 0) << add.output;
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from directory where path like '/volume1/music/a%'"),
            (std::vector<std::vector<std::string>>{{"2"}}));
  CommandResult status = RunCommand({kClient, "status"});
  EXPECT_EQ(ExitCode(status), 0);
  EXPECT_NE(status.output.find("running (pid " + std::to_string(pid_) + ")"), std::string::npos) << status.output;
}

TEST_F(ClientDrivesDaemon, WithoutDaemonTheLineWaitsAndTheExitSaysSo) {
  CommandResult add = RunCommand({kClient, "add", "/volume1/music/x.mp3"});
  EXPECT_EQ(ExitCode(add), 3);
  EXPECT_NE(add.output.find("not running"), std::string::npos) << add.output;
  CommandResult bad = RunCommand({kClient, "add", "music/x.mp3"});
  EXPECT_EQ(ExitCode(bad), 2);
  EXPECT_EQ(ReadFile(kQueueFile), "a:/volume1/music/x.mp3\n");
  CommandResult status = RunCommand({kClient, "status"});
  EXPECT_EQ(ExitCode(status), 3);
  EXPECT_NE(status.output.find("queue: waiting"), std::string::npos) << status.output;
}

}  // namespace
