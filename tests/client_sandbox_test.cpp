// The orvoindex client driving the real daemon in the appliance sandbox.
#include <sys/wait.h>

#include "support/sandbox.h"

namespace {

using namespace orvo::test;

const std::string kClient = std::string(ORVO_BINARY_DIR) + "/orvoindex";

class ClientDrivesDaemon : public DaemonSandboxTest {};

TEST_F(ClientDrivesDaemon, QueuedTreeIsIndexedAfterOneCall) {
  StartIdle();
  fs::create_directories("/volume1/music/a/b");
  CommandResult add = RunCommand({kClient, "add-tree", "/volume1/music/a"});
  EXPECT_TRUE(WIFEXITED(add.status) && WEXITSTATUS(add.status) == 0) << add.output;
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from directory where path like '/volume1/music/a%'"),
            (std::vector<std::vector<std::string>>{{"2"}}));
  CommandResult status = RunCommand({kClient, "status"});
  EXPECT_TRUE(WIFEXITED(status.status) && WEXITSTATUS(status.status) == 0);
  EXPECT_NE(status.output.find("running (pid " + std::to_string(pid_) + ")"), std::string::npos) << status.output;
}

}  // namespace
