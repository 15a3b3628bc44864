#include "index/handler_table.h"

#include <strings.h>

#include <cstring>

// The read spans are what each reader's first reads cover: the MP3 head
// with its VBR header range and the ID3v1 tail, libavformat's first buffer,
// the MP4 and FLAC head, the picture's first 4 KiB window.
// Three rows look odd and are meant that way: flac is removed by the generic
// audio remover, mp4 goes to the generic video handlers while m4a, aac and m4p
// go to the MP4 handlers, and dat (VCD video) sits among the video rows.
const MediaHandlerRow kMediaHandlerTable[] = {
    {"mp3", IndexMp3, RemoveMp3, 24, 4},       // 0
    {"mp1", IndexAudio, RemoveAudio, 32, 0},   // 1
    {"mp2", IndexAudio, RemoveAudio, 32, 0},   // 2
    {"mpa", IndexAudio, RemoveAudio, 32, 0},   // 3
    {"wma", IndexAudio, RemoveAudio, 32, 0},   // 4
    {"wav", IndexAudio, RemoveAudio, 32, 0},   // 5
    {"raw", IndexAudio, RemoveAudio, 32, 0},   // 6
    {"ogg", IndexAudio, RemoveAudio, 32, 0},   // 7
    {"m4a", IndexMp4, RemoveMp4, 16, 0},       // 8
    {"aac", IndexMp4, RemoveMp4, 16, 0},       // 9
    {"ac3", IndexAudio, RemoveAudio, 32, 0},   // 10
    {"ram", IndexAudio, RemoveAudio, 32, 0},   // 11
    {"ra", IndexAudio, RemoveAudio, 32, 0},    // 12
    {"m4p", IndexMp4, RemoveMp4, 16, 0},       // 13
    {"flac", IndexFlac, RemoveAudio, 16, 0},   // 14
    {"aiff", IndexAiff, RemoveAiff, 4, 0},     // 15
    {"aif", IndexAiff, RemoveAiff, 4, 0},      // 16
    {"m3u", IndexPlaylist, RemovePlaylist, 0, 0}, // 17
    {"wpl", IndexPlaylist, RemovePlaylist, 0, 0}, // 18
    {"avi", IndexVideo, RemoveVideo, 32, 0},   // 19: first video row
    {"mpg", IndexVideo, RemoveVideo, 32, 0},   // 20
    {"mpeg", IndexVideo, RemoveVideo, 32, 0},  // 21
    {"dat", IndexVcd, RemoveVcd, 16, 0},       // 22
    {"asf", IndexVideo, RemoveVideo, 32, 0},   // 23
    {"wmv", IndexVideo, RemoveVideo, 32, 0},   // 24
    {"vob", IndexVideo, RemoveVideo, 32, 0},   // 25
    {"mov", IndexVideo, RemoveVideo, 32, 0},   // 26
    {"rm", IndexVideo, RemoveVideo, 32, 0},    // 27
    {"rmvb", IndexVideo, RemoveVideo, 32, 0},  // 28
    {"mp4", IndexVideo, RemoveVideo, 32, 0},   // 29
    {"divx", IndexVideo, RemoveVideo, 32, 0},  // 30
    {"xvid", IndexVideo, RemoveVideo, 32, 0},  // 31
    {"flv", IndexVideo, RemoveVideo, 32, 0},   // 32: last video row
    {"jpg", IndexPhoto, RemovePhoto, 4, 0},    // 33
    {"jpeg", IndexPhoto, RemovePhoto, 4, 0},   // 34
    {"jpe", IndexPhoto, RemovePhoto, 4, 0},    // 35
    {"bmp", IndexPhoto, RemovePhoto, 4, 0},    // 36
    {"gif", IndexPhoto, RemovePhoto, 4, 0},    // 37
    {"ico", IndexPhoto, RemovePhoto, 4, 0},    // 38
    {"png", IndexPhoto, RemovePhoto, 4, 0},    // 39
    {"psd", IndexPhoto, RemovePhoto, 4, 0},    // 40
    {"tif", IndexPhoto, RemovePhoto, 4, 0},    // 41
    {"tiff", IndexPhoto, RemovePhoto, 4, 0},   // 42
    {"ufo", IndexPhoto, RemovePhoto, 4, 0},    // 43
    {nullptr, nullptr, nullptr, 0, 0},
};

namespace {
constexpr int kFirstVideoRow = 19;
constexpr int kVideoRowCount = 14;
}  // namespace

const char* PathExtension(const char* path) {
  if (path == nullptr) return nullptr;
  // The whole path, on purpose: "/a.mp3/file" yields "mp3/file", which then
  // matches nothing. Kept simple; nothing relies on folder names here.
  const char* dot = strrchr(path, '.');
  return dot == nullptr ? nullptr : dot + 1;
}

const MediaHandlerRow* FindMediaHandler(const char* path) {
  const char* extension = PathExtension(path);
  if (extension == nullptr) return nullptr;
  for (const MediaHandlerRow* row = kMediaHandlerTable; row->extension != nullptr; ++row) {
    if (strcasecmp(extension, row->extension) == 0) return row;
  }
  return nullptr;
}

int IsVideoExtension(const char* path) {
  const char* extension = PathExtension(path);
  if (extension == nullptr) return 0;
  for (int i = kFirstVideoRow; i < kFirstVideoRow + kVideoRowCount; ++i) {
    const MediaHandlerRow& row = kMediaHandlerTable[i];
    if (row.extension == nullptr) break;
    if (strcasecmp(extension, row.extension) == 0) return 1;
  }
  return 0;
}
