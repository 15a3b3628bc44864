// The media handlers: one index/remove pair per format, bound to file
// extensions by the handler table. Each takes the file's path and returns 0
// on success, negative on failure; the table's users ignore the result.
#pragma once

using MediaHandler = int (*)(const char* path);

int IndexMp3(const char* path);        // music.cpp
int RemoveMp3(const char* path);
int IndexAudio(const char* path);      // media.cpp: generic audio through libavformat
int RemoveAudio(const char* path);     //   (also the remover of flac)
int IndexVideo(const char* path);      // media.cpp: generic video through libavformat
int RemoveVideo(const char* path);
int IndexMp4(const char* path);        // mp4.cpp: m4a, aac, m4p
int RemoveMp4(const char* path);
int IndexFlac(const char* path);       // flac.cpp
int IndexAiff(const char* path);       // aiff.cpp
int RemoveAiff(const char* path);
int IndexPlaylist(const char* path);   // playlist.cpp: m3u, wpl
int RemovePlaylist(const char* path);
int IndexVcd(const char* path);        // video.cpp: VCD .dat through the MPEG video parser
int RemoveVcd(const char* path);
int IndexPhoto(const char* path);      // photo/photo.cpp
int RemovePhoto(const char* path);
