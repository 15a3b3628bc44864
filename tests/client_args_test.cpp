#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/client.h"

namespace {

ClientRequest Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "orvoindex");
  return ParseClientArgs(static_cast<int>(args.size()), args.data());
}

std::string QueuedLine(std::vector<const char*> args) {
  ClientRequest r = Parse(std::move(args));
  EXPECT_EQ(r.action, ClientAction::kQueue) << r.text;
  return r.text;
}

TEST(ClientCommands, EachSubcommandQueuesItsLetter) {
  EXPECT_EQ(QueuedLine({"add", "/volume1/music/a.mp3"}), "a:/volume1/music/a.mp3\n");
  EXPECT_EQ(QueuedLine({"remove", "/volume1/music/a.mp3"}), "d:/volume1/music/a.mp3\n");
  EXPECT_EQ(QueuedLine({"add-tree", "/volume1/music"}), "A:/volume1/music\n");
  EXPECT_EQ(QueuedLine({"remove-tree", "/volume1/music/x"}), "D:/volume1/music/x\n");
  // The new path first, as the daemon expects.
  EXPECT_EQ(QueuedLine({"rename", "/v/new.mp3", "/v/old.mp3"}), "N:/v/new.mp3:/v/old.mp3\n");
  EXPECT_EQ(QueuedLine({"reindex", "music"}), "R:music\n");
  EXPECT_EQ(QueuedLine({"refresh-photos"}), "U:photo\n");
  EXPECT_EQ(QueuedLine({"truncate", "playlist"}), "T:playlist\n");
  EXPECT_EQ(Parse({"status"}).action, ClientAction::kStatus);
}

TEST(ClientCommands, HelpForTheToolAndEachSubcommand) {
  EXPECT_EQ(Parse({"--help"}).action, ClientAction::kHelp);
  ClientRequest sub = Parse({"rename", "--help"});
  EXPECT_EQ(sub.action, ClientAction::kHelp);
  EXPECT_NE(sub.text.find("rename NEW OLD"), std::string::npos);
  // --help wins over a missing argument, so it never queues anything.
  EXPECT_EQ(Parse({"add", "--help"}).action, ClientAction::kHelp);
}

TEST(ClientArgumentChecks, BadArgumentsQueueNothing) {
  const std::vector<std::vector<const char*>> bad = {
      {},
      {"frobnicate", "/x"},
      {"add"},
      {"add", "/a", "/b"},
      {"add", "relative/path.mp3"},
      {"add", ""},
      {"add", "/volume1/music/two\nlines.mp3"},
      {"remove", "/volume1/music/cr\r.mp3"},
      {"rename", "/v/a:b.mp3", "/v/old.mp3"},
      {"rename", "/v/new.mp3"},
      {"truncate", "users"},
      {"reindex"},
      {"reindex", "music\n"},
      {"refresh-photos", "extra"},
  };
  for (const auto& args : bad) {
    ClientRequest r = Parse(args);
    EXPECT_EQ(r.action, ClientAction::kUsageError) << (args.empty() ? "(none)" : args[0]);
    EXPECT_EQ(r.text.rfind("orvoindex: ", 0), 0u) << r.text;
  }
}

TEST(ClientArgumentChecks, LineMustFitTheDaemonsLineBuffer) {
  // 4111 bytes including "a:" and the newline is the longest whole line.
  std::string fits = "/" + std::string(4111 - 4, 'x');
  EXPECT_EQ(Parse({"add", fits.c_str()}).action, ClientAction::kQueue);
  std::string tooLong = fits + "y";
  EXPECT_EQ(Parse({"add", tooLong.c_str()}).action, ClientAction::kUsageError);
}

class ClientRun : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("client_run_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
    queue_ = (dir_ / "queue").string();
    batch_ = (dir_ / "queue.tmp").string();
    pid_ = (dir_ / "daemon.pid").string();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  int Run(std::vector<const char*> args) {
    args.insert(args.begin(), "orvoindex");
    ClientPaths paths{queue_.c_str(), batch_.c_str(), pid_.c_str()};
    return RunClient(static_cast<int>(args.size()), args.data(), paths, out_, err_);
  }

  std::string Queue() {
    std::ifstream in(queue_, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  std::filesystem::path dir_;
  std::string queue_, batch_, pid_;
  FILE* out_ = fopen("/dev/null", "w");
  FILE* err_ = fopen("/dev/null", "w");
};

TEST_F(ClientRun, StalePidOfAnotherProgramIsNotSignalled) {
  // Our own pid: alive, but not the daemon. SIGUSR1 would end this test.
  std::ofstream(pid_) << getpid();
  EXPECT_EQ(Run({"add", "/volume1/music/a.mp3"}), kExitNoDaemon);
  EXPECT_EQ(Run({"status"}), kExitNoDaemon);
}

}  // namespace
