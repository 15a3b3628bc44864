// The appliance sandbox script seen from the host: what a command inside
// gets, and that nothing of it is left outside afterwards.
#include <gtest/gtest.h>

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "support/sandbox.h"

namespace fs = std::filesystem;
using orvo::test::CommandResult;
using orvo::test::RunCommand;

namespace {

const std::string kScript = std::string(ORVO_SOURCE_DIR) + "/scripts/appliance-sandbox";
const std::string kHelper = std::string(ORVO_BINARY_DIR) + "/tests/orvo_sandbox_helper";

class SandboxScript : public ::testing::Test {
 protected:
  void SetUp() override {
    if (getenv("ORVO_SANDBOX") != nullptr) GTEST_SKIP() << "already inside a sandbox";
    if (access(kHelper.c_str(), X_OK) != 0) GTEST_SKIP() << "helper not built: " << kHelper;
    std::string pattern = (fs::temp_directory_path() / "orvo-sandbox-test-XXXXXX").string();
    scratch_ = mkdtemp(pattern.data());
  }
  void TearDown() override {
    std::error_code ec;
    if (!scratch_.empty()) fs::remove_all(scratch_, ec);
  }

  // Runs `shell` with sh -c inside a sandbox made with `options`; the
  // sandbox's own scratch folder goes under our scratch folder.
  CommandResult Run(const std::string& shell, std::vector<std::string> options = {}) {
    std::vector<std::string> argv = {kScript, "--helper", kHelper};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), {"--", "sh", "-c", shell});
    return RunCommand(argv, {"TMPDIR=" + scratch_});
  }

  std::string scratch_;
};

int ExitCode(const CommandResult& r) { return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1; }

TEST_F(SandboxScript, CommandSeesTheApplianceLayout) {
  CommandResult r = Run(
      "set -e; for s in music video photo; do test -d /volume1/$s; "
      "test \"$(readlink /var/services/$s)\" = /volume1/$s; done; "
      "test -d /var/spool; test -d /var/lib/orvoindex; test -S /dev/log; "
      "test \"$(cat /var/run/mt-daapd.pid)\" -gt 0; "
      "cat /etc.defaults/orvoinfo.conf /etc/orvoinfo.conf; "
      "echo log=$ORVO_SANDBOX_LOG hups=$(cat $ORVO_SANDBOX_HUPS) sandbox=$ORVO_SANDBOX");
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  EXPECT_NE(r.output.find("supportcinedock=\"yes\""), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("supportphoto=\"yes\""), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("albumdefpublic=\"no\""), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("log=/run/orvo-sandbox/syslog.log hups=0 sandbox=1"), std::string::npos)
      << r.output;
}

TEST_F(SandboxScript, OptionsSetTheConfigurationSwitches) {
  CommandResult r = Run("cat /etc.defaults/orvoinfo.conf /etc/orvoinfo.conf",
                        {"--no-features", "--albumdefpublic", "yes"});
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  EXPECT_NE(r.output.find("supportcinedock=\"no\""), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("supportphoto=\"no\""), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("albumdefpublic=\"yes\""), std::string::npos) << r.output;

  r = Run("true", {"--albumdefpublic", "maybe"});
  EXPECT_EQ(ExitCode(r), 125) << "a bad option value must not start the command";
}

TEST_F(SandboxScript, PassesTheCommandsExitStatusAndDatabaseSettings) {
  EXPECT_EQ(ExitCode(Run("exit 7")), 7);
  setenv("ORVO_MEDIA_DB", "postgresql://postgres@/media?host=/tmp", 1);
  CommandResult r = Run("echo \"$ORVO_MEDIA_DB\"");
  unsetenv("ORVO_MEDIA_DB");
  EXPECT_NE(r.output.find("postgresql://postgres@/media?host=/tmp"), std::string::npos) << r.output;
}

TEST_F(SandboxScript, ListenerCapturesSyslogAndStandInCountsHangups) {
  CommandResult r = Run(
      "logger -u /dev/log 'orvo listener check'; "
      "pid=$(cat /var/run/mt-daapd.pid); "
      "kill -HUP $pid; i=0; until [ \"$(cat $ORVO_SANDBOX_HUPS)\" = 1 ] || [ $i = 500 ]; do "
      "sleep 0.01; i=$((i+1)); done; "
      "kill -HUP $pid; i=0; until [ \"$(cat $ORVO_SANDBOX_HUPS)\" = 2 ] || [ $i = 500 ]; do "
      "sleep 0.01; i=$((i+1)); done; "
      "i=0; until grep -q 'orvo listener check' $ORVO_SANDBOX_LOG || [ $i = 500 ]; do "
      "sleep 0.01; i=$((i+1)); done; "
      "echo hups=$(cat $ORVO_SANDBOX_HUPS); cat $ORVO_SANDBOX_LOG");
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  EXPECT_NE(r.output.find("hups=2"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("orvo listener check"), std::string::npos) << r.output;
}

bool HostProcessRunning(const std::string& commandLine) {
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return false;
  bool found = false;
  while (dirent* e = readdir(proc)) {
    std::ifstream in(std::string("/proc/") + e->d_name + "/cmdline");
    std::string cmd((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (char& c : cmd)
      if (c == '\0') c = ' ';
    if (cmd.find(commandLine) != std::string::npos) found = true;
  }
  closedir(proc);
  return found;
}

TEST_F(SandboxScript, LeavesNothingOnTheHost) {
  bool hostHadEtcConf = fs::exists("/etc/orvoinfo.conf");
  ASSERT_FALSE(fs::exists("/volume1")) << "this host has a real /volume1; cannot check";
  std::string marker = std::to_string(1000000 + getpid());
  CommandResult r = Run(
      "set -e; echo a >/var/spool/orvo_indexing_queue; echo 1 >/var/run/orvoindexd.pid; "
      "echo x >/volume1/music/a.mp3; echo y >/etc/orvoinfo.conf; echo z >/etc.defaults/extra; "
      "touch /var/lib/orvoindex/mediaserver.db; "
      "setsid sleep " + marker + " </dev/null >/dev/null 2>&1 &");
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  EXPECT_FALSE(fs::exists("/var/spool/orvo_indexing_queue"));
  EXPECT_FALSE(fs::exists("/run/orvoindexd.pid"));
  EXPECT_FALSE(fs::exists("/volume1"));
  EXPECT_FALSE(fs::exists("/etc.defaults"));
  EXPECT_FALSE(fs::exists("/var/lib/orvoindex/mediaserver.db"));
  if (!hostHadEtcConf) {
    EXPECT_FALSE(fs::exists("/etc/orvoinfo.conf"));
  }
  EXPECT_TRUE(fs::is_empty(scratch_)) << "the sandbox's scratch folder was left behind";
  // The stand-ins end the same way; other sandboxes may run theirs meanwhile.
  EXPECT_FALSE(HostProcessRunning("sleep " + marker)) << "a process outlived its sandbox";
}

TEST_F(SandboxScript, ExportCopiesDatabasesLogAndCountOut) {
  std::string out = scratch_ + "/export";
  CommandResult r = Run(
      "set -e; echo db >/var/lib/orvoindex/mediaserver.db; logger -u /dev/log exported; "
      "kill -HUP $(cat /var/run/mt-daapd.pid); "
      "i=0; until [ \"$(cat $ORVO_SANDBOX_HUPS)\" = 1 ] || [ $i = 500 ]; do sleep 0.01; i=$((i+1)); done; "
      "i=0; until grep -q exported $ORVO_SANDBOX_LOG || [ $i = 500 ]; do sleep 0.01; i=$((i+1)); done",
      {"--export", out});
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  auto read = [](const std::string& p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  };
  EXPECT_EQ(read(out + "/mediaserver.db"), "db\n");
  EXPECT_EQ(read(out + "/hups"), "1\n");
  EXPECT_NE(read(out + "/syslog.log").find("exported"), std::string::npos);
}

TEST_F(SandboxScript, VolumeOptionSharesAHostFolder) {
  fs::create_directories(scratch_ + "/vol/music");
  std::ofstream(scratch_ + "/vol/music/in.mp3") << "in";
  CommandResult r = Run("cat /var/services/music/in.mp3 && echo out >/volume1/photo/out.jpg",
                        {"--volume", scratch_ + "/vol"});
  ASSERT_EQ(ExitCode(r), 0) << r.output;
  EXPECT_EQ(r.output, "in");
  EXPECT_TRUE(fs::exists(scratch_ + "/vol/photo/out.jpg"));
}

}  // namespace
