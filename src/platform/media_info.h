// MediaInfo: the media record of one file, as the media database library
// takes it. Every media handler zeroes one, fills it and hands it to
// MediaInfoDBSave. The layout is the library's record format and must not
// change: offsets and sizes are checked below (native byte order).
#pragma once

#include <cstddef>
#include <cstdint>

// First argument of MediaInfoDBSave and MediaInfoDBDelete.
enum MediaType : int {
  kMediaMusic = 0,
  kMediaVideo = 1,
  kMediaPhoto = 2,
  kMediaPlaylist = 3,
  kMediaTree = 5,  // MediaInfoDBDelete only: a folder and everything below it
};

struct MediaInfo {
  int32_t reserved0;        // never written
  char path[4096];          // full path of the file
  int32_t track;            // 0 = unknown
  char title[255];
  char album[255];
  char artist[255];
  char year[16];
  char genre[255];
  char camera_make[100];    // photos only
  char camera_model[100];   // photos only
  char exposure_time[20];   // photos only
  char aperture[20];        // photos only
  float duration;           // seconds, 0 = unknown
  int32_t bitrate;          // audio, bits per second
  int32_t video_bitrate;    // whole stream or video track, bits per second
  int32_t frequency;        // audio sample rate, Hz
  int32_t channels;         // channel count; MP3: the MPEG channel-mode code
  int32_t width;
  int32_t height;
  int64_t filesize;         // bytes, as IsFileExist reports it
  int32_t reserved1;        // never written
  int32_t title_is_utf16;   // non-zero: the field holds UTF-16 with its BOM
  int32_t artist_is_utf16;
  int32_t album_is_utf16;
  int32_t year_is_utf16;
  int32_t genre_is_utf16;
  int32_t iso_speed;        // photos only
  int32_t mtime;            // modification time (photos: EXIF capture time)
};

static_assert(sizeof(MediaInfo) == 5448);
static_assert(offsetof(MediaInfo, path) == 4);
static_assert(offsetof(MediaInfo, track) == 4100);
static_assert(offsetof(MediaInfo, title) == 4104);
static_assert(offsetof(MediaInfo, album) == 4359);
static_assert(offsetof(MediaInfo, artist) == 4614);
static_assert(offsetof(MediaInfo, year) == 4869);
static_assert(offsetof(MediaInfo, genre) == 4885);
static_assert(offsetof(MediaInfo, camera_make) == 5140);
static_assert(offsetof(MediaInfo, camera_model) == 5240);
static_assert(offsetof(MediaInfo, exposure_time) == 5340);
static_assert(offsetof(MediaInfo, aperture) == 5360);
static_assert(offsetof(MediaInfo, duration) == 5380);
static_assert(offsetof(MediaInfo, bitrate) == 5384);
static_assert(offsetof(MediaInfo, video_bitrate) == 5388);
static_assert(offsetof(MediaInfo, frequency) == 5392);
static_assert(offsetof(MediaInfo, channels) == 5396);
static_assert(offsetof(MediaInfo, width) == 5400);
static_assert(offsetof(MediaInfo, height) == 5404);
static_assert(offsetof(MediaInfo, filesize) == 5408);
static_assert(offsetof(MediaInfo, reserved1) == 5416);
static_assert(offsetof(MediaInfo, title_is_utf16) == 5420);
static_assert(offsetof(MediaInfo, artist_is_utf16) == 5424);
static_assert(offsetof(MediaInfo, album_is_utf16) == 5428);
static_assert(offsetof(MediaInfo, year_is_utf16) == 5432);
static_assert(offsetof(MediaInfo, genre_is_utf16) == 5436);
static_assert(offsetof(MediaInfo, iso_speed) == 5440);
static_assert(offsetof(MediaInfo, mtime) == 5444);
