// `orvoindex status` and `orvoindex failures` through the real daemon: the run's progress
// while it goes, its summary afterwards, and the files that could not be indexed.
#include <signal.h>
#include <sys/wait.h>

#include <map>

#include "mp3_test_bytes.h"
#include "platform/failure_record.h"
#include "platform/run_status.h"
#include "support/json_reader.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;

const std::string kClient = std::string(ORVO_BINARY_DIR) + "/orvoindex";
const std::string kMusic = "/volume1/music";

int ExitCode(const CommandResult& r) { return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1; }

// Three MPEG frames: a file the MP3 handler saves without a word in the log.
void WriteMp3(const std::string& path) { std::ofstream(path, std::ios::binary) << mp3test::Cbr128(3); }
void WriteJunk(const std::string& path) { std::ofstream(path, std::ios::binary) << "no audio in here\n"; }

nlohmann::json ClientJson(const std::vector<std::string>& args) {
  CommandResult r = RunCommand(args);
  nlohmann::json json = ParseJson(r.output);
  EXPECT_FALSE(json.is_discarded()) << r.output;
  return json;
}

// The status the daemon publishes, straight from its file.
std::optional<RunStatus> Published() {
  RunStatus status;
  return ReadRunStatus(kRunStatusPath, &status) ? std::optional(status) : std::nullopt;
}

using RunStatusReport = DaemonSandboxTest;

// A walk (A:), then lines that are one file each, then bad lines to make the run last: every
// snapshot keeps done within the total and counts that only grow, no time left while the walk
// goes, and the client's JSON agrees with the file; the summary's files match the rows.
TEST_F(RunStatusReport, MidRunFiguresStayConsistentAndTheSummaryMatchesTheRows) {
  // A hundredfold clock publishes every 10 ms of real time: a short run shows many updates.
  ASSERT_GT(pid_ = StartOnQueue({}, {"FAKETIME=+0 x100"}), 0);
  const int kTreeFiles = 3000, kDamaged = 3, kFileLines = 1000, kSlowLines = 20000;
  const std::string tree = kMusic + "/tree";
  fs::create_directories(tree);
  for (int i = 0; i < kTreeFiles; ++i) WriteMp3(tree + "/t" + std::to_string(i) + ".mp3");
  for (int i = 0; i < kDamaged; ++i) WriteJunk(tree + "/bad" + std::to_string(i) + ".mp3");
  {
    std::ofstream queue(kQueueFile);
    queue << "A:" << tree << "\n";
    for (int i = 0; i < kFileLines; ++i) queue << "a:" << tree << "/t" << i << ".mp3\n";
    for (int i = 0; i < kSlowLines; ++i) queue << "x:slow " << i << "\n";
  }
  const uint64_t totalLines = 1 + kFileLines + kSlowLines;
  const uint64_t totalFiles = kTreeFiles + kDamaged + kFileLines;
  ASSERT_TRUE(SignalDaemon());

  RunFigures previous;
  int running = 0, duringWalk = 0, withTimeLeft = 0;
  bool checkedClient = false;
  while (SandboxHupCount() < 2) {
    std::optional<RunStatus> status = Published();
    if (!status || !status->running) continue;
    const RunFigures& run = status->run;
    ++running;
    EXPECT_EQ(status->pid, pid_);
    EXPECT_EQ(run.linesTotal, totalLines);
    EXPECT_LE(run.linesDone, run.linesTotal);
    EXPECT_LE(run.filesIndexed, totalFiles);
    EXPECT_LE(run.failures, static_cast<uint64_t>(kDamaged));
    EXPECT_EQ(run.filesRemoved, 0u);
    EXPECT_GE(run.linesDone, previous.linesDone);
    EXPECT_GE(run.filesIndexed, previous.filesIndexed);
    EXPECT_GE(run.seconds, previous.seconds);
    previous = run;
    if (run.linesDone == 0) {
      ++duringWalk;
      EXPECT_LT(status->secondsLeft, 0) << "a time left while the walk goes";
    }
    if (status->secondsLeft >= 0) ++withTimeLeft;
    if (!checkedClient && run.linesDone > 0 && run.filesIndexed > 0) {
      // Held still, the daemon's file and the client must tell the same (how each field is
      // formatted is status_report_test's).
      ASSERT_EQ(kill(pid_, SIGSTOP), 0);
      status = Published();
      nlohmann::json json = ClientJson({kClient, "status", "--json"});
      ASSERT_EQ(kill(pid_, SIGCONT), 0);
      ASSERT_TRUE(status && status->running);
      EXPECT_EQ(json["state"], "running");
      EXPECT_EQ(json["batch"], "running");
      EXPECT_EQ(json["run"]["lines_done"], status->run.linesDone);
      checkedClient = true;
    }
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_TRUE(checkedClient) << running << " snapshots of the run, none past its first line";
  EXPECT_GT(withTimeLeft, 0) << "no time left while " << kSlowLines << " plain lines ran";
  EXPECT_GT(duringWalk, 0) << "the run was never seen in its walk";

  nlohmann::json json = ClientJson({kClient, "status", "--json"});
  EXPECT_EQ(json["state"], "idle");
  EXPECT_TRUE(json["run"].is_null());
  nlohmann::json& last = json["last_run"];
  EXPECT_EQ(last["lines"], totalLines);
  EXPECT_EQ(last["files_indexed"], totalFiles);
  EXPECT_EQ(last["failures"], kDamaged);
  EXPECT_GE(last["finished"], last["started"]);
  // Every handler call but the damaged files' made a row; the a: lines saved theirs again.
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select path from music").size(), static_cast<size_t>(kTreeFiles));
}

// Off a terminal, --watch waits through the debounce, adds a line per update and ends with
// the report once no work is left; with --json every line is one object.
TEST_F(RunStatusReport, WatchFollowsTheRunToItsEnd) {
  StartIdle();
  for (const bool json : {false, true}) {
    {
      std::ofstream queue(kQueueFile);
      for (int i = 0; i < 5000; ++i) queue << "x:watched " << i << "\n";
    }
    ASSERT_TRUE(SignalDaemon());
    std::vector<std::string> args = {kClient, "status", "--watch"};
    if (json) args.push_back("--json");
    CommandResult watch = RunCommand(args);
    EXPECT_EQ(ExitCode(watch), 0) << watch.output;
    EXPECT_FALSE(fs::exists(kBatchFile));
    std::vector<std::string> lines;
    std::istringstream in(watch.output);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_FALSE(lines.empty());
    if (json) {
      for (const std::string& line : lines) EXPECT_FALSE(ParseJson(line).is_discarded()) << line;
      nlohmann::json end = ParseJson(lines.back());
      EXPECT_EQ(end["state"], "idle");
      EXPECT_EQ(end["last_run"]["lines"], 5000);
    } else {
      EXPECT_EQ(lines.back().find("last run: "), 0u) << watch.output;
      EXPECT_NE(lines.back().find(", 5000 queue lines, 0 files indexed"), std::string::npos) << watch.output;
      // The progress lines come before the report.
      for (const std::string& line : lines) {
        if (line.starts_with("daemon: ")) break;
        EXPECT_NE(line.find("/5000 lines, "), std::string::npos) << line;
      }
    }
  }
}

// SIGTERM mid-run ends the daemon cleanly, leaves the batch for the next start and "running" behind:
// the client must say the run was cut short, not that it goes on. A restart runs the whole batch, and
// its summary outlives the next restart.
TEST_F(RunStatusReport, StoppedDaemonsRunIsCutShortAndTheLastRunOutlivesARestart) {
  StartIdle();
  StartLongRun("line");
  while (!Published() || !Published()->running) std::this_thread::sleep_for(1ms);
  const int stoppedStatus = StopDaemon(pid_);
  pid_ = -1;
  ASSERT_TRUE(WIFEXITED(stoppedStatus) && WEXITSTATUS(stoppedStatus) == 0) << stoppedStatus;
  EXPECT_EQ(SandboxHupCount(), 1) << "a cut-short run told the music server";
  ASSERT_TRUE(fs::exists(kBatchFile));
  CommandResult stopped = RunCommand({kClient, "status"});
  EXPECT_EQ(ExitCode(stopped), 3);
  EXPECT_NE(stopped.output.find("daemon: not running\n"), std::string::npos) << stopped.output;
  EXPECT_NE(stopped.output.find("run: cut short at "), std::string::npos) << stopped.output;
  EXPECT_EQ(ClientJson({kClient, "status", "--json"})["state"], "interrupted");

  ASSERT_GT(pid_ = StartDaemon(kFastClock), 0);
  ASSERT_TRUE(WaitForHups(2));
  ASSERT_GE(StopDaemon(pid_), 0);
  ASSERT_GT(pid_ = StartDaemon(kFastClock), 0);  // nothing queued: no run at start
  nlohmann::json json = ClientJson({kClient, "status", "--json"});
  EXPECT_EQ(json["state"], "idle");
  EXPECT_EQ(json["daemon"]["pid"], pid_);
  EXPECT_EQ(json["last_run"]["lines"], 20000);
  EXPECT_NE(RunCommand({kClient, "status"}).output.find("running (pid " + std::to_string(pid_) + ")"), std::string::npos);
}

class FailureList : public DaemonSandboxTest {
 protected:
  void Run(const std::vector<std::string>& lines) { ASSERT_TRUE(RunLines(lines)); }
  static std::vector<FailureEntry> Listed() {
    std::vector<FailureEntry> entries;
    nlohmann::json json = ClientJson({kClient, "failures", "--json"});
    for (const nlohmann::json& item : json["failures"])
      entries.push_back({item["time"], item["path"], item["reason"]});
    return entries;
  }
  static size_t RecordLines() {
    std::string text = ReadFile(kFailureRecordPath);
    return std::count(text.begin(), text.end(), '\n');
  }
};

// Damaged files of four handlers are listed once each with the first message logged for them,
// across two runs with a restart between (the record outlives it); files whose handling logs a
// notice but saves the row are not.
TEST_F(FailureList, EachDamagedFileOnceWithTheMessageLoggedForItAndNoOrdinaryFile) {
  StartIdle();
  const std::string folder = kMusic + "/mixed";
  const std::string longFolder = folder + "/" + std::string(254, 'L');  // cut from the album field
  fs::create_directories(longFolder);
  WriteMp3(folder + "/ok.mp3");
  WriteMp3(longFolder + "/ok.mp3");
  for (const char* name : {"bad.mp3", "bad.wav", "bad.flac"}) WriteJunk(folder + "/" + name);
  std::ofstream(folder + "/empty.mp3").flush();
  // Each with the first of the messages its handling logs.
  const std::map<std::string, std::string> damaged = {
      {folder + "/bad.mp3", "metaid3.cpp MPEG Header not found"},
      {folder + "/empty.mp3", "metaid3.cpp Can't find valid mpeg header: " + folder + "/empty.mp3"},
      {folder + "/bad.wav", "metamedia.cpp Failed to av_open_input_file() file [" + folder + "/bad.wav]."},
      {folder + "/bad.flac", "flac.cpp Can't get Flac stream info: " + folder + "/bad.flac."}};
  // "d:" of a file that is still there is skipped with a notice, not a failure.
  std::vector<std::string> batch = {"A:" + folder, "d:" + folder + "/ok.mp3"};
  // A FLAC file without comments is saved with its stream figures, after a notice (read in place).
  const std::string noComments = std::string(ORVO_CORPUS_DIR) + "/flac/no-tags.flac";
  const bool haveCorpus = fs::exists(noComments);
  if (haveCorpus) batch.push_back("a:" + noComments);
  Run(batch);
  ASSERT_GE(SandboxLogCount("Impossible error."), 1);
  ASSERT_GE(SandboxLogCount("File exists. Skip remove it from database."), 1);
  if (haveCorpus) {
    ASSERT_GE(SandboxLogCount("Can't get Flac comment tags: " + noComments), 1);
  }
  ASSERT_GE(StopDaemon(pid_), 0);
  ASSERT_GT(pid_ = StartDaemon(kFastClock), 0);
  Run(batch);

  std::vector<FailureEntry> listed = Listed();
  std::map<std::string, std::string> reasons, withoutLines;
  for (const FailureEntry& entry : listed) {
    EXPECT_TRUE(reasons.emplace(entry.path, entry.reason).second) << entry.path << " listed twice";
    EXPECT_GE(SandboxLogCount(entry.reason), 2) << entry.reason;  // logged in each run
    // Compared without the source line, which moves whenever the module is edited.
    std::string reason = entry.reason;
    size_t open = reason.find(" ("), close = reason.find(") ");
    if (open != std::string::npos && close != std::string::npos && open < close) reason.erase(open, close - open + 1);
    withoutLines[entry.path] = reason;
  }
  EXPECT_EQ(withoutLines, damaged);
  EXPECT_EQ(RecordLines(), 2 * damaged.size());
  EXPECT_EQ(ClientJson({kClient, "status", "--json"})["last_run"]["failures"], damaged.size());

  CommandResult text = RunCommand({kClient, "failures"});
  EXPECT_EQ(ExitCode(text), 0);
  for (const FailureEntry& entry : listed) {
    EXPECT_NE(text.output.find("  " + entry.path + "\n    " + entry.reason + "\n"), std::string::npos) << text.output;
  }
}

}  // namespace
