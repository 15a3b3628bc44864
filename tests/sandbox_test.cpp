// The appliance sandbox script from the host: what a command inside gets, and nothing left behind.
#include <sys/wait.h>

#include "formats_testutil.h"
#include "support/sandbox.h"

namespace {

using namespace formats_test;
using orvo::test::CommandResult;

const std::string kScript = std::string(ORVO_SOURCE_DIR) + "/scripts/appliance-sandbox";
const std::string kPgUri = "postgresql://postgres@/media?host=/tmp";
const std::string kHelper = std::string(ORVO_BINARY_DIR) + "/tests/orvo_sandbox_helper";

class SandboxScript : public ::testing::Test {
 protected:
  void SetUp() override {
    if (getenv("ORVO_SANDBOX") != nullptr) GTEST_SKIP() << "already inside a sandbox";
    if (access(kHelper.c_str(), X_OK) != 0) GTEST_SKIP() << "helper not built: " << kHelper;
  }
  // Exit code and output of `shell` in a sandbox made with `options`, its scratch folder under ours.
  std::pair<int, std::string> Run(const std::string& shell, std::vector<std::string> options = {}) {
    std::vector<std::string> argv = {kScript, "--helper", kHelper};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), {"--", "sh", "-c", shell});
    CommandResult r = orvo::test::RunCommand(argv, {"TMPDIR=" + scratch_, "ORVO_MEDIA_DB=" + kPgUri});
    return {WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1, r.output};
  }
  TempDir dir_;
  const std::string scratch_ = dir_.File("");  // ends in a slash
};

// The layout every sandbox test relies on, the features on by default, and the command's exit status,
// which a sandbox test's result is; the demo's options switch features off, share a host folder and
// export the results.
TEST_F(SandboxScript, CommandSeesTheLayoutItsExitStatusPassesThroughAndOptionsApply) {
  auto [code, out] = Run(
      "set -e; for s in music video photo; do test \"$(readlink /var/services/$s)\" = /volume1/$s; done; "
      "test -d /var/spool -a -d /var/lib/orvoindex -a -S /dev/log; test \"$(cat /var/run/mt-daapd.pid)\" -gt 0; "
      "cat /etc.defaults/orvoinfo.conf /etc/orvoinfo.conf; echo \"hups=$(cat $ORVO_SANDBOX_HUPS) sandbox=$ORVO_SANDBOX db=$ORVO_MEDIA_DB\"; exit 7");
  EXPECT_EQ(code, 7) << out;
  for (const std::string& line : std::vector<std::string>{"supportphoto=\"yes\"", "albumdefpublic=\"no\"", "hups=0 sandbox=1 db=" + kPgUri})
    EXPECT_NE(out.find(line), std::string::npos) << line << " not in:\n" << out;
  fs::create_directories(scratch_ + "vol/music");
  std::ofstream(scratch_ + "vol/music/in.mp3") << "in";
  std::tie(code, out) = Run("set -e; cat /etc.defaults/orvoinfo.conf; echo \"[$(cat /var/services/music/in.mp3)]\"; "
                            "echo out >/volume1/photo/out.jpg; echo db >/var/lib/orvoindex/mediaserver.db",
                            {"--no-features", "--volume", scratch_ + "vol", "--export", scratch_ + "export"});
  ASSERT_EQ(code, 0) << out;
  EXPECT_NE(out.find("supportphoto=\"no\""), std::string::npos) << out;
  EXPECT_NE(out.find("[in]"), std::string::npos) << out;
  EXPECT_TRUE(fs::exists(scratch_ + "vol/photo/out.jpg"));
  EXPECT_EQ(ReadBytes(scratch_ + "export/mediaserver.db"), "db\n");
  EXPECT_EQ(Run("true", {"--albumdefpublic", "maybe"}).first, 125) << "a bad option value ran the command";
}

TEST_F(SandboxScript, LeavesNothingOnTheHost) {
  bool hostHadEtcConf = fs::exists("/etc/orvoinfo.conf");
  ASSERT_FALSE(fs::exists("/volume1")) << "this host has a real /volume1; cannot check";
  std::string marker = std::to_string(1000000 + getpid());
  auto [code, out] = Run(
      "set -e; echo a >/var/spool/orvo_indexing_queue; echo 1 >/var/run/orvoindexd.pid; "
      "echo x >/volume1/music/a.mp3; echo y >/etc/orvoinfo.conf; echo z >/etc.defaults/extra; "
      "touch /var/lib/orvoindex/mediaserver.db; setsid sleep " + marker + " </dev/null >/dev/null 2>&1 &");
  ASSERT_EQ(code, 0) << out;
  for (const char* path : {"/var/spool/orvo_indexing_queue", "/run/orvoindexd.pid", "/volume1", "/etc.defaults",
                           "/var/lib/orvoindex/mediaserver.db"})
    EXPECT_FALSE(fs::exists(path)) << path;
  EXPECT_TRUE(hostHadEtcConf || !fs::exists("/etc/orvoinfo.conf"));
  EXPECT_TRUE(fs::is_empty(scratch_)) << "the sandbox's scratch folder was left behind";
  // The stand-ins end the same way; other sandboxes may run theirs meanwhile.
  EXPECT_NE(orvo::test::RunCommand({"pgrep", "-f", "sleep " + marker}).status, 0) << "a process outlived its sandbox";
}

}  // namespace
