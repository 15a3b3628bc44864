#include "tools/status_report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "platform/record_text.h"
#include "platform/text_encoding.h"

namespace {

constexpr int kBarWidth = 30;

std::string Format(const char* format, auto... args) {
  char text[256];
  snprintf(text, sizeof text, format, args...);
  return text;
}

std::string LocalTime(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm local = {};
  char text[32] = "?";
  if (localtime_r(&t, &local) != nullptr) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string Duration(double seconds) {
  if (seconds < 60) return Format("%.1f s", seconds);
  const auto whole = static_cast<long long>(seconds + 0.5);
  if (whole < 3600) return Format("%lld min %02lld s", whole / 60, whole % 60);
  return Format("%lld h %02lld min", whole / 3600, whole % 3600 / 60);
}

// A path for a terminal or a log: control bytes escaped, never a line break.
std::string Printable(std::string_view path) {
  std::string out;
  orvo::AppendEscapedField(out, path);
  return out;
}

std::string FileCounts(const RunFigures& run) {
  return Format("%" PRIu64 " files indexed, %" PRIu64 " removed, %" PRIu64 " failed", run.filesIndexed,
                run.filesRemoved, run.failures);
}

std::string TimeLeft(const RunStatus& status) {
  return status.secondsLeft < 0 ? "time left unknown" : "about " + Duration(status.secondsLeft) + " left";
}

std::string RunLine(const StatusSnapshot& snapshot) {
  const RunFigures& run = snapshot.status.run;
  std::string line = StateOf(snapshot) == RunState::kInterrupted ? "run: cut short at " : "run: ";
  line += Format("%" PRIu64 " of %" PRIu64 " queue lines, ", run.linesDone, run.linesTotal) + FileCounts(run);
  if (StateOf(snapshot) == RunState::kInterrupted) line += " (the batch runs again at the next start)";
  return line + "\n";
}

std::string LastRunLine(const RunStatus& status) {
  if (!status.hasLastRun) return "last run: none\n";
  const RunFigures& last = status.lastRun;
  return "last run: " + LocalTime(last.started) + ", " + Duration(last.seconds) + ", " +
         Format("%" PRIu64 " queue lines, ", last.linesDone) + FileCounts(last) + "\n";
}

void AddJsonNumber(std::string& out, const char* key, uint64_t value) {
  out += Format("\"%s\":%" PRIu64, key, value);
}

void AddJsonFigures(std::string& out, const RunFigures& run, bool finished) {
  out += Format("{\"started\":%" PRId64 ",", run.started);
  if (finished) {
    out += Format("\"finished\":%" PRId64 ",\"seconds\":%.1f,", run.finished, run.seconds);
    AddJsonNumber(out, "lines", run.linesDone);
  } else {
    out += Format("\"elapsed\":%.1f,", run.seconds);
    AddJsonNumber(out, "lines_done", run.linesDone);
    out += ",";
    AddJsonNumber(out, "lines_total", run.linesTotal);
  }
  out += ",";
  AddJsonNumber(out, "files_indexed", run.filesIndexed);
  out += ",";
  AddJsonNumber(out, "files_removed", run.filesRemoved);
  out += ",";
  AddJsonNumber(out, "failures", run.failures);
}

const char* StateName(RunState state) {
  switch (state) {
    case RunState::kRunning: return "running";
    case RunState::kIdle: return "idle";
    case RunState::kInterrupted: return "interrupted";
    case RunState::kStopped: return "stopped";
    case RunState::kUnknown: break;
  }
  return "unknown";
}

// The length of the UTF-8 sequence that `lead` begins, or 1 for a byte
// that begins none.
size_t SequenceLength(unsigned char lead) {
  if (lead >= 0xF0) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

// Where `text` may be cut to at most `width` bytes: never inside a character.
size_t CutAt(std::string_view text, size_t width) {
  size_t cut = std::min(width, text.size());
  while (cut > 0 && cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return cut;
}

// A report line within `columns` bytes. The file line keeps its end (the
// file's name), the others their start.
std::string FitLine(std::string_view line, int columns) {
  const size_t width = static_cast<size_t>(std::max(columns, 16));
  if (line.size() <= width) return std::string(line);
  constexpr std::string_view kFile = "file: ...";
  if (!line.starts_with("file: ")) return std::string(line.substr(0, CutAt(line, width)));
  size_t from = line.size() - (width - kFile.size());
  while (from < line.size() && (static_cast<unsigned char>(line[from]) & 0xC0) == 0x80) ++from;
  std::string fitted(kFile);
  fitted.append(line.substr(from));
  return fitted;
}

}  // namespace

RunState StateOf(const StatusSnapshot& snapshot) {
  const bool daemonRuns = snapshot.daemonPid > 0;
  if (!snapshot.hasStatus) return daemonRuns ? RunState::kUnknown : RunState::kStopped;
  if (!daemonRuns) return snapshot.status.running ? RunState::kInterrupted : RunState::kStopped;
  // A status left by an earlier daemon says nothing about this one's run.
  if (snapshot.status.pid != snapshot.daemonPid) return RunState::kUnknown;
  return snapshot.status.running ? RunState::kRunning : RunState::kIdle;
}

std::string StatusText(const StatusSnapshot& snapshot) {
  std::string out;
  out += snapshot.daemonPid > 0 ? Format("daemon: running (pid %d)\n", snapshot.daemonPid) : "daemon: not running\n";
  out += snapshot.queueWaiting ? "queue: waiting\n" : "queue: empty\n";
  out += snapshot.batchPresent ? "batch: running\n" : "batch: none\n";
  const RunState state = StateOf(snapshot);
  const RunStatus& status = snapshot.status;
  if (state == RunState::kRunning || state == RunState::kInterrupted) {
    out += RunLine(snapshot);
    if (state == RunState::kRunning) {
      if (!status.path.empty()) out += "file: " + Printable(status.path) + "\n";
      out += "speed: " + Format("%.1f files/s, ", status.filesPerSecond) + Duration(status.run.seconds) +
             " elapsed, " + TimeLeft(status) + "\n";
    }
  }
  if (snapshot.hasStatus) out += LastRunLine(status);
  return out;
}

std::string StatusJson(const StatusSnapshot& snapshot) {
  const RunState state = StateOf(snapshot);
  const RunStatus& status = snapshot.status;
  std::string out = "{\"daemon\":{\"running\":";
  out += snapshot.daemonPid > 0 ? Format("true,\"pid\":%d}", snapshot.daemonPid) : "false,\"pid\":null}";
  out += Format(",\"queue\":\"%s\",\"batch\":\"%s\",\"state\":\"%s\",\"run\":",
                snapshot.queueWaiting ? "waiting" : "empty", snapshot.batchPresent ? "running" : "none",
                StateName(state));
  if (state == RunState::kRunning || state == RunState::kInterrupted) {
    AddJsonFigures(out, status.run, false);
    out += Format(",\"updated\":%" PRId64 ",\"files_per_second\":%.1f,\"seconds_left\":", status.updated,
                  status.filesPerSecond);
    out += status.secondsLeft < 0 ? "null" : Format("%.1f", status.secondsLeft);
    out += ",\"path\":" + JsonString(status.path) + "}";
  } else {
    out += "null";
  }
  out += ",\"last_run\":";
  if (snapshot.hasStatus && status.hasLastRun) {
    AddJsonFigures(out, status.lastRun, true);
    out += "}";
  } else {
    out += "null";
  }
  return out + "}";
}

std::string ProgressLine(const StatusSnapshot& snapshot) {
  const RunStatus& status = snapshot.status;
  const RunFigures& run = status.run;
  return LocalTime(status.updated) + " " +
         Format("%" PRIu64 "/%" PRIu64 " lines, ", run.linesDone, run.linesTotal) + FileCounts(run) +
         Format(", %.1f files/s, ", status.filesPerSecond) + Duration(run.seconds) + " elapsed, " +
         TimeLeft(status) + "\n";
}

std::string ProgressFrame(const StatusSnapshot& snapshot, int columns) {
  std::string out;
  if (StateOf(snapshot) == RunState::kRunning) {
    const RunFigures& run = snapshot.status.run;
    const double part = run.linesTotal > 0 ? static_cast<double>(run.linesDone) / run.linesTotal : 0;
    const int filled = std::clamp(static_cast<int>(part * kBarWidth), 0, kBarWidth);
    out += '[';
    out.append(filled, '#').append(kBarWidth - filled, '-').append("] ");
    out += Format("%3d%%  %" PRIu64 " of %" PRIu64 " queue lines\n", static_cast<int>(part * 100), run.linesDone,
                  run.linesTotal);
  }
  // Every line within the width, so that the next frame knows how many
  // lines to go back over.
  const std::string text = out + StatusText(snapshot);
  std::string frame;
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\n', start);
    frame += FitLine(std::string_view(text).substr(start, end - start), columns) + "\n";
    start = end + 1;
  }
  return frame;
}

std::string FailuresText(const std::vector<FailureEntry>& failures) {
  if (failures.empty()) return "no failures recorded\n";
  std::string out;
  for (const FailureEntry& entry : failures) {
    out += LocalTime(entry.time) + "  " + Printable(entry.path) + "\n";
    out += "    " + Printable(entry.reason) + "\n";
  }
  return out;
}

std::string FailuresJson(const std::vector<FailureEntry>& failures) {
  std::string out = "{\"failures\":[";
  for (size_t i = 0; i < failures.size(); ++i) {
    if (i > 0) out += ",";
    out += Format("{\"time\":%" PRId64 ",\"path\":", failures[i].time) + JsonString(failures[i].path) +
           ",\"reason\":" + JsonString(failures[i].reason) + "}";
  }
  return out + "]}";
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x80) {
      const size_t n = SequenceLength(byte);
      if (n > 1 && i + n <= text.size() && orvo::IsValidUtf8(text.substr(i, n))) {
        out.append(text.substr(i, n));
        i += n;
      } else {
        out += Format("\\u%04x", byte);
        ++i;
      }
      continue;
    }
    switch (byte) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (byte < 0x20) out += Format("\\u%04x", byte);
        else out += static_cast<char>(byte);
    }
    ++i;
  }
  return out + "\"";
}
