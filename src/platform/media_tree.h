// The media database's rows of one folder tree, as the incremental re-index
// compares them with the files: what each row holds of its file (size and
// modification time), and the removal of single rows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The tables a tree's rows live in: the media types 0 to 3 (music, video,
// photo, playlist), then directory.
inline constexpr int kMediaDirectoryTable = 4;
inline constexpr int kMediaTreeTables = 5;

struct StoredMediaRow {
  std::string path;
  int64_t filesize;  // directory rows: 0
  int64_t mtime;
};

// Appends to *rows the path, filesize and mtime of every row of `table` whose
// path is `folder` or lies below it (exactly the rows MediaInfoDBDelete(5,
// folder) would delete from that table), in one query. A NULL size or time
// reads as -1. Returns the number of rows appended, or -1 (logged).
int MediaTreeLoad(int table, const char* folder, std::vector<StoredMediaRow>* rows);

// Deletes the row of exactly `path` (nothing below it) from `table`, as one
// grouped write. 0 or -1 (logged).
int MediaTreeDeleteRow(int table, const char* path);
