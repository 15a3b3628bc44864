// VCD video files (.dat): the generic video pattern with the MPEG video
// stream parser in place of the library probe.
#include <cstdint>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/metavideo.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

int FillVcdRecord(const char* path, MediaInfo* info) {
  if (BeginFileRecord(path, info, __FILE_NAME__, __LINE__) != 0) return -1;
  SetNameDefaults(info, path, __FILE_NAME__, __LINE__);
  if (ParseMpegVideoFile(path, info) < 0) {
    ORVO_LOG("%s (%d) Failed to parse music metadata.");  // "music" as it always read
  }
  MediaInfoValid(info);
  return 0;
}

int IndexVcd(const char* path) {
  MediaInfo info;
  if (FillVcdRecord(path, &info) < 0) return -1;
  return SaveMediaRecord(kMediaVideo, info, __FILE_NAME__, __LINE__);
}

int RemoveVcd(const char* path) {
  return RemoveMediaRecord(kMediaVideo, path, __FILE_NAME__, __LINE__);
}
