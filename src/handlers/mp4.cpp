// MP4 audio (m4a, aac, m4p) through our own box reader: the first sound
// track gives the audio values, the last video track the picture size, and
// the iTunes tags come before the file-name defaults.
#include <cstdint>
#include <string>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/mp4_reader.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"
#include "platform/text_encoding.h"

namespace {

// The whole tag text goes through the conversion, so a long title is cut at
// a whole UTF-8 character and never taken for Latin-1.
void CopyTag(char* field, size_t bound, const std::string& text) {
  if (!text.empty()) orvo::ToUtf8Field(text.data(), text.size(), false, field, bound);
}

}  // namespace

int ReadMp4Info(const char* path, MediaInfo* info) {
  Mp4Info mp4;
  Mp4Result result = ReadMp4File(path, &mp4);
  if (result == Mp4Result::kNotMp4) {
    ORVO_LOG("%s (%d) Failed to parse music metadata.");
    return -1;
  }
  if (result == Mp4Result::kNoTracks) {
    ORVO_LOG("%s (%d) No tracks in mp4.");
    return -1;
  }
  if (mp4.sound.found) {
    info->channels = mp4.sound.channels < 0 ? 0 : mp4.sound.channels;
    info->duration = static_cast<float>(Mp4TrackSeconds(mp4.sound));
    // The track's time scale stands in for the sample rate.
    info->frequency = static_cast<int32_t>(mp4.sound.time_scale);
    info->bitrate = static_cast<int32_t>(Mp4TrackBitRate(mp4.sound));
  }
  if (mp4.video.found) {
    info->duration = static_cast<float>(Mp4TrackSeconds(mp4.video));
    info->video_bitrate = static_cast<int32_t>(Mp4TrackBitRate(mp4.video));
    info->width = mp4.video.width;
    info->height = mp4.video.height;
  }
  CopyTag(info->title, sizeof info->title, mp4.tags.title);
  CopyTag(info->album, sizeof info->album, mp4.tags.album);
  CopyTag(info->artist, sizeof info->artist, mp4.tags.artist);
  CopyTag(info->genre, sizeof info->genre, mp4.tags.genre);
  CopyTag(info->year, sizeof info->year, mp4.tags.year);
  info->track = mp4.tags.track;
  return 0;
}

int FillMp4Record(const char* path, MediaInfo* info) {
  if (BeginFileRecord(path, info, __FILE_NAME__, __LINE__) != 0) return -1;
  if (ReadMp4Info(info->path, info) < 0) ORVO_LOG("%s (%d) Failed to parse music metadata.");
  MediaInfoValid(info);
  // Defaults only after the tags, and only where they left a field empty.
  SetDefaultTitleAfterTags(info, path);
  if (info->album[0] == '\0' && !SetDefaultAlbum(info, path)) ORVO_LOG("%s (%d) Impossible error.");
  return 0;
}

int IndexMp4(const char* path) {
  MediaInfo info;
  if (FillMp4Record(path, &info) < 0) return -1;
  return SaveMediaRecord(kMediaMusic, info, __FILE_NAME__, __LINE__);
}

int RemoveMp4(const char* path) {
  return RemoveMediaRecord(kMediaMusic, path, __FILE_NAME__, __LINE__);
}
