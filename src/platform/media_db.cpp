// Placeholder until the media database lands.
#include "platform/media_db.h"

int MediaInfoValid(MediaInfo*) { return 0; }
int MediaInfoDBSave(int, const MediaInfo*) { return -1; }
int MediaInfoDBDelete(int, const char*) { return -1; }
int MediaInfoDBDirSave(const char*) { return -1; }
int MediaDBVacuum() { return -1; }
int ORVOTruncateTable(const char*) { return -1; }
time_t ORVOIndexModifyTimeGet(const char*) { return 0; }
