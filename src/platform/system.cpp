// System services: key/value configuration files, pid files, the product
// banner, file and folder tests, and thumbnail requests.
#include "platform/system.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/fd_owner.h"
#include "platform/log.h"
#include "platform/system_paths.h"

namespace {

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Configuration lines longer than this are skipped whole: no setting of ours
// comes near it, and it keeps a damaged file from costing unbounded memory.
constexpr size_t kMaxConfigLine = 8192;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

// A value in double quotes is what stands between them; text after the
// closing quote is ignored. An unclosed quote runs to the end of the line.
std::string_view Unquote(std::string_view value) {
  if (value.empty() || value.front() != '"') return value;
  value.remove_prefix(1);
  size_t close = value.find('"');
  return close == std::string_view::npos ? value : value.substr(0, close);
}

// Reads one line into `line`; false at end of file. A line longer than the
// buffer is consumed and reported through `tooLong`.
bool ReadConfigLine(FILE* f, char (&line)[kMaxConfigLine], bool& tooLong) {
  if (fgets(line, sizeof line, f) == nullptr) return false;
  tooLong = false;
  size_t n = strlen(line);
  if (n == sizeof line - 1 && line[n - 1] != '\n') {
    tooLong = true;
    int c;
    while ((c = fgetc(f)) != EOF && c != '\n') {
    }
  }
  return true;
}

bool WriteAll(int fd, std::string_view data) {
  // O_APPEND makes one write land whole at the end; a short write on a
  // regular file means the disk is full, and a torn line is worse than none.
  ssize_t n;
  do {
    n = write(fd, data.data(), data.size());
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(data.size());
}

}  // namespace

int QLIBFileGetKeyValue(const char* file, const char* key, char* out, int outSize, int flags) {
  if (file == nullptr || key == nullptr || out == nullptr || outSize <= 0 || flags != 0) return -1;
  FilePtr f(fopen(file, "re"));
  if (!f) return -1;

  std::string_view wanted = key;
  std::string found;
  bool haveValue = false;
  char line[kMaxConfigLine];
  bool tooLong = false;
  while (ReadConfigLine(f.get(), line, tooLong)) {
    if (tooLong) continue;
    std::string_view text = Trim(line);
    if (text.empty() || text.front() == '#') continue;
    size_t eq = text.find('=');
    if (eq == std::string_view::npos) continue;
    if (Trim(text.substr(0, eq)) != wanted) continue;
    found.assign(Unquote(Trim(text.substr(eq + 1))));
    haveValue = true;  // a later line with the same key replaces this one
  }
  if (!haveValue) return -1;

  size_t n = std::min(found.size(), static_cast<size_t>(outSize) - 1);
  memcpy(out, found.data(), n);
  out[n] = '\0';
  return static_cast<int>(n);
}

int QLIBReadPidFile(const char* path) {
  if (path == nullptr) return -1;
  FilePtr f(fopen(path, "re"));
  if (!f) return -1;
  char text[32];
  size_t n = fread(text, 1, sizeof text - 1, f.get());
  text[n] = '\0';

  // Leading blanks, digits, then nothing but blanks: anything else is not a
  // pid file we wrote, and signalling a guessed process would be worse.
  size_t i = 0;
  while (i < n && IsBlank(text[i])) ++i;
  long pid = 0;
  size_t digits = 0;
  for (; i < n && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
    pid = pid * 10 + (text[i] - '0');
    if (pid > 0x7fffffffL) return 0;
  }
  if (digits == 0) return 0;
  for (; i < n; ++i)
    if (!IsBlank(text[i])) return 0;
  // A full buffer means the file may go on past what we read.
  if (n == sizeof text - 1 && fgetc(f.get()) != EOF) return 0;
  return static_cast<int>(pid);
}

void NotifyMusicServer() {
  const int pid = QLIBReadPidFile(kMusicServerPidFile);
  if (pid > 0) kill(pid, SIGHUP);
}

void QLIBCopyright() {
  printf("orvoindexd %s\n", ORVO_VERSION);
  printf("Media and photo indexing daemon for the storage appliance.\n");
  printf("Copyright (C) 2026 the orvoindex developers. All rights reserved.\n");
}

int IsFileExist(const char* path, int64_t* size) { return IsFileExist(path, size, nullptr); }

int IsFileExist(const char* path, int64_t* size, time_t* mtime) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  if (size != nullptr) *size = static_cast<int64_t>(st.st_size);
  if (mtime != nullptr) *mtime = st.st_mtime;
  return 1;
}

int IsDirExist(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return 0;
  return S_ISDIR(st.st_mode) ? 1 : 0;
}

int QLIBSignalThumbCreateAt(const char* queuePath, const char* pidPath, const char* path, int level) {
  if (path == nullptr || path[0] == '\0') return -1;
  // The queue is line-based: a path with a line break in it would be read
  // back as two requests, so it is refused here.
  if (strchr(path, '\n') != nullptr) {
    ORVO_LOG("%s (%d) Bad thumbnail path [%s]", path);
    return -1;
  }
  std::string line = std::to_string(level);
  line += ':';
  line += path;
  line += '\n';

  FdOwner fd(open(queuePath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (fd.get() < 0) {
    ORVO_LOG("%s (%d) Failed to open %s. (%s)", queuePath, strerror(errno));
    return -1;
  }
  if (!WriteAll(fd.get(), line)) {
    ORVO_LOG("%s (%d) Failed to write %s. (%s)", queuePath, strerror(errno));
    return -1;
  }

  // The request stays queued when the service is down; it reads the queue
  // when it starts.
  int pid = QLIBReadPidFile(pidPath);
  if (pid > 0 && kill(pid, 0) == 0) kill(pid, SIGUSR1);
  return 0;
}

int QLIBSignalThumbCreate(const char* path, int level) {
  return QLIBSignalThumbCreateAt(kThumbQueuePath, kThumbPidPath, path, level);
}
