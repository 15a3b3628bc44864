// The probe helper's side of the prober: what never reaches it, a reply it must not be trusted with,
// and a helper that died while idle. Crafted files, a crash or hang and the helper's own rights are
// checked through the daemon in probe_helper_sandbox_test.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "formats_testutil.h"
#include "meta/metamedia.h"
#include "meta/mp4_reader.h"
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

  // A one-second WAV titled `title`, a file the probe reads in the helper (plain Ogg Vorbis no longer
  // reaches it).
  std::string TaggedWav(const std::string& relative, const std::string& title) {
    std::string path = dir_.File(relative);
    EXPECT_TRUE(Ffmpeg(kSine + "-c:a pcm_s16le -metadata title=" + title + " " + path));
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

// A reply of the wrong size gets the helper stopped; the late real reply is never taken for the next file's.
TEST_F(ProbeHelper, NonsenseReplyStopsTheHelperAndTheNextFileGetsItsOwnReply) {
  REQUIRE_FFMPEG();
  std::string nonsense = dir_.File("music/nonsense.ogg"), next = TaggedWav("music/next.wav", "Next");
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
  std::string song = TaggedWav("music/song.wav", "Song");
  Probe(song, 0);
  const pid_t first = ProbeHelperPid();
  ASSERT_GT(first, 0) << "the song must go to the helper";  // kill(0) would end the test's own group
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
  std::string song = TaggedWav("music/fields.wav", "Fields");
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

// The AAC request of the MP4 video path: the decoder's answer for a real first frame; a unit that
// cannot be read is a plain "no" that keeps the helper; a crash costs that one answer and the next
// request gets a new helper.
TEST_F(ProbeHelper, AacRequestAnswersOrFailsAloneAndACrashCostsOnlyThatAnswer) {
  REQUIRE_FFMPEG();
  std::string mp4 = dir_.File("video/mono.mp4"), crash = dir_.File("video/crash.mp4");
  ASSERT_TRUE(Ffmpeg(kSine + "-c:a aac -ac 1 " + mp4));
  std::ofstream(crash) << "ORVO-TEST-CRASH";
  Mp4Movie movie;
  std::string bytes = ReadBytes(mp4);
  ASSERT_EQ(ReadMp4MovieMemory(bytes.data(), bytes.size(), &movie), Mp4Result::kOk);
  const Mp4MovieTrack& sound = movie.tracks[0];
  AacUnit unit;
  memset(&unit, 0, sizeof unit);
  unit.offset = static_cast<int64_t>(sound.first_offset);
  unit.size = sound.first_size;
  unit.config_size = static_cast<uint32_t>(sound.config.size());
  memcpy(unit.config, sound.config.data(), sound.config.size());
  auto ask = [&unit](const std::string& path, int32_t* rate, int32_t* channels) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    bool answered = DecodeAacInHelper(fd, path.c_str(), unit, rate, channels);
    close(fd);
    return answered;
  };
  orvo::test::LogCapture log;
  int32_t rate = 0, channels = 0;
  ASSERT_TRUE(ask(mp4, &rate, &channels));
  EXPECT_EQ(rate, 22050);
  EXPECT_EQ(channels, 1);
  const pid_t helper = ProbeHelperPid();

  unit.offset = static_cast<int64_t>(bytes.size()) - 2;  // runs past the end
  EXPECT_FALSE(ask(mp4, &rate, &channels));
  EXPECT_EQ(ProbeHelperPid(), helper);
  EXPECT_TRUE(log.messages().empty()) << log.messages().front();

  unit.offset = static_cast<int64_t>(sound.first_offset);
  EXPECT_FALSE(ask(crash, &rate, &channels));
  EXPECT_TRUE(log.Contains("The probe helper ended (signal 4) while reading [" + crash + "]."));
  EXPECT_EQ(ProbeHelperPid(), 0);
  rate = channels = 0;
  ASSERT_TRUE(ask(mp4, &rate, &channels));
  EXPECT_EQ(rate, 22050);
  EXPECT_NE(ProbeHelperPid(), helper);
}

}  // namespace
