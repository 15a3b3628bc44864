#include "platform/run_status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>

#include "platform/record_text.h"

namespace {

constexpr size_t kMaxStatusSize = 1 << 20;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

void AddNumber(std::string& out, std::string_view key, uint64_t value) {
  char text[24];
  *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
  out.append(key).append("=").append(text).append("\n");
}

void AddSigned(std::string& out, std::string_view key, int64_t value) {
  char text[24];
  *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
  out.append(key).append("=").append(text).append("\n");
}

void AddSeconds(std::string& out, std::string_view key, double value) {
  char text[48];
  *std::to_chars(text, text + sizeof text - 1, value, std::chars_format::fixed, 1).ptr = '\0';
  out.append(key).append("=").append(text).append("\n");
}

void AddFigures(std::string& out, std::string_view prefix, const RunFigures& run, bool finished) {
  const std::string p(prefix);
  AddSigned(out, p + "started", run.started);
  if (finished) {
    AddSigned(out, p + "finished", run.finished);
    AddSeconds(out, p + "seconds", run.seconds);
    AddNumber(out, p + "lines", run.linesDone);
  } else {
    AddSeconds(out, "elapsed", run.seconds);
    AddNumber(out, "lines_done", run.linesDone);
    AddNumber(out, "lines_total", run.linesTotal);
  }
  AddNumber(out, p + "files_indexed", run.filesIndexed);
  AddNumber(out, p + "files_removed", run.filesRemoved);
  AddNumber(out, p + "failures", run.failures);
}

template <typename Number>
void ParseNumber(std::string_view text, Number* out) {
  Number value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec == std::errc() && end == text.data() + text.size()) *out = value;
}

// The value of a key to its field; false for a key that is not known.
bool ParseFigure(std::string_view key, std::string_view value, RunFigures* run) {
  if (key == "started") ParseNumber(value, &run->started);
  else if (key == "finished") ParseNumber(value, &run->finished);
  else if (key == "elapsed" || key == "seconds") ParseNumber(value, &run->seconds);
  else if (key == "lines_done" || key == "lines") ParseNumber(value, &run->linesDone);
  else if (key == "lines_total") ParseNumber(value, &run->linesTotal);
  else if (key == "files_indexed") ParseNumber(value, &run->filesIndexed);
  else if (key == "files_removed") ParseNumber(value, &run->filesRemoved);
  else if (key == "failures") ParseNumber(value, &run->failures);
  else return false;
  return true;
}

}  // namespace

std::string FormatRunStatus(const RunStatus& status) {
  std::string out;
  out.reserve(512 + status.path.size());
  out.append("state=").append(status.running ? "running" : "idle").append("\n");
  AddSigned(out, "pid", status.pid);
  AddSigned(out, "updated", status.updated);
  if (status.running) {
    AddFigures(out, "", status.run, false);
    AddSeconds(out, "files_per_second", status.filesPerSecond);
    if (status.secondsLeft < 0) out.append("seconds_left=unknown\n");
    else AddSeconds(out, "seconds_left", status.secondsLeft);
    out.append("path=");
    orvo::AppendEscapedField(out, status.path);
    out.append("\n");
  }
  if (status.hasLastRun) AddFigures(out, "last_", status.lastRun, true);
  return out;
}

bool ParseRunStatus(std::string_view text, RunStatus* status) {
  *status = RunStatus{};
  bool hasState = false;
  // Bounded by the text: each turn consumes one line.
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = line.substr(equals + 1);
    if (key == "state") {
      hasState = value == "running" || value == "idle";
      status->running = value == "running";
    } else if (key == "pid") {
      ParseNumber(value, &status->pid);
    } else if (key == "updated") {
      ParseNumber(value, &status->updated);
    } else if (key == "files_per_second") {
      ParseNumber(value, &status->filesPerSecond);
    } else if (key == "seconds_left") {
      status->secondsLeft = -1;
      ParseNumber(value, &status->secondsLeft);
    } else if (key == "path") {
      if (!orvo::UnescapeField(value, &status->path)) status->path.clear();
    } else if (key.starts_with("last_")) {
      if (ParseFigure(key.substr(5), value, &status->lastRun)) status->hasLastRun = true;
    } else {
      ParseFigure(key, value, &status->run);
    }
  }
  return hasState;
}

int WriteRunStatus(const char* path, const RunStatus& status) {
  const std::string text = FormatRunStatus(status);
  const std::string temporary = std::string(path) + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  ssize_t written;
  do {
    written = write(fd, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  const bool whole = written == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !whole || rename(temporary.c_str(), path) != 0) {
    unlink(temporary.c_str());
    return -1;
  }
  return 0;
}

bool ReadRunStatus(const char* path, RunStatus* status) {
  std::unique_ptr<FILE, FileCloser> file(fopen(path, "re"));
  if (!file) return false;
  std::string text;
  char buffer[4096];
  // The file is small; the cap guards against a stranger at its path.
  for (size_t n; text.size() < kMaxStatusSize && (n = fread(buffer, 1, sizeof buffer, file.get())) > 0;)
    text.append(buffer, n);
  return ParseRunStatus(text, status);
}
