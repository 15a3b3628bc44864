#include "index/handler_table.h"

#include <strings.h>

#include <cstring>

// Three rows look odd and are meant that way: flac is removed by the generic
// audio remover, mp4 goes to the generic video handlers while m4a, aac and m4p
// go to the MP4 handlers, and dat (VCD video) sits among the video rows.
const MediaHandlerRow kMediaHandlerTable[] = {
    {"mp3", IndexMp3, RemoveMp3},            // 0
    {"mp1", IndexAudio, RemoveAudio},        // 1
    {"mp2", IndexAudio, RemoveAudio},        // 2
    {"mpa", IndexAudio, RemoveAudio},        // 3
    {"wma", IndexAudio, RemoveAudio},        // 4
    {"wav", IndexAudio, RemoveAudio},        // 5
    {"raw", IndexAudio, RemoveAudio},        // 6
    {"ogg", IndexAudio, RemoveAudio},        // 7
    {"m4a", IndexMp4, RemoveMp4},            // 8
    {"aac", IndexMp4, RemoveMp4},            // 9
    {"ac3", IndexAudio, RemoveAudio},        // 10
    {"ram", IndexAudio, RemoveAudio},        // 11
    {"ra", IndexAudio, RemoveAudio},         // 12
    {"m4p", IndexMp4, RemoveMp4},            // 13
    {"flac", IndexFlac, RemoveAudio},        // 14
    {"aiff", IndexAiff, RemoveAiff},         // 15
    {"aif", IndexAiff, RemoveAiff},          // 16
    {"m3u", IndexPlaylist, RemovePlaylist},  // 17
    {"wpl", IndexPlaylist, RemovePlaylist},  // 18
    {"avi", IndexVideo, RemoveVideo},        // 19: first video row
    {"mpg", IndexVideo, RemoveVideo},        // 20
    {"mpeg", IndexVideo, RemoveVideo},       // 21
    {"dat", IndexVcd, RemoveVcd},            // 22
    {"asf", IndexVideo, RemoveVideo},        // 23
    {"wmv", IndexVideo, RemoveVideo},        // 24
    {"vob", IndexVideo, RemoveVideo},        // 25
    {"mov", IndexVideo, RemoveVideo},        // 26
    {"rm", IndexVideo, RemoveVideo},         // 27
    {"rmvb", IndexVideo, RemoveVideo},       // 28
    {"mp4", IndexVideo, RemoveVideo},        // 29
    {"divx", IndexVideo, RemoveVideo},       // 30
    {"xvid", IndexVideo, RemoveVideo},       // 31
    {"flv", IndexVideo, RemoveVideo},        // 32: last video row
    {"jpg", IndexPhoto, RemovePhoto},        // 33
    {"jpeg", IndexPhoto, RemovePhoto},       // 34
    {"jpe", IndexPhoto, RemovePhoto},        // 35
    {"bmp", IndexPhoto, RemovePhoto},        // 36
    {"gif", IndexPhoto, RemovePhoto},        // 37
    {"ico", IndexPhoto, RemovePhoto},        // 38
    {"png", IndexPhoto, RemovePhoto},        // 39
    {"psd", IndexPhoto, RemovePhoto},        // 40
    {"tif", IndexPhoto, RemovePhoto},        // 41
    {"tiff", IndexPhoto, RemovePhoto},       // 42
    {"ufo", IndexPhoto, RemovePhoto},        // 43
    {nullptr, nullptr, nullptr},
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
