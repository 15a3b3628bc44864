// The record of files the daemon could not index or save, kept beside its
// databases so that it survives a restart. One line per failure, appended
// with a single write():
//
//   <time>\t<path>\t<reason>\n
//
// time in seconds since 1970, the file's path, and the message the daemon
// logged for it (as in syslog, "module.cpp (line) " prefix included), both
// texts escaped as record_text.h says. A line that does not parse, such as
// the last one torn by a power cut, is not an entry. Once the file holds
// 2 * kFailureRecordKeep lines it is rewritten (beside it, synced, renamed
// over it) with the newest kFailureRecordKeep entries, each path once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

inline constexpr const char kFailureRecordPath[] = "/var/lib/orvoindex/failures";
inline constexpr size_t kFailureRecordKeep = 1000;
// A longer reason is cut (between whole UTF-8 characters) to this many bytes.
inline constexpr size_t kFailureReasonMax = 1024;

struct FailureEntry {
  int64_t time = 0;
  std::string path;
  std::string reason;
};

// Appends the entry's line, newline included, to `out`.
void AppendFailureLine(std::string& out, const FailureEntry& entry);

// One line without its newline. False when it is not an entry.
bool ParseFailureLine(std::string_view line, FailureEntry* entry);

// The entries of a record's text, newest (last written) first, each path
// once with its newest failure, at most `limit`. A last line without its
// newline is torn and left out.
std::vector<FailureEntry> NewestFailures(std::string_view text, size_t limit);

// NewestFailures of the file at `path`; empty when it is missing.
std::vector<FailureEntry> ReadFailureRecord(const char* path, size_t limit = kFailureRecordKeep);

// The daemon's open record. Owns its descriptor.
struct FailureRecord {
  FailureRecord() = default;
  ~FailureRecord();
  FailureRecord(const FailureRecord&) = delete;
  FailureRecord& operator=(const FailureRecord&) = delete;

  int fd = -1;
  std::string path;
  size_t lines = 0;       // lines in the file, entries or not
  bool unsynced = false;  // appended since the last sync
};

// Opens (or creates) the record at `path` for appending. A torn last line is
// cut off first, so the next entry starts a line of its own; a file past
// the bound is compacted. 0, or -1 (then appends fail and nothing else).
int OpenFailureRecord(FailureRecord* record, const char* path);

// Appends one entry with a single write() (the reason cut to
// kFailureReasonMax), compacting the file when it reaches the bound.
int AppendFailure(FailureRecord* record, const FailureEntry& entry);

// Rewrites the file with its NewestFailures, oldest first.
int CompactFailureRecord(FailureRecord* record);

// fdatasync() when something was appended since the last sync.
int SyncFailureRecord(FailureRecord* record);
