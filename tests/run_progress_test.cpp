// Run progress without a daemon: which messages make a file a failure, how files and lines are
// counted, and when a time left is given.
#include <fcntl.h>
#include <unistd.h>

#include "formats_testutil.h"
#include "index/run_progress.h"
#include "platform/failure_record.h"
#include "platform/log.h"
#include "platform/run_status.h"

namespace {

using formats_test::TempDir;
using formats_test::WriteBytes;

class RunProgress : public ::testing::Test {
 protected:
  void SetUp() override { StartRunProgress(status_.c_str(), failures_.c_str()); }
  // Starts a batch whose file holds `lines`.
  void Begin(const std::string& lines) {
    WriteBytes(batchFile_, lines);
    const int fd = open(batchFile_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    BeginBatchProgress(fd);
    close(fd);
  }
  RunStatus Status() {
    RunStatus status;
    EXPECT_TRUE(ReadRunStatus(status_.c_str(), &status));
    return status;
  }

  TempDir dir_;
  orvo::test::LogCapture capture_;
  const std::string status_ = dir_.File("orvoindexd.status");
  const std::string failures_ = dir_.File("failures");
  const std::string batchFile_ = dir_.File("batch");
};

// Handles `path` as one file whose handling logs `messages`.
void Handle(const char* path, std::initializer_list<const char*> messages, FileWorkKind kind = FileWorkKind::kIndex) {
  FileWork work(path, kind);
  for (const char* message : messages) ORVO_LOG("%s (%d) %s", message);
}

TEST_F(RunProgress, FirstMessageWhileAFileIsHandledIsItsReasonAndOnlyThen) {
  Begin("A:/v\na:/v/x.mp3\nd:/v/gone.mp3\nx:no newline");
  RunStatus begun = Status();
  EXPECT_TRUE(begun.running);
  EXPECT_EQ(begun.run.linesTotal, 4u);
  EXPECT_EQ(begun.run.linesDone, 0u);

  NoteQueueLine("A:/v\n");
  Handle("/v/bad.mp3", {"first", "second"});
  Handle("/v/long/ok.mp3", {"Impossible error."});  // the album cut short, the row saved
  Handle("/v/no-comments.flac", {"Can't get Flac comment tags: /v/no-comments.flac.", "Failed to parse music metadata."});
  Handle("/v/unsaved.flac", {"Can't get Flac comment tags: /v/unsaved.flac.", "Failed to parse music metadata.",
                             "Failed to save /v/unsaved.flac into music (disk full)"});
  {
    FileWork work("/v/saved.mp3", FileWorkKind::kIndex);
    {
      orvo::LogSubject row("/v/earlier.mp3");  // a deferred write of another file failed
      ORVO_LOG("%s (%d) Failed to write /v/earlier.mp3");
    }
    orvo::LogSubject group(nullptr);
    ORVO_LOG("%s (%d) Failed to commit the media database");
  }
  {
    FileWork outer("/v/outer.mp3", FileWorkKind::kIndex);
    Handle("/v/inner.mp3", {"nested"});
  }
  ORVO_LOG("%s (%d) between files");
  NoteQueueLine("a:/v/x.mp3\n");
  Handle("/v/x.mp3", {"media row failed"});  // one file's two rows
  Handle("/v/x.mp3", {"photo row failed"});
  NoteQueueLine("d:/v/gone.mp3\n");
  Handle("/v/gone.mp3", {"File exists. Skip remove it from database."}, FileWorkKind::kRemove);
  NoteQueueLine("x:no newline");
  NoteQueueLine("a piece of a long line\n");
  EndBatchProgress();

  std::vector<FailureEntry> failed = ReadFailureRecord(failures_.c_str());
  std::vector<std::pair<std::string, std::string>> got;
  for (const auto& f : failed) got.emplace_back(f.path, f.reason);
  const std::string me = "run_progress_test.cpp (";
  ASSERT_EQ(got.size(), 5u);
  EXPECT_EQ(got[0].first, "/v/x.mp3");
  EXPECT_NE(got[0].second.find("media row failed"), std::string::npos);
  EXPECT_EQ(got[1].first, "/v/outer.mp3");
  EXPECT_EQ(got[2].first, "/v/earlier.mp3");
  EXPECT_EQ(got[3].first, "/v/unsaved.flac");
  EXPECT_NE(got[3].second.find(") Failed to save "), std::string::npos);
  EXPECT_EQ(got[4].first, "/v/bad.mp3");
  EXPECT_EQ(got[4].second.find(me), 0u);
  EXPECT_NE(got[4].second.find(") first"), std::string::npos);
  // One line per failed file: the second row of x.mp3 added none.
  const std::string record = formats_test::ReadBytes(failures_);
  EXPECT_EQ(std::count(record.begin(), record.end(), '\n'), 5);

  RunStatus done = Status();
  EXPECT_FALSE(done.running);
  ASSERT_TRUE(done.hasLastRun);
  EXPECT_EQ(done.lastRun.linesDone, 5u);  // a line read in two pieces counts twice
  EXPECT_EQ(done.lastRun.filesIndexed, 7u);  // bad, ok, two flac, saved, outer, x
  EXPECT_EQ(done.lastRun.filesRemoved, 1u);
  EXPECT_EQ(done.lastRun.failures, 5u);
}

// The same path on two lines is handled twice; media and photo rows of one line once.
TEST_F(RunProgress, SamePathCountsOncePerLine) {
  Begin("a:/v/x.mp3\na:/v/x.mp3\n");
  for (int line = 0; line < 2; ++line) {
    NoteQueueLine("a:/v/x.mp3\n");
    FileWork media("/v/x.mp3", FileWorkKind::kIndex);
  }
  {
    FileWork photo("/v/x.mp3", FileWorkKind::kIndex);
  }
  EndBatchProgress();
  EXPECT_EQ(Status().lastRun.filesIndexed, 2u);
}

TEST(TimeLeft, EstimatedOnlyOnceNoWalkIsLeftAndALineAndASecondHavePassed) {
  EXPECT_LT(EstimateSecondsLeft({10, 100, 1, 10, 5.0}), 0);  // a walk may hold any number of files
  EXPECT_LT(EstimateSecondsLeft({10, 100, 0, 0, 5.0}), 0);
  EXPECT_LT(EstimateSecondsLeft({10, 100, 0, 5, 0.5}), 0);
  EXPECT_DOUBLE_EQ(EstimateSecondsLeft({10, 100, 0, 5, 2.0}), 36.0);  // 90 lines at 2.5 lines/s
  EXPECT_DOUBLE_EQ(EstimateSecondsLeft({100, 100, 0, 5, 2.0}), 0.0);
}

}  // namespace
