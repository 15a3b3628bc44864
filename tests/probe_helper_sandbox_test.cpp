// The probe helper under the real daemon: a crafted file costs that file, never the run or the daemon.
#include <dirent.h>
#include <sys/stat.h>

#include <sstream>
#include <thread>

#include "formats_testutil.h"
#include "support/sandbox.h"

namespace {

using namespace formats_test;
using namespace orvo::test;
using Rows = std::vector<std::vector<std::string>>;

const std::string kSine = "-f lavfi -i sine=sample_rate=22050:duration=1 ";
const std::string kTestFaults = "ORVO_PROBE_HELPER_TEST=1";

// The value of `key` in a /proc status text ("Key:\tvalue" lines).
std::string Field(const std::string& text, const std::string& key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(key + ":")) continue;
    size_t start = line.find_first_not_of(" \t", key.size() + 1);
    return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

// The daemon's child processes, from /proc: pid and name.
std::vector<std::pair<pid_t, std::string>> ChildrenOf(pid_t parent) {
  std::vector<std::pair<pid_t, std::string>> children;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  while (dirent* entry = proc ? readdir(proc.get()) : nullptr) {
    pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    if (Field(status, "PPid") == std::to_string(parent)) children.emplace_back(pid, Field(status, "Name"));
  }
  return children;
}

bool WaitGone(pid_t pid) {
  for (int i = 0; i < 3000 && ProcessAlive(pid); ++i) std::this_thread::sleep_for(10ms);
  return !ProcessAlive(pid);
}

class ProbeHelperSandbox : public DaemonSandboxTest {
 protected:
  void Start(const std::vector<std::string>& env) { ASSERT_GT(pid_ = StartOnQueue({}, env), 0); }
  // A one-second song titled `title`: Ogg Vorbis, or 16-bit PCM in a .wav.
  std::string Song(const std::string& path, const std::string& title) {
    fs::create_directories(fs::path(path).parent_path());
    std::string codec = path.ends_with(".wav") ? "pcm_s16le" : "libvorbis";
    EXPECT_TRUE(Ffmpeg(kSine + "-c:a " + codec + " -metadata title=" + title + " '" + path + "'"));
    return path;
  }
};

// A crash used to end the daemon and a hang to stop every later run; now each costs its own file.
TEST_F(ProbeHelperSandbox, CrashAndHangCostOneFileEachAndTheRunGoesOn) {
  Start({kTestFaults});
  const std::string folder = "/volume1/music/faults";
  fs::create_directories(folder);
  std::ofstream(folder + "/crash.ogg") << "ORVO-TEST-CRASH";
  std::ofstream(folder + "/hang.ogg") << "ORVO-TEST-HANG";
  // WAV after the faults: the helper reads it (plain Ogg Vorbis no longer reaches the helper).
  Song(folder + "/after crash.wav", "AfterCrash");
  Song(folder + "/after hang.wav", "AfterHang");
  std::vector<std::string> lines;
  for (const char* name : {"crash.ogg", "after crash.wav", "hang.ogg", "after hang.wav"})
    lines.push_back("a:" + folder + "/" + name);
  ASSERT_TRUE(RunLines(lines));

  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select title, frequency, channels from music order by path"),
            (Rows{{"AfterCrash", "22050", "1"}, {"AfterHang", "22050", "1"}, {"crash", "0", "0"}, {"hang", "0", "0"}}));
  EXPECT_EQ(SandboxLogCount("The probe helper ended (signal 4) while reading [" + folder + "/crash.ogg]."), 1);
  EXPECT_EQ(SandboxLogCount("The probe helper took more than 5 seconds on [" + folder + "/hang.ogg] and was stopped."),
            1);
  for (const char* name : {"crash", "hang"}) {
    EXPECT_EQ(SandboxLogCount("Failed to get Misc Media Info from [" + folder + "/" + name + ".ogg]."), 1);
    EXPECT_EQ(SandboxLogCount("Failed to parse music metadata from file [" + folder + "/" + name + ".ogg]."), 1);
  }
  // Both dead helpers reaped; the one started for the last file stays, and goes with the daemon.
  auto children = ChildrenOf(pid_);
  ASSERT_EQ(children.size(), 1u);
  EXPECT_EQ(children[0].second, "orvoprobe");
  EXPECT_TRUE(ProcessAlive(children[0].first));
  EXPECT_EQ(StopDaemon(pid_), 0);
  pid_ = -1;
  EXPECT_TRUE(WaitGone(children[0].first));
}

// A concat script used to block the run on a FIFO it named and to lend the row a file beside it;
// a DASH manifest lent it a file outside the share.
TEST_F(ProbeHelperSandbox, ScriptsAndManifestsReachNoOtherFile) {
  Start({});
  const std::string folder = "/volume1/video/crafted", outside = "/var/lib/orvo-outside/outside.mp4";
  Song(folder + "/beside.ogg", "Beside");
  ASSERT_EQ(mkfifo((folder + "/pipe.ogg").c_str(), 0644), 0);
  fs::create_directories(fs::path(outside).parent_path());
  ASSERT_TRUE(Ffmpeg(kSine + "-c:a aac -metadata title=Outside " + outside));
  std::ofstream(folder + "/beside.avi") << "ffconcat version 1.0\nfile 'beside.ogg'\n";
  std::ofstream(folder + "/fifo.avi") << "ffconcat version 1.0\nfile 'pipe.ogg'\n";
  std::ofstream(folder + "/manifest.avi")
      << "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
         "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\" type=\"static\" mediaPresentationDuration=\"PT1S\" "
         "minBufferTime=\"PT1S\"><Period><AdaptationSet mimeType=\"audio/mp4\"><Representation id=\"a\" "
         "bandwidth=\"64000\"><BaseURL>" << outside << "</BaseURL></Representation></AdaptationSet></Period></MPD>\n";
  ASSERT_TRUE(RunLines({"A:" + folder}));

  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select title, album, frequency, channels, width from video order by path"),
            (Rows{{"beside", "crafted", "0", "0", "0"}, {"fifo", "crafted", "0", "0", "0"},
                  {"manifest", "crafted", "0", "0", "0"}}));
  for (const char* name : {"beside", "fifo", "manifest"})
    EXPECT_EQ(SandboxLogCount("Failed to av_open_input_file() file [" + folder + "/" + name + ".avi]."), 1) << name;
  EXPECT_EQ(SandboxLogCount("probe helper"), 0) << "refused in the helper, not killed";
}

// The helper runs as nobody under its filter: even a path it is told to open stays shut.
TEST_F(ProbeHelperSandbox, HelperRunsAsNobodyAndOpensNothing) {
  Start({kTestFaults});
  const std::string request = "/volume1/music/open.ogg";
  std::ofstream(request) << "ORVO-TEST-OPEN " << kMediaDbFile << "\n";
  ASSERT_TRUE(RunLines({"a:" + request}));
  EXPECT_EQ(SandboxLogCount(std::string("Test open of [") + kMediaDbFile +
                            "] in the probe helper: Operation not permitted, user 65534."),
            1);
  auto children = ChildrenOf(pid_);
  ASSERT_EQ(children.size(), 1u);
  std::string status = ReadFile("/proc/" + std::to_string(children[0].first) + "/status");
  EXPECT_EQ(Field(status, "Uid"), "65534\t65534\t65534\t65534");
  EXPECT_EQ(Field(status, "Gid"), "65534\t65534\t65534\t65534");
  EXPECT_EQ(Field(status, "Groups"), "");
  EXPECT_EQ(Field(status, "CapEff"), "0000000000000000");
  EXPECT_EQ(Field(status, "NoNewPrivs"), "1");
  EXPECT_EQ(Field(status, "Seccomp"), "2");
}

}  // namespace
