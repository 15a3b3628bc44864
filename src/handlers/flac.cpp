// FLAC files: stream information and Vorbis comments through libFLAC's
// metadata interface. Removal goes through the generic audio remover.
#include <sys/stat.h>

#include <FLAC/metadata.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

namespace {

struct FlacMetadataDeleter {
  void operator()(FLAC__StreamMetadata* block) const { FLAC__metadata_object_delete(block); }
};
using FlacMetadata = std::unique_ptr<FLAC__StreamMetadata, FlacMetadataDeleter>;

// The comment's value when it starts with `key` (which ends in '='), case
// ignored, and holds something after it.
bool ValueOf(std::string_view comment, std::string_view key, std::string_view* value) {
  if (comment.size() <= key.size()) return false;
  if (strncasecmp(comment.data(), key.data(), key.size()) != 0) return false;
  *value = comment.substr(key.size());
  return true;
}

void ApplyComment(MediaInfo* info, std::string_view comment) {
  std::string_view value;
  if (ValueOf(comment, "TITLE=", &value)) {
    CopyField(info->title, sizeof info->title, value);
  } else if (ValueOf(comment, "ARTIST=", &value)) {
    CopyField(info->artist, sizeof info->artist, value);
  } else if (ValueOf(comment, "ALBUM=", &value)) {
    CopyField(info->album, sizeof info->album, value);
  } else if (ValueOf(comment, "DATE=", &value)) {
    CopyField(info->year, sizeof info->year, value);
  } else if (ValueOf(comment, "GENRE=", &value)) {
    CopyField(info->genre, sizeof info->genre, value);
  } else if (ValueOf(comment, "TRACKNUMBER=", &value)) {
    char number[32];
    CopyField(number, sizeof number, value);
    info->track = atoi(number);  // "3/12" is track 3
  }
}

}  // namespace

int ReadFlacInfo(const char* path, MediaInfo* info) {
  if (path == nullptr || path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    ORVO_LOG("%s (%d) Stat file error: %s.", path);
    return -1;
  }
  FLAC__StreamMetadata streaminfo;
  if (!FLAC__metadata_get_streaminfo(path, &streaminfo)) {
    ORVO_LOG("%s (%d) Can't get Flac stream info: %s.", path);
    return -1;
  }
  const FLAC__StreamMetadata_StreamInfo& si = streaminfo.data.stream_info;
  info->channels = static_cast<int32_t>(si.channels);
  info->frequency = static_cast<int32_t>(si.sample_rate);
  info->duration = 0;
  info->bitrate = 0;
  if (si.sample_rate != 0) {
    // Whole seconds in integer arithmetic, and a bit rate over those whole
    // seconds: both as the music table has always held them.
    uint64_t seconds = si.total_samples / si.sample_rate;
    info->duration = static_cast<float>(seconds);
    if (si.total_samples != 0) {
      double rate = static_cast<double>(st.st_size) * 8 / static_cast<double>(seconds);
      // A file under one second divides by zero; a figure that does not fit
      // the field is stored as 0 rather than wrapped.
      info->bitrate = rate >= 0 && rate < 4294967296.0 ? static_cast<int32_t>(static_cast<uint32_t>(rate)) : 0;
    }
  }

  FLAC__StreamMetadata* raw_tags = nullptr;
  if (!FLAC__metadata_get_tags(path, &raw_tags)) {
    ORVO_LOG("%s (%d) Can't get Flac comment tags: %s.", path);
    return -1;
  }
  FlacMetadata tags(raw_tags);
  const FLAC__StreamMetadata_VorbisComment& vc = tags->data.vorbis_comment;
  for (uint32_t i = 0; i < vc.num_comments; ++i) {
    const FLAC__StreamMetadata_VorbisComment_Entry& e = vc.comments[i];
    if (e.entry == nullptr) continue;
    ApplyComment(info, std::string_view(reinterpret_cast<const char*>(e.entry), e.length));
  }
  return 0;
}

int FillFlacRecord(const char* path, MediaInfo* info) {
  if (BeginFileRecord(path, info, __FILE_NAME__, __LINE__) != 0) return -1;
  SetNameDefaults(info, path, __FILE_NAME__, __LINE__);
  if (ReadFlacInfo(path, info) < 0) ORVO_LOG("%s (%d) Failed to parse music metadata.");
  // No MediaInfoValid before the save: deliberate, FLAC rows have always
  // gone in as read.
  return 0;
}

int IndexFlac(const char* path) {
  MediaInfo info;
  if (FillFlacRecord(path, &info) < 0) return -1;
  return SaveMediaRecord(kMediaMusic, info, __FILE_NAME__, __LINE__);
}
