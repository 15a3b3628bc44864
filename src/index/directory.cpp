#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"
#include "index/index.h"

int SaveDirectoryInfo(const char* path) {
  if (path == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (!IsDirExist(path)) return -1;
  if (MediaInfoDBDirSave(path) != 0) {
    ORVO_LOG("%s (%d) Failed to save directory info to database.");
    return -1;
  }
  return 0;
}
