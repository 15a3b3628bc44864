// Generic audio and video handlers: every type without a reader of its own
// is probed through libavformat. The audio remover also removes flac rows,
// which decides the media type a FLAC row is deleted under.
#include <cstdint>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/metamedia.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

int FillMediaRecord(const char* path, int type, MediaInfo* info) {
  if (BeginFileRecord(path, info, __FILE_NAME__, __LINE__) != 0) return -1;
  SetNameDefaults(info, path, __FILE_NAME__, __LINE__);

  // A file the library cannot read is still saved with its name and folder.
  if (ReadMediaInfo(path, info) < 0) {
    if (type == kMediaVideo) {
      ORVO_LOG("%s (%d) Failed to parse music metadata.");  // "music" as it always read
    } else {
      ORVO_LOG("%s (%d) Failed to parse music metadata from file [%s].", path);
    }
  }
  MediaInfoValid(info);
  return 0;
}

namespace {

int IndexMedia(const char* path, int type) {
  MediaInfo info;
  if (FillMediaRecord(path, type, &info) < 0) return -1;
  return SaveMediaRecord(type, info, __FILE_NAME__, __LINE__);
}

}  // namespace

int IndexAudio(const char* path) { return IndexMedia(path, kMediaMusic); }
int RemoveAudio(const char* path) { return RemoveMediaRecord(kMediaMusic, path, __FILE_NAME__, __LINE__); }
int IndexVideo(const char* path) { return IndexMedia(path, kMediaVideo); }
int RemoveVideo(const char* path) { return RemoveMediaRecord(kMediaVideo, path, __FILE_NAME__, __LINE__); }
