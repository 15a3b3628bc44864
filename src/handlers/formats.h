// The record fillers and readers behind the MP4, FLAC and AIFF handlers, for
// the handlers themselves, the tests and the benchmark. Each fills a record
// without saving it.
#pragma once

#include "platform/media_info.h"

// MP4 reader: tracks and iTunes tags of an MP4 file into the record. 0, or -1
// when the file cannot be opened as MP4 or has no tracks (both logged).
int ReadMp4Info(const char* path, MediaInfo* info);

// Zeroes and fills the record completely (path, size, tracks, tags, mtime,
// and the title/album defaults where the tags left them empty). 0, or -1 for
// a bad parameter or a missing file.
int FillMp4Record(const char* path, MediaInfo* info);

// FLAC reader: stream information and Vorbis comments into the record. 0, or
// -1 (logged) when the file or its metadata cannot be read; what was read
// before the failure stays.
int ReadFlacInfo(const char* path, MediaInfo* info);

// What IndexFlac saves, without saving it: 0, or -1 for a bad parameter or a
// missing file.
int FillFlacRecord(const char* path, MediaInfo* info);

// Zeroes and fills the record from the AIFF header, then the defaults. 0, or
// -1 for a bad parameter or a missing file; an unreadable header only leaves
// the audio fields at 0.
int FillAiffRecord(const char* path, MediaInfo* info);

// What the generic audio (type 0) and video (type 1) indexers save: 0, or
// -1 for a bad parameter or a missing file. A probe failure is logged and
// the record keeps its defaults.
int FillMediaRecord(const char* path, int type, MediaInfo* info);

// What the VCD indexer saves; the same contract.
int FillVcdRecord(const char* path, MediaInfo* info);

// What the playlist indexer saves: path, size, title and album only.
int FillPlaylistRecord(const char* path, MediaInfo* info);
