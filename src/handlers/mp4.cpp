// MP4 audio (m4a, aac, m4p) through libavformat's MOV demuxer: the first sound
// track gives the audio values, the last video track the picture size, and
// the iTunes tags come before the file-name defaults.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/metamedia.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

namespace {

// Whole seconds of the track's media duration in its own time scale; an
// unknown duration is 0.
int32_t TrackSeconds(const AVStream* st) {
  if (st->duration == AV_NOPTS_VALUE || st->duration < 0 || st->time_base.den <= 0) return 0;
  return static_cast<int32_t>(st->duration / st->time_base.den);
}

AVFormatContext* OpenMov(const char* path) {
  const AvLibrary* av = LoadAv();
  if (av == nullptr) return nullptr;
  const AVInputFormat* mov = av->findInputFormat("mov");
  AVDictionary* options = nullptr;
  // The track's own media duration is what the record stores, edits aside.
  av->dictSet(&options, "ignore_editlist", "1", 0);
  // Chapter lists are read by walking the whole file; we never use them.
  av->dictSet(&options, "ignore_chapters", "1", 0);
  AVFormatContext* ctx = nullptr;
  int rc = av->openInput(&ctx, path, mov, &options);
  av->dictFree(&options);
  return rc < 0 ? nullptr : ctx;
}

void CopyTag(char* field, size_t bound, const char* text) {
  if (text != nullptr) snprintf(field, bound, "%s", text);
}

}  // namespace

int ReadMp4Info(const char* path, MediaInfo* info) {
  AvInput ctx(OpenMov(path));
  if (!ctx) {
    ORVO_LOG("%s (%d) Failed to parse music metadata.");
    return -1;
  }
  // Cover pictures show up as streams but are no tracks of the file.
  const AVStream* sound = nullptr;
  const AVStream* video = nullptr;
  unsigned tracks = 0;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    if (IsSideStream(st)) continue;
    ++tracks;
    // First sound track, last video track: the asymmetry is deliberate.
    if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && sound == nullptr) sound = st;
    if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) video = st;
  }
  if (tracks == 0) {
    ORVO_LOG("%s (%d) No tracks in mp4.");
    return -1;
  }
  if (sound != nullptr) {
    int channels = sound->codecpar->ch_layout.nb_channels;
    info->channels = channels < 0 ? 0 : channels;
    info->duration = static_cast<float>(TrackSeconds(sound));
    // The track's time scale stands in for the sample rate.
    info->frequency = sound->time_base.den;
    info->bitrate = static_cast<int32_t>(sound->codecpar->bit_rate);
  }
  if (video != nullptr && video->codecpar->width == 0) {
    // The demuxer leaves the size of MPEG-4 Visual, H.263 and H.261 tracks to
    // their decoder; only then is the costly stream analysis worth it.
    LoadAv()->findStreamInfo(ctx.get(), nullptr);
  }
  if (video != nullptr) {
    info->duration = static_cast<float>(TrackSeconds(video));
    info->video_bitrate = static_cast<int32_t>(video->codecpar->bit_rate);
    info->width = video->codecpar->width;
    info->height = video->codecpar->height;
  }
  ContainerTags tags = GetContainerTags(ctx.get());
  CopyTag(info->title, sizeof info->title, tags.title);
  CopyTag(info->album, sizeof info->album, tags.album);
  CopyTag(info->artist, sizeof info->artist, tags.artist);
  CopyTag(info->genre, sizeof info->genre, tags.genre);
  CopyTag(info->year, sizeof info->year, tags.date);
  // "3/12" is track 3; the total is dropped.
  if (tags.track != nullptr) info->track = atoi(tags.track);
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
