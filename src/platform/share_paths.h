// The appliance's share layout as the index and the photo code both see it:
// the links to the share folders, which paths belong to the photo share, and
// which lie in a share's recycle bin.
#pragma once

inline constexpr const char kMusicShareLink[] = "/var/services/music";
inline constexpr const char kVideoShareLink[] = "/var/services/video";
inline constexpr const char kPhotoShareLink[] = "/var/services/photo";

// 1 when the path is /volumeN/photo (N one character) or below it, else 0.
int IsPhotoSharePath(const char* path);

// 1 when the path is a share's #recycle folder or below it, else 0.
int IsInRecycleBin(const char* path);
