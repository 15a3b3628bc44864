#include "platform/failure_record.h"
#include "platform/fd_owner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <unordered_set>
#include <utility>

#include "platform/record_text.h"

namespace {

// A record never grows near this; the cap only bounds what a reader takes
// in from a stranger at the record's path (the newest end is kept).
constexpr off_t kMaxReadSize = 64 << 20;
constexpr size_t kCompactAt = 2 * kFailureRecordKeep;

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// The last `kMaxReadSize` bytes of the file at most, starting at a line.
bool ReadTail(int fd, std::string* text) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  off_t from = st.st_size > kMaxReadSize ? st.st_size - kMaxReadSize : 0;
  text->resize(static_cast<size_t>(st.st_size - from));
  size_t got = 0;
  while (got < text->size()) {
    const ssize_t n = pread(fd, text->data() + got, text->size() - got, from + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  text->resize(got);
  if (from > 0) text->erase(0, std::min(text->size(), text->find('\n') + 1));
  return true;
}

int SyncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  FdOwner dir(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return dir.get() >= 0 && fsync(dir.get()) == 0 ? 0 : -1;
}

int OpenForAppend(const char* path) {
  return open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// The record's folder is the SQLite databases' too, which are made there on
// first use; with both databases on PostgreSQL it may not exist yet.
void MakeFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) mkdir(path.substr(0, slash).c_str(), 0755);
}

// Counts the lines of the open file and cuts a torn last line off.
int CountAndMendLines(int fd, size_t* lines) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  char buffer[65536];
  off_t at = 0;
  off_t lineEnd = 0;  // just past the last newline
  *lines = 0;
  while (at < st.st_size) {
    const ssize_t n = pread(fd, buffer, sizeof buffer, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t i = 0; i < n; ++i) {
      if (buffer[i] == '\n') {
        ++*lines;
        lineEnd = at + i + 1;
      }
    }
    at += n;
  }
  if (lineEnd < st.st_size && ftruncate(fd, lineEnd) != 0) return -1;
  return 0;
}

}  // namespace

void AppendFailureLine(std::string& out, const FailureEntry& entry) {
  char time[24];
  *std::to_chars(time, time + sizeof time - 1, entry.time).ptr = '\0';
  std::string_view reason = entry.reason;
  if (reason.size() > kFailureReasonMax) {
    size_t cut = kFailureReasonMax;
    // Back to the start of a character: never half of one.
    while (cut > 0 && (static_cast<unsigned char>(reason[cut]) & 0xC0) == 0x80) --cut;
    reason = reason.substr(0, cut);
  }
  out.append(time).append("\t");
  orvo::AppendEscapedField(out, entry.path);
  out.append("\t");
  orvo::AppendEscapedField(out, reason);
  out.append("\n");
}

bool ParseFailureLine(std::string_view line, FailureEntry* entry) {
  const size_t first = line.find('\t');
  if (first == std::string_view::npos) return false;
  const size_t second = line.find('\t', first + 1);
  if (second == std::string_view::npos || line.find('\t', second + 1) != std::string_view::npos) return false;
  const std::string_view time = line.substr(0, first);
  if (time.empty() || !std::all_of(time.begin(), time.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return false;
  auto [end, ec] = std::from_chars(time.data(), time.data() + time.size(), entry->time);
  if (ec != std::errc() || end != time.data() + time.size()) return false;
  return orvo::UnescapeField(line.substr(first + 1, second - first - 1), &entry->path) && !entry->path.empty() &&
         orvo::UnescapeField(line.substr(second + 1), &entry->reason);
}

std::vector<FailureEntry> NewestFailures(std::string_view text, size_t limit) {
  std::vector<FailureEntry> newest;
  std::unordered_set<std::string> seen;
  // Whole lines only: what follows the last newline is torn. Each turn
  // steps back one line, so the loop ends at the start of the text.
  size_t end = text.rfind('\n');
  while (end != std::string_view::npos && newest.size() < limit) {
    const size_t previous = end == 0 ? std::string_view::npos : text.rfind('\n', end - 1);
    const size_t from = previous == std::string_view::npos ? 0 : previous + 1;
    FailureEntry entry;
    if (ParseFailureLine(text.substr(from, end - from), &entry) && seen.insert(entry.path).second)
      newest.push_back(std::move(entry));
    end = previous;
  }
  return newest;
}

std::vector<FailureEntry> ReadFailureRecord(const char* path, size_t limit) {
  FdOwner fd(open(path, O_RDONLY | O_CLOEXEC));
  std::string text;
  if (fd.get() < 0 || !ReadTail(fd.get(), &text)) return {};
  return NewestFailures(text, limit);
}

FailureRecord::~FailureRecord() {
  if (fd >= 0) close(fd);
}

int OpenFailureRecord(FailureRecord* record, const char* path) {
  if (record->fd >= 0) close(record->fd);
  record->path = path;
  record->lines = 0;
  record->unsynced = false;
  MakeFolderOf(record->path);
  record->fd = OpenForAppend(path);
  if (record->fd < 0) return -1;
  if (CountAndMendLines(record->fd, &record->lines) != 0) return -1;
  return record->lines >= kCompactAt ? CompactFailureRecord(record) : 0;
}

int AppendFailure(FailureRecord* record, const FailureEntry& entry) {
  if (record->fd < 0) return -1;
  std::string line;
  AppendFailureLine(line, entry);
  const ssize_t n = write(record->fd, line.data(), line.size());
  if (n != static_cast<ssize_t>(line.size())) {
    // A short write (a full disk) would glue the next entry to a torn line.
    // If it cannot be undone, nothing more is appended this time round.
    struct stat st;
    if (n > 0 && (fstat(record->fd, &st) != 0 || ftruncate(record->fd, st.st_size - n) != 0)) {
      close(record->fd);
      record->fd = -1;
    }
    return -1;
  }
  record->unsynced = true;
  return ++record->lines >= kCompactAt ? CompactFailureRecord(record) : 0;
}

int CompactFailureRecord(FailureRecord* record) {
  std::string text;
  if (record->fd < 0 || !ReadTail(record->fd, &text)) return -1;
  const std::vector<FailureEntry> kept = NewestFailures(text, kFailureRecordKeep);
  std::string compacted;
  for (auto it = kept.rbegin(); it != kept.rend(); ++it) AppendFailureLine(compacted, *it);
  const std::string temporary = record->path + ".tmp";
  {
    FdOwner out(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (out.get() < 0 || !WriteAll(out.get(), compacted) || fsync(out.get()) != 0 ||
        rename(temporary.c_str(), record->path.c_str()) != 0) {
      unlink(temporary.c_str());
      return -1;
    }
  }
  SyncFolderOf(record->path);
  close(record->fd);
  record->fd = OpenForAppend(record->path.c_str());
  record->lines = kept.size();
  record->unsynced = false;
  return record->fd >= 0 ? 0 : -1;
}

int SyncFailureRecord(FailureRecord* record) {
  if (record->fd < 0 || !record->unsynced) return 0;
  record->unsynced = false;
  return fdatasync(record->fd);
}
