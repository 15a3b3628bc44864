#include "index/run_progress.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/failure_record.h"
#include "platform/log.h"
#include "platform/run_status.h"

namespace {

constexpr int64_t kPublishIntervalNs = 1000000000;
constexpr size_t kPathSize = 4096;

// Logged by handlers without the file having failed (see the header), as
// the text after the "module (line) " prefix begins.
constexpr std::string_view kNotices[] = {"Impossible error.", "File exists. Skip remove it from database.",
                                         "Can't get Flac comment tags: "};
// A handler's word that its reader gave up: after a notice (a FLAC file
// without comments), nothing more than the notice.
constexpr std::string_view kReaderGaveUp = "Failed to parse music metadata";

// Everything the progress keeps: plain counters, bumped in place.
struct Progress {
  bool on = false;
  bool inBatch = false;
  std::string statusPath;
  FailureRecord failures;
  RunStatus published;

  // The batch.
  int64_t startedWall = 0;
  int64_t startedNs = 0;
  int64_t nextPublishNs = 0;
  uint64_t linesTotal = 0;
  uint64_t walkLinesTotal = 0;
  uint64_t linesStarted = 0;
  uint64_t walkLinesStarted = 0;
  bool lineIsWalk = false;
  uint64_t linesAtWalkEnd = 0;  // lines finished when the last walk ended
  int64_t walkEndNs = 0;
  uint64_t filesIndexed = 0;
  uint64_t filesRemoved = 0;
  uint64_t failureCount = 0;

  // The file being handled, the last one counted and the last one failed.
  const char* current = nullptr;
  bool noticeSeen = false;
  bool reasonSeen = false;
  std::string reason;
  FileWorkKind lastKind = FileWorkKind::kIndex;
  char lastPath[kPathSize] = {};
  char lastFailed[kPathSize] = {};
};

Progress gProgress;

int64_t CoarseNowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void CopyPath(char (&to)[kPathSize], const char* path) {
  const size_t n = strnlen(path, kPathSize - 1);
  memcpy(to, path, n);
  to[n] = '\0';
}

bool IsWalkLine(char letter, char colon) {
  return colon == ':' && (letter == 'A' || letter == 'R' || letter == 'U' || letter == 'N');
}

// The message without its "module (line) " prefix.
std::string_view MessageText(std::string_view message) {
  const size_t end = message.find(") ");
  return end == std::string_view::npos ? message : message.substr(end + 2);
}

bool IsNotice(std::string_view text) {
  return std::any_of(std::begin(kNotices), std::end(kNotices),
                     [&](std::string_view notice) { return text.starts_with(notice); });
}

void Publish(int64_t nowNs) {
  Progress& p = gProgress;
  p.nextPublishNs = nowNs + kPublishIntervalNs;
  RunStatus& s = p.published;
  s.running = p.inBatch;
  s.updated = time(nullptr);
  if (p.inBatch) {
    RunFigures& run = s.run;
    run.started = p.startedWall;
    run.seconds = static_cast<double>(nowNs - p.startedNs) / 1e9;
    // The line under way is not done yet.
    run.linesDone = p.linesStarted > 0 ? p.linesStarted - 1 : 0;
    run.linesTotal = std::max(p.linesTotal, p.linesStarted);
    run.filesIndexed = p.filesIndexed;
    run.filesRemoved = p.filesRemoved;
    run.failures = p.failureCount;
    s.filesPerSecond = run.seconds > 0 ? static_cast<double>(p.filesIndexed + p.filesRemoved) / run.seconds : 0;
    const uint64_t walksStarted = std::min(p.walkLinesStarted, p.walkLinesTotal);
    s.secondsLeft = EstimateSecondsLeft({run.linesDone, run.linesTotal,
                                         p.walkLinesTotal - walksStarted + (p.lineIsWalk ? 1 : 0),
                                         run.linesDone - std::min(run.linesDone, p.linesAtWalkEnd),
                                         static_cast<double>(nowNs - p.walkEndNs) / 1e9});
    s.path = p.lastPath;
  }
  WriteRunStatus(p.statusPath.c_str(), s);
}

void PublishIfDue() {
  const int64_t now = CoarseNowNs();
  if (now >= gProgress.nextPublishNs) Publish(now);
}

void RecordFailure(const char* path, const char* reason) {
  Progress& p = gProgress;
  if (strncmp(path, p.lastFailed, kPathSize - 1) == 0) return;
  CopyPath(p.lastFailed, path);
  if (p.inBatch) ++p.failureCount;
  AppendFailure(&p.failures, {static_cast<int64_t>(time(nullptr)), path, reason});
}

void WatchLog(const char* message, const orvo::LogAbout& about, void*) {
  Progress& p = gProgress;
  if (about.named) {
    if (about.path != nullptr && about.path[0] == '/') RecordFailure(about.path, message);
    return;
  }
  if (p.current == nullptr || p.reasonSeen) return;
  const std::string_view text = MessageText(message);
  if (IsNotice(text)) {
    p.noticeSeen = true;
    return;
  }
  if (p.noticeSeen && text.starts_with(kReaderGaveUp)) return;
  p.reasonSeen = true;
  p.reason = message;
}

// Lines and folder-walk lines of the batch; a last line without its
// newline counts too.
void CountBatchLines(int fd, uint64_t* lines, uint64_t* walks) {
  char buffer[65536];
  off_t at = 0;
  size_t column = 0;
  char letter = 0;
  *lines = *walks = 0;
  for (;;) {
    const ssize_t n = pread(fd, buffer, sizeof buffer, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t i = 0; i < n; ++i) {
      const char c = buffer[i];
      if (column == 0) letter = c;
      if (column == 1 && IsWalkLine(letter, c)) ++*walks;
      if (c == '\n') {
        ++*lines;
        column = 0;
      } else if (column < 2) {
        ++column;
      }
    }
    at += n;
  }
  if (column != 0) ++*lines;
}

}  // namespace

double EstimateSecondsLeft(const LinePace& pace) {
  if (pace.walkLinesLeft > 0 || pace.linesSinceWalk == 0 || pace.secondsSinceWalk < 1.0) return -1;
  const uint64_t left = pace.linesTotal - std::min(pace.linesDone, pace.linesTotal);
  return static_cast<double>(left) * pace.secondsSinceWalk / static_cast<double>(pace.linesSinceWalk);
}

void StartRunProgress(const char* statusPath, const char* failurePath) {
  Progress& p = gProgress;
  p.statusPath = statusPath;
  p.published = RunStatus{};
  RunStatus before;
  if (ReadRunStatus(statusPath, &before) && before.hasLastRun) {
    p.published.hasLastRun = true;
    p.published.lastRun = before.lastRun;
  }
  p.published.pid = static_cast<int>(getpid());
  OpenFailureRecord(&p.failures, failurePath);
  orvo::SetLogWatch(WatchLog, nullptr);
  p.on = true;
  Publish(CoarseNowNs());
}

void BeginBatchProgress(int batchFd) {
  Progress& p = gProgress;
  if (!p.on) return;
  p.inBatch = true;
  p.startedWall = time(nullptr);
  p.startedNs = p.walkEndNs = CoarseNowNs();
  CountBatchLines(batchFd, &p.linesTotal, &p.walkLinesTotal);
  p.linesStarted = p.walkLinesStarted = p.linesAtWalkEnd = 0;
  p.lineIsWalk = false;
  p.filesIndexed = p.filesRemoved = p.failureCount = 0;
  p.lastPath[0] = p.lastFailed[0] = '\0';
  Publish(p.startedNs);
}

void NoteQueueLine(const char* line) {
  Progress& p = gProgress;
  if (!p.inBatch) return;
  const int64_t now = CoarseNowNs();
  if (p.lineIsWalk) {
    p.linesAtWalkEnd = p.linesStarted;
    p.walkEndNs = now;
  }
  ++p.linesStarted;
  // A file's media and photo rows are one file; the same path on two lines is two.
  p.lastPath[0] = p.lastFailed[0] = '\0';
  p.lineIsWalk = line[0] != '\0' && IsWalkLine(line[0], line[1]);
  if (p.lineIsWalk) ++p.walkLinesStarted;
  if (now >= p.nextPublishNs) Publish(now);
}

void EndBatchProgress() {
  Progress& p = gProgress;
  if (!p.inBatch) return;
  const int64_t now = CoarseNowNs();
  p.inBatch = false;
  SyncFailureRecord(&p.failures);
  RunFigures& last = p.published.lastRun;
  last.started = p.startedWall;
  last.finished = time(nullptr);
  last.seconds = static_cast<double>(now - p.startedNs) / 1e9;
  last.linesDone = last.linesTotal = p.linesStarted;
  last.filesIndexed = p.filesIndexed;
  last.filesRemoved = p.filesRemoved;
  last.failures = p.failureCount;
  p.published.hasLastRun = true;
  p.published.path.clear();
  Publish(now);
}

FileWork::FileWork(const char* path, FileWorkKind kind) : path_(nullptr) {
  Progress& p = gProgress;
  if (!p.on || p.current != nullptr) return;
  path_ = path;
  p.current = path;
  p.noticeSeen = p.reasonSeen = false;
  if (kind != p.lastKind || strncmp(path, p.lastPath, kPathSize - 1) != 0) {
    (kind == FileWorkKind::kIndex ? p.filesIndexed : p.filesRemoved) += 1;
    p.lastKind = kind;
    CopyPath(p.lastPath, path);
  }
  if (p.inBatch) PublishIfDue();
}

FileWork::~FileWork() {
  if (path_ == nullptr) return;
  Progress& p = gProgress;
  p.current = nullptr;
  if (p.reasonSeen) RecordFailure(path_, p.reason.c_str());
}
