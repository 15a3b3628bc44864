// The MP4 box reader on arbitrary bytes, from memory: the audio reader and
// the movie tables of the video path with the values worked out of them.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "meta/mp4_reader.h"
#include "meta/mp4_video.h"
#include "platform/text_encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Mp4Movie movie;
  Mp4Values values;
  if (ReadMp4MovieMemory(data, size, &movie) == Mp4Result::kOk &&
      WorkOutMp4Values(movie, static_cast<int64_t>(size), &values)) {
    volatile int64_t sum = values.duration + values.bit_rate + values.width + values.sound_bit_rate;
    (void)sum;
  }
  Mp4Info info;
  if (ReadMp4Memory(data, size, &info) != Mp4Result::kOk) return 0;
  // The conversions the record filler makes must stay defined.
  volatile int64_t values_read = Mp4TrackSeconds(info.sound) + Mp4TrackBitRate(info.sound) +
                                 Mp4TrackSeconds(info.video) + Mp4TrackBitRate(info.video) + info.sound.channels +
                                 info.video.width;
  (void)values_read;
  char field[255];
  for (const std::string* text : {&info.tags.title, &info.tags.album, &info.tags.artist, &info.tags.genre,
                                  &info.tags.year}) {
    orvo::ToUtf8Field(text->data(), text->size(), false, field, sizeof field);
  }
  return 0;
}
