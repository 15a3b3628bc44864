// The incremental re-index of the shares, chosen with the line
// "reindex=incremental" in /etc/orvoindex.conf. Instead of emptying a share
// and reading every file again, it compares the share with its rows: a file
// whose size and modification time equal its row's is left alone unread, new
// and changed files go to their handlers (an upsert keeps the row's id), and
// rows whose file or folder is gone are removed once the walk is over. The
// share is never emptied, so the library stays whole during the run.
#pragma once

#include "index/handler_table.h"

inline constexpr const char kReindexConfigFile[] = "/etc/orvoindex.conf";

// True when `confFile` holds reindex=incremental (any case). Read at every
// R: line, so the switch needs no restart.
bool IncrementalReindexWanted(const char* confFile = kReindexConfigFile);

// The incremental form of IndexFolder's share re-index: the music share, and
// when `allShares` the video and photo shares too, into the media database.
// A share whose link cannot be read, or whose folder is missing or cannot be
// opened, is left as it is.
void ReindexSharesIncrementally(bool allShares);

// Brings the media rows at or below `folder` in step with the tree there.
void ReindexTreeIncrementally(const char* folder);

// The media table (kMediaMusic .. kMediaPlaylist) the row's index handler
// saves into, or -1 for a handler this module does not know.
int MediaTypeOfHandler(const MediaHandlerRow* row);
