// The probe helper: libavformat reads only the file it is handed, in a
// process that can open nothing, and a crash there costs one file.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "formats_testutil.h"
#include "meta/metamedia.h"
#include "meta/probe_helper.h"

using namespace formats_test;

namespace {

const std::string kSine = "-f lavfi -i sine=sample_rate=22050:duration=1 ";

// The helper reads the test switch when it starts: set it before any probe of this process.
class ProbeHelper : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { setenv(kProbeHelperTestVariable, "1", 1); }
  static void TearDownTestSuite() { unsetenv(kProbeHelperTestVariable); }

  // The record ReadMediaInfo leaves, from a record whose probed fields say "untouched".
  static MediaInfo Probe(const std::string& path, int expected) {
    MediaInfo info{};
    snprintf(info.title, sizeof info.title, "untouched");
    EXPECT_EQ(ReadMediaInfo(path.c_str(), &info), expected) << path;
    return info;
  }

  // A one-second Ogg whose stream carries the title `title`.
  std::string TaggedOgg(const std::string& relative, const std::string& title) {
    std::string path = dir_.File(relative);
    EXPECT_TRUE(Ffmpeg(kSine + "-c:a libvorbis -metadata title=" + title + " " + path));
    return path;
  }

  TempDir dir_;
};

TEST_F(ProbeHelper, FifoDeviceAndFolderAreRefusedUnread) {
  std::string fifo = dir_.File("music/pipe.wav");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  orvo::test::LogCapture log;
  // Opened without the non-blocking flag, the FIFO would hold the probe until a writer came.
  for (const std::string& path : {fifo, std::string("/dev/zero"), dir_.File("music/")}) {
    MediaInfo m = Probe(path, -1);
    EXPECT_STREQ(m.title, "untouched");
    EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + path + "]."));
    EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + path + "]."));
  }
  EXPECT_EQ(ProbeHelperPid(), 0) << "nothing was handed to a helper";
}

// A concat script with a media extension used to be followed: the run blocked on a FIFO it named, and
// a file beside it lent the row its stream values and tags.
TEST_F(ProbeHelper, ConcatScriptNamesNoFileTheProbeOpens) {
  REQUIRE_FFMPEG();
  TaggedOgg("v/beside.ogg", "Beside");
  ASSERT_EQ(mkfifo(dir_.File("v/pipe.ogg").c_str(), 0644), 0);
  std::string beside = dir_.File("v/c.avi"), fifo = dir_.File("v/f.avi");
  std::ofstream(beside) << "ffconcat version 1.0\nfile 'beside.ogg'\n";
  std::ofstream(fifo) << "ffconcat version 1.0\nfile 'pipe.ogg'\n";
  orvo::test::LogCapture log;
  for (const std::string& path : {beside, fifo}) {
    MediaInfo m = Probe(path, -1);
    EXPECT_STREQ(m.title, "untouched") << path;
    EXPECT_EQ(m.frequency, 0) << path;
    EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + path + "]."));
  }
  EXPECT_EQ(log.Count("probe helper"), 0) << "refused, not killed";
}

// A DASH manifest named a file anywhere on the machine, whose stream values reached the row.
TEST_F(ProbeHelper, DashManifestNamesNoFileTheProbeOpens) {
  REQUIRE_FFMPEG();
  TempDir outside;
  std::string target = outside.File("elsewhere/outside.mp4"), manifest = dir_.File("v/m.avi");
  ASSERT_TRUE(Ffmpeg(kSine + "-c:a aac -metadata title=Outside " + target));
  std::ofstream(manifest) << "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
                             "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\" type=\"static\" "
                             "mediaPresentationDuration=\"PT1S\" minBufferTime=\"PT1S\"><Period>"
                             "<AdaptationSet mimeType=\"audio/mp4\"><Representation id=\"a\" bandwidth=\"64000\">"
                             "<BaseURL>" << target << "</BaseURL></Representation></AdaptationSet></Period></MPD>\n";
  orvo::test::LogCapture log;
  MediaInfo m = Probe(manifest, -1);
  EXPECT_EQ(m.frequency, 0);
  EXPECT_STREQ(m.title, "untouched");
  EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + manifest + "]."));
}

TEST_F(ProbeHelper, HelperCannotOpenAPathEvenAsRoot) {
  std::string secret = dir_.File("secret.txt"), request = dir_.File("music/open.wav");
  std::ofstream(secret) << "secret";
  ASSERT_EQ(chmod(secret.c_str(), 0644), 0);
  std::ofstream(request) << "ORVO-TEST-OPEN " << secret << "\n";
  orvo::test::LogCapture log;
  Probe(request, -1);
  std::string expected = "Test open of [" + secret + "] in the probe helper: Operation not permitted, user " +
                         std::to_string(geteuid() == 0 ? 65534 : geteuid()) + ".";
  EXPECT_TRUE(log.Contains(expected)) << (log.messages().empty() ? "" : log.messages().front());
  EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + request + "]."));
}

// A crash used to end the daemon; now it ends one helper, and the next file gets a new one.
TEST_F(ProbeHelper, CrashCostsOneFileAndTheNextFileIsRead) {
  REQUIRE_FFMPEG();
  std::string crash = dir_.File("music/crash.ogg"), next = TaggedOgg("music/next.ogg", "Next");
  std::ofstream(crash) << "ORVO-TEST-CRASH";
  Probe(next, 0);
  const pid_t first = ProbeHelperPid();
  ASSERT_GT(first, 0);
  orvo::test::LogCapture log;
  MediaInfo m = Probe(crash, -1);
  EXPECT_STREQ(m.title, "untouched");
  EXPECT_TRUE(log.Contains("The probe helper ended (signal " + std::to_string(SIGILL) + ") while reading [" + crash +
                           "]."));
  EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + crash + "]."));
  EXPECT_EQ(ProbeHelperPid(), 0);
  EXPECT_EQ(waitpid(first, nullptr, WNOHANG), -1) << "reaped, no zombie";
  m = Probe(next, 0);
  EXPECT_STREQ(m.title, "Next");
  EXPECT_EQ(m.frequency, 22050);
  EXPECT_GT(ProbeHelperPid(), 0);
  EXPECT_NE(ProbeHelperPid(), first);
}

// A reply of the wrong size gets the helper stopped; the late real reply is never taken for the next file's.
TEST_F(ProbeHelper, NonsenseReplyStopsTheHelperAndTheNextFileGetsItsOwnReply) {
  REQUIRE_FFMPEG();
  std::string nonsense = dir_.File("music/nonsense.ogg"), next = TaggedOgg("music/next.ogg", "Next");
  std::ofstream(nonsense) << "ORVO-TEST-NONSENSE";
  orvo::test::LogCapture log;
  MediaInfo m = Probe(nonsense, -1);
  EXPECT_TRUE(log.Contains("The probe helper answered nonsense for [" + nonsense + "] and was stopped."));
  EXPECT_EQ(ProbeHelperPid(), 0);
  m = Probe(next, 0);
  EXPECT_STREQ(m.title, "Next");
  EXPECT_FALSE(log.Contains("Failed to av_open_input_file() file [" + nonsense + "]."));
}

// One helper serves every file; one that died while idle is replaced and the file is still read.
TEST_F(ProbeHelper, HelperKilledWhileIdleIsReplacedWithoutLosingTheFile) {
  REQUIRE_FFMPEG();
  std::string song = TaggedOgg("music/song.ogg", "Song");
  Probe(song, 0);
  const pid_t first = ProbeHelperPid();
  Probe(song, 0);
  ASSERT_EQ(ProbeHelperPid(), first);
  char comm[64] = {};
  std::ifstream(("/proc/" + std::to_string(first) + "/comm").c_str()).getline(comm, sizeof comm);
  EXPECT_STREQ(comm, "orvoprobe");
  ASSERT_EQ(kill(first, SIGKILL), 0);
  siginfo_t gone{};
  ASSERT_EQ(waitid(P_PID, first, &gone, WEXITED | WNOWAIT), 0);  // dead, left for the prober to reap
  orvo::test::LogCapture log;
  MediaInfo m = Probe(song, 0);
  EXPECT_STREQ(m.title, "Song");
  EXPECT_TRUE(log.messages().empty()) << log.messages().front();
  EXPECT_NE(ProbeHelperPid(), first);
}

// Only the probe's own fields come back: a path or size in the reply never replaces the caller's.
TEST_F(ProbeHelper, ReplyTouchesOnlyTheProbedFields) {
  REQUIRE_FFMPEG();
  std::string song = TaggedOgg("music/fields.ogg", "Fields");
  MediaInfo info;
  memset(&info, 0x5A, sizeof info);
  snprintf(info.path, sizeof info.path, "%s", song.c_str());
  info.filesize = 12345;
  MediaInfo before = info;
  ASSERT_EQ(ReadMediaInfo(song.c_str(), &info), 0);
  EXPECT_STREQ(info.title, "Fields");
  EXPECT_EQ(memcmp(info.path, before.path, sizeof info.path), 0);
  EXPECT_EQ(info.filesize, 12345);
  const size_t photoFields = offsetof(MediaInfo, duration) - offsetof(MediaInfo, camera_make);
  EXPECT_EQ(memcmp(info.camera_make, before.camera_make, photoFields), 0);
  EXPECT_EQ(memcmp(&info.reserved1, &before.reserved1, sizeof info - offsetof(MediaInfo, reserved1)), 0);
}

}  // namespace
