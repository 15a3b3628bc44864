// AIFF and AIFC files: the audio format from the COMM chunk, no tags; title
// and album always come from the file name and folder.
#include <cstdint>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/aiff_reader.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

namespace {

// A figure that does not fit its field (a damaged rate of 1e4000 Hz, say) is
// stored as 0 rather than left to an undefined conversion.
int32_t ToInt32(double v) {
  return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int32_t>(v) : 0;
}
int32_t ToUint32Bits(double v) {
  return v > -1.0 && v < 4294967296.0 ? static_cast<int32_t>(static_cast<uint32_t>(v)) : 0;
}

void ApplyFormat(MediaInfo* info, const AiffFormat& fmt) {
  info->channels = fmt.channels;
  info->duration = fmt.sample_rate > 0 ? static_cast<float>(static_cast<double>(fmt.sample_frames) / fmt.sample_rate) : 0.0f;
  info->bitrate = ToUint32Bits(static_cast<double>(fmt.bits_per_sample) * fmt.sample_rate * fmt.channels);
  info->frequency = ToInt32(fmt.sample_rate);
}

}  // namespace

int FillAiffRecord(const char* path, MediaInfo* info) {
  if (BeginFileRecord(path, info, __FILE_NAME__, __LINE__) != 0) return -1;
  // An unreadable header is not reported: the file is saved with zero audio
  // values and its name.
  AiffHandle aiff = AiffOpen(path, "rb");
  AiffFormat fmt;
  if (aiff && AiffGetFormat(aiff.get(), &fmt) == 1) ApplyFormat(info, fmt);
  aiff.reset();
  MediaInfoValid(info);
  SetDefaultTitleAfterTags(info, path);
  if (info->album[0] == '\0' && !SetDefaultAlbum(info, path)) ORVO_LOG("%s (%d) Impossible error.");
  return 0;
}

int IndexAiff(const char* path) {
  MediaInfo info;
  if (FillAiffRecord(path, &info) < 0) return -1;
  return SaveMediaRecord(kMediaMusic, info, __FILE_NAME__, __LINE__);
}

int RemoveAiff(const char* path) {
  return RemoveMediaRecord(kMediaMusic, path, __FILE_NAME__, __LINE__);
}
