// FLAC files: stream information and Vorbis comments through libFLAC's
// stream decoder, metadata only. Removal goes through the generic audio remover.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/read_advice.h"
#include "platform/system.h"

namespace {

struct FlacMetadataDeleter {
  void operator()(FLAC__StreamMetadata* block) const { FLAC__metadata_object_delete(block); }
};
using FlacMetadata = std::unique_ptr<FLAC__StreamMetadata, FlacMetadataDeleter>;

struct FlacDecoderDeleter {
  void operator()(FLAC__StreamDecoder* decoder) const {
    (void)FLAC__stream_decoder_finish(decoder);  // closes the stream it was given
    FLAC__stream_decoder_delete(decoder);
  }
};
using FlacDecoder = std::unique_ptr<FLAC__StreamDecoder, FlacDecoderDeleter>;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// Where a file's metadata usually ends: STREAMINFO, the comments, a seek
// table and the customary 8 KiB of padding.
constexpr off_t kMetadataReadAhead = 16384;

// What one metadata pass collects: the first block of the type asked for.
struct BlockSearch {
  bool got_error = false;
  FlacMetadata block;
};

FLAC__StreamDecoderWriteStatus IgnoreFrame(const FLAC__StreamDecoder*, const FLAC__Frame*, const FLAC__int32* const[],
                                           void*) {
  return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void KeepBlock(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata, void* data) {
  auto* search = static_cast<BlockSearch*>(data);
  if (search->got_error || search->block) return;
  search->block.reset(FLAC__metadata_object_clone(metadata));
  if (!search->block) search->got_error = true;
}

void NoteError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus status, void* data) {
  if (status != FLAC__STREAM_DECODER_ERROR_STATUS_LOST_SYNC) static_cast<BlockSearch*>(data)->got_error = true;
}

// The first metadata block of `type`, read from the start of `file` through
// a stream of its own on a duplicate of its descriptor; null when the
// metadata cannot be read to its end or holds no such block. The same
// outcome as libFLAC's FLAC__metadata_get_streaminfo and _get_tags, which
// open the file by name each time: this reads through the descriptor the
// handler opened and advised, and the second pass finds its pages cached.
FlacMetadata ReadOneBlock(FILE* file, FLAC__MetadataType type) {
  int fd = fcntl(fileno(file), F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, "rb");
  if (stream == nullptr) {
    close(fd);
    return nullptr;
  }
  if (fseeko(stream, 0, SEEK_SET) != 0) {
    fclose(stream);
    return nullptr;
  }
  FlacDecoder decoder(FLAC__stream_decoder_new());
  if (!decoder) {
    fclose(stream);
    return nullptr;
  }
  FLAC__stream_decoder_set_md5_checking(decoder.get(), false);
  FLAC__stream_decoder_set_metadata_ignore_all(decoder.get());
  FLAC__stream_decoder_set_metadata_respond(decoder.get(), type);
  BlockSearch search;
  // From here the decoder owns the stream, also when its start fails.
  if (FLAC__stream_decoder_init_FILE(decoder.get(), stream, IgnoreFrame, KeepBlock, NoteError, &search) !=
          FLAC__STREAM_DECODER_INIT_STATUS_OK ||
      search.got_error)
    return nullptr;
  if (!FLAC__stream_decoder_process_until_end_of_metadata(decoder.get()) || search.got_error) return nullptr;
  return std::move(search.block);
}

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
  FileHandle file(fopen(path, "rbe"));
  if (file) {
    // The metadata blocks at the head only, asked for at once: libFLAC reads
    // them through stdio in 4 KiB pieces, each of which would otherwise wait
    // for the disk in turn.
    AdviseFewReads(fileno(file.get()));
    AdviseWillRead(fileno(file.get()), 0, kMetadataReadAhead);
  }
  FlacMetadata streaminfo = file ? ReadOneBlock(file.get(), FLAC__METADATA_TYPE_STREAMINFO) : nullptr;
  if (!streaminfo) {
    ORVO_LOG("%s (%d) Can't get Flac stream info: %s.", path);
    return -1;
  }
  const FLAC__StreamMetadata_StreamInfo& si = streaminfo->data.stream_info;
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

  FlacMetadata tags = ReadOneBlock(file.get(), FLAC__METADATA_TYPE_VORBIS_COMMENT);
  if (!tags) {
    ORVO_LOG("%s (%d) Can't get Flac comment tags: %s.", path);
    return -1;
  }
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
