// The client's command line: each subcommand queues its line; what the daemon would misread, nothing.
#include "formats_testutil.h"
#include "tools/client.h"

namespace {

ClientRequest Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "orvoindex");
  return ParseClientArgs(static_cast<int>(args.size()), args.data());
}

TEST(ClientCommands, EachSubcommandQueuesItsLetter) {
  const std::pair<std::vector<const char*>, const char*> cases[] = {
      {{"add", "/volume1/music/a.mp3"}, "a:/volume1/music/a.mp3\n"},
      {{"remove", "/volume1/music/a.mp3"}, "d:/volume1/music/a.mp3\n"},
      {{"add-tree", "/volume1/music"}, "A:/volume1/music\n"},
      {{"remove-tree", "/volume1/music/x"}, "D:/volume1/music/x\n"},
      {{"rename", "/v/new.mp3", "/v/old.mp3"}, "N:/v/new.mp3:/v/old.mp3\n"},  // the new path first
      {{"reindex", "music"}, "R:music\n"},
      {{"refresh-photos"}, "U:photo\n"},
      {{"truncate", "playlist"}, "T:playlist\n"},
  };
  for (const auto& [args, line] : cases) {
    ClientRequest r = Parse(args);
    EXPECT_EQ(r.action, ClientAction::kQueue) << r.text;
    EXPECT_EQ(r.text, line);
  }
  EXPECT_EQ(Parse({"status"}).action, ClientAction::kStatus);
  const ClientRequest watch = Parse({"status", "--json", "--watch"});
  EXPECT_TRUE(watch.action == ClientAction::kStatus && watch.json && watch.watch);
  const ClientRequest failures = Parse({"failures", "--json"});
  EXPECT_TRUE(failures.action == ClientAction::kFailures && failures.json && !failures.watch);
  // --help wins over a missing argument, so it never queues anything.
  EXPECT_EQ(Parse({"add", "--help"}).action, ClientAction::kHelp);
}

TEST(ClientArgumentChecks, BadArgumentsQueueNothing) {
  // 4111 bytes including "a:" and the newline is the longest line the daemon reads whole.
  const std::string tooLong = "/" + std::string(4111 - 4, 'x') + "y";
  const std::vector<std::vector<const char*>> bad = {
      {}, {"frobnicate", "/x"}, {"add"}, {"add", "/a", "/b"}, {"add", "relative/path.mp3"}, {"add", ""},
      {"add", "/volume1/music/two\nlines.mp3"}, {"remove", "/volume1/music/cr\r.mp3"},
      {"rename", "/v/a:b.mp3", "/v/old.mp3"}, {"rename", "/v/new.mp3"}, {"truncate", "users"},
      {"reindex", "music\n"}, {"refresh-photos", "extra"}, {"add", tooLong.c_str()},
      {"status", "/x"}, {"status", "--jsn"}, {"failures", "--watch"},
  };
  for (const auto& args : bad) {
    ClientRequest r = Parse(args);
    EXPECT_EQ(r.action, ClientAction::kUsageError) << (args.empty() ? "(none)" : args[0]);
  }
  EXPECT_EQ(Parse({"add", tooLong.substr(0, tooLong.size() - 1).c_str()}).action, ClientAction::kQueue);
}

// Our own pid is alive but no daemon (SIGUSR1 would end this test); the line stays queued.
TEST(ClientRun, StalePidOfAnotherProgramIsNotSignalled) {
  formats_test::TempDir dir;
  const std::string queue = dir.File("queue"), batch = dir.File("queue.tmp"), pid = dir.File("daemon.pid");
  std::ofstream(pid) << getpid();
  FILE* null = fopen("/dev/null", "w");
  const char* argv[] = {"orvoindex", "add", "/volume1/music/a.mp3"};
  EXPECT_EQ(RunClient(3, argv, ClientPaths{queue.c_str(), batch.c_str(), pid.c_str(), "", ""}, null, null), kExitNoDaemon);
  fclose(null);
  EXPECT_EQ(formats_test::ReadBytes(queue), "a:/volume1/music/a.mp3\n");
}

}  // namespace
